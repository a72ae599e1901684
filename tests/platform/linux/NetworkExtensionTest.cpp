#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <csignal>

#include "platform/Bundle.h"
#include "platform/Dispatch.h"
#include "platform/NetworkExtension.h"
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

enum class Stop { Answers, Never };
Stop stopBehaviour = Stop::Answers;
int reportTo = -1;  // the writing end of a pipe to the test

void report(const std::string& line) {
  if (write(reportTo, line.data(), line.size()) < 0) abort();
}

class Provider final : public NEFilterDataProvider {
 public:
  static Ref<NEFilterDataProvider> create() { return Ref<NEFilterDataProvider>::adopt(new Provider); }
  static Ref<NEFilterDataProvider> createNone() { return nullptr; }

  void startFilterWithCompletionHandler(ErrorHandler completionHandler) override {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    report(sigismember(&blocked, SIGTERM) != 0 ? "start; " : "start with open signals; ");
    applySettings(NEFilterSettings::initWithRules({}, NEFilterAction::Allow), std::move(completionHandler));
  }
  void stopFilterWithReason(NEProviderStopReason, const std::function<void()>& completionHandler) override {
    report("stop; ");
    if (stopBehaviour == Stop::Never) pause();
    completionHandler();
  }
  NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow&) override { return NEFilterNewFlowVerdict::allowVerdict(); }
  NEFilterDataVerdict handleOutboundDataFromFlow(const NEFilterFlow&, uint64_t, std::span<const uint8_t>) override {
    return NEFilterDataVerdict::allowVerdict();
  }
  NEFilterDataVerdict handleOutboundDataCompleteForFlow(const NEFilterFlow&) override {
    return NEFilterDataVerdict::allowVerdict();
  }
};

Value dictionary(std::initializer_list<std::pair<const char*, Value>> entries) {
  Value::Dictionary result;
  for (const auto& [key, value] : entries) result.emplace(Value::string(key), value);
  return Value::dictionary(std::move(result));
}

// An extension's process, as a service manager sees it.
class Extension {
 public:
  Extension(const char* providerClass, Value source, Value port) {
    Value classes = dictionary({{"com.apple.networkextension.filter-data", Value::string(providerClass)}});
    networkExtension =
        dictionary({{"NEProviderClasses", classes}, {"OrvaneFlowSource", source}, {"OrvaneProxyPort", port}});
    int ends[2];
    if (pipe(ends) != 0) abort();
    manager_ = Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, {}};
    socklen_t family = sizeof(sa_family_t);
    (void)bind(manager_.get(), reinterpret_cast<sockaddr*>(&address), family);  // any abstract name
    socklen_t size = sizeof address;
    getsockname(manager_.get(), reinterpret_cast<sockaddr*>(&address), &size);
    std::string name = "@" + std::string(address.sun_path + 1, size - family - 1);
    pid_ = fork();
    if (pid_ == 0) {
      reportTo = ends[1];
      setenv("NOTIFY_SOCKET", name.c_str(), 1);
      NEFilterProvider::registerProviderClass("Filter", Provider::create);
      NEFilterProvider::registerProviderClass("NoFilter", Provider::createNone);
      NEFilterProvider::startSystemExtensionMode();
      dispatch_main();
    }
    close(ends[1]);
    reports_ = Descriptor(ends[0]);
  }
  ~Extension() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  void signal(int number) const { kill(pid_, number); }

  // The next message to the service manager.
  std::string notification() const {
    pollfd entry{manager_.get(), POLLIN, 0};
    char text[512];
    if (poll(&entry, 1, 10000) != 1) return "nothing";
    ssize_t count = recv(manager_.get(), text, sizeof text, 0);
    return {text, static_cast<size_t>(count)};
  }

  // Waits for the end. The exit status, or the number of the signal below 0.
  int end() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  std::string reports() const {
    char text[512];
    ssize_t count = ::read(reports_.get(), text, sizeof text);
    return {text, static_cast<size_t>(count > 0 ? count : 0)};
  }

 private:
  pid_t pid_ = -1;
  Descriptor manager_, reports_;
};

TEST(ProviderHost, TellsTheServiceManagerHowTheStartWentAndLivesOn) {
  Descriptor occupied(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));  // by no thread: the extension is a fork of this
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  (void)bind(occupied.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  listen(occupied.get(), 1);
  Value any = Value::number(0);
  const struct {
    const char* providerClass;
    Value source, port;
    std::string status;
    std::string reports;
  } kCases[] = {
      {"Filter", Value::string("proxy"), any, "Filtering", "start; stop; "},
      {"Filter", nullptr, any, "Filtering", "start; stop; "},
      {"Filter", Value::string("netfilter"), any, "not available", "start; stop; "},
      {"Filter", Value::string("radio"), any, "radio", "start; stop; "},
      {"Filter", nullptr, Value::number(65536), "65536", "start; stop; "},
      {"Filter", nullptr, Value::number(port_of(occupied.get())), "Address already in use", "start; stop; "},
      {"NoFilter", nullptr, any, "NoFilter", ""},
      {"Unheard", nullptr, any, "Unheard", ""},
  };
  for (const auto& c : kCases) {
    Extension extension(c.providerClass, c.source, c.port);
    std::string ready = extension.notification();
    EXPECT_TRUE(ready.starts_with("READY=1\nSTATUS=")) << ready;
    EXPECT_NE(ready.find(c.status), std::string::npos) << ready;
    extension.signal(SIGTERM);
    EXPECT_EQ(extension.notification(), "STOPPING=1");
    EXPECT_EQ(extension.end(), 0) << c.status;
    EXPECT_EQ(extension.reports(), c.reports) << c.status;
  }
}

TEST(ProviderHost, SecondSignalDoesNotWaitForAProviderThatHangs) {
  stopBehaviour = Stop::Never;
  Extension extension("Filter", nullptr, Value::number(0));
  EXPECT_EQ(extension.notification(), "READY=1\nSTATUS=Filtering");
  extension.signal(SIGINT);
  EXPECT_EQ(extension.notification(), "STOPPING=1");
  extension.signal(SIGTERM);
  EXPECT_EQ(extension.end(), -SIGTERM);
}

}  // namespace
}  // namespace orvane
