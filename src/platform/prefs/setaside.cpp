// SPDX-License-Identifier: GPL-3.0-only
// Moving a damaged database out of the way, to the first free number, so that no earlier
// damaged file is overwritten.
#include "platform/prefs/setaside.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "util/log.h"

namespace {

bool exists(const std::string& file) {
    return access(file.c_str(), F_OK) == 0;
}

bool renameToFree(const std::string& from, const std::string& to) {
    return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
}

// Some file systems do not support RENAME_NOREPLACE: there a check before the rename has to suffice.
bool renameAside(const std::string& from, const std::string& to) {
    if (exists(to) || exists(to + "-wal")) {
        errno = EEXIST;
        return false;
    }
    return renameToFree(from, to) || (errno == EINVAL && rename(from.c_str(), to.c_str()) == 0);
}

}  // namespace

std::string setDamagedFileAside(const std::string& appId, const std::string& file) {
    unsigned number = 1;
    std::string aside = file + ".damaged-1";
    while (!renameAside(file, aside)) {
        if (errno != EEXIST) {
            PrvPrintErr({},
                        "Preferences of %s: %s is damaged and cannot be moved away: %s. Move it away by hand",
                        appId.c_str(), file.c_str(), strerror(errno));
            return "";
        }
        aside = file + ".damaged-" + std::to_string(++number);
    }
    // The write-ahead log belongs to the damaged file and would damage the new one. SQLite rebuilds the -shm
    // file from the log.
    rename((file + "-wal").c_str(), (aside + "-wal").c_str());
    unlink((file + "-shm").c_str());
    PrvPrintErr({}, "Preferences of %s: the file was damaged and begins anew. The old one is kept as %s",
                appId.c_str(), aside.c_str());
    return aside;
}
