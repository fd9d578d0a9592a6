// What the device's libraries say while they work, for the texts of failures.
//
// It is heard of in this process where the board's log tells it (common/log_listener.h), and stays unknown elsewhere. All
// functions may be called from any thread.
#pragma once

#include <string>
#include <vector>

#include "common/export.h"

namespace kavro::agent {

// Keeps from now on what is logged, as far as there is room for it, and forgets what was kept. Each run begins with this.
KAVRO_EXPORT void keepDeviceLog();

// The first errors that were kept, each once: only their message, and without those lines that repeat in which step another
// one was logged. Four at most.
KAVRO_EXPORT std::vector<std::string> loggedErrors();

// The file into which the device logs; empty when there is none or the board does not tell.
KAVRO_EXPORT std::string deviceLogFile();

}  // namespace kavro::agent
