#include "database/Database.h"
#include "filter/FilterDataProvider.h"
#include "platform/linux/proxy/Proxy.h"
#include "platform/linux/sockets/ConnectionOwner.h"
#include "support/Sockets.h"
#include "support/VerdictCases.h"

namespace orvane {

// A browser owns all sockets.
Value audit_token_of_socket_owner(const sockaddr*, const sockaddr*) { return stand_in::token_of(kCaseBrowser); }
std::optional<uid_t> user_of_socket(const sockaddr*, const sockaddr*) { return 1; }

namespace {

class ProxyVerdictCasesTest : public DatabaseTest {};

TEST_F(ProxyVerdictCasesTest, RecogniseANameInARequestInAnySpelling) {
  db_browser_add(text("browser"));
  stand_in::security.identifiers = {{kCaseBrowser, "org.browser"}};
  Proxy proxy(0);
  const auto settings = NEFilterSettings::initWithRules({}, NEFilterAction::FilterData);
  ASSERT_EQ(proxy.start(FilterDataProvider::init(), settings), std::nullopt);
  for (const NamedCase& each : kNamedCases) {
    db_hostname_set(Value::set({text(each.list)}));
    const std::string server = std::string(each.host) + ":1";  // no server listens there
    for (const std::string& request : {"CONNECT " + server, "GET http://" + server + "/a?B"}) {
      Peer peer(proxy.port());
      peer.send(request + " HTTP/1.1\r\n\r\n");
      EXPECT_EQ(peer.read("\r\n\r\n").substr(9, 3), each.drops ? "403" : "502") << request << ", list " << each.list;
    }
  }
}

}  // namespace
}  // namespace orvane
