// The system's reason for a failure, as texts tell it.
#pragma once

#include <string>

namespace kavro {

// The text of an error number: "No such file or directory".
std::string reasonOf(int errorNumber);

// "WHAT", or "WHAT: text of errno" when the error number is not 0.
std::string errnoText(const std::string& what, int errorNumber);

// "PATH: WHAT", or "PATH: WHAT: text of errno" when the error number is not 0.
std::string fileError(const std::string& path, const std::string& what, int errorNumber);

}  // namespace kavro
