// SPDX-License-Identifier: GPL-3.0-only
#include "platform/manager/journal.h"

#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "util/log.h"
#include "util/logsubject.h"

namespace {

bool send(int priority, CallSite site, const char* line) {
    std::vector<std::string> fields{std::string("MESSAGE=") + line, "PRIORITY=" + std::to_string(priority),
                                    std::string("CODE_FUNC=") + site.function,
                                    "CODE_LINE=" + std::to_string(site.line)};
    const auto add = [&fields](const char* name, const std::string& value) {
        if (!value.empty())
            fields.push_back(name + value);
    };
    add("PUBSUB_NODE=", LogSubject::node());
    add("PUBSUB_ITEM=", LogSubject::item());
    add("PUBSUB_STATE=", logState());
    std::vector<iovec> parts;
    parts.reserve(fields.size());
    for (std::string& field : fields)
        parts.push_back({.iov_base = field.data(), .iov_len = field.size()});
    // In brackets: the macro of this name would add the place of this call.
    return (sd_journal_sendv)(parts.data(), static_cast<int>(parts.size())) == 0;
}

}  // namespace

void logToJournal(const char* socket) {
    if (access(socket, W_OK) == 0)
        setLogSink(send);
}
