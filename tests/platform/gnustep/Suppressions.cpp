// GNUstep keeps objects for ever and takes locks in varying order. These lines stop the sanitizers from reporting that.
// They also hide leaks of our own Objective-C objects, but leaked_objects() finds those.
extern "C" const char* __lsan_default_suppressions() { return "leak:libobjc\nleak:libgnustep-base\n"; }
// Debian's GNUstep is built without ThreadSanitizer, which therefore does not see all that orders GNUstep's threads. So
// races with a frame of GNUstep are not reported either.
extern "C" const char* __tsan_default_suppressions() {
  return "deadlock:libobjc\ndeadlock:libgnustep-base\nrace:libgnustep-base\n";
}
