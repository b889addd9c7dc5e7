// SPDX-License-Identifier: GPL-3.0-only
// System values. The device id is derived from the machine id for this application, like
// sd_id128_get_machine_app_specific does, so that it does not reveal the machine id; it never changes during
// the life of an installation.
//
// ZELT_MACHINE_ID_FILE names another file with a machine id, for tests and for machines that have none.
#include <glib.h>
#include <systemd/sd-id128.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "platform/prefs/qp.h"
#include "util/log.h"

namespace {

constexpr char kDeviceIdKey[] = "com.zelt.properties.kduid";
// Specific to this application; another one derives another id from the same machine id.
constexpr sd_id128_t kApplication = {
    {0x7b, 0x1e, 0x0d, 0x52, 0x9c, 0x4f, 0x4a, 0x36, 0x8e, 0x21, 0xd5, 0x60, 0x3a, 0xf7, 0x14, 0xc9}};

bool readMachineId(const char* file, sd_id128_t& id, CallSite site) {
    std::ifstream stream(file);
    std::string text;
    std::getline(stream, text);
    if (sd_id128_from_string(text.c_str(), &id) >= 0)
        return true;
    PrvPrintErr(site, "%s holds no machine id: write 32 hexadecimal digits to it", file);
    return false;
}

bool machineId(sd_id128_t& id, CallSite site = {}) {
    if (const char* file = getenv("ZELT_MACHINE_ID_FILE"))
        return readMachineId(file, id, site);
    const int result = sd_id128_get_machine(&id);
    if (result >= 0)
        return true;
    PrvPrintErr(
        site,
        "This machine has no machine id: %s. Run systemd-machine-id-setup, or name a file with one in "
        "ZELT_MACHINE_ID_FILE",
        strerror(-result));
    return false;
}

// HMAC-SHA256 of the application's id under the machine's, cut to a random-based (version 4) UUID.
sd_id128_t derive(const sd_id128_t& machine) {
    GHmac* hmac = g_hmac_new(G_CHECKSUM_SHA256, machine.bytes, sizeof machine.bytes);
    g_hmac_update(hmac, kApplication.bytes, sizeof kApplication.bytes);
    guint8 digest[32];
    gsize length = sizeof digest;
    g_hmac_get_digest(hmac, digest, &length);
    g_hmac_unref(hmac);
    sd_id128_t derived;
    std::memcpy(derived.bytes, digest, sizeof derived.bytes);
    derived.bytes[6] = static_cast<guint8>((derived.bytes[6] & 0x0f) | 0x40);
    derived.bytes[8] = static_cast<guint8>((derived.bytes[8] & 0x3f) | 0x80);
    return derived;
}

}  // namespace

int QPSystemCopyStringValue(const char* key, char** text) {
    if (!text)
        return QP_BAD_ARGUMENT;
    *text = nullptr;
    if (!key || !*key)
        return QP_BAD_ARGUMENT;
    if (std::strcmp(key, kDeviceIdKey) != 0)
        return QP_NOT_FOUND;
    sd_id128_t machine;
    if (!machineId(machine))
        return QP_IO;
    char id[SD_ID128_STRING_MAX];
    *text = strdup(sd_id128_to_string(derive(machine), id));
    return QP_OK;
}
