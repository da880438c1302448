// The packaged HTTP library is not built for ThreadSanitizer, which therefore cannot see how it guards its tables of
// method names and takes their first use for a race. What its functions do to memory is left out; locks count as ever,
// and so does everything that the handlers do.
#if defined(__SANITIZE_THREAD__)
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libcpp-httplib\n";
}
#endif
