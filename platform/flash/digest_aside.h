// A SHA-256 that is computed on a thread of its own, while whoever feeds it does something else with the same data.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>

#include "base/digest.h"
#include "common/user_thread.h"

namespace kavro {

class DigestAside : private COMMON_YR::UserThreadBase {
  public:
    // Where there is no thread to be had, add() does the work.
    DigestAside();
    ~DigestAside();

    // Begins to add data, which must stay as it is until wait() has returned. Waits for what was added before.
    void add(const char* data, std::size_t size);
    // Until all that was added is in the digest.
    void wait();

    // As Digest's.
    std::string finishAsText();

  private:
    int threadFunc() override;

    Digest digest{Digest::Kind::kSha256};
    bool hasThread = false;

    std::mutex mutex;
    std::condition_variable changed;
    const char* pending = nullptr;  // null: nothing to do
    std::size_t pendingSize = 0;
    bool ending = false;
};

}  // namespace kavro
