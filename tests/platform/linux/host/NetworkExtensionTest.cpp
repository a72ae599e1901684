#include <gtest/gtest.h>
#include <sched.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>

#include "platform/Bundle.h"
#include "platform/Dispatch.h"
#include "platform/linux/flow/ScriptedProvider.h"
#include "support/Sockets.h"
#include "support/TemporaryFolder.h"

namespace orvane {

Value networkExtension;  // of the bundle's information dictionary

Bundle* bundle_get_main() { return nullptr; }
Value bundle_get_information(const Bundle*, std::string_view key) {
  return key == "NetworkExtension" ? networkExtension : Value();
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
  // A file: an abstract name is of one network.
  TemporaryFolder folder;
  std::filesystem::permissions(folder.path(), std::filesystem::perms::all);
  sockaddr_un address{AF_UNIX, {}};
  std::string path = folder.path() / "notify";
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(bind(manager.socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  std::filesystem::permissions(path, std::filesystem::perms::all);
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  pid_t extension = fork();
  if (extension == 0) {
    // The rules of the machine's own network are not ours to change, privileged or not.
    if (source != Value::string("proxy") && unshare(CLONE_NEWNET) == 0 && source == Value::string("netfilter")) {
      if (setuid(65534) != 0) _exit(2);
    }
    NEFilterProvider::registerProviderClass("Filter", Provider::create);
    NEFilterProvider::startSystemExtensionMode();
    dispatch_main();
  }
  std::string messages;
  timeval patience{20, 0};
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

TEST(ProviderHost, TellsTheServiceManagerHowTheStartWentAndLivesOn) {
  const Descriptor occupied = listen_on_loopback();
  const struct {
    Value source, port;
    std::string status;
  } kCases[] = {
      {nullptr, Value::number(0), "Filtering"},
      {Value::string("proxy"), Value::number(0), "Filtering"},
      {Value::string("proxy"), Value::number(65536), "65536"},
      {Value::string("proxy"), Value::number(port_of(occupied)), "Address already in use"},
  };
  for (const auto& c : kCases) {
    std::string life = life_of_extension(c.source, c.port);
    EXPECT_TRUE(life.starts_with("start; READY=1\nSTATUS=")) << life;
    EXPECT_NE(life.find(c.status), std::string::npos) << life;
    EXPECT_TRUE(life.ends_with("; STOPPING=1; stop; exit 0")) << life;
  }
}

TEST(ProviderHost, EndsAServiceThatWouldFilterNothing) {
  for (const char* source : {"netfilter", "netfliter"}) {
    std::string life = life_of_extension(Value::string(source), nullptr);
    EXPECT_TRUE(life.starts_with("start; STATUS=Filter not started: ")) << life;
    EXPECT_NE(life.find(source), std::string::npos) << life;
    EXPECT_TRUE(life.ends_with("; stop; exit 1")) << life;
  }
}

}  // namespace
}  // namespace orvane
