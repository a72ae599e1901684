#include "companion/keeper/KeeperLog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "companion/text/Output.h"

namespace orvane {
namespace {

// The variable alone does not show that standard error is the journal: a program in a terminal inherits the variable if
// a service started the terminal.
bool is_stderr_journal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
         std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

}  // namespace

void keeper_log(LogLevel level, const std::string& text) {
  static const bool isJournal = is_stderr_journal();
  if (isJournal) {
    std::fprintf(stderr, "<%d>%s\n", static_cast<int>(level), text.c_str());
  } else {
    print_error(text);
  }
}

}  // namespace orvane
