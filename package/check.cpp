#include "package/check.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <utility>

#include "base/digest.h"
#include "base/errno_text.h"
#include "base/escaped_text.h"
#include "base/failure.h"
#include "base/file_io.h"
#include "base/hex_digit.h"
#include "package/components.h"
#include "package/internal/archive_walk.h"
#include "package/internal/package_file.h"
#include "package/internal/signing.h"
#include "package/internal/tar_headers.h"

namespace kavro::package {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kReadBlockBytes = 65536;
constexpr std::size_t kTarBlockBytes = 512;
constexpr std::size_t kMostSignatureBytes =
    2048;  // that of an RSA key of 16384 bits, the longest that OpenSSL uses
constexpr std::size_t kMostNameBytes = 255;    // of one file, in the file systems of a device
constexpr std::size_t kMostArchiveFaults = 8;  // an archive has room for a quarter of a million
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
    const std::string& headerFault() const { return headers.fault(); }

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
    Digest digest{Digest::Kind::kSha256};
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

// Takes up what the archive holds of the seven components and their signatures.
class ComponentReader : public ArchiveVisitor {
  public:
    explicit ComponentReader(const EntryListener& entryListener) : listener(entryListener) {}

    bool begin(const Entry& entry) override {
        if (listener) {
            listener(entry);
        }
        const std::string name = unpackedName(entry);
        if (name.empty() && entry.type == "directory") {
            return false;  // the directory that the archive was made of
        }
        current = requiredFile(name);
        const std::string fault = entryFault(entry, name);
        if (!fault.empty()) {
            blame(entry.name, fault);
            return false;
        }
        return current && claim(entry);
    }

    void contents(const void* data, std::size_t size) override {
        FoundComponent& component = found[current->component];
        if (current->isSignature) {
            component.signature.append(static_cast<const char*>(data), size);
        } else {
            component.digest.add(data, size);
        }
    }

    void end() override {
        if (!current->isSignature) {
            FoundComponent& component = found[current->component];
            component.sha256 = finished(component.digest);
        }
    }

    std::vector<std::string> takeFaults() {
        if (moreFaults > 0) {
            faults.push_back("the archive has " + std::to_string(moreFaults) + " more such entries");
        }
        return std::move(faults);
    }

    std::array<FoundComponent, kComponentNames.size()> found;

  private:
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

    // A fault is that of the component it concerns, or of the archive.
    void blame(const std::string& name, const std::string& fault) {
        const std::string text = "the archive holds " + quoted(name) + ", " + fault;
        if (current) {
            std::string& first = found[current->component].fault;
            first = first.empty() ? text : first;
        } else if (faults.size() < kMostArchiveFaults) {
            faults.push_back(text);
        } else {
            ++moreFaults;
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
    std::optional<RequiredFile> current;
    std::vector<std::string> faults;
    std::size_t moreFaults = 0;
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

std::vector<ComponentCheck> judgeComponents(const ComponentReader& archive, const PublicKey* key) {
    std::vector<ComponentCheck> checks;
    for (std::size_t index = 0; index < kComponentNames.size(); ++index) {
        const FoundComponent& component = archive.found[index];
        const std::string name = kComponentNames[index];
        checks.push_back({name, component.bytes, hexText(component.sha256),
                          component.fault.empty() ? componentFault(name, component, key) : component.fault});
    }
    return checks;
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
        TrailerReading reading = decodeTrailer(readTrailerBlock(file, path));
        result.trailer = std::move(reading.trailer);
        addPart("trailer", std::move(reading.faults));
        checkKey();
        if (trustedKey != nullptr) {
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
        ComponentReader archive(listener);
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
        checkArchive(bytes, fault.empty() ? payload.headerFault() : fault, archive);
        result.components = judgeComponents(archive, key ? &*key : nullptr);
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
        if (!fault.empty()) {
            faults.push_back("the payload cannot be read as a plain tar archive: " + escaped(fault));
        }
        addPart("archive", std::move(faults));
    }

    const fs::path& path;
    const RawFile file;
    const EntryListener& listener;
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
