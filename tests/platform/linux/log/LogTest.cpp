#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <regex>
#include <tuple>

#include "platform/Log.h"
#include "platform/files/Descriptor.h"

namespace orvane {
namespace {

std::string enabled(const std::string& level) {
  return "<dict><key>Level</key><dict><key>Enable</key><string>" + level + "</string></dict></dict>";
}

// Hides the machine's journal from this process, in a new mount namespace. Returns false if that is not permitted.
bool hide_journal() {
  if (unshare(CLONE_NEWNS) != 0) {
    const std::string users = "0 " + std::to_string(getuid()) + " 1", groups = "0 " + std::to_string(getgid()) + " 1";
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    // A user or group without a number in the namespace cannot make files there.
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << users;
    std::ofstream("/proc/self/gid_map") << groups;
  }
  return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0;
}

TEST(Log, WritesEnabledLevelsToStandardErrorWithoutAJournal) {
  // The build puts this program into the folder Contents/Linux of a bundle. Write the Info.plist of this bundle.
  std::ofstream(std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../Info.plist")
      << "<plist><dict><key>CFBundleIdentifier</key><string>org.example</string><key>OSLogPreferences</key><dict>"
      << "<key>org.example</key><dict><key>Loud</key>" << enabled("Debug") << "<key>Odd</key>" << enabled("Default")
      << "<key>DEFAULT-OPTIONS</key>" << enabled("Info") << "</dict></dict></dict></plist>";
  testing::internal::CaptureStderr();
  const bool hidden = hide_journal();
  for (const os_log_t& log : {os_log_t(), os_log_create("org.example", "Loud"), os_log_create("org.example", "Other"),
                              os_log_create("org.example", "Odd"), os_log_create("org.stranger", "Loud")}) {
    ORVANE_LOG_DEFAULT(log, "%s", "text");
    ORVANE_LOG_INFO(log, "%d, %.8x", -1, 255U);
    ORVANE_LOG_DEBUG(log, "%@", std::optional<std::string>());
    ORVANE_LOG_ERROR(log, "none");
  }
  ORVANE_LOG_ERROR(nullptr, "%s", "one\n2024-01-01 00:00:00.000 error [x] two\r\x1b[2J\xc2\x9b\ttab \xc3\xa9\n");
  const std::string errors = testing::internal::GetCapturedStderr();
  if (!hidden) GTEST_SKIP() << "needs the permission to make a mount namespace";
  EXPECT_EQ(std::regex_replace(errors, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})"), "T"),
            "T default [default] text\nT info [default] -1, 000000ff\nT error [default] none\n"
            "T default [Loud] text\nT info [Loud] -1, 000000ff\nT debug [Loud] (null)\nT error [Loud] none\n"
            "T default [Other] text\nT info [Other] -1, 000000ff\nT error [Other] none\n"
            "T default [Odd] text\nT error [Odd] none\nT default [Loud] text\nT error [Loud] none\n"
            "T error [default] one\n    T error [x] two\\x0d\\x1b[2J\\x9b\ttab \xc3\xa9\n");
}

TEST(Log, SendsEveryMessageToTheJournal) {
  if (!hide_journal()) GTEST_SKIP() << "needs the permission to make a mount namespace";
  std::filesystem::create_directories("/run/systemd/journal");
  const sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
  const Descriptor journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  ASSERT_EQ(bind(journal.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const os_log_t named = os_log_create("org.example.log", "a=");
  const std::tuple<os_log_t, const char*, const char*> kRows[] = {
      {nullptr, "x=", "MESSAGE=x=\nPRIORITY=3\nSYSLOG_IDENTIFIER=OrvaneSE\n"},
      {nullptr, "", "MESSAGE=\nPRIORITY=3\nSYSLOG_IDENTIFIER=OrvaneSE\n"},
      {named, "x", "MESSAGE=x\nPRIORITY=3\nSYSLOG_IDENTIFIER=OrvaneSE\nSUBSYSTEM=org.example.log\nCATEGORY=a=\n"}};
  for (const auto& [log, text, fields] : kRows) {
    ORVANE_LOG_ERROR(log, "%s", text);
    std::array<char, 1024> entry{};
    recv(journal.get(), entry.data(), entry.size() - 1, 0);
    EXPECT_STREQ(entry.data(), fields);
  }
}

using namespace log_detail;
static_assert(accepts("%d %ld %lu %s %p %.8x %@", Kinds<int, long, unsigned long, char*, void*, unsigned, Value>()));
static_assert(!accepts("%d", Kinds<long>()) && !accepts("%s", Kinds<std::string>()), "of another kind");
static_assert(!accepts("%d", Kinds<>()) && !accepts("", Kinds<int>()), "too few or too many");
static_assert(!accepts("%x", Kinds<unsigned>()) && !accepts("100%", Kinds<>()), "no conversion");

}  // namespace
}  // namespace orvane
