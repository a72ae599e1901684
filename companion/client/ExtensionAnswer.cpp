#include "companion/client/ExtensionAnswer.h"

#include <memory>

#include "companion/client/CallLimit.h"

namespace orvane {

ExtensionAnswer ask_extension(const ClientOptions& options, std::chrono::milliseconds patience) {
  ExtensionAnswer answer;
  std::unique_ptr<Client> client;
  CallLimit limit(patience);  // ends before the connection does
  try {
    client = connect_client(options);
    limit.watch(client->descriptor());
    answer.answers = client->ping();
    answer.changes = client->changesCount();
    if (!answer.answers) answer.error = "the extension answered no: restart it";
  } catch (const SilentExtension& error) {
    answer.isSilent = true;
    answer.error = error.what();
  } catch (const NoExtension& error) {
    answer.isAbsent = true;
    answer.error = error.what();
  } catch (const ClientError& error) {
    answer.answers = false;
    answer.isSilent = client && limit.passed();
    answer.error = answer.isSilent ? "the extension hangs, or serves too many clients: restart it" : error.what();
  }
  return answer;
}

}  // namespace orvane
