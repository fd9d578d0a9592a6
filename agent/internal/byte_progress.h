// How far the stages of a run are, by the bytes that they have copied, read, unpacked or written.
#pragma once

#include <cstdint>
#include <optional>

#include "common/board.h"

namespace kavro::agent {

// Of one run. To ask costs some system calls, and no more.
class ByteProgress {
  public:
    // contentBytes: of the package's components; 0 when they are not known, and nothing else either. To be made before the run
    // begins.
    explicit ByteProgress(std::uint64_t contentBytes);

    // The percentage of the run in this stage and state, 0 to 100, and 100 only in the stage DONE. Where no bytes tell, as in the
    // stages that are short, it is the library's own estimate. Any thread of the run's process.
    [[nodiscard]] int percent(int stage, int state) const;

  private:
    [[nodiscard]] std::optional<double> part(int stage, int state) const;
    [[nodiscard]] std::optional<double> unpacked() const;
    [[nodiscard]] std::optional<double> flashed() const;

    const double total;
    COMMON_YR::BoardProgress before;  // of an earlier run
};

}  // namespace kavro::agent
