#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "platform/Log.h"

namespace orvane {
namespace {

std::string enabled(const std::string& level) {
  return "<dict><key>Level</key><dict><key>Enable</key><string>" + level + "</string></dict></dict>";
}

TEST(Log, StandardErrorLosesALevelKeepsOneTooManyOrForgesALine) {
  // This program stands in a bundle, in the folder Contents/Linux.
  std::ofstream(std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../Info.plist")
      << "<plist><dict><key>CFBundleIdentifier</key><string>org.example</string><key>OSLogPreferences</key><dict>"
      << "<key>org.example</key><dict><key>Loud</key>" << enabled("Debug") << "<key>Odd</key>" << enabled("Default")
      << "<key>DEFAULT-OPTIONS</key>" << enabled("Info") << "</dict></dict></dict></plist>";
  testing::internal::CaptureStderr();
  // The machine's journal goes out of sight, in a mount namespace of the process's own.
  const bool hidden = (unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
                      mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0;
  for (const os_log_t& log : {os_log_t(), os_log_create("org.example", "Loud"), os_log_create("org.example", "Other"),
                              os_log_create("org.example", "Odd"), os_log_create("org.stranger", "Loud")}) {
    ORVANE_LOG_DEFAULT(log, "%s", "text");
    ORVANE_LOG_INFO(log, "%d, %.8x", -1, 255U);
    ORVANE_LOG_DEBUG(log, "%@", std::optional<std::string>());
    ORVANE_LOG_ERROR(log, "none");
  }
  ORVANE_LOG_ERROR(nullptr, "%s", "one\n2024-01-01 00:00:00.000 error [x] two\r\x1b[2J\xc2\x9b\ttab \xc3\xa9\n");
  const std::string errors = testing::internal::GetCapturedStderr();
  if (!hidden) GTEST_SKIP() << "no mount namespace to be had";
  EXPECT_EQ(std::regex_replace(errors, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})"), "T"),
            "T default [default] text\nT info [default] -1, 000000ff\nT error [default] none\n"
            "T default [Loud] text\nT info [Loud] -1, 000000ff\nT debug [Loud] (null)\nT error [Loud] none\n"
            "T default [Other] text\nT info [Other] -1, 000000ff\nT error [Other] none\n"
            "T default [Odd] text\nT error [Odd] none\nT default [Loud] text\nT error [Loud] none\n"
            "T error [default] one\n    T error [x] two\\x0d\\x1b[2J\\x9b\ttab \xc3\xa9\n");
}

using namespace log_detail;
static_assert(accepts("%d %ld %lu %s %p %.8x %@", Kinds<int, long, unsigned long, char*, void*, unsigned, Value>()));
static_assert(!accepts("%d", Kinds<long>()) && !accepts("%s", Kinds<std::string>()), "of another kind");
static_assert(!accepts("%d", Kinds<>()) && !accepts("", Kinds<int>()), "too few or too many");
static_assert(!accepts("%x", Kinds<unsigned>()) && !accepts("100%", Kinds<>()), "no conversion");

}  // namespace
}  // namespace orvane
