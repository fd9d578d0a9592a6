#include "agent/internal/last_run.h"

#include "common/utility.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

std::string recordedOutcome() {
    if (!COMMON_YR::isFileExist(UPGRADE_LAST_RUNTIME_FILE)) {
        return "none";
    }
    const std::string text = COMMON_YR::readFile2String(UPGRADE_LAST_RUNTIME_FILE);
    const bool isName = text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == std::string::npos;
    return isName ? text : "";
}

bool isFailure(const std::string& outcome) {
    return outcome == "upgrade_failure" || outcome == "rollback_failure";
}

}  // namespace kavro::agent
