#include "upgrade/upgrade_proc_pkg.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

#include "upgrade/internal.h"

namespace {

constexpr const char* kSourceUnit = "upgrade/upgrade_proc_pkg";

constexpr const char* kPubkeyFile = "/tmp/pubkey";
constexpr mode_t kUnpackDirMode = 0755;

// The trailer, the last block of a package file. L, B and U are the lengths that it states:
//
//       0   8        payload length, hexadecimal text
//       8   32       payload md5, text
//      40   8        L, hexadecimal text
//      48   L        public key
//    48+L   14       stamp
//    62+L   40       ident
//   102+L   12       version, four numbers of three decimal digits
//   114+L   8        B, hexadecimal text
//   122+L   B        branch
//   122+L+B 8        U, hexadecimal text
//   130+L+B U        user
constexpr long kTrailerBytes = 4096;
constexpr size_t kHexNumberBytes = 8;
constexpr long kPayloadLengthAt = 0;
constexpr long kMd5At = 8;
constexpr long kPubkeyLengthAt = 40;
constexpr long kPubkeyAt = 48;
// Behind the public key:
constexpr long kStampAt = 48;
constexpr long kIdentAt = 62;
constexpr long kVersionAt = 102;
constexpr long kBranchNrAt = 114;
constexpr long kBranchAt = 122;

constexpr long kMaxPubkeyBytes = kTrailerBytes - kBranchNrAt;  // what leaves room for the version

// The trailer with a terminator behind it, so that a text at its very end can be scanned.
using TrailerBlock = char[kTrailerBytes + 1];

// Converts hexadecimal text to a number; false, with *out untouched, for more than eight characters or for
// anything that is no hexadecimal digit.
bool hex_text_to_u32(const char* text, size_t length, uint32_t* out) {
    if (length > kHexNumberBytes) {
        return false;
    }
    std::vector<unsigned char> bytes;
    if (!COMMON_YR::_xatoi(std::string(text, length), bytes)) {
        return false;
    }
    *out = 0;
    for (const unsigned char byte : bytes) {
        *out = (*out << 8) + byte;
    }
    return true;
}

// Reads the number in front of an optional text, then as much of the text as fits and lies within the block: field is
// zero-filled and stays terminated. Returns the stated length; nothing when there is no number.
//
// A length is a signed number of 32 bits. A negative one counts as large here, and leads backwards to what is behind the
// text.
template <size_t size>
std::optional<int32_t> readCountedText(const TrailerBlock& block, int64_t at, char (&field)[size]) {
    unsigned count = 0;
    if (at < 0 || at >= kTrailerBytes || std::sscanf(block + at, "%8X", &count) < 1) {
        return std::nullopt;
    }
    const int64_t textAt = at + static_cast<int64_t>(kHexNumberBytes);
    const int64_t available = std::max<int64_t>(0, kTrailerBytes - textAt);
    const int64_t kept = std::min({static_cast<int64_t>(count), static_cast<int64_t>(size) - 1, available});
    std::memcpy(field, block + std::min<int64_t>(textAt, kTrailerBytes), static_cast<size_t>(kept));
    return static_cast<int32_t>(count);
}

// Branch and user are for people: a package without readable ones is still good.
void readDescription(_UPGRADE_PKG_T& info, const TrailerBlock& block) {
    const int64_t keyBytes = info.pubkey_len;
    const std::optional<int32_t> branchBytes = readCountedText(block, kBranchNrAt + keyBytes, info.branch);
    if (!branchBytes) {
        UPGRADE_LOG(3, "convert branchNr failed;\n");
        return;
    }
    if (*branchBytes == 0) {
        return;
    }
    if (!readCountedText(block, kBranchAt + keyBytes + *branchBytes, info.user)) {
        UPGRADE_LOG(3, "convert userNr failed;\n");
    }
}

constexpr const char* kReadFunction = "read_info_form_pkg";

// Reads the last block of the package. Returns how many bytes lie before it, -1 on failure.
long readTrailer(const std::string& pkgPath, TrailerBlock& block) {
    if (!kavro::pathExists(pkgPath)) {
        UPGRADE_ERROR_AT(kReadFunction, __LINE__, "pkg '%s' not exist!\n", pkgPath.c_str());
        return -1;
    }
    const long fileSize = COMMON_YR::getFileSize(pkgPath.c_str());
    if (fileSize < kTrailerBytes) {
        UPGRADE_ERROR_AT(kReadFunction, __LINE__, "pkg_file_size %ld failed!\n", fileSize);
        return -1;
    }
    const long before = fileSize - kTrailerBytes;
    if (COMMON_YR::readFileToBufferByOffset(pkgPath.c_str(), static_cast<unsigned long>(before),
                                            kTrailerBytes, block) != kTrailerBytes) {
        UPGRADE_ERROR_AT(kReadFunction, __LINE__, "read append info failed;\n");
        return -1;
    }
    return before;
}

bool readLengths(_UPGRADE_PKG_T& info, const TrailerBlock& block, long payloadLimit) {
    if (!hex_text_to_u32(block + kPayloadLengthAt, kHexNumberBytes, &info.pkg_file_len) ||
        info.pkg_file_len > payloadLimit) {
        UPGRADE_ERROR_AT(kReadFunction, __LINE__, "_xatoi err, _pkg_file_len 0x%x should be 0x%x ~ 0x%x\n",
                         info.pkg_file_len, 0U, static_cast<uint32_t>(payloadLimit));
        return false;
    }
    std::memcpy(info.md5, block + kMd5At, sizeof(info.md5) - 1);
    // A key that leaves no room for the version behind it is as invalid as one whose length is no number.
    if (!hex_text_to_u32(block + kPubkeyLengthAt, kHexNumberBytes, &info.pubkey_len) ||
        info.pubkey_len > kMaxPubkeyBytes) {
        UPGRADE_ERROR_AT(kReadFunction, __LINE__, "pubkey_len %d invalid\n",
                         static_cast<int>(info.pubkey_len));
        return false;
    }
    return true;
}

// Not a failure of the read: the check of the signatures fails without a key. An older package's key must not stay in
// its place; what is no regular file holds none.
void writePubkey(char* key, uint32_t length) {
    if (COMMON_YR::writeFile(kPubkeyFile, key, length, false) == static_cast<long>(length)) {
        return;
    }
    UPGRADE_ERROR_AT(kReadFunction, __LINE__, "write pubkey file failed;\n");
    if (COMMON_YR::getFileSize(kPubkeyFile) >= 0) {
        COMMON_YR::rmFile(kPubkeyFile);
    }
}

}  // namespace

int read_info_form_pkg(_UPGRADE_PKG_T& info, std::string pkgPath) {
    std::memset(info.md5, 0, sizeof(info.md5));
    std::memset(info.stamp, 0, sizeof(info.stamp));
    std::memset(info.ident, 0, sizeof(info.ident));

    TrailerBlock block = {};
    const long payloadLimit = readTrailer(pkgPath, block);
    if (payloadLimit < 0 || !readLengths(info, block, payloadLimit)) {
        return -1;
    }
    info.pubkey_file = kPubkeyFile;
    writePubkey(block + kPubkeyAt, info.pubkey_len);
    const char* behindKey = block + info.pubkey_len;
    std::memcpy(info.stamp, behindKey + kStampAt, sizeof(info.stamp) - 1);
    std::memcpy(info.ident, behindKey + kIdentAt, sizeof(info.ident) - 1);
    L_VERSION_T& version = info.version;
    if (std::sscanf(behindKey + kVersionAt, "%3d%3d%3d%3d", &version.hw, &version.mpu, &version.mcu,
                    &version.bld) < 4) {
        UPGRADE_ERROR("convert version failed;\n");
        return -1;
    }
    readDescription(info, block);
    return 0;
}

namespace {

// Cuts the file to its payload. It is on storage before it is checked.
bool truncate_upgrade_pkg(const std::string& path, int length) {
    if (!kavro::pathExists(path)) {
        UPGRADE_ERROR("file '%s' not exist;\n", path.c_str());
        return false;
    }
    const COMMON_YR::CancelHold hold;
    if (truncate(path.c_str(), length) != 0) {
        UPGRADE_ERROR("truncate '%s' to %d bytes failed;\n", path.c_str(), length);
        return false;
    }
    sync();
    return true;
}

bool unpack_upgrade_package(std::string& components, const std::string& package, const std::string& dir) {
    if (!kavro::pathExists(package)) {
        UPGRADE_STEP_ERROR();
        return false;
    }
    if (!kavro::pathExists(dir)) {
        if (mkdir(dir.c_str(), kUnpackDirMode) != 0) {
            UPGRADE_STEP_ERROR();
            return false;
        }
        if (!kavro::pathExists(dir)) {
            UPGRADE_STEP_ERROR();
            return false;
        }
    }
    const std::string packageWord = kavro::shellWord(package);
    const std::string dirWord = kavro::shellWord(dir);
    if (COMMON_YR::runSystem("tar -xvf %s -C %s", packageWord.c_str(), dirWord.c_str()) < 0) {
        return false;
    }
    std::vector<std::string> names;
    COMMON_YR::getFiles(dir.c_str(), names, false);
    for (const std::string& name : names) {
        components += name + ",";
    }
    return true;
}

}  // namespace

int UPGRADE_proc_upgrade_pkg(UPGADE_PKG_OUT_T& out, UPGADE_PKG_IN_T in, bool isRollback) {
    (void)isRollback;
    _UPGRADE_PKG_T info;
    // In this order: the trailer is gone once the file is cut, and the md5 covers the payload alone.
    UPGRADE_LOG(3, "read_info_form_pkg\n");
    if (read_info_form_pkg(info, in.pkg_path) != 0) {
        UPGRADE_STEP_ERROR();
        return -1;
    }
    UPGRADE_LOG(3, "truncate_upgrade_pkg\n");
    if (!truncate_upgrade_pkg(in.pkg_path, static_cast<int>(info.pkg_file_len))) {
        UPGRADE_STEP_ERROR();
        return -1;
    }
    UPGRADE_LOG(3, "chkFileMd5\n");
    if (!COMMON_YR::chkFileMd5(in.pkg_path, info.md5)) {
        UPGRADE_STEP_ERROR();
        return -1;
    }
    UPGRADE_LOG(3, "unpack_upgrade_package\n");
    if (!unpack_upgrade_package(out.components, in.pkg_path, in.unpack_dir)) {
        UPGRADE_STEP_ERROR();
        return -1;
    }
    out.pubkey_file = kPubkeyFile;
    out.version = info.version;
    UPGRADE_LOG(3, "%s: get version %d.%d.%d.%d\n", __func__, out.version.hw, out.version.mpu,
                out.version.mcu, out.version.bld);
    return 0;
}
