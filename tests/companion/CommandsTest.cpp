#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "companion/Client.h"
#include "companion/Commands.h"

namespace orvane {
namespace {

// A client that writes down what it is asked to send.
class RecordingClient : public Client {
 public:
  static inline std::string sent;       // messages, one a line
  static inline uint64_t connections;   // how many were made
  static inline ClientOptions options;  // of the last
  static inline bool unreachable;
  static constexpr uint64_t kInterrupt = 0;    // as a reply: the user's interrupt comes instead
  static inline std::vector<uint64_t> counts;  // the replies to come; after the last, the connection breaks

  bool ping() override { return record("ping"), true; }
  bool appFilterState() override { return record("state"), false; }
  void start() override { record("start"); }
  void stop() override { record("stop"); }
  void addApplicationIdentifier(const Value& identifier) override { record("addApplication", identifier); }
  void removeApplicationIdentifier(const Value& identifier) override { record("removeApplication", identifier); }
  void setApplicationIdentifiers(const Value& identifiers) override { record("setApplications", identifiers); }
  void addHostname(const Value& hostname) override { record("add", hostname); }
  void removeHostname(const Value& hostname) override { record("remove", hostname); }
  void setHostnames(const Value& hostnames) override { record("set", hostnames); }
  void setProperties(const Value& properties, const Value& forHostname) override {
    record("properties", properties, forHostname);
  }
  uint64_t changesCount() override {
    if (counts.empty()) throw ClientError("gone");
    if (counts.front() == kInterrupt) std::raise(SIGINT);
    uint64_t count = counts.front();
    counts.erase(counts.begin());
    return count;
  }
  void addHostnames(std::span<const std::string> hostnames) override { record("adds", texts(hostnames)); }
  void removeHostnames(std::span<const std::string> hostnames) override { record("removes", texts(hostnames)); }
  void setHostnames(std::span<const std::string> hostnames, const Progress&) override {
    record("sets", texts(hostnames));
  }

 private:
  static Value texts(std::span<const std::string> hostnames) {
    Value::Array array;
    for (const std::string& hostname : hostnames) array.push_back(Value::string(hostname));
    return Value::array(std::move(array));
  }
  template <class... Arguments>
  static void record(const std::string& message, const Arguments&... arguments) {
    std::string text = message;
    ((text += " " + arguments.description()), ...);
    // On one line, as the tables below have it.
    for (char c : text) {
      if (sent.empty() || sent.back() != ' ' || c > ' ') sent += c > ' ' ? c : ' ';
    }
    sent += '\n';
  }
};

struct Outcome {
  int code;
  std::string output, errors;
};

Outcome run(std::vector<const char*> arguments) {
  RecordingClient::sent.clear();
  RecordingClient::connections = 0;
  arguments.insert(arguments.begin(), "orvanectl");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  int code = run_orvanectl(static_cast<int>(arguments.size()), arguments.data());
  return {code, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

// A file of the test's own, gone with it.
class ScratchFile {
 public:
  explicit ScratchFile(const std::string& content) {
    int file = mkstemp(path_);
    EXPECT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(file);
  }
  ~ScratchFile() { unlink(path_); }
  const char* path() const { return path_; }

 private:
  char path_[32] = "/tmp/orvanectl-test-XXXXXX";
};

class Commands : public testing::Test {
 protected:
  void SetUp() override {
    RecordingClient::unreachable = false;
    RecordingClient::counts = {7};
  }
};

TEST_F(Commands, SendWhatTheyStandForAndPrintResultsAlone) {
  ScratchFile list("B.example\n# none\nb.example\n");
  ScratchFile json(R"({"DontBlockUntil": "2001-01-01T00:00:00Z"})");
  const char* kDated = "properties { DontBlockUntil = 2001-01-01 00:00:00 +0000; } a.example\n";
  std::string at = std::string("@") + json.path();
  const struct {
    std::vector<const char*> arguments;
    const char* output;
    const char* sent;
  } kCases[] = {
      {{"ping"}, "pong\n", "ping\n"},
      {{"state"}, "inactive\n", "state\n"},
      {{"changes"}, "7\n", ""},
      {{"start"}, "", "start\n"},
      {{"stop"}, "", "stop\n"},
      {{"add", "A.example.", "ping"}, "", "adds ( a.example, ping )\n"},
      {{"add", "--", "-a.example"}, "", "adds ( -a.example )\n"},
      {{"remove", "b\u00fccher.example"}, "", "removes ( xn--bcher-kva.example )\n"},
      {{"set", list.path()}, "", "sets ( b.example, b.example )\n"},
      {{"set", "/dev/null"}, "", "sets ( )\n"},
      {{"properties", "A.example"}, "", "properties (null) a.example\n"},
      {{"properties", "a.example", at.c_str()}, "", kDated},
      {{"properties", "a.example", "--dont-block-until", "2001-01-01T01:00:00+01:00"}, "", kDated},
      {{"call", "pingWithReply"}, "yes\n", "ping\n"},
      {{"call", "getAppFilterStateWithReply"}, "no\n", "state\n"},
      {{"call", "start"}, "", "start\n"},
      {{"call", "stop"}, "", "stop\n"},
      {{"call", "addApplicationIdentifier", "org.a"}, "", "addApplication org.a\n"},
      {{"call", "removeApplicationIdentifier", "org.a"}, "", "removeApplication org.a\n"},
      {{"call", "setApplicationIdentifiers", "b", "a", "b"}, "", "setApplications ( b, a, b )\n"},
      {{"call", "addHostname", "A/"}, "", "add A/\n"},
      {{"call", "removeHostname", "A."}, "", "remove A.\n"},
      {{"call", "setHostnames", "A.", "A."}, "", "set {( A. )}\n"},
      {{"call", "setProperties", "null", "A."}, "", "properties (null) A.\n"},
      {{"call", "setProperties", R"({"a": 1})", "A."}, "", "properties { a = 1; } A.\n"},
      {{"call", "getChangesCount"}, "7\n", ""},
  };
  for (const auto& [arguments, output, sent] : kCases) {
    RecordingClient::counts = {7};
    Outcome outcome = run(arguments);
    std::string shown = testing::PrintToString(arguments);
    EXPECT_EQ(outcome.code, kDone) << shown << outcome.errors;
    EXPECT_EQ(outcome.output, output) << shown;
    EXPECT_EQ(outcome.errors, "") << shown;
    EXPECT_EQ(RecordingClient::sent, sent) << shown;
  }
}

TEST_F(Commands, DoNotEvenConnectWhenWhatWasGivenIsRefused) {
  ScratchFile list("good.example\nbad name\nhttp://x\n");
  const struct {
    std::vector<const char*> arguments;
    std::string errors;  // a part of them
  } kCases[] = {
      {{}, "bad command line"},
      {{"frobnicate"}, "bad command line"},
      {{"add"}, "bad command line"},
      {{"add", "good.example", "http://x"}, "\"http://x\": it is a URL: give the host name alone\n"},
      {{"add", "[a.example,b.example]"}, "bad command line: \"[a"},
      {{"add", ""}, "not a host name: \"\": it is empty"},
      {{"add", "a\x1b[2Jb"}, "\"a\\x1b[2Jb\""},
      {{"set", list.path()}, std::string(list.path()) + ":2: \"bad name\": it has a space"},
      {{"set", list.path()}, "nothing sent: 2 of 3 names refused"},
      {{"properties", "a.example", ""}, "not JSON at byte 1"},
      {{"properties", "a.example", "{}", "--dont-block-until", "2030-01-01T00:00:00Z"}, "bad command line"},
      {{"properties", "a.example", "--dont-block-until", ""}, "not a time: \"\""},
      {{"watch", "--interval", "0"}, "bad command line"},
      {{"call", "removeEverything"}, "no such method: \"removeEverything\""},
      {{"call", "addHostname"}, "give addHostname TEXT"},
  };
  for (const auto& [arguments, errors] : kCases) {
    Outcome outcome = run(arguments);
    std::string shown = testing::PrintToString(arguments);
    EXPECT_EQ(outcome.code, kUsage) << shown;
    EXPECT_EQ(outcome.output, "") << shown;
    EXPECT_EQ(outcome.errors.rfind("orvanectl: ", 0), 0u) << shown << outcome.errors;
    EXPECT_NE(outcome.errors.find(errors), std::string::npos) << shown << outcome.errors;
    EXPECT_EQ(RecordingClient::connections, 0u) << shown;
  }
}

TEST_F(Commands, TellAFailureFromARefusal) {
  Outcome outcome = run({"set", "/nonexistent/list"});
  EXPECT_EQ(outcome.code, kCouldNot);
  EXPECT_NE(outcome.errors.find("cannot read: \"/nonexistent/list\""), std::string::npos) << outcome.errors;
  EXPECT_EQ(run({"set", "/tmp"}).code, kCouldNot);
  RecordingClient::unreachable = true;
  outcome = run({"ping"});
  EXPECT_EQ(outcome.code, kCouldNot);
  EXPECT_EQ(outcome.errors, "orvanectl: cannot connect\n");
}

TEST_F(Commands, PassTheChoiceOfExtensionOnFromEitherSideOfTheCommand) {
  run({"--service", "org.other", "ping", "--socket", "/tmp/s"});
  EXPECT_EQ(RecordingClient::options.service, "org.other");
  EXPECT_EQ(RecordingClient::options.socket, "/tmp/s");
  run({"ping"});
  EXPECT_EQ(RecordingClient::options.service, kDefaultServiceName);
  EXPECT_EQ(RecordingClient::options.socket, "");
}

TEST_F(Commands, WatchPrintsTheCountOnceUntilItMovesAndReportsTheEnd) {
  RecordingClient::counts = {3, 3, 4, 4, 9};
  Outcome outcome = run({"watch", "--interval", "0.01"});
  EXPECT_EQ(outcome.output, "3\n4\n9\n");
  EXPECT_EQ(outcome.errors, "orvanectl: gone\n");
  EXPECT_EQ(outcome.code, kCouldNot);
}

TEST_F(Commands, WatchEndsWellByAnInterruptInTheMiddleOfACall) {
  RecordingClient::counts = {3, RecordingClient::kInterrupt, 5};
  const char* arguments[] = {"orvanectl", "watch", "--interval", "0.01"};
  EXPECT_EXIT(run_orvanectl(4, arguments), testing::ExitedWithCode(kDone), "");
}

}  // namespace

std::unique_ptr<Client> connect_client(const ClientOptions& options) {
  if (RecordingClient::unreachable) throw ClientError("cannot connect");
  ++RecordingClient::connections;
  RecordingClient::options = options;
  return std::make_unique<RecordingClient>();
}

}  // namespace orvane
