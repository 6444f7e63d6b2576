// Reading JPEG photos goes through an image library that takes two of its
// own mutexes in both orders on a single thread; ThreadSanitizer reports that
// as a potential deadlock. It is outside this project, so that one report is
// silenced for this test program. Unused unless built with ThreadSanitizer.
extern "C" const char* __tsan_default_suppressions() { return "deadlock:libgdal.so\n"; }
