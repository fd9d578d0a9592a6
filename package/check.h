// Checking a package off the device: everything that a device checks before it flashes, and whose key it is.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"
#include "package/entry.h"
#include "package/release_list.h"
#include "package/trailer.h"

namespace kavro::package {

// Faults and warnings are whole sentences without a full stop that name what they are about. What they quote from the package is
// escaped; what stands in a trailer or in the name of an archive's entry is not.

// One of the seven components.
struct ComponentCheck {
    std::string name;         // of kComponentNames
    std::uint64_t bytes = 0;  // of the component; 0 when it is missing
    std::string sha256;       // lower-case hexadecimal digits; empty when the component is missing
    std::string fault;        // what a device would refuse it for; empty when it is in order
};

// One of the things that are checked of a package as a whole.
struct PartCheck {
    std::string name;                 // "trailer", "key", "trusted key", "md5", "archive", "release"
    std::vector<std::string> faults;  // empty when it is in order
};

// All that was found.
struct Check {
    Trailer trailer;             // as far as it can be read
    std::string keyDescription;  // "EC, 256 bits"; empty when the package holds no usable key
    std::string keyDigest;       // SHA-256 of the key in DER form, lower-case hexadecimal digits; or empty
    std::optional<ReleaseList>
        release;  // what the package says of its release; none when it brings no such list
    std::vector<PartCheck>
        parts;  // in the order above; the trusted key only when one was given, the release only then or
                // when there is such a list
    std::vector<ComponentCheck> components;  // the seven, in the order of kComponentNames
    std::vector<std::string> faults;         // of the package as a whole: those of all parts
    std::vector<std::string> warnings;  // what would be a fault with a trusted key; empty when one was given

    // Nothing is wrong with it.
    KAVRO_EXPORT bool inOrder() const;
    // Another key than the trusted one is all that is wrong with it.
    KAVRO_EXPORT bool lacksOnlyTrust() const;
};

// Called with each entry of the archive, in their order.
using EntryListener = std::function<void(const Entry&)>;

// Reads a package once, in fixed memory, without writing anything. Whatever a device would refuse is a fault, and so is
// what a device may take or not, such as two entries of one name, and whatever a release list in the package
// (package/release_list.h) tells otherwise than trailer and archive do.
//
// With a trusted key (PEM, public) a package must be as its maker has made it: it carries that key and a release list, and
// holds nothing but what that list names, in the form and with the owner and the mode that pack() gives it. Without such a
// key these are warnings: who made the package could as well have signed anything else.
//
// An error is: refused when the file is no package, so that there is nothing to check (another size, no regular file,
// unreadable); usage when the trusted key's file cannot be read or holds no public key; other when a read fails, or for
// what the listener throws. Blocks until all 128 MiB were read; a cancel of the thread takes effect afterwards. May be called
// from several threads at once.
KAVRO_EXPORT Result<Check> check(const std::filesystem::path& package,
                                 const std::optional<std::filesystem::path>& trustedKey = std::nullopt,
                                 const EntryListener& listener = {});

}  // namespace kavro::package
