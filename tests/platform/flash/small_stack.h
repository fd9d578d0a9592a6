// Runs something on a thread with the stack of the flashing jobs.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstddef>
#include <functional>

namespace testsupport {

inline void runOnJobStack(const std::function<void()>& work) {
    constexpr std::size_t kJobStackBytes = 262144;
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, kJobStackBytes), 0);
    const auto entry = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    pthread_t thread{};
    std::function<void()> copy = work;
    ASSERT_EQ(pthread_create(&thread, &attributes, entry, &copy), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

}  // namespace testsupport
