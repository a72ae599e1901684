#include "companion/text/ServiceLog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "companion/text/Input.h"

namespace orvane {
namespace {

// Whether standard error is the file that JOURNAL_STREAM names. The variable alone proves nothing: if a service started
// a terminal, programs in the terminal inherit the variable.
bool is_stderr_journal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat status = {};
  return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
         std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

}  // namespace

void service_log(const char* program, LogLevel level, const std::string& text) {
  static const bool isJournal = is_stderr_journal();
  const std::string line = printable(text, false);
  if (isJournal) {
    std::fprintf(stderr, "<%d>%s\n", static_cast<int>(level), line.c_str());
  } else {
    std::fprintf(stderr, "%s: %s\n", program, line.c_str());
  }
}

}  // namespace orvane
