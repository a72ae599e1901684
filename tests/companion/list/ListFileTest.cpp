#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <tuple>

#include "companion/list/ListFile.h"
#include "companion/text/Input.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

class ListFile : public testing::Test {
 protected:
  void write(const std::string& text) const { std::ofstream(path_) << text; }
  std::string text() const { return temporary_.read("list"); }
  size_t files() const {
    return static_cast<size_t>(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()));
  }
  ListVersion put(const std::string& host) const {
    return edit_list(path_, [&](BlockList& list) { return list.put({host, Scope::Subdomains, {}}); });
  }

  const TemporaryFolder temporary_;
  const std::string folder_ = temporary_.path(), path_ = folder_ + "/list";
};

// Runs `act` in a child, which exits with its result. An exception aborts the child (noexcept) before it reaches gtest.
pid_t fork_to(const std::function<int()>& act) noexcept {
  const pid_t child = fork();
  if (child == 0) _exit(act());
  return child;
}

int exit_code_of(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs `act` in a traced child, which stops at the start and at the end of each system call. Kills the child at its
// n-th stop. Appends the numbers of the child's system calls to `calls`. Returns false if the child ended before that
// stop.
bool kill_at_stop(size_t n, const std::function<void()>& act, std::vector<uint64_t>& calls) {
  pid_t child = fork_to([&] {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) return 77;
    raise(SIGSTOP);
    act();
    return 0;
  });
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFSTOPPED(status)) throw std::runtime_error("tracing is not allowed here");
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  for (size_t stop = 0; stop < n; ++stop) {
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    waitpid(child, &status, 0);
    if (!WIFSTOPPED(status)) return false;
    __ptrace_syscall_info info{};
    ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) calls.push_back(info.entry.nr);
  }
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  return true;
}

TEST_F(ListFile, IsWholeWhereverAWriteIsKilled) {
  const std::string old =
      "# mine\n[group work]\nschedule = Mon..Fri 09:00-17:00\nlock-until = 2030-01-31T17:00:00Z\nold.example\n"
      "[group default]\nold.example\n";
  const std::string changed = old + "new.example\n";
  size_t outcomes[2] = {0, 0};
  std::vector<uint64_t> calls;
  const auto act = [&] { put("new.example"); };
  bool killed = true;
  for (size_t n = 1; killed; ++n) {
    write(old);
    calls.clear();
    try {
      killed = kill_at_stop(n, act, calls);
    } catch (const std::runtime_error& error) {
      GTEST_SKIP() << error.what();
    }
    ASSERT_TRUE(text() == old || text() == changed) << "killed at stop " << n << ": " << text();
    ++outcomes[text() == changed ? 1 : 0];
    put("next.example");
    EXPECT_NE(BlockList::parse(text()).find("next.example"), nullptr);
    EXPECT_EQ(files(), 1U) << "left behind after the kill at stop " << n;
  }
  EXPECT_GT(outcomes[0], 10U);
  EXPECT_GT(outcomes[1], 1U);
  std::vector<uint64_t> order;
  for (uint64_t call : calls) {
    if (call == SYS_fsync || call == SYS_renameat) order.push_back(call);
  }
  EXPECT_EQ(order, (std::vector<uint64_t>{SYS_fsync, SYS_renameat, SYS_fsync})) << "the new file, then the folder";
}

TEST_F(ListFile, KeepsEveryEditOfSeveralWriters) {
  constexpr int kWriters = 4, kEdits = 25;
  std::vector<pid_t> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    writers.push_back(fork_to([&] {
      for (int i = 0; i < kEdits; ++i) put("h" + std::to_string(writer) + "-" + std::to_string(i) + ".example");
      return 0;
    }));
  }
  for (pid_t writer : writers) EXPECT_EQ(exit_code_of(writer), 0);
  EXPECT_EQ(read_list(path_).list.size(), size_t{kWriters} * kEdits);
}

TEST_F(ListFile, EditsTheVersionSavedMeanwhile) {
  write("old.example\n");
  int calls = 0;
  edit_list(path_, [&](BlockList& list) {
    if (++calls == 1) write("by.hand.example\n");
    return list.put({"new.example", Scope::Subdomains, {}});
  });
  EXPECT_EQ(text(), "by.hand.example\nnew.example\n");
  EXPECT_EQ(calls, 2);
}

TEST_F(ListFile, StaysUnchangedWhenAWriteFails) {
  put("old.example");
  const std::string before = text();
  const int code = exit_code_of(fork_to([&] {
    const rlimit limit{before.size(), before.size()};
    std::signal(SIGXFSZ, SIG_IGN);
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
    try {
      put("new.example");
      return 2;
    } catch (const FileError&) {
      return 0;
    }
  }));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(text(), before);
  EXPECT_EQ(files(), 1U);
}

TEST_F(ListFile, KeepsItsModeWithinWhatTheGroupMayDo) {
  const std::tuple<const char*, mode_t, mode_t, mode_t> kCases[] = {
      {"new file", 0700, 0, 0660},
      {"no program for others to run", 0700, 06750, 0640},
      {"the group's, whatever a member's umask is", 02770, 0600, 0660},
  };
  for (const auto& [description, folder, before, after] : kCases) {
    chmod(folder_.c_str(), folder);
    if (before != 0) chmod(path_.c_str(), before);
    put(std::string("a") + std::to_string(before) + ".example");
    struct stat status = {};
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, after) << description;
  }
}

// A member of the group can put a link to any file in place of the list. If orvanectl followed the link when root edits
// the list, the new list would contain the text of a file that only root may read, and the group may read the list.
TEST_F(ListFile, RejectsAnythingButAPlainFile) {
  const std::string secret = folder_ + "/secret";
  const std::pair<const char*, std::function<void()>> kCases[] = {
      {"hard link", [&] { fs::create_hard_link(secret, path_); }},
      {"symbolic link", [&] { fs::create_symlink(secret, path_); }},
      {"folder", [&] { fs::create_directory(path_); }},
      {"pipe, which must not be waited for", [&] { mkfifo(path_.c_str(), 0600); }},
  };
  std::ofstream(secret) << "secret.example\n";
  for (const auto& [description, make] : kCases) {
    make();
    EXPECT_THROW(read_list(path_), FileError) << description;
    EXPECT_THROW(put("a.example"), FileError) << description;
    fs::remove(path_);
  }
  EXPECT_THROW(read_list(folder_ + "/missing/list"), FileError);
}

}  // namespace
}  // namespace orvane
