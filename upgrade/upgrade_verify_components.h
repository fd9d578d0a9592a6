// Decides whether an unpacked package may be flashed: complete, and every component signed by the package's
// key.
#pragma once

#include <string>

#include "common/export.h"

// Checks the files that components lists (names separated by ',') in the directory dir: all seven components
// and their signatures must be there, and each signature must verify with the public key file pubkey. Returns
// 0 or -1, logged. Blocks while openssl reads the components; a cancel of the calling thread may end it
// meanwhile.
KAVRO_EXPORT int UPGRADE_verify_signature(std::string dir, std::string components, std::string pubkey);
