// Making an upgrade package out of components, and signing them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"
#include "package/version.h"

namespace kavro::package {

// What a package is to be made of.
struct PackRequest {
    std::filesystem::path
        componentDir;              // holds the files of kComponentNames; the version list may be missing
    std::filesystem::path key;     // private, PEM, RSA or EC; empty when only a command has it
    std::filesystem::path output;  // the package; a file of that name is replaced when the new one is whole
    Version version;               // of its contents
    std::optional<std::string> stamp;  // none: the time
    std::string ident;                 // may be empty
    std::string branch;                // may be empty
    std::string user;                  // only with a branch text
    std::optional<std::uint32_t> epoch =
        std::nullopt;  // security epoch; none: that of a release list in componentDir
    std::optional<std::filesystem::path> passphraseFile = std::nullopt;  // its first line decrypts the key
    std::string signCommand = {};  // a shell command that signs in place of the key, see below
    std::optional<std::filesystem::path> publicKey =
        std::nullopt;    // PEM; for a command, when there is no key
    bool force = false;  // pack components that are not what they should be, wherever a package can hold them
};

// What was made.
struct PackSummary {
    std::uint32_t payloadBytes = 0;     // of the archive
    std::string md5;                    // of the archive: 32 hexadecimal digits, lower case
    std::string keyDescription;         // "RSA, 2048 bits"
    std::vector<std::string> warnings;  // the faults that were packed by force
};

// A command that signs runs once for each of the seven components. On its standard input it gets the SHA-256 digest, 32 bytes;
// its environment has KAVRO_SIGN_NAME, the component's name, KAVRO_SIGN_SHA256, the digest as 64 hexadecimal digits, and
// KAVRO_SIGN_FILE, the path of the component. On its standard output it gives the signature, which must verify with the key: of
// RSA one by PKCS#1 v1.5, of EC one in DER. It runs in a process group of its own, without the terminal, and as long as it needs.
//
// Writes the package, a file of kPackageBytes bytes, and returns what stands in its trailer. Its version list is a release list
// (package/release_list.h): one that lies among the components must be that of the package, and the lines of any other text
// become notes. The time of the archive's
// entries and of the default stamp is SOURCE_DATE_EPOCH; without it the entries carry the time 0 and the stamp the present.
// Needs /bin/sh and GNU tar. Blocks while it works; keepGoing is asked between its steps, and false gives it up. A cancel of
// the thread takes effect afterwards. May be called from several threads at once, for different outputs.
//
// After an error nothing is left behind, and an older output is as it was: refused for an input, with all faults of the
// components at once, or for a signature that does not verify; usage for what contradicts itself; other for an output that cannot
// be written, or a command that fails; given_up.
KAVRO_EXPORT Result<PackSummary> pack(const PackRequest& request,
                                      const std::function<bool()>& keepGoing = {});

// Writes into a directory, which is made if need be, what somebody else has to sign for such a package: for each component a file
// NAME.sha256 with the 32 bytes of its digest, and the release list that is made, to be looked at. Neither the output nor any
// key of the request is looked at. Of the same components, version and epoch pack() makes the same list, so that its command need
// only give the signatures back. Blocks, keeps going and fails as pack() does; files of these names are replaced.
KAVRO_EXPORT Result<void> writeDigests(const PackRequest& request, const std::filesystem::path& directory,
                                       const std::function<bool()>& keepGoing = {});

}  // namespace kavro::package
