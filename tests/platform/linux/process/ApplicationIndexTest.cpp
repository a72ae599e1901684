#include <sys/stat.h>

#include <functional>
#include <thread>
#include <tuple>

#include "platform/linux/process/ApplicationIndex.h"
#include "platform/linux/process/DesktopEntry.h"
#include "support/Programs.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

Executable executable_at(const std::string& path) {
  struct stat status = {};
  ::stat(path.c_str(), &status);
  return {path, status.st_dev, status.st_ino};
}

TEST(DesktopEntryTest, FindsTheProgramBehindQuotesAndEnv) {
  const std::pair<const char*, const char*> kCases[] = {{"/usr/bin/browser %U", "/usr/bin/browser"},
                                                        {"\"/opt/Good Browser/run\" --new", "/opt/Good Browser/run"},
                                                        {R"("/opt/a\\\\b\\"c" %u)", R"(/opt/a\b"c)"},
                                                        {"/usr/bin/env -i -u A LANG=C GTK=\"a b\" browser", "browser"},
                                                        {"env -S 'a b'", "none"},
                                                        {"\"unfinished\\", "unfinished\\"}};
  for (const auto& [exec, program] : kCases) {
    auto programs = programs_of_desktop_entry(
        "[Other]\nExec=no\n[Desktop Entry]\r\nType = Application\nExec[de]=no\nExec = " + std::string(exec) +
        "\n[Desktop Action a]\nTryExec=no\n");
    EXPECT_EQ(program, programs.empty() ? "none" : programs[0]) << exec;
  }
}

// The rows cover the ways in which packages of distributions and vendors place their files.
TEST(ApplicationIndexTest, AttributesEachProgramToItsOwnApplication) {
  // A program, its application, and the Exec line of that application's desktop entry. Without it, there is no entry.
  const std::tuple<const char*, const char*, const char*> kPrograms[] = {
      {"bin/direct", "direct", "@bin/direct"},
      {"bin/second", "zz", "second --private"},
      {"bin/named", "named", "env A=b named"},
      {"lib/linked/linked-1", "linked", "linked"},
      {"lib/linked/helper", "linked", ""},
      {"bin/wrapped-2", "org.example.Wrapped", "wrapped"},
      {"lib/wrapped/real", "org.example.Wrapped", ""},
      {"lib/wrapped/deeper/other", "none", ""},
      {"opt/maker/product/launch", "vendor", "@opt/maker/product/launch"},
      {"opt/maker/product/product-bin", "vendor", ""},
      {"opt/suite/writer", "writer", "@opt/suite/writer"},
      {"opt/suite/painter", "painter", "@opt/suite/painter"},
      {"opt/suite/common", "none", ""},
      {"bin/tried", "tried", "sh -c tried\nTryExec=tried"},
      {"bin/python3.11", "none", ""},
      {"bin/masked", "none", ""},
      {"lib/bystander", "none", ""}};
  ProgramFolder folder;
  for (const auto& [program, application, exec] : kPrograms) {
    folder.program(program);
    if (*exec != 0) folder.entry(application, exec);
  }
  fs::create_symlink("../lib/linked/linked-1", folder.path("bin/linked"));
  fs::create_symlink("wrapped-2", folder.path("bin/wrapped"));
  fs::create_symlink("../lib/bystander", folder.path("bin/sh"));
  fs::create_symlink("python3.11", folder.path("bin/innocent"));
  for (const char* id : {"python3.11", "innocent", "masked", "sh"}) folder.entry(id, id);
  folder.entry("org.example.Second", "second");
  folder.entry("x", "named");
  folder.entry("../local-entries/masked", "masked\nHidden=true");

  ApplicationIndex index(folder.folders());
  auto application = [&](const Executable& executable) { return index.applicationOf(executable).value_or("none"); };
  for (const auto& [program, expected, exec] : kPrograms) {
    EXPECT_EQ(expected, application(executable_at(folder.path(program)))) << program;
  }
  Executable direct = executable_at(folder.path("bin/direct"));
  EXPECT_EQ("direct", application({"/path/in/a/container", direct.device, direct.inode}));
  EXPECT_EQ("direct", application({direct.path, 0, 0})) << "the old file, after an upgrade";
}

TEST(ApplicationIndexTest, NoticesInstallationsAndRemovals) {
  ProgramFolder folder;
  for (const char* name : {"bin/present", "entries/sub/x", "opt/maker/x"}) folder.program(name);
  ApplicationIndex index(folder.folders(), 0ms);
  auto application = [&](const char* program) {
    return index.applicationOf(executable_at(folder.path(program))).value_or("none");
  };
  const std::tuple<std::function<void()>, const char*, const char*> kSteps[] = {
      {[&] { folder.entry("early", "@opt/maker/early"); }, "opt/maker/early", "none"},
      {[&] { folder.program("opt/maker/early"); }, "opt/maker/early", "early"},
      {[&] { folder.entry("sub/present", "present"); }, "bin/present", "sub-present"},
      {[&] { fs::remove(folder.path("entries/early.desktop")); }, "opt/maker/early", "none"}};
  for (const auto& [change, program, expected] : kSteps) {
    for (const char* name :
         {"entries", "entries/sub", "bin", "opt", "opt/maker"}) {  // as if the last installation was long ago
      fs::last_write_time(folder.path(name), fs::file_time_type::clock::now() - 1h);
    }
    application("bin/present");
    change();
    EXPECT_EQ(expected, application(program));
  }
  // If two changes follow each other within the resolution of the folder's modification time, the second change leaves
  // the modification time as it is. Setting the time back imitates that.
  auto time = fs::last_write_time(folder.path("entries"));
  folder.entry("again", "@opt/maker/early");
  fs::last_write_time(folder.path("entries"), time);
  EXPECT_EQ("again", application("opt/maker/early"));
}

TEST(ApplicationIndexTest, AnswersWhileEntriesChange) {
  ProgramFolder folder;
  Executable steady = executable_at(folder.program("bin/steady"));
  folder.entry("steady", "steady");
  ApplicationIndex index(folder.folders(), 0ms);
  auto work = [&](const char* other) {
    for (int i = 0; i < 200; ++i) {
      folder.entry(other, other);
      EXPECT_EQ("steady", index.applicationOf(steady));
      fs::remove(folder.path("entries") + "/" + other + ".desktop");
    }
  };
  std::thread thread(work, "other");
  work("another");
  thread.join();
}

}  // namespace
}  // namespace orvane
