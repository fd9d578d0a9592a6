#include "base/errno_text.h"

#include <cstring>

namespace kavro {

std::string reasonOf(int errorNumber) {
    const char* description = ::strerrordesc_np(errorNumber);
    return description != nullptr ? description : "unknown error";
}

std::string errnoText(const std::string& what, int errorNumber) {
    return errorNumber == 0 ? what : what + ": " + reasonOf(errorNumber);
}

std::string fileError(const std::string& path, const std::string& what, int errorNumber) {
    return path + ": " + errnoText(what, errorNumber);
}

}  // namespace kavro
