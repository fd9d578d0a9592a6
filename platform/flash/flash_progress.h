// How far the flash drivers are, for boardReadProgress. One thread writes, any thread reads.
#pragma once

#include <atomic>

namespace kavro {

// The bytes of one driver's run.
class FlashProgress {
  public:
    void begin(long long bytes) {
        done.store(0, std::memory_order_relaxed);
        total.store(bytes, std::memory_order_relaxed);
    }
    void add(long long bytes) { done.fetch_add(bytes, std::memory_order_relaxed); }

    [[nodiscard]] long long bytesDone() const { return done.load(std::memory_order_relaxed); }
    [[nodiscard]] long long bytesTotal() const { return total.load(std::memory_order_relaxed); }

  private:
    std::atomic<long long> done{0};
    std::atomic<long long> total{0};
};

inline FlashProgress mpuProgress;
inline FlashProgress mcuProgress;

}  // namespace kavro
