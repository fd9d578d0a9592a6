#include "package/pack.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/failure.h"
#include "base/hex_digit.h"
#include "base/output_file.h"
#include "base/raw_file.h"
#include "package/internal/archive.h"
#include "package/internal/component_files.h"
#include "package/internal/given_up.h"
#include "package/internal/packed_list.h"
#include "package/internal/signer.h"
#include "package/internal/signing.h"
#include "package/internal/staging.h"
#include "package/trailer.h"

namespace kavro::package {

namespace {

namespace fs = std::filesystem;

// The time that a reproducible build sets for everything it makes.
std::optional<std::time_t> sourceDateEpoch() {
    const char* text = std::getenv("SOURCE_DATE_EPOCH");
    if (text == nullptr) {
        return std::nullopt;
    }
    const std::string digits = text;
    constexpr std::size_t kMaxDigits = 11;  // up to the year 5138, so that a stamp's year has four digits
    if (digits.empty() || digits.size() > kMaxDigits ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
        throw Failure(ErrorCode::kUsage, "SOURCE_DATE_EPOCH '" + digits + "' is not a number of seconds",
                      "set it to the seconds since 1970, or unset it");
    }
    return static_cast<std::time_t>(std::stoll(digits));
}

std::string utcStamp(std::time_t time) {
    std::tm parts = {};
    gmtime_r(&time, &parts);
    char text[32] = {};
    std::strftime(text, sizeof(text), "%Y%m%d%H%M%S", &parts);
    return text;
}

Trailer describe(const PackRequest& request, const Signer& signer) {
    Trailer trailer;
    trailer.publicKey = signer.publicKeyPem();
    trailer.stamp = request.stamp ? *request.stamp : utcStamp(sourceDateEpoch().value_or(std::time(nullptr)));
    trailer.ident = request.ident;
    trailer.version = request.version;
    trailer.branch = request.branch;
    trailer.user = request.user;
    valueOf(checkTrailerFits(trailer));
    return trailer;
}

void requireApart(const PackRequest& request, const std::vector<Component>& components) {
    std::vector<fs::path> inputs = {request.key, request.publicKey.value_or(""),
                                    request.passphraseFile.value_or("")};
    for (const Component& component : components) {
        inputs.push_back(component.path);
    }
    for (const fs::path& input : inputs) {
        std::error_code ignored;
        if (fs::equivalent(request.output, input, ignored)) {
            throw Failure(ErrorCode::kUsage,
                          "the output '" + request.output.string() + "' is also an input of the package",
                          "give another output file");
        }
    }
}

void requirePayloadFits(std::uint64_t bytes) {
    if (bytes > kMaxPayloadBytes) {
        throw Failure(ErrorCode::kRefused,
                      "the components come to " + std::to_string(bytes) + " bytes, a package holds " +
                          std::to_string(kMaxPayloadBytes),
                      "make them smaller by " + std::to_string(bytes - kMaxPayloadBytes) + " bytes");
    }
}

// The first fault, and the others along with it. faults must not be empty.
Failure refusal(const std::vector<ComponentFault>& faults) {
    const auto errorOf = [](const ComponentFault& fault) {
        return Error{ErrorCode::kRefused, fault.text, fault.next, {}, {}};
    };
    Error error = errorOf(faults.front());
    std::transform(faults.begin() + 1, faults.end(), std::back_inserter(error.further), errorOf);
    return Failure(std::move(error));
}

void throwIfGivenUp(const KeepGoing& keepGoing) {
    if (keepGoing && !keepGoing()) {
        throw givenUp();
    }
}

std::uint64_t totalSize(const std::vector<Component>& components) {
    std::uint64_t total = 0;
    for (const Component& component : components) {
        total += fs::file_size(component.path);
    }
    return total;
}

// What goes into the package.
struct Release {
    std::vector<Component> components;  // in the order of kComponentNames; without a list when that is made
    std::vector<ComponentContent> contents;  // of each of them
    std::string list;                        // the text of the list that is made
    std::vector<std::string> warnings;       // what is packed by force
};

std::optional<Component> givenList(const std::vector<Component>& components) {
    const bool given = !components.empty() && components.back().name == kVersionList;
    return given ? std::optional<Component>(components.back()) : std::nullopt;
}

// Only when all the other components are there: otherwise everything would differ.
void makeList(Release& release, const PackRequest& request, std::vector<ComponentFault>& faults) {
    const ReleaseList made =
        makeReleaseList(release.components, release.contents, request.version, request.epoch);
    if (made.components.size() + 1 != kComponentNames.size()) {
        return;
    }
    PackedList list = packedList(made, givenList(release.components));
    if (list.fault) {
        faults.push_back(*list.fault);
        return;
    }
    if (givenList(release.components)) {
        release.components.pop_back();
        release.contents.pop_back();
    }
    release.list = std::move(list.text);
}

// Each component is read once, here, and once more by tar.
Release readRelease(const PackRequest& request, const KeepGoing& keepGoing) {
    std::vector<ComponentFault> faults;
    Release release;
    release.components = findComponents(request.componentDir, faults);
    if (faults.empty()) {
        requirePayloadFits(totalSize(release.components));
    }
    for (const Component& component : release.components) {
        throwIfGivenUp(keepGoing);
        release.contents.push_back(readComponent(component, request.version));
        if (release.contents.back().fault) {
            faults.push_back(*release.contents.back().fault);
        }
    }
    const std::vector<Component> inputs = release.components;
    makeList(release, request, faults);
    const bool packable = std::all_of(faults.begin(), faults.end(), [&request](const ComponentFault& fault) {
        return request.force && fault.forceable;
    });
    if (!packable) {
        throw refusal(faults);
    }
    requireApart(request, inputs);
    for (const ComponentFault& fault : faults) {
        release.warnings.push_back(fault.text);
    }
    return release;
}

// The list that was made becomes a component like the others.
void stageList(Release& release, const fs::path& directory) {
    if (release.list.empty()) {
        return;
    }
    const fs::path path = directory / (std::string("made-") + kVersionList);
    writeStaged(path, release.list);
    release.components.push_back({kVersionList, path});
    release.contents.push_back({release.list.size(), fileDigest(path, Digest::Kind::kSha256), std::nullopt});
}

// Puts all files of the archive into one directory: links to the components, and their signatures. Returns
// their names.
std::vector<std::string> stage(const fs::path& directory, const Release& release, Signer& signer,
                               const KeepGoing& keepGoing) {
    std::vector<std::string> names;
    for (std::size_t index = 0; index < release.components.size(); ++index) {
        throwIfGivenUp(keepGoing);
        const Component& component = release.components[index];
        const std::string signatureName = component.name + kSignatureSuffix;
        fs::create_symlink(component.path, directory / component.name);
        writeStaged(directory / signatureName,
                    signer.sign(component, release.contents[index].sha256, directory));
        names.insert(names.end(), {component.name, signatureName});
    }
    return names;
}

PackSummary writePackage(const PackRequest& request, const KeepGoing& keepGoing) {
    const std::unique_ptr<Signer> signer = makeSigner(request, keepGoing);
    Trailer trailer = describe(request, *signer);
    Release release = readRelease(request, keepGoing);
    OutputFile output(request.output);

    const StagingDirectory staging;
    stageList(release, staging.path());
    const std::vector<std::string> names = stage(staging.path(), release, *signer, keepGoing);
    writeArchive(output.path(), staging.path(), names, sourceDateEpoch().value_or(0));
    throwIfGivenUp(keepGoing);

    const std::uint64_t payloadBytes = fs::file_size(output.path());
    requirePayloadFits(payloadBytes);
    trailer.payloadBytes = static_cast<std::uint32_t>(payloadBytes);
    trailer.md5 = hexText(fileDigest(output.path(), Digest::Kind::kMd5));
    output.writeAt(kMaxPayloadBytes, encodeTrailer(trailer));
    throwIfGivenUp(keepGoing);
    output.commit();
    return {trailer.payloadBytes, trailer.md5, signer->keyDescription(), std::move(release.warnings)};
}

// For a signer that has nothing but these: a file of 32 bytes for each component, and the list, which tells what is signed.
void writeDigestFiles(const PackRequest& request, const fs::path& directory, const KeepGoing& keepGoing) {
    Release release = readRelease(request, keepGoing);
    const StagingDirectory staging;
    stageList(release, staging.path());
    fs::create_directories(directory);
    const auto write = [&directory](const std::string& name, const std::string& content) {
        OutputFile output(directory / name);
        output.writeAt(0, content);
        output.commit();
    };
    for (std::size_t index = 0; index < release.components.size(); ++index) {
        const DigestBytes& sha256 = release.contents[index].sha256;
        write(release.components[index].name + kDigestSuffix, std::string(sha256.begin(), sha256.end()));
    }
    if (!release.list.empty()) {
        write(kVersionList, release.list);
    }
}

// What the file system throws becomes an error as well.
template <typename Work>
auto guarded(const Work& work) {
    return resultOf([&work] {
        try {
            return work();
        } catch (const fs::filesystem_error& error) {
            throw Failure(ErrorCode::kOther, error.what(),
                          "check that the files stay in place while they are packed");
        }
    });
}

}  // namespace

Result<PackSummary> pack(const PackRequest& request, const KeepGoing& keepGoing) {
    return guarded([&] { return writePackage(request, keepGoing); });
}

Result<void> writeDigests(const PackRequest& request, const fs::path& directory, const KeepGoing& keepGoing) {
    return guarded([&] { writeDigestFiles(request, directory, keepGoing); });
}

}  // namespace kavro::package
