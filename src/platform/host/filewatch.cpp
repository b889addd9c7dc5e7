// SPDX-License-Identifier: GPL-3.0-only
// inotify on the folder of one file.
#include "platform/host/filewatch.h"

#include <glib-unix.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/host/log.h"

namespace {

constexpr uint32_t kEvents =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB | IN_ONLYDIR;

}  // namespace

FileWatch::~FileWatch() {
    if (m_source)
        g_source_remove(m_source);
    if (m_descriptor >= 0)
        close(m_descriptor);
}

void FileWatch::open() {
    const std::string folder = std::filesystem::path(m_file).parent_path();
    m_descriptor = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_descriptor < 0 || inotify_add_watch(m_descriptor, folder.c_str(), kEvents) < 0) {
        logLine("cannot watch %s: %s; its changes are noticed when it is read again", m_file.c_str(),
                strerror(errno));
        return;
    }
    m_source = g_unix_fd_add(m_descriptor, G_IO_IN, onEvent, this);
}

gboolean FileWatch::onEvent(gint descriptor, GIOCondition, gpointer data) {
    auto* self = static_cast<FileWatch*>(data);
    const std::string name = std::filesystem::path(self->m_file).filename();
    bool changed = false;
    alignas(inotify_event) char buffer[4096];
    ssize_t count = 0;
    while ((count = read(descriptor, buffer, sizeof buffer)) > 0) {
        for (char* at = buffer; at < buffer + count;) {
            const auto* event = reinterpret_cast<inotify_event*>(at);
            // After an overflow nobody knows which notices are missing.
            changed =
                changed || (event->mask & IN_Q_OVERFLOW) != 0 || (event->len > 0 && name == event->name);
            at += sizeof(inotify_event) + event->len;
        }
    }
    if (changed)
        self->m_onChange();
    return G_SOURCE_CONTINUE;
}
