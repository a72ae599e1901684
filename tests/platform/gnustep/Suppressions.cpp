// What the runtime and Foundation keep from their start on is theirs, and so is the order in which they take their
// locks. Objects that are ours are counted by the harness.
extern "C" const char* __lsan_default_suppressions() { return "leak:libobjc\nleak:libgnustep-base\n"; }
extern "C" const char* __tsan_default_suppressions() { return "deadlock:libobjc\ndeadlock:libgnustep-base\n"; }
