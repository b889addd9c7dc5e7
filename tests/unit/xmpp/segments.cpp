// SPDX-License-Identifier: GPL-3.0-only
// In its own file, because the kernel's header with the counter conflicts with the C library's.
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
