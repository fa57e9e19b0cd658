// glibc guards its time-zone state (mktime, localtime_r -> tzset_internal)
// with an internal lock that ThreadSanitizer cannot see, so time conversions
// in several threads at once look like races inside the C library. Only
// ThreadSanitizer builds call this; elsewhere it is an unused function.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race:tzset_internal\n";
}
