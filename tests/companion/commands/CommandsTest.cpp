#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <span>
#include <string>
#include <vector>

#include "companion/client/Client.h"
#include "companion/commands/Commands.h"
#include "companion/text/ExitCodes.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

// A client that records messages instead of sending them.
class RecordingClient : public Client {
 public:
  static inline std::string sent;              // the recorded messages
  static inline int connections;               // how many connections were opened
  static inline std::vector<uint64_t> counts;  // the next replies of changesCount(), which throws after the last one

  bool ping() override { return record("ping"), true; }
  bool appFilterState() override { return record("state"), false; }
  void start() override { record("start"); }
  void stop() override { record("stop"); }
  void addApplicationIdentifier(const Value& value) override { record("allow " + value.description()); }
  void removeApplicationIdentifier(const Value& value) override { record("forbid " + value.description()); }
  void setApplicationIdentifiers(const Value& values) override { record("allowed " + values.description()); }
  void addHostname(const Value& hostname) override { record("add " + hostname.description()); }
  void removeHostname(const Value& hostname) override { record("remove " + hostname.description()); }
  void setHostnames(const Value& hostnames) override { record("set " + hostnames.description()); }
  void setProperties(const Value& properties, const Value& host) override {
    record("properties " + properties.description() + " " + host.description());
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
    for (char c : message + '\n') {  // replaces each run of white space by one space
      if (sent.empty() || sent.back() != ' ' || c > ' ') sent += c > ' ' ? c : ' ';
    }
  }
};

// A command line, and what the command should do.
struct Case {
  std::vector<const char*> arguments;  // without the program's name
  std::string output, sent;
  std::string errors{};  // a part of the text on standard error
  int code = kDone;
};

void check(const Case& c) {
  RecordingClient::sent.clear();
  RecordingClient::connections = 0;
  RecordingClient::counts = {3, 3, 4, 4, 9};
  std::vector<const char*> line{"orvanectl"};
  line.insert(line.end(), c.arguments.begin(), c.arguments.end());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int code = run_orvanectl(static_cast<int>(line.size()), line.data());
  const std::string output = testing::internal::GetCapturedStdout(), errors = testing::internal::GetCapturedStderr();
  const std::string shown = testing::PrintToString(c.arguments) + errors;
  EXPECT_EQ(code, c.code) << shown;
  EXPECT_EQ(output, c.output) << shown;
  EXPECT_EQ(errors.substr(0, 11), c.code == kDone ? "" : "orvanectl: ") << shown;
  EXPECT_NE(errors.find(c.errors), std::string::npos) << shown;
  EXPECT_EQ(RecordingClient::sent, c.sent) << shown;
}

TEST(Commands, SendTheMessageOfEachCommand) {
  const TemporaryFolder folder;
  const std::string list = folder.write("list", "\xef\xbb\xbf# none\r\nB.example\r\n\r\n \tb.example # why\n");
  const std::string date = "DontBlockUntil = 2001-01-01 00:00:00 +0000";
  const Case kCases[] = {
      {{"ping"}, "pong\n", "ping "},
      {{"start"}, "", "start "},
      {{"add", "A.example.", "ping"}, "a.example: added\nping: added\n", "adds a.example ping "},
      {{"remove", "b\u00fccher.example"},
       "b\u00fccher.example (xn--bcher-kva.example): removed\n",
       "removes xn--bcher-kva.example "},
      {{"set", list.c_str()}, "", "sets b.example b.example "},
      {{"--json", "add", "https://A/b"}, "{\"added\":[\"a\"]}\n", "adds a "},
      {{"properties", "A.example"}, "a.example: properties cleared\n", "properties (null) a.example "},
      {{"properties", "a", "--dont-block-until", "2001-01-01T01:00:00+01:00"},
       "a: properties set\n",
       "properties { " + date + "; } a "},
      {{"call", "getChangesCount"}, "3\n", ""},
      {{"call", "addHostname", "A/"}, "", "add A/ "},
      {{"call", "setHostnames", "A.", "A."}, "", "set {( A. )} "},
      {{"call", "setProperties", R"({"a": 1})", "A."}, "", "properties { a = 1; } A. "},
      {{"watch", "--interval", "0.01"}, "3\n4\n9\n", "", "orvanectl: gone\n", kFailed},
      {{"--service", "org.other", "ping", "--socket", "/s"}, "pong\n", "org.other/s ping "},
  };
  for (const Case& c : kCases) check(c);
}

TEST(Commands, SendNothingWhenOneInputIsRefused) {
  const TemporaryFolder folder;
  const std::string list = folder.write("list", "good.example\r\n\r\nbad name\nhttp://x\n");
  const Case kCases[] = {
      {{"add", "good.example", "a..b"}, "", "", "\"a..b\": it has an empty label", kUsage},
      {{"add", "a:b", "--json"},
       "{\"details\":[\"not a host name: \\\"a:b\\\": it has a port or a scheme: give the host name alone\"],"
       "\"error\":\"nothing was sent: 1 of 1 name refused: correct the names above\"}\n",
       "",
       "it has a port",
       kUsage},
      {{"help", "pong"}, "", "", "unknown command: \"pong\"", kUsage},
      {{"add", "[a.example,b.example]"}, "", "", "bad command line: \"[a", kUsage},
      {{"add", "a\x1b[2Jb"}, "", "", "\"a\\x1b[2Jb\"", kUsage},
      {{"--pong"}, "", "", "unknown option: \"--pong\": see orvanectl --help", kUsage},
      {{"ping", "--pong"}, "", "", "unknown option: \"--pong\": see orvanectl ping --help", kUsage},
      {{"try", "a", "b", "c"}, "", "", "bad command line: unexpected: \"b\": see orvanectl try --help", kUsage},
      {{"add", "-a"}, "", "", "HOST is required: if a name begins with a hyphen, write -- before it", kUsage},
      {{"pong"}, "", "", "unknown command: \"pong\": did you mean ping?", kUsage},
      {{"browsers", "policy", "instal"}, "", "", "unknown command: \"instal\": did you mean install?", kUsage},
      {{"set", list.c_str()}, "", "", list + ":3: \"bad name\": it has a space", kUsage},
      {{"set", "/nonexistent/list"}, "", "", "cannot read: \"/nonexistent/list\"", kFailed},
  };
  for (const Case& c : kCases) {
    check(c);
    EXPECT_EQ(RecordingClient::connections, 0) << testing::PrintToString(c.arguments);
  }
}

}  // namespace

std::unique_ptr<Client> connect_client(const ClientOptions& options) {
  ++RecordingClient::connections;
  if (!options.socket.empty()) RecordingClient::sent = options.service + options.socket + " ";
  return std::make_unique<RecordingClient>();
}

}  // namespace orvane
