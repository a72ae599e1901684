#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <numeric>
#include <span>
#include <string>
#include <vector>

#include "companion/client/Client.h"
#include "companion/commands/Commands.h"
#include "companion/text/ExitCodes.h"

namespace orvane {
namespace {

// A client that writes down what it is asked to send.
class RecordingClient : public Client {
 public:
  static inline std::string sent;              // messages
  static inline int connections;               // how many were made
  static inline std::vector<uint64_t> counts;  // the replies to come; after the last, the connection breaks

  bool ping() override { return record("ping"), true; }
  bool appFilterState() override { return record("state"), false; }
  void start() override { record("start"); }
  void stop() override { record("stop"); }
  void addApplicationIdentifier(const Value& identifier) override {
    record("addApplication " + identifier.description());
  }
  void removeApplicationIdentifier(const Value& identifier) override {
    record("removeApplication " + identifier.description());
  }
  void setApplicationIdentifiers(const Value& identifiers) override {
    record("setApplications " + identifiers.description());
  }
  void addHostname(const Value& hostname) override { record("add " + hostname.description()); }
  void removeHostname(const Value& hostname) override { record("remove " + hostname.description()); }
  void setHostnames(const Value& hostnames) override { record("set " + hostnames.description()); }
  void setProperties(const Value& properties, const Value& forHostname) override {
    record("properties " + properties.description() + " " + forHostname.description());
  }
  uint64_t changesCount() override {
    if (counts.empty()) throw ClientError("gone");
    uint64_t count = counts.front();
    counts.erase(counts.begin());
    return count;
  }
  void addHostnames(std::span<const std::string> hostnames) override { record("adds" + joined(hostnames)); }
  void removeHostnames(std::span<const std::string> hostnames) override { record("removes" + joined(hostnames)); }
  void setHostnames(std::span<const std::string> hostnames, const Progress&) override {
    record("sets" + joined(hostnames));
  }

 private:
  static std::string joined(std::span<const std::string> texts) {
    return std::accumulate(texts.begin(), texts.end(), std::string(), [](auto a, auto& b) { return a + " " + b; });
  }
  static void record(const std::string& message) {
    for (char c : message + '\n') {  // on one line, as the table below has it
      if (sent.empty() || sent.back() != ' ' || c > ' ') sent += c > ' ' ? c : ' ';
    }
  }
};

// A file of the test's own, gone with it.
struct ScratchFile {
  char path[32] = "/tmp/orvanectl-test-XXXXXX";

  explicit ScratchFile(const std::string& content) {
    int file = mkstemp(path);
    EXPECT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(file);
  }
  ~ScratchFile() { unlink(path); }
};

TEST(Commands, SendWhatTheyStandForAndNothingThatIsRefused) {
  ScratchFile list("B.example\n# none\nb.example\n"), badList("good.example\nbad name\nhttp://x\n");
  const std::string badLine = std::string(badList.path) + ":2: \"bad name\": it has a space";
  const char* kDated = "properties { DontBlockUntil = 2001-01-01 00:00:00 +0000; } a.example ";
  const struct {
    std::vector<const char*> arguments;
    const char *output, *sent;
    std::string errors;  // a part of them
    int code = kDone;
  } kCases[] = {
      {{"orvanectl", "ping"}, "pong\n", "ping ", ""},
      {{"orvanectl", "start"}, "", "start ", ""},
      {{"orvanectl", "stop"}, "", "stop ", ""},
      {{"orvanectl", "add", "A.example.", "ping"}, "", "adds a.example ping ", ""},
      {{"orvanectl", "remove", "b\u00fccher.example"}, "", "removes xn--bcher-kva.example ", ""},
      {{"orvanectl", "set", list.path}, "", "sets b.example b.example ", ""},
      {{"orvanectl", "properties", "A.example"}, "", "properties (null) a.example ", ""},
      {{"orvanectl", "properties", "a.example", "--dont-block-until", "2001-01-01T01:00:00+01:00"}, "", kDated, ""},
      {{"orvanectl", "call", "getChangesCount"}, "3\n", "", ""},
      {{"orvanectl", "call", "addHostname", "A/"}, "", "add A/ ", ""},
      {{"orvanectl", "call", "setHostnames", "A.", "A."}, "", "set {( A. )} ", ""},
      {{"orvanectl", "call", "setProperties", R"({"a": 1})", "A."}, "", "properties { a = 1; } A. ", ""},
      {{"orvanectl", "add", "good.example", "http://x"},
       "",
       "",
       "\"http://x\": it is a URL: give the host name alone: x\n",
       kUsage},
      {{"orvanectl", "add", "[a.example,b.example]"}, "", "", "bad command line: \"[a", kUsage},
      {{"orvanectl", "add", "a\x1b[2Jb"}, "", "", "\"a\\x1b[2Jb\"", kUsage},
      {{"orvanectl", "set", badList.path}, "", "", badLine, kUsage},
      {{"orvanectl", "set", "/nonexistent/list"}, "", "", "cannot read: \"/nonexistent/list\"", kFailed},
      {{"orvanectl", "watch", "--interval", "0.01"}, "3\n4\n9\n", "", "orvanectl: gone\n", kFailed},
      {{"orvanectl", "--service", "org.other", "ping", "--socket", "/s"}, "pong\n", "org.other/s ping ", ""},
  };
  for (const auto& c : kCases) {
    RecordingClient::sent.clear();
    RecordingClient::connections = 0;
    RecordingClient::counts = {3, 3, 4, 4, 9};
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int code = run_orvanectl(static_cast<int>(c.arguments.size()), c.arguments.data());
    std::string output = testing::internal::GetCapturedStdout(), errors = testing::internal::GetCapturedStderr();
    std::string shown = testing::PrintToString(c.arguments) + errors;
    EXPECT_EQ(code, c.code) << shown;
    EXPECT_EQ(output, c.output) << shown;
    EXPECT_EQ(errors.substr(0, 11), c.code == kDone ? "" : "orvanectl: ") << shown;
    EXPECT_NE(errors.find(c.errors), std::string::npos) << shown;
    EXPECT_EQ(RecordingClient::sent, c.sent) << shown;
    EXPECT_EQ(c.code == kUsage ? RecordingClient::connections : 0, 0) << shown;
  }
}

}  // namespace

std::unique_ptr<Client> connect_client(const ClientOptions& options) {
  ++RecordingClient::connections;
  if (!options.socket.empty()) RecordingClient::sent = options.service + options.socket + " ";
  return std::make_unique<RecordingClient>();
}

}  // namespace orvane
