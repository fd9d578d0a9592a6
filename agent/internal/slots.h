// Which package a slot was written from.
#pragma once

#include <string>

#include "common/board.h"
#include "package/check.h"

namespace kavro::agent {

// Whether the package that was checked has the components that the slot must hold.
bool holds(const package::Check& check, const COMMON_YR::BoardSlotContent& content);

// Whether the package has the components that the slot must hold. One that cannot be read has none. Reads all of it.
bool holds(const std::string& package, const COMMON_YR::BoardSlotContent& content);

}  // namespace kavro::agent
