// SPDX-License-Identifier: GPL-3.0-only
// com.zelt.appinstaller: reports the removal of applications. A removal without a subscriber is kept on disk
// for the next one.
#pragma once

#include "platform/host/applications.h"
#include "platform/host/busservice.h"
#include "platform/host/config.h"

class AppInstaller {
  public:
    explicit AppInstaller(const HostConfig& config);
    ~AppInstaller();
    AppInstaller(const AppInstaller&) = delete;
    AppInstaller& operator=(const AppInstaller&) = delete;

    StartResult start(GMainLoop* loop);

  private:
    void openWatch();
    void look();
    void settle();
    void announce();
    bool tell(const std::string& application);
    static bool onNotifyOnChange(QSHandle* handle, QSMessage* message, void* context);
    static gboolean onFolderEvent(gint descriptor, GIOCondition condition, gpointer data);
    static gboolean onSettled(gpointer data);
    static gboolean onSubscribed(gpointer data);

    BusService m_bus;
    std::string m_folder;
    unsigned m_settleMs;
    ApplicationList m_list;
    int m_inotify = -1;
    int m_watch = -1;
    guint m_source = 0;
    guint m_settling = 0;
    guint m_announcing = 0;
};
