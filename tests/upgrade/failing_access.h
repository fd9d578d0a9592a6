// A path about which storage gives no answer.
#pragma once

#include <string>

namespace upgradetest {

// While it lives, access(2) of that path fails with EIO. One at a time.
class UnansweredPath {
  public:
    explicit UnansweredPath(const std::string& path);
    ~UnansweredPath();
    UnansweredPath(const UnansweredPath&) = delete;
    UnansweredPath& operator=(const UnansweredPath&) = delete;
};

}  // namespace upgradetest
