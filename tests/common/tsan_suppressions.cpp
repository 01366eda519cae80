// libstdc++ is not built with ThreadSanitizer, so the atomic reference count inside
// std::exception_ptr is invisible to it: an exception read on one thread and released
// last on another looks like a race. Linked into test binaries that pass errors
// between threads.
extern "C" const char* __tsan_default_suppressions() {
    return "race:std::__exception_ptr::exception_ptr::_M_release\n";
}
