// SPDX-License-Identifier: GPL-3.0-only
// The application installer service. A change of the folder only starts a short delay, after which the folder
// is compared with the list: an upgrade that removes an entry and restores it is not a removal, and
// subscribers delete an application's data at a removal.
#include "platform/host/appinstaller.h"

#include <glib-unix.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/bus/qsraii.h"
#include "platform/host/log.h"
#include "util/jsonref.h"

namespace {

constexpr char kKey[] = "notifyOnChange";
constexpr uint32_t kEvents =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

bool wants(QSMessage* subscriber, const std::string& application) {
    const JsonRef object = parseJson(QSMessageGetPayload(subscriber));
    json_object* wanted = jsonMember(object.get(), "appId");
    return !wanted || !strcmp(json_object_get_string(wanted), "*") ||
           application == json_object_get_string(wanted);
}

}  // namespace

AppInstaller::AppInstaller(const HostConfig& config)
    : m_folder(config.applicationsFolder),
      m_settleMs(config.settleMs),
      m_list(config.stateDir + "/applications.json") {}

AppInstaller::~AppInstaller() {
    for (const guint source : {m_source, m_settling, m_announcing}) {
        if (source)
            g_source_remove(source);
    }
    if (m_inotify >= 0)
        close(m_inotify);
}

StartResult AppInstaller::start(GMainLoop* loop) {
    static constexpr QSMethod methods[] = {{.name = "notifyOnChange", .handler = onNotifyOnChange}, {}};
    const StartResult result = m_bus.take("com.zelt.appinstaller");
    if (result != StartResult::Started)
        return result;
    m_inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_inotify >= 0)
        m_source = g_unix_fd_add(m_inotify, G_IO_IN, onFolderEvent, this);
    m_list.load();
    openWatch();
    return m_bus.serve("/", methods, this) && m_bus.attach(loop) ? StartResult::Started : StartResult::Failed;
}

// Watched before it is read, so that no change between the two is missed.
void AppInstaller::openWatch() {
    if (m_watch >= 0)
        return;
    m_watch = inotify_add_watch(m_inotify, m_folder.c_str(), kEvents);
    if (m_watch < 0)
        logLine("cannot watch the applications folder %s: %s; removals are not detected until it exists",
                m_folder.c_str(), strerror(errno));
    else
        look();
}

void AppInstaller::look() {
    std::set<std::string> applications;
    if (listApplications(m_folder, applications))
        m_list.update(applications);
}

gboolean AppInstaller::onFolderEvent(gint descriptor, GIOCondition, gpointer data) {
    auto* self = static_cast<AppInstaller*>(data);
    alignas(inotify_event) char buffer[4096];
    ssize_t count;
    while ((count = read(descriptor, buffer, sizeof buffer)) > 0) {
        for (char* at = buffer; at < buffer + count;) {
            auto* event = reinterpret_cast<inotify_event*>(at);
            // The folder itself is gone: its applications are unknown, not removed.
            if (event->mask & (IN_IGNORED | IN_MOVE_SELF)) {
                inotify_rm_watch(descriptor, event->wd);
                self->m_watch = -1;
            }
            at += sizeof(inotify_event) + event->len;
        }
    }
    if (self->m_watch < 0)
        logLine("the applications folder %s is gone; removals are not detected until it is back",
                self->m_folder.c_str());
    else
        self->settle();
    return G_SOURCE_CONTINUE;
}

void AppInstaller::settle() {
    if (m_settling)
        g_source_remove(m_settling);
    m_settling = g_timeout_add(m_settleMs, onSettled, this);
}

gboolean AppInstaller::onSettled(gpointer data) {
    auto* self = static_cast<AppInstaller*>(data);
    self->m_settling = 0;
    self->look();
    self->announce();
    return G_SOURCE_REMOVE;
}

void AppInstaller::announce() {
    const std::set<std::string> waiting = m_list.unannounced();
    for (const std::string& application : waiting) {
        if (!tell(application))
            continue;
        logLine("application %s was removed", application.c_str());
        m_list.announced(application);
    }
}

// True when a subscriber was told.
bool AppInstaller::tell(const std::string& application) {
    const std::string payload =
        JsonObject().set("returnValue", true).set("statusChange", "REMOVED").set("appId", application).line();
    bool delivered = false;
    BusError error;
    QSSubscriptionIter* iter = nullptr;
    if (!QSSubscriptionAcquire(m_bus.handle(), kKey, &iter, error))
        return false;
    while (QSSubscriptionHasNext(iter)) {
        QSMessage* subscriber = QSSubscriptionNext(iter);
        BusError lost;
        if (wants(subscriber, application))
            delivered = QSMessageRespond(subscriber, payload.c_str(), lost) || delivered;
    }
    QSSubscriptionRelease(iter);
    return delivered;
}

bool AppInstaller::onNotifyOnChange(QSHandle* handle, QSMessage* message, void* context) {
    auto* self = static_cast<AppInstaller*>(context);
    const JsonRef object = parseJson(QSMessageGetPayload(message));
    BusError error;
    const bool subscribes = json_object_get_boolean(jsonMember(object.get(), "subscribe"));
    if (subscribes && !QSSubscriptionAdd(handle, kKey, message, error)) {
        self->m_bus.refuse(message, std::string("the subscription could not be kept: ") + error.message());
        return true;
    }
    self->openWatch();
    self->m_bus.reply(message, "{\"returnValue\":true,\"statusChange\":\"NONE\"}");
    // Removals that no subscriber was told of follow the first answer.
    if (subscribes && !self->m_announcing)
        self->m_announcing = g_idle_add(onSubscribed, self);
    return true;
}

gboolean AppInstaller::onSubscribed(gpointer data) {
    auto* self = static_cast<AppInstaller*>(data);
    self->m_announcing = 0;
    self->announce();
    return G_SOURCE_REMOVE;
}
