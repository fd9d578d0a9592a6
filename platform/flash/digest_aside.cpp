#include "platform/flash/digest_aside.h"

namespace kavro {
namespace {

constexpr int kOnce = 1;
constexpr int kWithoutLimit = -1;

}  // namespace

DigestAside::DigestAside() {
    setName("digestAside");
    hasThread = start(kOnce);
}

DigestAside::~DigestAside() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ending = true;
    }
    changed.notify_all();
    UserThreadBase::stop(kWithoutLimit);
}

void DigestAside::add(const char* data, std::size_t size) {
    if (!hasThread) {
        digest.add(data, size);
        return;
    }
    wait();
    {
        const std::lock_guard<std::mutex> lock(mutex);
        pending = data;
        pendingSize = size;
    }
    changed.notify_all();
}

void DigestAside::wait() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return pending == nullptr; });
}

std::string DigestAside::finishAsText() {
    wait();
    return digest.finishAsText();
}

int DigestAside::threadFunc() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return ending || pending != nullptr; });
        if (pending == nullptr) {
            return 0;
        }
        lock.unlock();
        digest.add(pending, pendingSize);
        lock.lock();
        pending = nullptr;
        changed.notify_all();
    }
}

}  // namespace kavro
