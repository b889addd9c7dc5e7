// SPDX-License-Identifier: GPL-3.0-only
// Which applications are installed: the entries of one folder, compared with the previous ones. Kept on disk
// (applications.json below the state folder), so that removals while the daemon was down are detected too.
#pragma once

#include <set>
#include <string>
#include <vector>

// The application of a folder entry: ID.desktop, or a folder ID; "" for anything else.
std::string applicationOf(const std::string& entry, bool isFolder);
// The applications in a folder; false when it cannot be read.
bool listApplications(const std::string& folder, std::set<std::string>& applications);

class ApplicationList {
  public:
    explicit ApplicationList(std::string file) : m_file(std::move(file)) {}

    void load();
    // Records the installed applications; those that are gone wait to be announced.
    void update(const std::set<std::string>& applications);
    const std::set<std::string>& unannounced() const { return m_removed; }
    void announced(const std::string& application);

  private:
    void save() const;

    std::string m_file;
    bool m_known = false;  // the folder was read at least once
    std::set<std::string> m_installed;
    std::set<std::string> m_removed;
};
