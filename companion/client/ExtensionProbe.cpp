#include "companion/client/ExtensionProbe.h"

#include <memory>

#include "companion/client/CallTimeout.h"

namespace orvane {

ExtensionProbe probe_extension(const ClientOptions& options, std::chrono::milliseconds patience) {
  ExtensionProbe answer;
  std::unique_ptr<Client> client;
  CallTimeout limit(patience);  // ends before the connection does
  try {
    client = connect_client(options);
    limit.watch(client->descriptor());
    answer.answers = client->ping();
    answer.changes = client->changesCount();
    if (!answer.answers) answer.error = "the extension answered no: restart it";
  } catch (const UnresponsiveExtension& error) {
    answer.isUnresponsive = true;
    answer.error = error.what();
  } catch (const NoExtension& error) {
    answer.isAbsent = true;
    answer.error = error.what();
  } catch (const ClientError& error) {
    answer.answers = false;
    answer.isUnresponsive = client && limit.passed();
    answer.error = answer.isUnresponsive ? "the extension hangs, or serves too many clients: restart it" : error.what();
  }
  return answer;
}

}  // namespace orvane
