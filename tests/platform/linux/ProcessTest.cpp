#include "platform/Process.h"
#include "platform/linux/ProcessIdentity.h"
#include "platform/linux/Programs.h"

namespace orvane {
namespace {

TEST(ProcessTest, ReadsProcessesWithOddNames) {
  const std::string kRest = " S 41 1 7 0 -1 4194560 1 0 0 0 0 0 0 0 20 0 1 0 123456789012 1 1\n";
  for (const char* name : {"(cat)", "(a) R 1 2)", "())", "( )"}) {
    auto stat = parse_process_stat(std::string("40 ") + name + kRest);
    ASSERT_TRUE(stat) << name;
    EXPECT_EQ('S', stat->state);
    EXPECT_EQ(41, stat->parent);
    EXPECT_EQ(123456789012u, stat->startTime);
  }
  for (const char* text : {"", "40 (cat", "40 (cat)", "40 (cat) S", "40 (cat) S 41 1 7", "40 (cat) S x"}) {
    EXPECT_FALSE(parse_process_stat(text)) << text;
  }
}

TEST(ProcessTest, KeepsTheOrderOfTokenWordsAndEndsWithTheProcess) {
  auto token = audit_token_of_process(::getpid());
  ASSERT_TRUE(token);
  const uint32_t kKnown[] = {::geteuid(), ::getegid(), ::getuid(), ::getgid(), static_cast<uint32_t>(::getpid())};
  EXPECT_TRUE(std::equal(std::begin(kKnown), std::end(kKnown), token->val + 1));
  EXPECT_EQ(::getpid(), audit_token_to_pid(*token));
  RunningProgram ended({"/bin/sleep", "100"});
  ended.endUnnoticed();
  EXPECT_FALSE(audit_token_of_process(ended.pid()));
  EXPECT_EQ(-1, responsibility_get_pid_responsible_for_pid(ended.pid()));
  EXPECT_EQ(-1, responsibility_get_pid_responsible_for_pid(0));
}

TEST(ProcessTest, TakesNamesFromNowhereElse) {
  const struct {
    const char* controlGroups;
    const char* application;
    const char* path;
  } kUnits[] = {
      {"0::/u/app.slice/app-gnome-firefox\\x2desr-4711.scope\n", "firefox-esr",
       "/u/app.slice/app-gnome-firefox\\x2desr-4711.scope"},
      {"0::/app-org.kde.konsole-12.scope/tab(3).scope", "org.kde.konsole", "/app-org.kde.konsole-12.scope"},
      {"1:cpu:/\n9:name=systemd:/app-firefox@1ab2.service\n0::/\n", "firefox", "/app-firefox@1ab2.service"},
      {"0::/app-flatpak-org.mozilla.firefox-9.scope", "org.mozilla.firefox",
       "/app-flatpak-org.mozilla.firefox-9.scope"},
      {"0::/app-editor.scope", "editor", "/app-editor.scope"},
      {"0::/app-a-b-c-d-e.scope\n0::/app.slice/session-2.scope\n0::/apple-x-1.scope\nrubbish\n::\n", nullptr, nullptr},
      {"0::/app-org.gnome.Terminal.slice/vte-spawn-1.scope", nullptr, nullptr},
      {"0::/app-\\x2.scope", "\\x2", "/app-\\x2.scope"}};
  for (const auto& example : kUnits) {
    auto unit = unit_of_control_groups(example.controlGroups);
    ASSERT_EQ(example.application != nullptr, unit.has_value()) << example.controlGroups;
    if (!unit) continue;
    EXPECT_EQ(example.application, unit->application);
    EXPECT_EQ(example.path, unit->path);
  }
  const std::string kUser = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/";
  EXPECT_EQ("firefox", snap_of_control_groups(kUser + "snap.firefox.firefox-0a-b.scope").value_or(""));
  EXPECT_EQ("two-words", snap_of_control_groups(kUser + "snap.two-words_key.app.0a-b.scope").value_or(""));
  EXPECT_FALSE(snap_of_control_groups(kUser + "snap-firefox-1.mount\n0::/snap.x"));
  EXPECT_EQ("chromium", snap_of_path("/snap/chromium_test/12/usr/lib/chrome").value_or(""));
  EXPECT_EQ("chromium", snap_of_path("/var/lib/snapd/snap/chromium/12/chrome").value_or(""));
  EXPECT_FALSE(snap_of_path("/snap/bin/chromium"));
  EXPECT_FALSE(snap_of_path("/home/x/snap/chromium/chrome"));
  EXPECT_EQ("org.a.B", flatpak_application("[Runtime]\nname=no\n[Application]\nname=org.a.B\n").value_or(""));
  for (const char* text : {"", "[Runtime]\nname=org.a.B", "[Application]\nname=", "[Application]\nname=../x y"}) {
    EXPECT_FALSE(flatpak_application(text)) << text;
  }
}

// The browser and the terminal are copies of the shell, as they start other programs.
TEST(ProcessTest, HelpersBelongToTheirBrowserAndItToItself) {
  Folder folder;
  std::string terminal = folder.program("bin/terminal", "/bin/sh");
  std::string browser = folder.program("opt/browser/browser", "/bin/sh");
  std::string helper = folder.program("lib/tools/helper");
  folder.entry("terminal", "terminal");
  folder.entry("org.example.Browser", browser);
  ProcessIdentity identity(folder.folders());

  std::string pids = folder.path("pids");
  RunningProgram first({terminal, "-c",
                        helper + " 100 & echo $! >>" + pids + "; " + browser + " -c '" + helper + " 100 & echo $! >>" +
                            pids + "; echo $$ >>" + pids + "; wait' & wait"});
  std::vector<pid_t> started;
  ASSERT_TRUE(eventually([&] {
    std::ifstream file(pids);
    started.clear();
    for (pid_t pid; file >> pid;) started.push_back(pid);
    return started.size() == 3;
  }));
  std::string seen;
  auto settled = [&] {  // until each of them runs its own program
    seen.clear();
    for (pid_t pid : started) {
      auto process = identity.process(pid);
      pid_t responsible = identity.responsibleFor(pid);
      auto program = identity.process(responsible);
      if (!process || !program) return false;
      seen += identity.identifierOf(identity.programOf(*process)).value_or("?") + " of " +
              identity.identifierOf(identity.programOf(*program)).value_or("?") + "\n";
      if (responsible == pid) seen += "itself\n";
    }
    return seen ==
           "helper of terminal\nhelper of org.example.Browser\norg.example.Browser of org.example.Browser\nitself\n";
  };
  EXPECT_TRUE(eventually(settled)) << seen;
  EXPECT_EQ(::getpid(), identity.responsibleFor(::getpid()));
}

// A process table of the test's own: units and sandboxes need a session to be real.
class ProcessTableTest : public testing::Test {
 protected:
  void add(int pid, int parent, int start, const std::string& program, const std::string& unit,
           const std::string& sandbox = "") {
    std::string name = "proc/" + std::to_string(pid);
    folder_.write(name + "/stat", std::to_string(pid) + " (x) S " + std::to_string(parent) +
                                      " 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 " + std::to_string(start) + " 0\n");
    folder_.write(name + "/cgroup", "0::/user.slice/" + unit + "\n");
    if (!program.empty()) folder_.link(name + "/exe", folder_.path(program));
    if (!sandbox.empty()) folder_.write(name + "/root/.flatpak-info", "[Application]\nname=" + sandbox + "\n");
  }

  Folder folder_;
};

TEST_F(ProcessTableTest, FindsApplicationsBehindUnitsAndSandboxes) {
  for (const char* program : {"bin/shell", "bin/browser", "bin/other", "lib/tools/helper"}) folder_.program(program);
  for (const char* id : {"shell", "browser", "other"}) folder_.entry(id, id);
  const std::string kBrowserUnit = "app-gnome-browser-7.scope";
  add(10, 1, 5, "bin/shell", "org.gnome.Shell@x11.service");
  add(20, 10, 50, "bin/browser", kBrowserUnit);
  add(21, 1, 40, "bin/other", kBrowserUnit);  // started there, but not the application of the unit
  for (int pid = 40; pid < 50; ++pid) add(pid, 1, pid + 20, "bin/browser", kBrowserUnit);
  add(23, 1, 70, "lib/tools/helper", kBrowserUnit);         // its starter has gone
  add(24, 10, 80, "lib/tools/helper", "app-tool-1.scope");  // the desktop's child, but not its helper
  add(25, 10, 80, "lib/tools/helper", "session-1.scope");
  add(26, 20, 30, "lib/tools/helper", "session-1.scope");  // its parent is younger: another process by now
  add(27, 1, 90, "bin/shell", "session-1.scope", "org.example.Sandboxed");
  add(28, 27, 91, "", "session-1.scope");
  add(29, 1, 92, "", "snap.packaged.app-1.scope");
  add(30, 30, 93, "lib/tools/helper", "snap.editor.code-1.scope");  // of the system, in a snap's unit; its own parent

  ProcessIdentity identity(folder_.folders(), folder_.path("proc"));
  const std::tuple<pid_t, const char*, pid_t> kCases[] = {{20, "browser", 20},
                                                          {21, "other", 21},
                                                          {23, "helper", 20},
                                                          {24, "helper", 24},
                                                          {25, "helper", 10},
                                                          {26, "helper", 26},
                                                          {27, "org.example.Sandboxed", 27},
                                                          {28, "none", 27},
                                                          {29, "packaged", 29},
                                                          {30, "helper", 30}};
  for (const auto& [pid, identifier, responsible] : kCases) {
    auto process = identity.process(pid);
    ASSERT_TRUE(process) << pid;
    EXPECT_EQ(identifier, identity.identifierOf(identity.programOf(*process)).value_or("none")) << pid;
    EXPECT_EQ(responsible, identity.responsibleFor(pid)) << pid;
  }
}

}  // namespace
}  // namespace orvane
