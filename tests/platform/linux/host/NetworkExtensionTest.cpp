#include <gtest/gtest.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "platform/Bundle.h"
#include "platform/Dispatch.h"
#include "platform/linux/base/FileURL.h"
#include "platform/linux/flow/ScriptedProvider.h"
#include "support/Sockets.h"
#include "support/TemporaryFolder.h"

namespace orvane {

Value networkExtension;  // the value of the key NetworkExtension in the bundle's Info.plist
std::optional<std::string> browserList = "file:///nonexistent";  // the URL of Browsers.plist
bool hangsAtStop = false;

Bundle* bundle_get_main() { return nullptr; }
Value bundle_get_information(const Bundle*, std::string_view key) {
  return key == "NetworkExtension" ? networkExtension : Value();
}

std::optional<std::string> bundle_copy_resource_url(const Bundle*, std::string_view, std::string_view) {
  return browserList;
}

namespace {

class Provider final : public ScriptedProvider {
 public:
  static Ref<NEFilterDataProvider> create() { return Ref<NEFilterDataProvider>::adopt(new Provider); }

  void startFilterWithCompletionHandler(ErrorHandler completionHandler) override {
    sd_notify(0, "start");
    applySettings(NEFilterSettings::initWithRules({}, NEFilterAction::Allow), std::move(completionHandler));
  }
  void stopFilterWithReason(NEProviderStopReason, const std::function<void()>& completionHandler) override {
    sd_notify(0, "stop");
    while (hangsAtStop) pause();
    completionHandler();
  }
};

// Runs an extension in a child process until it is ready, then sends it SIGTERM. Returns the messages that the service
// manager received, which include "start" and "stop" from Provider, and the exit code.
std::string run_extension(const Value& source, const Value& port, const char* key = "OrvaneHTTP3",
                          const Value& value = nullptr) {
  Value classes =
      Value::dictionary({{Value::string("com.apple.networkextension.filter-data"), Value::string("Filter")}});
  networkExtension = Value::dictionary({{Value::string("NEProviderClasses"), classes},
                                        {Value::string("OrvaneFlowSource"), source},
                                        {Value::string("OrvaneProxyPort"), port},
                                        {Value::string(key), value}});
  Peer manager(Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  TemporaryFolder folder;
  sockaddr_un address{AF_UNIX, {}};
  std::string path = folder.path() / "notify";
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(bind(manager.socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  pid_t extension = fork();
  if (extension == 0) {
    NEFilterProvider::registerProviderClass("Filter", Provider::create);
    NEFilterProvider::startSystemExtensionMode();
    dispatch_main();
  }
  std::string messages;
  timeval patience{200, 0};
  setsockopt(manager.socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  char text[512];
  for (ssize_t count = 0;
       !messages.ends_with("stop; ") && (count = recv(manager.socket.get(), text, sizeof text, 0)) > 0;) {
    messages.append(text, static_cast<size_t>(count)).append("; ");
    if (text[0] == 'R') kill(extension, SIGTERM);  // READY
  }
  int status = 0;
  waitpid(extension, &status, 0);
  return messages + (WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status)) : "killed");
}

TEST(ProviderHost, ReportsItsStartToTheServiceManager) {
  const Descriptor occupied = listen_on_loopback();
  const std::tuple<const char*, Value, Value, std::string> kCases[] = {
      {"proxy", Value::string("proxy"), Value::number(0), "Filtering"},
      {"port out of range", Value::string("proxy"), Value::number(65536), "65536"},
      {"port in use", Value::string("proxy"), Value::number(port_of(occupied)), "Address already in use"},
  };
  for (const auto& [what, source, port, status] : kCases) {
    SCOPED_TRACE(what);
    std::string messages = run_extension(source, port);
    EXPECT_TRUE(messages.starts_with("start; READY=1\nSTATUS=")) << messages;
    EXPECT_NE(messages.find(status), std::string::npos) << messages;
    EXPECT_TRUE(messages.ends_with("; STOPPING=1; stop; exit 0")) << messages;
  }
}

TEST(ProviderHost, ReportsAFaultyBrowserListToTheServiceManager) {
  TemporaryFolder folder;
  const std::pair<std::optional<std::string>, std::string> kCases[] = {
      {std::nullopt,
       "Filtering nothing: no browser is recognised: the bundle has no Browsers.plist: see orvanectl doctor;"},
      {file_url_of_path(folder.write("bad", "firefox").string()), "bad is not a property list with an array;"},
      {file_url_of_path(
           folder.write("good", "<plist version=\"1.0\"><array><string>a</string></array></plist>").string()),
       "STATUS=Filtering;"},
  };
  for (const auto& [list, status] : kCases) {
    browserList = list;
    const std::string messages = run_extension(Value::string("proxy"), Value::number(0));
    EXPECT_NE(messages.find(status), std::string::npos) << messages;
  }
}

TEST(ProviderHost, RejectsUnknownSettings) {
  for (const char* key : {"OrvaneFlowSource", "OrvaneHTTP3", "OrvaneOpenConnections", "OrvaneRecordDrops"}) {
    const bool isSource = std::string_view(key) == "OrvaneFlowSource";
    const std::string messages =
        run_extension(Value::string(isSource ? "typo" : "netfilter"), nullptr, key, Value::string("typo"));
    EXPECT_TRUE(messages.starts_with("start; STATUS=Filter not started: ")) << messages;
    EXPECT_NE(messages.find(key + std::string(" is typo, neither ")), std::string::npos) << messages;
    EXPECT_TRUE(messages.ends_with("; stop; exit 1")) << messages;
  }
}

TEST(ProviderHost, EndsWhileItsProviderHangs) {
  hangsAtStop = true;
  const std::string messages = run_extension(Value::string("proxy"), Value::number(0));
  EXPECT_TRUE(messages.ends_with("; stop; exit 0")) << messages;
}

}  // namespace
}  // namespace orvane
