#include "companion/client/ExtensionProbe.h"

#include <memory>

#include "companion/client/CallTimeout.h"

namespace orvane {

ExtensionProbe probe_extension(const ClientOptions& options, std::chrono::milliseconds timeout) {
  ExtensionProbe probe;
  std::unique_ptr<Client> client;
  CallTimeout limit(timeout);  // declared after `client`, whose descriptor must outlive `limit`
  try {
    client = connect_client(options);
    limit.watch(client->descriptor());
    probe.answers = client->ping();
    probe.changes = client->changesCount();
    if (!probe.answers) probe.error = "the extension answered no: restart it";
  } catch (const UnresponsiveExtension& error) {
    probe.isUnresponsive = true;
    probe.error = error.what();
  } catch (const NoExtension& error) {
    probe.isAbsent = true;
    probe.error = error.what();
  } catch (const ClientError& error) {
    probe.answers = false;
    probe.isUnresponsive = client && limit.hasExpired();
    probe.error = probe.isUnresponsive ? "the extension hangs, or serves too many clients: restart it" : error.what();
  }
  return probe;
}

}  // namespace orvane
