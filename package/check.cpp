#include "package/check.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <utility>

#include "base/digest.h"
#include "base/errno_text.h"
#include "base/escaped_text.h"
#include "base/failure.h"
#include "base/file_io.h"
#include "base/hex_digit.h"
#include "package/components.h"
#include "package/internal/archive_walk.h"
#include "package/internal/component_formats.h"
#include "package/internal/package_file.h"
#include "package/internal/signing.h"
#include "package/internal/tar_headers.h"

namespace kavro::package {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kReadBlockBytes = 65536;
constexpr std::size_t kTarBlockBytes = 512;
constexpr std::size_t kMostNameBytes = 255;    // of one file, in the file systems of a device
constexpr std::size_t kMostArchiveFaults = 8;  // an archive has room for a quarter of a million
constexpr unsigned kFileMode = 0644;           // that pack() gives every file
constexpr const char* kPublicKeyBegin = "-----BEGIN PUBLIC KEY-----";

constexpr const char* kTrustedKeyPart = "trusted key";

// --- the trusted key ------------------------------------------------------------------------------------------------

std::string readKeyFile(const fs::path& file) {
    constexpr std::size_t kMostBytes = 65536;
    std::string text;
    if (!readBeginning(file.string(), kMostBytes, text)) {
        throw Failure(ErrorCode::kUsage,
                      "the trusted key '" + file.string() + "' cannot be read: " + reasonOf(errno),
                      "give a readable file with the public key");
    }
    return text;
}

PublicKey loadTrustedKey(const fs::path& file) {
    std::string fault;
    std::optional<PublicKey> key = PublicKey::parse(readKeyFile(file), fault);
    if (!key) {
        throw Failure(ErrorCode::kUsage, "the trusted key '" + file.string() + "' " + fault,
                      "give the public key: openssl pkey -in KEY -pubout -out FILE");
    }
    return std::move(*key);
}

// --- the file -------------------------------------------------------------------------------------------------------

// Hands out the payload block by block; on the way takes its md5 and has the archive's headers checked.
class Payload {
  public:
    Payload(const RawFile& packageFile, std::uint64_t payloadBytes)
        : package(packageFile), bytes(payloadBytes) {}

    // As an ArchiveSource.
    long next(const void*& data) {
        const std::size_t wanted = std::min<std::uint64_t>(block.size(), bytes - position);
        const long count = package.readAt(block.data(), wanted, static_cast<long long>(position));
        if (count != static_cast<long>(wanted)) {
            failed = true;
            return -1;
        }
        position += wanted;
        md5.add(block.data(), wanted);
        headers.take(block.data(), wanted);
        data = block.data();
        return count;
    }

    // Reads what is left.
    void drain() {
        const void* data = nullptr;
        while (!failed && next(data) > 0) {
        }
    }

    bool unreadable() const { return failed; }
    std::string md5Text() { return hexText(finished(md5)); }
    // The headers of what was handed out.
    TarHeaderCheck& headerCheck() { return headers; }

  private:
    const RawFile& package;
    const std::uint64_t bytes;
    std::uint64_t position = 0;
    bool failed = false;
    std::vector<char> block = std::vector<char>(kReadBlockBytes);
    Digest md5{Digest::Kind::kMd5};
    TarHeaderCheck headers;
};

// --- the archive ----------------------------------------------------------------------------------------------------

// One of the 14 files of the archive.
struct RequiredFile {
    std::size_t component;
    bool isSignature;
};

struct FoundComponent {
    explicit FoundComponent(const std::string& name) : format(name) {}

    Digest digest{Digest::Kind::kSha256};
    FormatCheck format;
    DigestBytes sha256;  // empty until the whole component was read
    std::string signature;
    std::uint64_t bytes = 0;
    bool found = false;
    bool signatureFound = false;
    std::string fault;  // the first
};

std::optional<RequiredFile> requiredFile(const std::string& name) {
    for (std::size_t index = 0; index < kComponentNames.size(); ++index) {
        const std::string component = kComponentNames[index];
        if (name == component || name == component + kSignatureSuffix) {
            return RequiredFile{index, name != component};
        }
    }
    return std::nullopt;
}

// Why a device could not unpack an entry of this name or would stumble over it; "" when there is no reason.
std::string nameFault(const std::string& name) {
    if (name.find('/') != std::string::npos || name == "." || name == "..") {
        return "which does not lie at the archive's top level";
    }
    if (name.find(',') != std::string::npos) {
        return "and a device takes a name with a comma for two";
    }
    if (name.size() > kMostNameBytes) {
        return "which is a longer name than a device can store";
    }
    return name.empty() ? "which is no name" : "";
}

// Sentences about entries: the first ones, and how many there are besides.
class EntryTexts {
  public:
    void add(const std::string& text) {
        if (texts.size() < kMostArchiveFaults) {
            texts.push_back(text);
        } else {
            ++more;
        }
    }
    std::vector<std::string> take() {
        if (more > 0) {
            texts.push_back("the archive has " + std::to_string(more) + " more such entries");
        }
        return std::move(texts);
    }

  private:
    std::vector<std::string> texts;
    std::size_t more = 0;
};

std::string octalText(unsigned mode) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04o", mode);
    return text.data();
}

// Takes up what the archive holds of the seven components and their signatures.
class ComponentReader : public ArchiveVisitor {
  public:
    ComponentReader(const EntryListener& entryListener, TarHeaderCheck& headerCheck)
        : listener(entryListener), headers(headerCheck) {
        for (const char* name : kComponentNames) {
            found.emplace_back(name);
        }
    }

    bool begin(const Entry& entry) override {
        if (listener) {
            listener(entry);
        }
        const std::string name = unpackedName(entry);
        current = requiredFile(name);
        if (!isReadAlike(entry, headers.next())) {
            return false;
        }
        if (name.empty() && entry.type == "directory") {
            remarks.add(told(entry.name, "the directory that it was made of"));
            return false;
        }
        const std::string fault = entryFault(entry, name);
        if (!fault.empty()) {
            blame(entry.name, fault);
            return false;
        }
        const std::string remark = entryRemark(entry, name);
        if (!remark.empty()) {
            remarks.add(told(entry.name, remark));
        }
        return current && claim(entry);
    }

    void contents(const void* data, std::size_t size) override {
        FoundComponent& component = found[current->component];
        if (current->isSignature) {
            component.signature.append(static_cast<const char*>(data), size);
            return;
        }
        component.digest.add(data, size);
        component.format.take(data, size);
        if (kComponentNames[current->component] == std::string(kVersionList)) {
            const std::size_t room = kMaxReleaseListBytes + 1 - list.size();
            list.append(static_cast<const char*>(data), std::min(size, room));
        }
    }

    void end() override {
        if (!current->isSignature) {
            FoundComponent& component = found[current->component];
            component.sha256 = finished(component.digest);
        }
    }

    std::vector<std::string> takeFaults() { return faults.take(); }
    // Whether a device would unpack more than was walked through.
    [[nodiscard]] bool lacksEntries() const { return headers.fault().empty() && headers.next().has_value(); }
    // What no maker's package has, and a device takes all the same.
    std::vector<std::string> takeRemarks() { return remarks.take(); }

    // The text of the version list, or more than a release list may have of it. Nothing when not all of it has come.
    std::optional<std::string> listText() const {
        return found.back().sha256.empty() ? std::nullopt : std::optional<std::string>(list);
    }

    std::deque<FoundComponent> found;  // in the order of kComponentNames

  private:
    // Whether a device makes the same of an entry: a file of the same name, if that is one of the 14, and of the same size.
    // Nothing is known behind a faulty header, which is a fault itself.
    bool isReadAlike(const Entry& entry, const std::optional<TarHeader>& header) {
        if (!header && !headers.fault().empty()) {
            return true;
        }
        const auto placeOf = [](const std::optional<RequiredFile>& file) {
            return file ? static_cast<int>(file->component) * 2 + static_cast<int>(file->isSignature) : -1;
        };
        const auto required = header ? requiredFile(unpackedName({header->name, entry.type})) : std::nullopt;
        if (header && placeOf(required) == placeOf(current) &&
            (entry.type != "file" || header->bytes == entry.bytes)) {
            return true;
        }
        faults.add(told(entry.name, "which a device reads as another entry"));
        return false;
    }

    static std::string entryFault(const Entry& entry, const std::string& name) {
        if (entry.type != "file") {
            return "which is no regular file (" + entry.type + ")";
        }
        if (entry.bytes > kPackageBytes) {
            return "which claims to be larger than a package, with " + std::to_string(entry.bytes) + " bytes";
        }
        if (!entry.ownerFits) {
            return "whose owner is no number that a device knows";
        }
        return nameFault(name);
    }

    std::string entryRemark(const Entry& entry, const std::string& name) const {
        if (!current) {
            return "which is neither a component nor a signature";
        }
        if (name != entry.name) {
            return "whose name has a directory in front";
        }
        if (!entry.ownedByRoot) {
            return "which does not belong to root";
        }
        if (entry.mode != kFileMode) {
            return "which has the mode " + octalText(entry.mode) + " instead of " + octalText(kFileMode);
        }
        return {};
    }

    static std::string told(const std::string& name, const std::string& fault) {
        return "the archive holds " + quoted(name) + ", " + fault;
    }

    // A fault is that of the component it concerns, or of the archive.
    void blame(const std::string& name, const std::string& fault) {
        const std::string text = told(name, fault);
        if (current) {
            std::string& first = found[current->component].fault;
            first = first.empty() ? text : first;
        } else {
            faults.add(text);
        }
    }

    // Each of the required files is taken once.
    bool claim(const Entry& entry) {
        FoundComponent& component = found[current->component];
        bool& seen = current->isSignature ? component.signatureFound : component.found;
        if (seen) {
            blame(entry.name, "which it has more than once");
            return false;
        }
        seen = true;
        if (!current->isSignature) {
            component.bytes = entry.bytes;
            return true;
        }
        if (entry.bytes > kMostSignatureBytes) {
            blame(entry.name,
                  "which is too large for a signature, with " + std::to_string(entry.bytes) + " bytes");
            return false;
        }
        return true;
    }

    const EntryListener& listener;
    TarHeaderCheck& headers;
    std::optional<RequiredFile> current;
    std::string list;
    EntryTexts faults;
    EntryTexts remarks;
};

// --- the verdict ----------------------------------------------------------------------------------------------------

// What is wrong with a component when nothing was wrong with its entries.
std::string componentFault(const std::string& name, const FoundComponent& component, const PublicKey* key) {
    if (!component.found) {
        return quoted(name) + " is missing from the archive";
    }
    if (component.sha256.empty()) {
        return quoted(name) + " cannot be read whole";
    }
    if (component.bytes == 0) {
        return quoted(name) + " is empty";
    }
    if (!component.signatureFound) {
        return quoted(name) + " has no signature: " + quoted(name + kSignatureSuffix) +
               " is missing from the archive";
    }
    if (key == nullptr) {
        return quoted(name) + " cannot be checked without a key";
    }
    if (!key->verifies(component.sha256, component.signature)) {
        return quoted(name) + " has a signature that does not verify with the package's key";
    }
    return {};
}

// Whether a component is the one that the release list names; "" when it is, or when there is no list.
std::string bindingFault(const std::string& name, const FoundComponent& component,
                         const std::optional<ReleaseList>& release) {
    if (!release) {
        return {};
    }
    const auto listed =
        std::find_if(release->components.begin(), release->components.end(),
                     [&name](const ListedComponent& candidate) { return candidate.name == name; });
    const std::string sha256 = hexText(component.sha256);
    if (listed == release->components.end() ||
        (listed->bytes == component.bytes && listed->sha256 == sha256)) {
        return {};  // the list does not name itself
    }
    return quoted(name) + " is not that of this release: it has " + std::to_string(component.bytes) +
           " bytes with the sha256 " + sha256 + ", the release list names " + std::to_string(listed->bytes) +
           " bytes with the sha256 " + listed->sha256;
}

std::string formatFault(const std::string& name, FoundComponent& component, const Version& version) {
    if (component.sha256.empty()) {
        return {};
    }
    const std::optional<FormatFault> fault = component.format.fault(version);
    return fault ? quoted(name) + " " + fault->text : "";
}

bool equalIgnoringCase(const std::string& left, const std::string& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

class PackageChecker {
  public:
    PackageChecker(const fs::path& packagePath, const EntryListener& entryListener)
        : path(packagePath), file(openPackage(packagePath)), listener(entryListener) {}

    Check run(const PublicKey* trustedKey) {
        trusted = trustedKey != nullptr;
        TrailerReading reading = decodeTrailer(readTrailerBlock(file, path));
        result.trailer = std::move(reading.trailer);
        trailerWhole = reading.faults.empty();
        addPart("trailer", std::move(reading.faults));
        checkKey();
        if (trusted) {
            checkTrust(*trustedKey);
        }
        checkPayload(reading.payloadKnown);
        return std::move(result);
    }

  private:
    void addPart(const std::string& name, std::vector<std::string> faults) {
        result.faults.insert(result.faults.end(), faults.begin(), faults.end());
        result.parts.push_back({name, std::move(faults)});
    }

    void checkKey() {
        const std::string& pem = result.trailer.publicKey;
        std::string fault = "holds no public key in PEM format";
        // OpenSSL would find a key behind any other text, too.
        if (pem.rfind(kPublicKeyBegin, 0) == 0 || pem.find("PRIVATE KEY-----") != std::string::npos) {
            key = PublicKey::parse(pem, fault);
        }
        if (!key) {
            addPart("key", {"the trailer " + fault});
            return;
        }
        result.keyDescription = key->description();
        result.keyDigest = key->digest();
        addPart("key", {});
    }

    void checkTrust(const PublicKey& trustedKey) {
        std::vector<std::string> faults;
        if (!key || !key->isSameAs(trustedKey)) {
            faults.push_back("the package does not carry the trusted key (" + trustedKey.description() +
                             ", sha256 " + trustedKey.digest() + ")");
        }
        addPart(kTrustedKeyPart, std::move(faults));
    }

    void checkPayload(bool payloadKnown) {
        const std::uint64_t bytes = payloadKnown ? result.trailer.payloadBytes : 0;
        Payload payload(file, bytes);
        ComponentReader archive(listener, payload.headerCheck());
        std::string fault = "its length is unknown";
        if (payloadKnown) {
            fault = walkArchive([&payload](const void*& data) { return payload.next(data); }, archive);
            payload.drain();
        }
        if (payload.unreadable()) {
            throw Failure(ErrorCode::kOther, "the package '" + path.string() + "' cannot be read to its end",
                          "check the storage that it lies on");
        }
        checkMd5(payloadKnown, payload);
        checkArchive(bytes, fault.empty() ? payload.headerCheck().fault() : escaped(fault), archive);
        checkRelease(archive.listText());
        judgeComponents(archive);
    }

    void checkMd5(bool payloadKnown, Payload& payload) {
        std::vector<std::string> faults;
        const std::string md5 = payload.md5Text();
        if (!payloadKnown) {
            faults.emplace_back("the md5 cannot be checked, since the payload's length is unknown");
        } else if (!equalIgnoringCase(md5, result.trailer.md5)) {
            faults.push_back("the payload has the md5 " + md5 + ", the trailer states " +
                             (result.trailer.md5.empty() ? "none" : result.trailer.md5));
        }
        addPart("md5", std::move(faults));
    }

    void checkArchive(std::uint64_t bytes, const std::string& fault, ComponentReader& archive) {
        std::vector<std::string> faults = archive.takeFaults();
        if (bytes % kTarBlockBytes != 0) {
            faults.push_back("the payload of " + std::to_string(bytes) +
                             " bytes is no whole number of tar blocks of 512 bytes");
        }
        if (fault.empty() && archive.lacksEntries()) {
            faults.emplace_back("the payload goes on for a device where it seems to end");
        }
        if (!fault.empty()) {
            faults.push_back("the payload cannot be read as a plain tar archive: " + fault);
        }
        addRemarks(archive.takeRemarks(), faults);
        addPart("archive", std::move(faults));
    }

    // What is a fault only in a package of a maker whose key is known.
    void addRemarks(const std::vector<std::string>& remarks, std::vector<std::string>& faults) {
        std::vector<std::string>& texts = trusted ? faults : result.warnings;
        texts.insert(texts.end(), remarks.begin(), remarks.end());
    }

    void checkRelease(const std::optional<std::string>& text) {
        std::vector<std::string> faults;
        const ListKind kind = text ? listKindOf(*text) : ListKind::kForeign;
        if (kind != ListKind::kReleaseList) {
            const std::string missing =
                quoted(kVersionList) +
                (kind == ListKind::kOtherFormat
                     ? " is a release list in a format that is not known here"
                     : " is no release list: nothing binds the components to each other");
            if (text || trusted) {
                addRemarks({missing}, faults);
            }
        } else {
            Result<ReleaseList> list = parseReleaseList(*text);
            if (list.ok()) {
                checkVersions(list.value().version, faults);
                result.release = std::move(list).value();
            } else {
                faults.push_back(list.error().text);
            }
        }
        if (trusted || kind == ListKind::kReleaseList) {
            addPart("release", std::move(faults));
        }
    }

    void checkVersions(const Version& listed, std::vector<std::string>& faults) const {
        const std::string ofList = formatVersion(listed);
        const std::string ofTrailer = formatVersion(result.trailer.version);
        if (trailerWhole && ofList != ofTrailer) {
            faults.push_back("the release list is that of " + ofList + ", the trailer states " + ofTrailer);
        }
    }

    void judgeComponents(ComponentReader& archive) {
        for (std::size_t index = 0; index < archive.found.size(); ++index) {
            FoundComponent& component = archive.found[index];
            const std::string name = kComponentNames[index];
            std::string fault = component.fault;
            fault = fault.empty() ? componentFault(name, component, key ? &*key : nullptr) : fault;
            fault = fault.empty() ? bindingFault(name, component, result.release) : fault;
            const std::string form =
                fault.empty() ? formatFault(name, component, result.trailer.version) : "";
            if (trusted) {
                fault = form.empty() ? fault : form;
            } else if (!form.empty()) {
                result.warnings.push_back(form);
            }
            result.components.push_back({name, component.bytes, hexText(component.sha256), std::move(fault)});
        }
    }

    const fs::path& path;
    const RawFile file;
    const EntryListener& listener;
    bool trusted = false;       // a trusted key was given
    bool trailerWhole = false;  // nothing is wrong with the trailer
    std::optional<PublicKey> key;
    Check result;
};

bool hasGoodComponents(const std::vector<ComponentCheck>& components) {
    return std::all_of(components.begin(), components.end(),
                       [](const ComponentCheck& component) { return component.fault.empty(); });
}

}  // namespace

bool Check::inOrder() const {
    return faults.empty() && hasGoodComponents(components);
}

bool Check::lacksOnlyTrust() const {
    const bool goodParts = std::all_of(parts.begin(), parts.end(), [](const PartCheck& part) {
        return part.faults.empty() || part.name == kTrustedKeyPart;
    });
    return !inOrder() && goodParts && hasGoodComponents(components);
}

std::string unpackedName(const Entry& entry) {
    std::string name = entry.name;
    while (name.rfind("./", 0) == 0) {
        name.erase(0, 2);
    }
    if (entry.type == "directory" && !name.empty() && name.back() == '/') {
        name.pop_back();
    }
    return name;
}

Result<Check> check(const fs::path& package, const std::optional<fs::path>& trustedKey,
                    const EntryListener& listener) {
    return resultOf([&] {
        std::optional<PublicKey> trusted;
        if (trustedKey) {
            trusted = loadTrustedKey(*trustedKey);
        }
        return PackageChecker(package, listener).run(trusted ? &*trusted : nullptr);
    });
}

}  // namespace kavro::package
