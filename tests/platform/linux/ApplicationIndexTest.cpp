#include <sys/stat.h>

#include <atomic>
#include <sstream>

#include "platform/linux/ApplicationIndex.h"
#include "platform/linux/DesktopEntry.h"
#include "platform/linux/Programs.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

Executable executable_at(const std::string& path) {
  struct stat status {};
  ::stat(path.c_str(), &status);
  return {path, status.st_dev, status.st_ino};
}

TEST(DesktopEntryTest, FindsTheProgramBehindQuotesAndEnv) {
  const std::pair<const char*, const char*> kCases[] = {{"/usr/bin/browser %U", "/usr/bin/browser"},
                                                        {"\"/opt/Good Browser/run\" --new", "/opt/Good Browser/run"},
                                                        {R"("/opt/a\\\\b\\"c" %u)", R"(/opt/a\b"c)"},
                                                        {R"(/opt/two\swords)", "/opt/two"},
                                                        {"env -i -u A LANG=C GTK=\"a b\" browser", "browser"},
                                                        {"/usr/bin/env --unset A browser", "browser"},
                                                        {"env A=b", ""},
                                                        {"env -S 'a b'", ""},
                                                        {"env -u", ""},
                                                        {"", ""},
                                                        {"\"unfinished", "unfinished"},
                                                        {"end\\", "end\\"}};
  for (const auto& [exec, program] : kCases) {
    auto programs = programs_of_desktop_entry(
        "# x\n[Other]\nExec=no\n[Desktop Entry]\r\nType = Application\nExec[de]=no\nExec = " + std::string(exec) +
        "\n[Desktop Action a]\nExec=no\nTryExec=no\n");
    EXPECT_EQ(program, programs.empty() ? "" : programs[0]) << exec;
  }
  EXPECT_TRUE(programs_of_desktop_entry("[Desktop Entry]\nType=Link\nExec=a\n").empty());
}

// One installation with every shape that distributions and makers give their packages.
TEST(ApplicationIndexTest, AttributesEachProgramToItsOwnApplication) {
  Folder folder;
  std::istringstream programs(
      "bin/direct bin/second bin/named lib/linked/linked-1 lib/linked/helper bin/wrapped lib/wrapped/real "
      "lib/wrapped/deeper/other opt/maker/product/launch opt/maker/product/product-bin opt/suite/writer "
      "opt/suite/painter opt/suite/common bin/tried bin/python3.11 bin/flatpak bin/masked bin/bystander lib/bystander");
  for (std::string program; programs >> program;) folder.program(program);
  folder.link("bin/linked", "../lib/linked/linked-1");
  folder.link("bin/innocent", "python3.11");
  fs::create_hard_link(folder.path("bin/direct"), folder.path("direct-by-another-name"));
  std::istringstream entries(R"(direct @/bin/direct %U
org.example.Second second
aa second --private
zz second
x named
named env A=b named
linked linked
org.example.Wrapped wrapped
sub/vendor @/opt/maker/product/launch
writer @/opt/suite/writer
painter @/opt/suite/painter
python3.11 python3.11
innocent innocent
org.example.Sandboxed @/bin/flatpak run org.example.Sandboxed
masked masked
)");
  for (std::string id, exec; entries >> id >> std::ws && std::getline(entries, exec);) {
    folder.entry(id, exec.starts_with('@') ? folder.path(exec.substr(2)) : exec, "NoDisplay=true\nTerminal=true");
  }
  folder.entry("tried", "sh -c tried", "TryExec=tried");
  folder.entry("../local-entries/masked", "masked", "Hidden=true");

  ApplicationIndex index(folder.folders());
  std::istringstream cases(
      "bin/direct direct direct-by-another-name direct bin/second aa bin/named named lib/linked/linked-1 linked "
      "lib/linked/helper linked lib/wrapped/real org.example.Wrapped lib/wrapped/deeper/other none "
      "opt/maker/product/product-bin sub-vendor opt/suite/writer writer opt/suite/painter painter "
      "opt/suite/common none bin/tried tried bin/python3.11 none bin/flatpak none bin/masked none "
      "bin/bystander none lib/bystander none");
  for (std::string program, application; cases >> program >> application;) {
    EXPECT_EQ(application, index.applicationOf(executable_at(folder.path(program))).value_or("none")) << program;
  }
  // As of a process that runs on after an upgrade: the file is another one, at the same path.
  EXPECT_EQ("direct", index.applicationOf({folder.path("bin/direct"), 0, 0}).value_or("none"));
}

TEST(ApplicationIndexTest, FollowsInstallationsAndRemovals) {
  Folder folder;
  for (const char* name : {"entries/sub/x", "bin/present", "opt/maker/x"}) folder.write(name, "");
  fs::permissions(folder.path("bin/present"), fs::perms::owner_all);
  ApplicationIndex index(folder.folders(), 0ms);
  auto application = [&](const char* program) {
    return index.applicationOf(executable_at(folder.path(program))).value_or("none");
  };
  auto settle = [&] {  // as long after an installation
    for (const char* name : {"entries", "entries/sub", "bin", "opt", "opt/maker", "lib"}) {
      std::error_code missing;
      fs::last_write_time(folder.path(name), fs::file_time_type::clock::now() - 1h, missing);
    }
    application("bin/present");
  };
  settle();
  folder.entry("early", "early");
  folder.entry("elsewhere", folder.path("opt/maker/elsewhere"));
  EXPECT_EQ("none", application("bin/early"));
  settle();
  folder.program("bin/early");  // packages are unpacked in any order
  EXPECT_EQ("early", application("bin/early"));
  EXPECT_TRUE(index.knows("early"));
  settle();
  folder.program("opt/maker/elsewhere");
  EXPECT_EQ("elsewhere", application("opt/maker/elsewhere"));
  settle();
  folder.entry("sub/present", "present");
  EXPECT_EQ("sub-present", application("bin/present"));
  settle();
  fs::remove(folder.path("entries/early.desktop"));
  EXPECT_EQ("none", application("bin/early"));
  // A second change within one step of the file system's clock.
  auto time = fs::last_write_time(folder.path("entries"));
  folder.entry("again", "early");
  fs::last_write_time(folder.path("entries"), time);
  EXPECT_EQ("again", application("bin/early"));
}

TEST(ApplicationIndexTest, AnswersWhileEntriesChange) {
  Folder folder;
  std::string steady = folder.program("bin/steady");
  folder.entry("steady", "steady");
  ApplicationIndex index(folder.folders(), 0ms);
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads(3);
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      while (!done) wrong += index.applicationOf(executable_at(steady)) != "steady";
    });
  }
  for (int i = 0; i < 50; ++i) {
    folder.entry("other", "other");
    fs::remove(folder.path("entries/other.desktop"));
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, wrong);
}

}  // namespace
}  // namespace orvane
