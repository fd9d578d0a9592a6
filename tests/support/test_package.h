// Upgrade packages for tests, built from scratch and with every field of the trailer open to damage.
//
//     +-----------------------------+ 0
//     | payload: a tar archive      |
//     +-----------------------------+ pkg_file_len
//     | gap (a hole)                |
//     +-----------------------------+ size - 4096
//     | trailer                     |
//     +-----------------------------+ size
//
//     TestPackage package;                                   // valid
//     package.setVersions(1, 105, 8, 3).corruptSignature("ext4");
//     package.writeTo("/tmp/package.pkg");
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace testsupport {

constexpr unsigned long kPackageBytes = 134217728;
constexpr unsigned long kTrailerBytes = 4096;

// The seven components, in the order in which they are verified.
const std::vector<std::string>& componentNames();

// The fields of the trailer in their order, as they stand in the file. A field may be given any length: what
// follows it moves, as it does for a reader.
struct Trailer {
    std::string payloadLength;  // pkg_file_len: 8 hexadecimal digits
    std::string md5;            // 32 characters
    std::string keyLength;      // pubkey_len: 8 hexadecimal digits
    std::string key;            // pubkey
    std::string stamp = "20260101120000";
    std::string ident = "0123456789abcdef0123456789abcdef01234567";
    std::string version = "001002003004";
    std::string branchLength;  // branchNr
    std::string branch;
    std::string userLength;  // userNr
    std::string user;
    char fill = '\0';  // what stands behind the last field

    // The block of 4096 bytes. What does not fit is cut off.
    std::string block() const;
};

// "%08X"
std::string hexText(unsigned long value);
// "%03d%03d%03d%03d"
std::string versionText(int hw, int mpu, int mcu, int bld);
// 32 lower-case hexadecimal digits
std::string md5Text(const std::string& bytes);

// A key pair to sign with. The key is on the P-256 curve.
class SigningKey {
  public:
    SigningKey();
    ~SigningKey();
    SigningKey(const SigningKey&) = delete;
    SigningKey& operator=(const SigningKey&) = delete;

    // Made once per process.
    static SigningKey& shared();

    // PEM text.
    const std::string& publicKey() const { return publicPem; }
    // PEM text.
    std::string privateKey() const;
    // What `openssl dgst -sha256 -sign` gives.
    std::string sign(const std::string& bytes) const;

  private:
    void* key;  // EVP_PKEY
    std::string publicPem;
};

// Components of so many bytes with the headers by which they are known. A kernel has at least 64 bytes, a device tree 40,
// a file system 2048.
std::string kernelImage(unsigned long size);
std::string deviceTree(unsigned long size);
std::string rootFileSystem(unsigned long size);
// A text of S-records (S0, S3..., S7) that puts the bytes at the address.
std::string srecords(unsigned long address, const std::string& bytes);
// A microcontroller application that reports the version.
std::string mcuApplication(int version);

class TestPackage {
  public:
    // Valid: seven small components, signed; version 1, 2, 3, 4; branch "main" and user "builder"; 128 MiB.
    TestPackage();

    // In the trailer, in the microcontroller's application and in the release list.
    TestPackage& setVersions(int hw, int mpu, int mcu, int bld);
    // Any but the version list gets into that list, too, unless that is set itself.
    TestPackage& setComponent(const std::string& name, const std::string& bytes);
    // A component, or a signature by its whole name ("ext4.sign").
    TestPackage& omit(const std::string& fileName);
    // Flips a bit of the signature of a component.
    TestPackage& corruptSignature(const std::string& component);
    // Signs this component with a key of its own.
    TestPackage& signWithOtherKey(const std::string& component);
    // Any other file of the archive; the name may have directories in front.
    TestPackage& addFile(const std::string& fileName, const std::string& bytes);
    // An archive without any file.
    TestPackage& emptyPayload();
    // These bytes instead of an archive.
    TestPackage& setPayload(const std::string& bytes);
    // After the md5 was taken. The offset counts from the payload's start, or from its end if it is negative.
    TestPackage& flipPayloadByte(long offset);
    // The size of the whole file; less than payload and trailer together lets the trailer overwrite the
    // payload's end.
    TestPackage& setTotalSize(unsigned long bytes);
    // Changes the trailer when everything else is known.
    TestPackage& editTrailer(std::function<void(Trailer&)> edit);

    // Throws std::runtime_error when it cannot be built.
    void writeTo(const std::string& path);

    // Valid after writeTo: what stands in the file.
    const Trailer& trailer() const { return written; }
    unsigned long payloadBytes() const { return payloadSize; }
    // By file name, signatures included.
    std::map<std::string, std::string> files() const;

  private:
    std::string signatureOf(const std::string& component, const std::string& bytes) const;
    std::string releaseList() const;
    std::string payload() const;
    Trailer trailerFor(const std::string& payloadBytes) const;

    std::map<std::string, std::string> components;
    std::map<std::string, std::string> extraFiles;
    std::set<std::string> omitted;
    std::set<std::string> corrupted;
    std::set<std::string> otherKey;
    std::vector<long> flips;
    std::vector<std::function<void(Trailer&)>> edits;
    std::string version;
    std::string listedVersions;  // as the release list has them
    std::string rawPayload;
    bool isRaw = false;
    unsigned long totalSize = kPackageBytes;
    Trailer written;
    unsigned long payloadSize = 0;
};

}  // namespace testsupport
