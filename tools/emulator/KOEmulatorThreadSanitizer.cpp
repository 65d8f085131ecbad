// Compiled into every program that links the emulator, and only in ThreadSanitizer builds.
//
// libcpp-httplib comes from the distribution without instrumentation. Its lazily built statics
// are published by an inline guard check that ThreadSanitizer cannot see, so the copies it makes
// through intercepted memcpy/memcmp look like races between the server's worker threads. Reports
// from those interceptors are muted for that library only; our own handlers stay checked.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libcpp-httplib.so\n"; }
