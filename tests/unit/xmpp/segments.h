// SPDX-License-Identifier: GPL-3.0-only
// What a TCP connection has sent, as the kernel counts it.
#pragma once

// Segments with data that have left the socket.
unsigned segmentsSent(int socket);
