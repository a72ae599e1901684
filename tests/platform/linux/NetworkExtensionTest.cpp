#include <gtest/gtest.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>

#include <csignal>

#include "platform/Bundle.h"
#include "platform/Dispatch.h"
#include "platform/linux/ScriptedProvider.h"
#include "platform/linux/SocketOwner.h"
#include "platform/linux/Sockets.h"

namespace orvane {

Value networkExtension;  // of the bundle's information dictionary

Bundle* bundle_get_main() { return nullptr; }
Value bundle_get_information(const Bundle*, std::string_view key) {
  return key == "NetworkExtension" ? networkExtension : Value();
}
Value audit_token_of_socket_owner(const sockaddr*, const sockaddr*) { return nullptr; }

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
    completionHandler();
  }
};

// Runs an extension's process until it is ready, and ends it. What a service manager sees of that.
std::string life_of_extension(const Value& source, const Value& port) {
  Value classes =
      Value::dictionary({{Value::string("com.apple.networkextension.filter-data"), Value::string("Filter")}});
  networkExtension = Value::dictionary({{Value::string("NEProviderClasses"), classes},
                                        {Value::string("OrvaneFlowSource"), source},
                                        {Value::string("OrvaneProxyPort"), port}});
  Peer manager(Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  sockaddr_un address{AF_UNIX, {}};
  socklen_t family = sizeof(sa_family_t), size = sizeof address;
  (void)bind(manager.socket.get(), reinterpret_cast<sockaddr*>(&address), family);  // any abstract name
  getsockname(manager.socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
  setenv("NOTIFY_SOCKET", ("@" + std::string(address.sun_path + 1, size - family - 1)).c_str(), 1);
  pid_t extension = fork();
  if (extension == 0) {
    NEFilterProvider::registerProviderClass("Filter", Provider::create);
    NEFilterProvider::startSystemExtensionMode();
    dispatch_main();
  }
  std::string messages;
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

TEST(ProviderHost, TellsTheServiceManagerHowTheStartWentAndLivesOn) {
  const Descriptor occupied = listen_on_loopback();
  const struct {
    Value source, port;
    std::string status;
  } kCases[] = {
      {nullptr, Value::number(0), "Filtering"},
      {Value::string("radio"), Value::number(0), "radio"},
      {nullptr, Value::number(65536), "65536"},
      {nullptr, Value::number(port_of(occupied)), "Address already in use"},
  };
  for (const auto& c : kCases) {
    std::string life = life_of_extension(c.source, c.port);
    EXPECT_TRUE(life.starts_with("start; READY=1\nSTATUS=")) << life;
    EXPECT_NE(life.find(c.status), std::string::npos) << life;
    EXPECT_TRUE(life.ends_with("; STOPPING=1; stop; exit 0")) << life;
  }
}

}  // namespace
}  // namespace orvane
