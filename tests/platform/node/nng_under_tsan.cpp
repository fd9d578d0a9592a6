// What ThreadSanitizer has to know of a program that uses nng.

#if defined(__SANITIZE_THREAD__)
// nng counts the references to a message by atomic operations, which ThreadSanitizer does not see in a
// library that was built without it: it would take the last free() of a message for a race with another
// connection's send.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "ignore_noninstrumented_modules=1";
}
#endif
