#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <tuple>

#include "platform/Process.h"
#include "platform/linux/process/ProcessChanges.h"
#include "platform/linux/process/ProcessIdentity.h"
#include "support/Programs.h"
#include "support/Sockets.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

TEST(ProcessTest, ParsesStatWithParenthesesInTheName) {
  auto stat = parse_process_stat("40 (a) R 1 2) S 41 1 7 0 -1 4 1 0 0 0 0 0 0 0 20 0 1 0 123456789012 1");
  ASSERT_TRUE(stat);
  EXPECT_EQ('S', stat->state);
  EXPECT_EQ(41, stat->parent);
  EXPECT_EQ(123456789012u, stat->startTime);
  EXPECT_TRUE(stat->isEnding);
  for (const char* text : {"", "40 (cat", "40 (cat) S 41 1 7"}) EXPECT_FALSE(parse_process_stat(text)) << text;
}

TEST(ProcessTest, PutsIdentifiersIntoTheWordsOfTheToken) {
  auto token = audit_token_of_process(::getpid());
  ASSERT_TRUE(token);
  const uint32_t kKnown[] = {::geteuid(), ::getegid(), ::getuid(), ::getgid(), static_cast<uint32_t>(::getpid())};
  EXPECT_TRUE(std::equal(std::begin(kKnown), std::end(kKnown), token->val + 1));
}

std::optional<std::string> unit(std::string_view controlGroups) {
  auto found = unit_of_control_groups(controlGroups);
  return found ? std::optional(found->application + " " + found->path) : std::nullopt;
}

TEST(ProcessTest, FindsNamesOfUnitsSnapsAndSandboxes) {
  const std::tuple<std::optional<std::string> (*)(std::string_view), const char*, const char*> kCases[] = {
      {unit, "0::/u/app-gnome-firefox\\x2desr-47.scope\n", "firefox-esr /u/app-gnome-firefox\\x2desr-47.scope"},
      {unit, "0::/app-org.kde.konsole-12.scope/tab(3).scope", "org.kde.konsole /app-org.kde.konsole-12.scope"},
      {unit, "1:cpu:/\n9:name=systemd:/app-firefox@1ab2.service\n0::/\n", "firefox /app-firefox@1ab2.service"},
      {unit, "0::/app-a-b-c-d.scope\n0::/app.slice/session-2.scope\n0::/apple-x-1.scope\nrubbish\n", "none"},
      {unit, "0::/app-org.gnome.Terminal.slice/vte-spawn-1.scope", "none"},
      {snap_of_control_groups, "0::/user.slice/app.slice/snap.two-words_key.app.0a-b.scope", "two-words"},
      {snap_of_path, "/snap/chromium_test/12/usr/lib/chrome", "chromium"},
      {snap_of_path, "/snap/bin/chromium", "none"},
      {snap_of_path, "/home/x/snap/chromium/chrome", "none"},
      {flatpak_application, "[Runtime]\nname=no\n[Application]\nname=org.a.B\n", "org.a.B"},
      {flatpak_application, "[Application]\nname=../x y", "none"}};
  for (const auto& [read, text, name] : kCases) EXPECT_EQ(name, read(text).value_or("none")) << text;
}

// The test makes its own process table, because real units and sandboxes need a desktop session.
TEST(ProcessTest, MakesTheApplicationResponsibleForItsHelpers) {
  ProgramFolder folder;
  for (const char* id : {"shell", "browser", "other"}) folder.entry(id, id);
  for (const char* program : {"bin/shell", "bin/browser", "bin/other", "helper"}) folder.program(program);
  const char *kBrowser = "app-gnome-browser-7.scope", *kSession = "session-1.scope";
  const struct {
    int pid, parent, start;
    const char *program, *unit, *sandbox, *identifier;
    pid_t responsible;
  } kProcesses[] = {
      {10, 1, 5, "bin/shell", "org.gnome.Shell@x11.service", "", "shell", 10},
      {19, 1, 60, "bin/browser", kBrowser, "", "browser", 19},
      {20, 10, 50, "bin/browser", kBrowser, "", "browser", 20},
      {21, 1, 40, "bin/other", kBrowser, "", "other", 21},           // in the unit of another application
      {23, 1, 70, "helper", kBrowser, "", "helper", 20},             // its parent has ended
      {24, 10, 80, "helper", "app-tool-1.scope", "", "helper", 24},  // started by the desktop, in a unit of its own
      {25, 10, 80, "helper", kSession, "", "helper", 10},
      {26, 20, 30, "helper", kSession, "", "helper", 26},  // began before its parent: the parent's pid was reused
      {27, 1, 90, "bin/shell", kSession, "org.example.Sandboxed", "org.example.Sandboxed", 27},
      {28, 27, 91, "", kSession, "", "none", 27},
      {29, 1, 92, "", "snap.packaged.app-1.scope", "", "packaged", 29},
      // This process is its own parent, and its program is not a file of the snap.
      {30, 30, 93, "helper", "snap.editor.code-1.scope", "", "helper", 30},
      {31, 25, 94, "bin/browser", kSession, "", "browser", 31},  // started from a terminal
      {32, 31, 95, "helper", kSession, "", "helper", 31},
      {33, 32, 96, "helper", kSession, "", "helper", 31},
      // These programs have no files: the extension cannot examine the files in an AppImage's FUSE mount.
      {34, 1, 97, "tmp/.mount_browseAb12/browser", kSession, "", "browser", 34},
      {35, 10, 98, "tmp/.mount_BrowseCd34/python3.11", "snap.editor.code-1.scope", "", "image-browser", 10}};
  std::string mountPoint = folder.path("tmp/.mount_BrowseCd34");
  for (size_t at; (at = mountPoint.find(' ')) != std::string::npos;) mountPoint.replace(at, 1, "\\040");
  for (const auto& row : kProcesses) {
    std::string name = "proc/" + std::to_string(row.pid), parent = std::to_string(row.parent);
    folder.write(name + "/stat",
                 "1 (x) S " + parent + " 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 " + std::to_string(row.start) + " 0\n");
    folder.write(name + "/cgroup", std::string("0::/user.slice/") + row.unit);
    folder.write(name + "/mounts",
                 "proc /proc proc rw 0 0\nImage-Browser-v1.2-x86_64.AppImage " + mountPoint + " fuse.Image ro 0 0\n");
    folder.write(name + "/root/.flatpak-info", std::string("[Application]\nname=") + row.sandbox);
    struct statx mount;
    ASSERT_EQ(0, ::statx(AT_FDCWD, folder.path(name).c_str(), 0, STATX_MNT_ID, &mount));
    folder.write(name + "/mountinfo",
                 "1 0 0:1 / / rw - ext4 x rw\n" + std::to_string(mount.stx_mnt_id) + " 1 0:2 / /t rw - tmpfs x rw\n");
    if (*row.program != 0) fs::create_symlink(folder.path(row.program), folder.path(name + "/exe"));
  }
  ProcessIdentity identity(folder.folders(), folder.path("proc"));
  for (const auto& row : kProcesses) {
    auto process = identity.find(row.pid);
    ASSERT_TRUE(process) << row.pid;
    EXPECT_EQ(row.identifier, identity.identifierOf(process->program).value_or("none")) << row.pid;
    EXPECT_EQ(row.responsible, identity.responsibleFor(row.pid)) << row.pid;
  }
}

// A user can start any number of processes in a unit. A search among them must not keep other users waiting.
TEST(ProcessTest, SearchesAUnitForABoundedTime) {
  ProgramFolder folder;
  folder.entry("browser", "browser");
  const std::string program = folder.program("bin/browser");
  constexpr int kProcesses = 3000;
  for (int pid = 2; pid <= kProcesses; ++pid) {
    const std::string name = "proc/" + std::to_string(pid);
    folder.write(name + "/stat", "1 (x) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 " + std::to_string(pid) + " 0\n");
    folder.write(name + "/cgroup", "0::/app-browser-1.scope");
    if (pid < kProcesses) fs::create_symlink(program, folder.path(name + "/exe"));
  }
  ProcessIdentity identity(folder.folders(), folder.path("proc"));
  int calls = 1000;
  while (calls > 0 && identity.responsibleFor(kProcesses) != kProcesses) --calls;
  EXPECT_LT(0, calls) << "each call searched all processes";
}

// A user's file system or a network file system may never answer. The test starts two programs, and then mounts such a
// file system over their folder, which is also the root of the process 77 in the test's own process table.
TEST(ProcessTest, WaitsForNoFileSystem) {
  ProgramFolder folder;
  const RunningProgram browser(folder.program("home/browser")), removed(folder.program("home/removed (deleted)"));
  folder.write("proc/77/stat", "77 (x) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 0\n");
  fs::create_symlink(folder.program("helper"), folder.path("proc/77/exe"));
  fs::create_symlink(folder.path("home"), folder.path("proc/77/root"));
  auto identify = [&] {
    ::alarm(60);  // the signal ends a process that waits
    const std::string options =
        "rootmode=40000,user_id=0,group_id=0,allow_other,fd=" + std::to_string(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("silent", folder.path("home").c_str(), "fuse", 0, options.c_str()) != 0) {
      ::_exit(77);
    }
    ProcessIdentity identity(folder.folders());
    for (pid_t pid : {browser.pid, removed.pid}) {
      std::fputs(identity.identifierOf(identity.find(pid)->program)->c_str(), stderr);
    }
    ProcessIdentity table(folder.folders(), folder.path("proc"));
    std::fputs(table.identifierOf(table.find(77)->program)->c_str(), stderr);
    ::_exit(0);
  };
  const auto isDone = [](int status) {
    return WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 77);
  };
  EXPECT_EXIT(identify(), isDone, "^(browserremovedhelper)?$");
}

// A wrapper that executes a browser, which starts a tool and later executes it. Each of them is a copy of the shell.
class Wrapper : public RunningProgram {
 public:
  static void install(const ProgramFolder& folder) {
    for (const char* name : {"bin/wrapper", "bin/browser", "bin/tool"}) {
      fs::copy_file("/bin/sh", folder.program(name), fs::copy_options::overwrite_existing);
    }
    folder.entry("browser", "browser");
    folder.write("script", "echo $$; cd \"" + folder.path("bin") + R"("
      case $1 in
        wrapper) read go; exec ./browser "$0" browser;;
        browser) read go; ./tool "$0" child & read go; exec ./tool "$0" end;;
        child) kill -STOP $$;;
        end) read go;;
      esac)");
  }

  explicit Wrapper(const ProgramFolder& folder) : Wrapper(folder, socket_pair()) {}

  // Lets the process execute or start its next program. Returns the pid of that program when it runs.
  pid_t next() {
    terminal_.send("\n");
    return begun();
  }

 private:
  Wrapper(const ProgramFolder& folder, std::pair<Descriptor, Descriptor> ends)
      : RunningProgram(folder.path("bin/wrapper"), {folder.path("script"), "wrapper"}, ends.second.get()),
        terminal_(std::move(ends.first)) {
    begun();
  }
  pid_t begun() { return std::stoi(terminal_.read("\n")); }

  Peer terminal_;
};

// A new control group, below that of the test itself. Its name is that of a desktop environment's unit.
struct ControlGroup {
  ControlGroup() {
    std::ifstream mounts("/proc/self/mounts"), own("/proc/self/cgroup");
    std::string device, point, type, rest, line;
    while (mounts >> device >> point >> type && std::getline(mounts, rest) && type != "cgroup2") continue;
    while (std::getline(own, line) && !line.starts_with("0::")) continue;
    path = point + line.substr(std::min(line.size(), std::strlen("0::"))) + "/app-other-1.scope";
    isAvailable = type == "cgroup2" && ::mkdir(path.c_str(), 0755) == 0;
  }
  ~ControlGroup() { ::rmdir(path.c_str()); }
  ControlGroup(const ControlGroup&) = delete;
  ControlGroup& operator=(const ControlGroup&) = delete;

  void add(pid_t pid) const { std::ofstream(path + "/cgroup.procs") << pid; }
  std::string path;
  bool isAvailable = false;
};

// After each change the test asks at once, and each question twice: the second answer may come from a cache. The test
// is an application, too, and becomes the parent of processes whose parent ends (PR_SET_CHILD_SUBREAPER).
TEST(ProcessTest, NoticesEachChangeOfAProcessAtOnce) {
  ProgramFolder folder;
  Wrapper::install(folder);
  folder.entry("test", ProcessInformation::open(::getpid())->executable()->path);  // or the emulator that runs the test
  ASSERT_EQ(0, ::prctl(PR_SET_CHILD_SUBREAPER, 1));
  ControlGroup group;
  ProcessChanges uncounted;  // it counts no events
  const auto reason = ProcessChanges::system().start();
  const struct {
    const char* what;
    std::function<void(Wrapper&, pid_t tool)> change;
    const char* after;
  } kChanges[] = {{"the browser executes a tool",
                   [](Wrapper& wrapper, pid_t) { EXPECT_EQ(wrapper.pid, wrapper.next()); }, "tool of test"},
                  {"the browser ends", [](Wrapper& wrapper, pid_t) { wrapper.end(); }, "tool of test"},
                  {"its tool moves to a unit", [&](Wrapper&, pid_t tool) { group.add(tool); }, "tool of tool"}};
  for (const ProcessChanges* changes : {&uncounted, &ProcessChanges::system()}) {
    for (const auto& row : kChanges) {
      const bool isCounted = changes != &uncounted;
      SCOPED_TRACE(std::string(row.what) + (isCounted ? ", events are counted" : ", events are not counted"));
      if ((isCounted && reason) || (row.what == kChanges[2].what && !group.isAvailable)) continue;
      ProcessIdentity identity(folder.folders(), "/proc", *changes);
      auto name = [&](pid_t pid) {
        auto process = identity.find(pid);
        return process ? identity.identifierOf(process->program).value_or("none") : "ended";
      };
      auto whose = [&](pid_t pid) {
        std::string answers[2];
        for (std::string& answer : answers) answer = name(pid) + " of " + name(identity.responsibleFor(pid));
        EXPECT_EQ(answers[0], answers[1]);
        return answers[0];
      };
      Wrapper wrapper(folder);
      EXPECT_EQ("wrapper of test", whose(wrapper.pid));
      EXPECT_EQ(wrapper.pid, wrapper.next());
      EXPECT_EQ("browser of browser", whose(wrapper.pid));
      const pid_t tool = wrapper.next();
      ASSERT_LT(0, tool);
      EXPECT_EQ("tool of browser", whose(tool));
      row.change(wrapper, tool);
      EXPECT_EQ(row.after, whose(tool));
      ::kill(tool, SIGKILL);
      ::waitpid(tool, nullptr, 0);
    }
  }
  ::prctl(PR_SET_CHILD_SUBREAPER, 0);
  if (reason) GTEST_SKIP() << *reason;
}

}  // namespace
}  // namespace orvane
