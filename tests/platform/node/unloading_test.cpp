// Loading and unloading libvel_node.so while its node lives or lived.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

constexpr unsigned kLetThreadsRunUs = 300000;

using GetNode = void* (*)(int, const char*, int, int, int);
using DestroyNode = void (*)(void**);

TEST(VelNodeUnloading, library_can_be_unloaded_and_loaded_again) {
    for (int round = 0; round < 3; ++round) {
        void* library = dlopen(VEL_NODE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto getNode = reinterpret_cast<GetNode>(dlsym(library, "_Z10getVelNodeiPKciii"));
        const auto destroyNode = reinterpret_cast<DestroyNode>(dlsym(library, "_Z14velDestroyNodePPv"));
        ASSERT_NE(getNode, nullptr);
        ASSERT_NE(destroyNode, nullptr);
        void* node = getNode(258, "upgrade", 0, 0, 2000);
        ASSERT_NE(node, nullptr);
        destroyNode(&node);
        ASSERT_EQ(dlclose(library), 0);
        usleep(kLetThreadsRunUs);
    }
}

TEST(VelNodeUnloading, library_can_be_unloaded_with_a_node_left_open) {
    void* library = dlopen(VEL_NODE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto getNode = reinterpret_cast<GetNode>(dlsym(library, "_Z10getVelNodeiPKciii"));
    ASSERT_NE(getNode, nullptr);
    static void* node = nullptr;  // still in reach at the end, so no leak
    node = getNode(258, "upgrade", 0, 0, 2000);
    ASSERT_NE(node, nullptr);
    ASSERT_EQ(dlclose(library), 0);
    usleep(kLetThreadsRunUs);
}

}  // namespace
