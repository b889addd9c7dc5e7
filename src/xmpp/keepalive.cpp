// SPDX-License-Identifier: GPL-3.0-only
// Keep-alive of TCP. Address translators drop what has been idle for 5 minutes, so the first probe comes
// before that.
#include "xmpp/keepalive.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string_view>

#include "util/log.h"

namespace xmpp {
namespace {

constexpr int kDefaultIdle = 240;
constexpr int kLongestIdle = 32'767;  // the kernel's bound
// A single lost packet must not end the connection: the server has four chances, within a minute.
constexpr int kProbes = 4;
constexpr int kLongestInterval = 15;

bool parseIdle(std::string_view text, int& idle) {
    unsigned seconds = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (fault != std::errc() || end != text.data() + text.size() || seconds > kLongestIdle)
        return false;
    idle = static_cast<int>(seconds);
    return true;
}

void setOption(int socket, int level, int name, int value) {
    setsockopt(socket, level, name, &value, sizeof value);
}

}  // namespace

KeepAlive keepAliveAfter(int idle) {
    if (idle == 0)
        return {};
    const int interval = std::clamp(idle / kProbes, 1, kLongestInterval);
    return {.idle = idle, .interval = interval, .probes = kProbes, .silence = idle + kProbes * interval};
}

KeepAlive configuredKeepAlive() {
    int idle = kDefaultIdle;
    const char* text = std::getenv("PUBSUB_TCP_KEEPALIVE");
    if (text && !parseIdle(text, idle))
        PrvPrintErr({}, "PUBSUB_TCP_KEEPALIVE=%s is no whole number of seconds from 0 to %d, using %d", text,
                    kLongestIdle, kDefaultIdle);
    return keepAliveAfter(idle);
}

void KeepAlive::applyTo(int socket) const {
    setOption(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, silence * 1'000);
    if (idle == 0)
        return;
    setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, idle);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, interval);
    setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, probes);
}

}  // namespace xmpp
