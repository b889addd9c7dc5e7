// SPDX-License-Identifier: GPL-3.0-only
// Apart from the other sources: the kernel's header, which has the counter, and the C library's exclude each
// other.
#include "tests/unit/xmpp/segments.h"

#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

unsigned segmentsSent(int socket) {
    tcp_info info{};
    socklen_t length = sizeof info;
    EXPECT_EQ(getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length), 0);
    EXPECT_GE(length, offsetof(tcp_info, tcpi_data_segs_out) + sizeof info.tcpi_data_segs_out);
    return info.tcpi_data_segs_out;
}
