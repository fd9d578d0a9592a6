#include "agent/internal/slots.h"

#include <algorithm>

#include "common/utility.h"

namespace kavro::agent {

bool holds(const package::Check& check, const COMMON_YR::BoardSlotContent& content) {
    const auto isOfSlot = [&content](const package::ComponentCheck& component) {
        const auto known = content.find(component.name);
        return known != content.end() && component.sha256 == known->second.sha256 &&
               static_cast<long long>(component.bytes) == known->second.bytes;
    };
    const auto found = std::count_if(check.components.begin(), check.components.end(), isOfSlot);
    return !content.empty() && static_cast<std::size_t>(found) == content.size();
}

bool holds(const std::string& package, const COMMON_YR::BoardSlotContent& content) {
    if (!COMMON_YR::isFileExist(package.c_str())) {
        return false;
    }
    const Result<package::Check> check = package::check(package);
    return check.ok() && holds(check.value(), content);
}

}  // namespace kavro::agent
