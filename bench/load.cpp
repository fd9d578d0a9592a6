// How long it takes to load the upgrade manager's library and to unload it again.
#include <dlfcn.h>

#include <chrono>
#include <cstdio>

int main() {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    void* const library = dlopen(UPGRADE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr || dlclose(library) != 0) {
        std::fprintf(stderr, "bench: %s\n", dlerror());
        return 1;
    }
    const std::chrono::duration<double, std::milli> passed = Clock::now() - start;
    // cppcheck-suppress leakReturnValNotUsed  // there should be none
    if (dlopen(UPGRADE_LIBRARY, RTLD_NOW | RTLD_NOLOAD) != nullptr) {
        std::fprintf(stderr, "bench: the library is still loaded\n");
        return 1;
    }
    std::printf("{\"name\": \"load\", \"ours\": %.3f}\n", passed.count());
    return 0;
}
