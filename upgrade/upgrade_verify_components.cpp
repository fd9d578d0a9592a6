#include "upgrade/upgrade_verify_components.h"

#include <list>

#include "upgrade/internal.h"

namespace {

constexpr const char* kSourceUnit = "upgrade/upgrade_verify_components";

constexpr const char* kSignatureSuffix = ".sign";

// The first row is unused; rows are walked from kFirstComponent on.
constexpr const char* PACKAGE_COMPONENTS[] = {
    "",                    // unused
    "bld_release.bin",     // bootloader
    "cv22_kavro_qz7.dtb",  // device tree of the main processor
    "ext4",                // root file system
    "Image",               // kernel
    "mcu_flash_app.s19",   // microcontroller application
    "mcu_flash_drv.s19",   // microcontroller flash driver
    "version_list.acs",    // version list of the package
};
constexpr int kComponentRows = sizeof(PACKAGE_COMPONENTS) / sizeof(PACKAGE_COMPONENTS[0]);
constexpr int kFirstComponent = 1;

// Every component comes with its signature file.
constexpr int kExpectedFiles = 2 * (kComponentRows - kFirstComponent);

constexpr const char* kFunction = "UPGRADE_verify_signature";

void logSummary(int line, int count, int ret) {
    UPGRADE_ERROR_AT(kFunction, line, "comp_valid_num = %d, ret = %d\n", count, ret);
}

bool isComponentOrSignature(const std::string& name) {
    for (int row = kFirstComponent; row < kComponentRows; ++row) {
        const std::string component = PACKAGE_COMPONENTS[row];
        if (name == component || name == component + kSignatureSuffix) {
            return true;
        }
    }
    return false;
}

// A package that lacks a file is refused before any signature is checked.
bool isComplete(const std::string& dir, const std::string& components) {
    std::list<std::string> pieces;
    COMMON_YR::split(components.c_str(), ",", pieces);
    if (pieces.empty()) {
        logSummary(__LINE__, 0, 0);
        return false;
    }
    const std::string prefix = dir + "/";
    int comp_valid_num = 0;
    for (const std::string& piece : pieces) {
        const std::string name = COMMON_YR::getFileName(piece.c_str());
        if (isComponentOrSignature(name)) {
            ++comp_valid_num;
        }
        const std::string filePath = prefix + name;
        if (!kavro::pathExists(filePath)) {
            UPGRADE_ERROR_AT(kFunction, __LINE__, "filePath '%s' not exist!\n", filePath.c_str());
            logSummary(__LINE__, comp_valid_num, -1);
            return false;
        }
    }
    if (comp_valid_num != kExpectedFiles) {
        logSummary(__LINE__, comp_valid_num, 0);
        return false;
    }
    return true;
}

bool verifyComponent(const std::string& file, const std::string& pubkey) {
    const std::string key = kavro::shellWord(pubkey);
    const std::string word = kavro::shellWord(file);
    return COMMON_YR::runSystem("openssl dgst -sha256 -verify %s -signature %s%s %s", key.c_str(),
                                word.c_str(), kSignatureSuffix, word.c_str()) >= 0;
}

}  // namespace

int UPGRADE_verify_signature(std::string dir, std::string components, std::string pubkey) {
    if (!isComplete(dir, components)) {
        return -1;
    }
    for (int row = kFirstComponent; row < kComponentRows; ++row) {
        const char* component = PACKAGE_COMPONENTS[row];
        if (!verifyComponent(dir + "/" + component, pubkey)) {
            UPGRADE_ERROR("verify_signature '%s' fail!\n", component);
            return -1;
        }
    }
    return 0;
}
