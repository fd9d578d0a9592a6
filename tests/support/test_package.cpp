#include "tests/support/test_package.h"

#include <fcntl.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace testsupport {
namespace {

constexpr unsigned long kMcuApplicationAddress = 0x00008000;
constexpr unsigned long kMcuRamAddress = 0x20000000;
constexpr const char* kVersionList = "version_list.acs";
constexpr unsigned long kTarBlock = 512;
constexpr unsigned long kTarEndBlocks = 20;  // tar fills up to a record of 20 blocks

void require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error("test package: " + what);
    }
}

class TempDirectory {
  public:
    TempDirectory() : path("/tmp/test_package.XXXXXX") {
        require(mkdtemp(path.data()) != nullptr, "no directory in /tmp");
    }
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    std::string path;
};

void writeWhole(const std::string& path, const std::string& bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    require(file.good(), "cannot write " + path);
}

std::string readWhole(const std::string& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

void run(std::vector<std::string> arguments) {
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    pid_t child = 0;
    require(posix_spawnp(&child, pointers[0], nullptr, nullptr, pointers.data(), environ) == 0,
            "cannot start " + arguments[0]);
    int status = 0;
    require(waitpid(child, &status, 0) == child && status == 0, arguments[0] + " failed");
}

std::string pemText(bool (*writeKey)(BIO*, EVP_PKEY*), void* key) {
    const std::unique_ptr<BIO, int (*)(BIO*)> memory(BIO_new(BIO_s_mem()), BIO_free);
    require(memory && writeKey(memory.get(), static_cast<EVP_PKEY*>(key)), "key as PEM");
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<unsigned long>(length)};
}

// The lowest bytes of a number, least significant first.
std::string littleEndian(unsigned long number, unsigned long size) {
    std::string bytes;
    for (unsigned long index = 0; index < size; ++index) {
        bytes += static_cast<char>(number >> (8 * index) & 0xffU);
    }
    return bytes;
}

std::string byteText(unsigned value) {
    char text[3];
    snprintf(text, sizeof text, "%02X", value & 0xffU);
    return text;
}

// One record: its type, an address of so many bytes, the bytes and the checksum.
std::string srecord(char type, unsigned addressBytes, unsigned long address, const std::string& bytes) {
    const auto count = static_cast<unsigned>(addressBytes + bytes.size() + 1);
    std::string text = std::string("S") + type + byteText(count);
    unsigned sum = count;
    for (unsigned i = addressBytes; i-- > 0;) {
        const auto part = static_cast<unsigned>(address >> (8 * i)) & 0xffU;
        text += byteText(part);
        sum += part;
    }
    for (const char character : bytes) {
        text += byteText(static_cast<unsigned char>(character));
        sum += static_cast<unsigned char>(character);
    }
    return text + byteText(~sum) + "\r\n";
}

}  // namespace

const std::vector<std::string>& componentNames() {
    static const std::vector<std::string> names{"bld_release.bin", "cv22_kavro_qz7.dtb", "ext4",
                                                "Image",           "mcu_flash_app.s19",  "mcu_flash_drv.s19",
                                                "version_list.acs"};
    return names;
}

std::string Trailer::block() const {
    std::string bytes = payloadLength + md5 + keyLength + key + stamp + ident + version + branchLength +
                        branch + userLength + user;
    bytes.resize(kTrailerBytes, fill);
    return bytes;
}

std::string hexText(unsigned long value) {
    char text[32];
    snprintf(text, sizeof text, "%08lX", value);
    return text;
}

std::string versionText(int hw, int mpu, int mcu, int bld) {
    char text[64];
    snprintf(text, sizeof text, "%03d%03d%03d%03d", hw, mpu, mcu, bld);
    return text;
}

namespace {

std::string digestText(const std::string& bytes, const EVP_MD* kind) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    require(EVP_Digest(bytes.data(), bytes.size(), digest, &length, kind, nullptr) == 1, "digest");
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", digest[i]);
        text += digits;
    }
    return text;
}

}  // namespace

std::string md5Text(const std::string& bytes) {
    return digestText(bytes, EVP_md5());
}

SigningKey::SigningKey() : key(EVP_EC_gen("P-256")) {
    require(key != nullptr, "no key");
    publicPem = pemText([](BIO* out, EVP_PKEY* pair) { return PEM_write_bio_PUBKEY(out, pair) == 1; }, key);
}

SigningKey::~SigningKey() {
    EVP_PKEY_free(static_cast<EVP_PKEY*>(key));
}

SigningKey& SigningKey::shared() {
    static SigningKey once;
    return once;
}

std::string SigningKey::privateKey() const {
    return pemText(
        [](BIO* out, EVP_PKEY* pair) {
            return PEM_write_bio_PrivateKey(out, pair, nullptr, nullptr, 0, nullptr, nullptr) == 1;
        },
        key);
}

std::string SigningKey::sign(const std::string& bytes) const {
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    auto* pair = static_cast<EVP_PKEY*>(key);
    require(EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, pair) == 1, "signing");
    unsigned long length = 0;
    require(EVP_DigestSign(context.get(), nullptr, &length, data, bytes.size()) == 1, "signing");
    std::string signature(length, '\0');
    require(EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length, data,
                           bytes.size()) == 1,
            "signing");
    signature.resize(length);
    return signature;
}

std::string kernelImage(unsigned long size) {
    constexpr unsigned long kMemorySizeOffset = 16;
    constexpr unsigned long kMagicOffset = 56;
    std::string image(size, 'K');
    image.replace(kMemorySizeOffset, 8, littleEndian(size, 8));
    return image.replace(kMagicOffset, 4, "ARM\x64");
}

std::string deviceTree(unsigned long size) {
    const std::string stated = littleEndian(size, 4);
    std::string tree(size, '\0');
    tree.replace(0, 4, "\xd0\x0d\xfe\xed");
    return tree.replace(4, 4, std::string(stated.rbegin(), stated.rend()));
}

std::string rootFileSystem(unsigned long size) {
    constexpr unsigned long kSuperblock = 1024;
    constexpr unsigned long kBlockBytes = 1024;
    std::string image(size, 'R');
    image.replace(kSuperblock, kBlockBytes, kBlockBytes, '\0');
    image.replace(kSuperblock + 4, 4, littleEndian(size / kBlockBytes, 4));
    return image.replace(kSuperblock + 56, 2, "\x53\xef");
}

std::string srecords(unsigned long address, const std::string& bytes) {
    constexpr unsigned long kBytesPerRecord = 32;
    std::string text = srecord('0', 2, 0, "test");
    for (unsigned long offset = 0; offset < bytes.size(); offset += kBytesPerRecord) {
        text += srecord('3', 4, address + offset, bytes.substr(offset, kBytesPerRecord));
    }
    return text + srecord('7', 4, address, "");
}

std::string mcuApplication(int version) {
    std::string image = "KAVROMCU";
    for (unsigned i = 0; i < 4; ++i) {
        image += static_cast<char>(static_cast<unsigned>(version) >> (8 * i) & 0xffU);
    }
    image += std::string(4, '\0') + std::string(240, 'A');
    return srecords(kMcuApplicationAddress, image);
}

TestPackage::TestPackage() {
    components["bld_release.bin"] = std::string(2048, 'B');
    components["cv22_kavro_qz7.dtb"] = deviceTree(64);
    components["ext4"] = rootFileSystem(16384);
    components["Image"] = kernelImage(4096);
    components["mcu_flash_drv.s19"] = srecords(kMcuRamAddress, std::string(256, 'D'));
    setVersions(1, 2, 3, 4);
}

TestPackage& TestPackage::setVersions(int hw, int mpu, int mcu, int bld) {
    version = versionText(hw, mpu, mcu, bld);
    components["mcu_flash_app.s19"] = mcuApplication(mcu);
    listedVersions = "hardware " + std::to_string(hw) + "\nmain_processor " + std::to_string(mpu) +
                     "\nmicrocontroller " + std::to_string(mcu) + "\nboot_loader " + std::to_string(bld) +
                     "\n";
    return *this;
}

TestPackage& TestPackage::setComponent(const std::string& name, const std::string& bytes) {
    components[name] = bytes;
    return *this;
}

TestPackage& TestPackage::omit(const std::string& fileName) {
    omitted.insert(fileName);
    return *this;
}

TestPackage& TestPackage::corruptSignature(const std::string& component) {
    corrupted.insert(component);
    return *this;
}

TestPackage& TestPackage::signWithOtherKey(const std::string& component) {
    otherKey.insert(component);
    return *this;
}

TestPackage& TestPackage::addFile(const std::string& fileName, const std::string& bytes) {
    extraFiles[fileName] = bytes;
    return *this;
}

TestPackage& TestPackage::emptyPayload() {
    return setPayload(std::string(kTarBlock * kTarEndBlocks, '\0'));
}

TestPackage& TestPackage::setPayload(const std::string& bytes) {
    rawPayload = bytes;
    isRaw = true;
    return *this;
}

TestPackage& TestPackage::flipPayloadByte(long offset) {
    flips.push_back(offset);
    return *this;
}

TestPackage& TestPackage::setTotalSize(unsigned long bytes) {
    totalSize = bytes;
    return *this;
}

TestPackage& TestPackage::editTrailer(std::function<void(Trailer&)> edit) {
    edits.push_back(std::move(edit));
    return *this;
}

std::string TestPackage::signatureOf(const std::string& component, const std::string& bytes) const {
    std::string signature =
        otherKey.count(component) != 0 ? SigningKey().sign(bytes) : SigningKey::shared().sign(bytes);
    if (corrupted.count(component) != 0) {
        signature.back() = static_cast<char>(signature.back() ^ 1);
    }
    return signature;
}

std::string TestPackage::releaseList() const {
    std::string text = "release_list 1\n" + listedVersions;
    for (const std::string& name : componentNames()) {
        if (name != kVersionList) {
            const std::string& bytes = components.at(name);
            text += "component " + name + " " + std::to_string(bytes.size()) + " " +
                    digestText(bytes, EVP_sha256()) + "\n";
        }
    }
    return text;
}

std::map<std::string, std::string> TestPackage::files() const {
    std::map<std::string, std::string> all = extraFiles;
    std::map<std::string, std::string> parts = components;
    parts.emplace(kVersionList, releaseList());
    for (const auto& [name, bytes] : parts) {
        all[name] = bytes;
        all[name + ".sign"] = signatureOf(name, bytes);
    }
    for (const std::string& name : omitted) {
        all.erase(name);
    }
    return all;
}

std::string TestPackage::payload() const {
    if (isRaw) {
        return rawPayload;
    }
    const TempDirectory work;
    const std::filesystem::path tree = work.path + "/tree";
    std::filesystem::create_directory(tree);
    std::vector<std::string> command{"tar", "-cf", work.path + "/payload", "-C", tree};
    command.insert(command.end(), {"--owner=0", "--group=0", "--mode=0644", "--"});
    for (const auto& [name, bytes] : files()) {
        writeWhole(tree / name, bytes);
        command.push_back(name);
    }
    run(command);
    return readWhole(work.path + "/payload");
}

Trailer TestPackage::trailerFor(const std::string& payloadBytes) const {
    Trailer fields;
    fields.payloadLength = hexText(payloadBytes.size());
    fields.md5 = md5Text(payloadBytes);
    fields.key = SigningKey::shared().publicKey();
    fields.keyLength = hexText(fields.key.size());
    fields.version = version;
    fields.branch = "main";
    fields.branchLength = hexText(fields.branch.size());
    fields.user = "builder";
    fields.userLength = hexText(fields.user.size());
    for (const auto& edit : edits) {
        edit(fields);
    }
    return fields;
}

void TestPackage::writeTo(const std::string& path) {
    std::string bytes = payload();
    written = trailerFor(bytes);
    payloadSize = bytes.size();
    for (const long offset : flips) {
        const unsigned long at = offset >= 0 ? static_cast<unsigned long>(offset)
                                             : bytes.size() - static_cast<unsigned long>(-offset);
        bytes.at(at) = static_cast<char>(bytes.at(at) ^ 1);
    }
    writeWhole(path, bytes);
    require(truncate(path.c_str(), static_cast<off_t>(totalSize)) == 0, "cannot size " + path);
    if (totalSize < kTrailerBytes) {
        return;
    }
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(totalSize - kTrailerBytes));
    file << written.block();
    file.close();
    require(file.good(), "cannot write the trailer of " + path);
}

}  // namespace testsupport
