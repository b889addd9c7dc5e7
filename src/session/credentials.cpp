// SPDX-License-Identifier: GPL-3.0-only
// Reading the credentials file.
//
// The file is plain text, one value a line, in a fixed order. A line is read through a buffer of 64 bytes; a
// longer one counts as several lines, so 63 characters and their newline are already two. A file that others
// can read is ignored. Keeps no state.
#include "session/credentials.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/log.h"
#include "util/paths.h"

namespace {

constexpr int kLineSize = 64;
constexpr int kMaxPort = 65535;
constexpr int kPortLine = 3;
constexpr int kLines = 6;

struct FileClose {
    void operator()(FILE* file) const { fclose(file); }
};

// A file that other users can read or may have written is not trusted.
bool isTrusted(FILE* file, const std::string& path, CallSite site = {}) {
    struct stat status = {};
    if (fstat(fileno(file), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    if (status.st_mode & 077)
        PrvPrintErr(site,
                    "%s can be read by others than its owner; `chmod 600` it and have the password changed",
                    path.c_str());
    else if (status.st_uid != geteuid() && status.st_uid != 0)
        PrvPrintErr(site, "%s belongs to another user; give it to the user of this service", path.c_str());
    else
        return true;
    return false;
}

}  // namespace

void ReadCredentials(std::string& jid, std::string& password, std::string& resource, std::string& server,
                     int& port, std::string& service) {
    const std::string& path = credentialsFile();
    const std::unique_ptr<FILE, FileClose> file(fopen(path.c_str(), "re"));
    if (!file || !isTrusted(file.get(), path))
        return;
    std::string portText;
    std::string* const outputs[kLines] = {&jid, &password, &server, &portText, &service, &resource};
    char line[kLineSize];
    for (int number = 0; number < kLines && fgets(line, sizeof line, file.get()); ++number) {
        strip_newline(line, static_cast<int>(strlen(line)));
        *outputs[number] = line;
        if (number == kPortLine)
            port = parsePort(portText);
    }
}

int parsePort(const std::string& text) {
    const long number = strtol(text.c_str(), nullptr, 10);
    return number < 0 || number > kMaxPort ? 0 : static_cast<int>(number);
}

std::string domainOf(const std::string& jid) {
    const size_t at = jid.find('@');
    return at == std::string::npos ? jid : jid.substr(at + 1);
}
