// A clock that stands until a test moves it.
//
// A test that is built with fake_tick.cpp defines glbGetCurTickMs in its own executable.
#pragma once

#include <functional>

namespace fake {

// What glbGetCurTickMs gives from now on, in milliseconds; 1000 at the start.
void setTick(double milliseconds);

// Called at each look at the clock. Empty for none. Set it while nothing is going on.
void onTick(std::function<void()> hook);

}  // namespace fake
