// That a work was given up by whoever had asked for it.
#pragma once

#include "base/failure.h"

namespace kavro::package {

inline Failure givenUp() {
    return {ErrorCode::kGivenUp, "interrupted, no package was written", "run the command again"};
}

}  // namespace kavro::package
