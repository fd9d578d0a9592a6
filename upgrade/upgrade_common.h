// Access to single options of the JSON configuration files.
#pragma once

#include <string>

#include "common/export.h"

// What an option holds, and what the value pointer of an access points to: an int32_t or a std::string. Any
// other value means no type: a read then only tells whether the option is there, a write rewrites the file
// unchanged.
enum CFG_DATA_TYPE_E : int {
    CFG_DATA_TYPE_INT = 0,
    CFG_DATA_TYPE_STRING = 1,
};

// Reads one option of a file whose root is a JSON object. A file that is missing or no JSON has no options.
// Returns 0 with the value stored; -2 when the option is absent, -3 when an integer was asked for and the
// member is no 32-bit integer, -4 when a string was asked for and it is no string, each logged and with the
// value untouched. Blocks for reading the file. Not locked: callers serialise access to one file.
KAVRO_EXPORT int UPGRADE_COMM_read_config(std::string file, std::string option, CFG_DATA_TYPE_E type,
                                          void* value);

// Sets one option and replaces the file as a whole, keeping its other members. A file that is missing or
// whose root is no object becomes one that holds only this option. Returns what writeFile returns: negative
// on failure, with the file as it was. Blocks until the file is on storage.
KAVRO_EXPORT int UPGRADE_COMM_write_config(std::string file, std::string option, CFG_DATA_TYPE_E type,
                                           const void* value);
