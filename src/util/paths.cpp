// SPDX-License-Identifier: GPL-3.0-only
// Where the service keeps its files.
//
// The product has its places built in. A relocatable build asks the environment anew at each call, so that
// several services run side by side and one test program can use many state folders. Nothing is created here.
#include "util/paths.h"

#include <cstdlib>

namespace {

#ifdef PUBSUB_RELOCATABLE
std::string place(const char* variable, const char* builtIn) {
    const char* value = getenv(variable);
    return value && *value ? value : builtIn;
}
#else
std::string place(const char*, const char* builtIn) {
    return builtIn;
}
#endif

std::string inStateDir(const char* name) {
    return place("PUBSUB_STATE_DIR", "/var/pubsub") + name;
}

}  // namespace

const std::string& stateDir() {
    static std::string path;
    return path = inStateDir("");
}

const std::string& credentialsFile() {
    static std::string path;
    return path = inStateDir("/pubsub.conf");
}

const std::string& handlerFile() {
    static std::string path;
    return path = inStateDir("/pubsubhandlers.conf");
}

const std::string& cacheDir() {
    static std::string path;
    return path = inStateDir("/cache/");
}

const std::string& caFile() {
    static std::string path;
    return path = place("PUBSUB_CA_FILE", "/etc/ssl/certs/ca-certificates.crt");
}
