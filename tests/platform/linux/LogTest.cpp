#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <future>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/Log.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/TemporaryFolder.h"

namespace orvane {
namespace {

constexpr int kNoNamespace = 77;

struct Outcome {
  int status = -1;
  std::string output, errors;
};

std::string read_all(const std::filesystem::path& path) {
  std::stringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

// Runs the probe from a bundle with these logging preferences. `prepare` runs in the new process before it; a result
// other than 0 ends the process with it.
Outcome run_in_bundle(const std::string& preferences, const std::function<int()>& prepare) {
  TemporaryFolder folder;
  folder.write("X.systemextension/Contents/Info.plist",
               "<plist><dict><key>CFBundleName</key><string>Name</string><key>CFBundleIdentifier</key>"
               "<string>org.example</string><key>OSLogPreferences</key>" +
                   preferences + "</dict></plist>");
  folder.write("X.systemextension/Contents/Resources/Browsers.plist", "");
  auto program = folder.write("X.systemextension/Contents/Linux/probe", "");
  std::filesystem::copy_file(BUNDLE_PROBE, program, std::filesystem::copy_options::overwrite_existing);
  auto output = folder.write("output", ""), errors = folder.write("errors", "");

  pid_t child = fork();
  if (child == 0) {
    int status = prepare();
    if (status != 0) _exit(status);
    dup2(open(output.c_str(), O_WRONLY), STDOUT_FILENO);
    dup2(open(errors.c_str(), O_WRONLY | O_APPEND), STDERR_FILENO);
    execl(program.c_str(), program.c_str(), nullptr);
    _exit(126);
  }
  Outcome outcome;
  waitpid(child, &outcome.status, 0);
  outcome.output = read_all(output);
  outcome.errors = read_all(errors);
  std::string path = std::regex_replace(program.parent_path().parent_path().string(), std::regex(" "), "%20");
  EXPECT_TRUE(outcome.status != 0 || outcome.output == "Name|file://" + path + "/Resources/Browsers.plist\n")
      << outcome.output;
  return outcome;
}

// A mount namespace of the process's own, so that the machine's journal is out of sight.
int hide_run() {
  if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return kNoNamespace;
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return kNoNamespace;
  return mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0 ? 0 : kNoNamespace;
}

bool no_namespace(const Outcome& outcome) {
  return WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == kNoNamespace;
}

constexpr const char* kPreferences =
    "<dict><key>org.example</key><dict>"
    "<key>Loud</key><dict><key>Level</key><dict><key>Enable</key><string>Debug</string></dict></dict>"
    "<key>Odd</key><dict><key>Level</key><dict><key>Enable</key><string>Default</string></dict></dict>"
    "<key>DEFAULT-OPTIONS</key><dict><key>Level</key><dict><key>Enable</key><string>Info</string></dict></dict>"
    "</dict></dict>";

TEST(Log, StandardErrorLosesALevelKeepsOneTooManyOrForgesALine) {
  Outcome outcome = run_in_bundle(kPreferences, hide_run);
  if (no_namespace(outcome)) GTEST_SKIP() << "no mount namespace to be had";
  ASSERT_EQ(outcome.status, 0);
  const std::string expected =
      "default [default] null default\ninfo [default] null info\nerror [default] null error\n"
      "default [Loud] loud default\ninfo [Loud] loud info\ndebug [Loud] loud debug\nerror [Loud] loud error\n"
      "default [Other] other default\ninfo [Other] other info\nerror [Other] other error\n"
      "default [Odd] odd default\nerror [Odd] odd error\n"
      "default [Loud] stranger default\nerror [Loud] stranger error\n"
      "error [Hostile] one\n    2024-01-01 00:00:00.000 error [x] two\\x0d\\x1b[2J\\x9b\ttab \xc3\xa9\n";
  std::string text;
  std::istringstream lines(outcome.errors);
  const std::regex time(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(line.starts_with("    ") || std::regex_search(line, time)) << line;
    text += std::regex_replace(line, time, "") + "\n";
  }
  EXPECT_EQ(text, expected);
}

TEST(Log, JournalEntryLacksAFieldOrHasOneThatTheMessageForged) {
  constexpr size_t kEntries = 15;
  Descriptor journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  timeval patience{30, 0};
  setsockopt(journal.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  // Read while the probe runs: a socket holds few datagrams.
  auto reader = std::async(std::launch::async, [&journal] {
    std::vector<std::string> received;
    std::string entry(65536, '\0');
    ssize_t length = 0;
    while (received.size() < kEntries && (length = recv(journal.get(), entry.data(), entry.size(), 0)) > 0) {
      received.push_back(entry.substr(0, static_cast<size_t>(length)));
    }
    return received;
  });
  Outcome outcome = run_in_bundle(kPreferences, [&journal] {
    if (int status = hide_run(); status != 0) return status;
    sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
    mkdir("/run/systemd", 0755);
    mkdir("/run/systemd/journal", 0755);
    return bind(journal.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  });
  if (no_namespace(outcome)) {
    shutdown(journal.get(), SHUT_RD);
    GTEST_SKIP() << "no mount namespace to be had";
  }
  ASSERT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.errors, "") << "written twice";

  std::vector<std::string> entries = reader.get();
  auto fields = [](const char* message, int priority, const std::string& names) {
    return "MESSAGE=" + std::string(message) + "\nPRIORITY=" + std::to_string(priority) +
           "\nSYSLOG_IDENTIFIER=OrvaneSE\n" + names;
  };
  ASSERT_EQ(entries.size(), kEntries);
  EXPECT_EQ(entries[0], fields("null default", 5, ""));
  EXPECT_EQ(entries[4], fields("loud info", 6, "SUBSYSTEM=org.example\nCATEGORY=Loud\n"));
  EXPECT_EQ(entries[5], fields("loud debug", 7, "SUBSYSTEM=org.example\nCATEGORY=Loud\n"));
  EXPECT_EQ(entries[6], fields("loud error", 3, "SUBSYSTEM=org.example\nCATEGORY=Loud\n"));
  // A value with line ends goes with its length in front (systemd's "Native Journal Protocol").
  EXPECT_TRUE(entries[14].starts_with("MESSAGE\n")) << entries[14];
  EXPECT_NE(entries[14].find("\nPRIORITY=3\n"), std::string::npos);
}

TEST(Log, ThreadsGetDifferentHandlesForOneCategory) {
  std::array<const LogHandle*, 4> seen{};
  std::array<std::thread, 4> threads;
  for (size_t t = 0; t < threads.size(); ++t) {
    threads.at(t) = std::thread([&slot = seen.at(t)] {
      for (int i = 0; i < 2000; ++i) os_log_create("org.example", std::to_string(i).c_str());
      slot = os_log_create("org.example", "Shared").get();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(std::count(seen.begin(), seen.end(), os_log_create("org.example", "Shared").get()), 4);
  EXPECT_NE(os_log_create("org.example", "A").get(), os_log_create("org.exampleA", "").get());
}

}  // namespace
}  // namespace orvane
