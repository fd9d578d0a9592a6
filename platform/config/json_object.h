// Reading the device's small JSON files, whatever they hold by now.
#pragma once

#include <json/json.h>

#include <string>

namespace kavro {

// The object that the file holds. Otherwise null, with what is wrong in `fault`: "cannot be read: ...",
// "is no JSON: line 3, column 5: ...", "is no JSON object". A text that nests deeper than any of our files does
// is not followed, so that the parser's recursion fits the small stack of a job.
// Needs a CancelHold around it; never throws, except for exhausted memory.
Json::Value readJsonObject(const std::string& path, std::string& fault);

}  // namespace kavro
