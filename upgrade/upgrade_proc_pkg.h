// Package handling: the trailer of a package file, and turning the file into a directory of components.
#pragma once

#include <cstdint>
#include <string>

#include "common/export.h"
#include "upgrade/upgrade_version_ctrl.h"

// What the trailer of a package says. Texts are NUL-terminated.
struct _UPGRADE_PKG_T {
    uint32_t pkg_file_len = 0;  // bytes of the payload, the tar archive at the start of the file
    char md5[33] = {};          // of the payload, as hexadecimal text
    uint32_t pubkey_len = 0;    // bytes of the public key
    std::string pubkey_file;    // where the key was written
    char stamp[15] = {};        // when it was made, as text for people
    char ident[41] = {};        // what it was made of, as text for people
    L_VERSION_T version;        // of what it holds
    char branch[128] = {};      // text for people, cut to what fits
    char user[128] = {};        // text for people, cut to what fits
};

// A package and where to unpack it.
struct UPGADE_PKG_IN_T {
    std::string pkg_path;    // the package; cut to its payload in place
    std::string unpack_dir;  // created when missing, used as it is otherwise
};

// What a package was found to hold.
struct UPGADE_PKG_OUT_T {
    L_VERSION_T version;      // as its trailer says
    std::string pubkey_file;  // where its key was written
    std::string components;   // names of the unpacked files, each followed by ','; appended to, never cleared
};

// Reads the trailer, the last 4096 bytes of the package, and writes its public key to /tmp/pubkey. info must
// be a fresh record. Returns 0 once the version is read, even without readable branch and user texts; -1,
// logged, otherwise, when fields already filled keep their values.
KAVRO_EXPORT int read_info_form_pkg(_UPGRADE_PKG_T& info, std::string pkgPath);

// Reads the trailer, cuts it off, checks the payload's md5 and unpacks it. isRollback makes no difference.
// Returns 0; -1 at the first failing step, logged, with the work of the steps before it in place. Blocks for
// seconds; a cancel of the calling thread may end it during the digest or the unpacking.
KAVRO_EXPORT int UPGRADE_proc_upgrade_pkg(UPGADE_PKG_OUT_T& out, UPGADE_PKG_IN_T in, bool isRollback);
