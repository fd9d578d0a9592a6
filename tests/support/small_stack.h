// Runs a function on a thread with the stack that the library's job threads have.
#pragma once

#include <pthread.h>

#include <functional>

namespace testsupport {

constexpr unsigned long kJobStackBytes = 262144;

// Returns when the function is over; false when there is no thread.
inline bool runOnSmallStack(std::function<void()> function) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kJobStackBytes);
    pthread_t thread{};
    const auto body = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    const bool started = pthread_create(&thread, &attributes, body, &function) == 0;
    pthread_attr_destroy(&attributes);
    return started && pthread_join(thread, nullptr) == 0;
}

}  // namespace testsupport
