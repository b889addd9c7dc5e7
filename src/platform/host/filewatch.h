// SPDX-License-Identifier: GPL-3.0-only
// Reports when a file is written, replaced or removed. Watches its folder, because a file that is replaced is
// another one. Keeps no state of the file.
#pragma once

#include <glib.h>

#include <functional>
#include <string>

class FileWatch {
  public:
    FileWatch(std::string file, std::function<void()> onChange)
        : m_file(std::move(file)), m_onChange(std::move(onChange)) {}
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    // A folder that cannot be watched is logged.
    void open();

  private:
    static gboolean onEvent(gint descriptor, GIOCondition condition, gpointer data);

    std::string m_file;
    std::function<void()> m_onChange;
    int m_descriptor = -1;
    guint m_source = 0;
};
