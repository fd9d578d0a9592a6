#include "upgrade/upgrade_version_ctrl.h"

#include <sys/stat.h>

#include <cerrno>

#include "upgrade/internal.h"
#include "upgrade/upgrade_common.h"

namespace {

constexpr const char* kSourceUnit = "upgrade/upgrade_version_ctrl";

constexpr const char* kFactoryVersionFile = "/etc/kavro/version.json";
constexpr int kNoSuchFile = -2;

// One member of a version file and the field that holds it. The table decides which members a file has.
struct VersionKeyRow {
    std::string key;
    CFG_DATA_TYPE_E type;
    int32_t L_VERSION_T::*field;
};

const VersionKeyRow versionKeyTable[] = {
    {"hw_version", CFG_DATA_TYPE_INT, &L_VERSION_T::hw},
    {"mpu_version", CFG_DATA_TYPE_INT, &L_VERSION_T::mpu},
    {"mcu_version", CFG_DATA_TYPE_INT, &L_VERSION_T::mcu},
    {"bld_version", CFG_DATA_TYPE_INT, &L_VERSION_T::bld},
};

// Whether the path names nothing, not even a link that leads nowhere.
bool isFree(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

// A new version file starts as a copy of the factory one. A copy that failed half-way is no version file.
bool createFromFactory(const std::string& path) {
    const bool wasFree = isFree(path);
    const std::string target = kavro::shellWord(path);
    if (COMMON_YR::runSystem("cp %s %s", kFactoryVersionFile, target.c_str()) < 0) {
        if (wasFree) {
            COMMON_YR::rmFile(path);
        }
        return false;
    }
    return true;
}

}  // namespace

int UPGRADE_read_target_version(L_VERSION_T& version, std::string path) {
    if (!kavro::pathExists(path)) {
        UPGRADE_LOG(3, "config_path '%s' not exist!\n", path.c_str());
        return kNoSuchFile;
    }
    for (const VersionKeyRow& row : versionKeyTable) {
        if (UPGRADE_COMM_read_config(path, row.key, row.type, &(version.*row.field)) < 0) {
            UPGRADE_ERROR("read config '%s' from file '%s' failed;\n", row.key.c_str(), path.c_str());
            return -1;
        }
    }
    return 0;
}

int UPGRADE_write_target_version(L_VERSION_T& version, std::string path) {
    const COMMON_YR::CancelHold hold;  // a new file must not be left half made
    if (!kavro::pathExists(path) && !createFromFactory(path)) {
        UPGRADE_ERROR("config_path '%s' not exist!\n", path.c_str());
        return -1;
    }
    for (const VersionKeyRow& row : versionKeyTable) {
        if (UPGRADE_COMM_write_config(path, row.key, row.type, &(version.*row.field)) < 0) {
            UPGRADE_ERROR("write config '%s' to file '%s' failed;\n", row.key.c_str(), path.c_str());
            return -1;
        }
    }
    UPGRADE_LOG(3, "%s: version %d.%d.%d.%d\n", ("UPGRADE_write_target_version " + path).c_str(), version.hw,
                version.mpu, version.mcu, version.bld);
    return 0;
}

int UPGRADE_set_upgrade_flag(UPGRADE_FLAG_T& flag, L_VERSION_T current, L_VERSION_T package, bool rollback) {
    (void)rollback;
    flag.bld = package.bld != current.bld;
    flag.mpu = true;
    flag.mcu = package.mcu != current.mcu;
    return 0;
}
