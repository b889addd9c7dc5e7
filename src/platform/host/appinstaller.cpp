// SPDX-License-Identifier: GPL-3.0-only
// The application installer service. A change of the folder only starts a short wait, then the folder is
// compared with what is known: an upgrade that takes an entry away and puts it back is no removal, and
// subscribers destroy an application's data when they hear of one.
#include "platform/host/appinstaller.h"

#include <glib-unix.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/bus/qsraii.h"
#include "platform/host/say.h"
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

Presence AppInstaller::start(GMainLoop* loop) {
    static const QSMethod methods[] = {{"notifyOnChange", onNotifyOnChange, 0}, {nullptr, nullptr, 0}};
    const Presence presence = m_bus.take("com.zelt.appinstaller");
    if (presence != Presence::Up)
        return presence;
    m_inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_inotify >= 0)
        m_source = g_unix_fd_add(m_inotify, G_IO_IN, onFolderEvent, this);
    m_list.load();
    openWatch();
    return m_bus.serve("/", methods, this) && m_bus.attach(loop) ? Presence::Up : Presence::Failed;
}

// Watched before it is read, so that nothing falls in between.
void AppInstaller::openWatch() {
    if (m_watch >= 0)
        return;
    m_watch = inotify_add_watch(m_inotify, m_folder.c_str(), kEvents);
    if (m_watch < 0)
        say("cannot watch the applications folder %s: %s; removals go unseen until it is there",
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
            // The folder itself went: its applications are out of sight, not removed.
            if (event->mask & (IN_IGNORED | IN_MOVE_SELF)) {
                inotify_rm_watch(descriptor, event->wd);
                self->m_watch = -1;
            }
            at += sizeof(inotify_event) + event->len;
        }
    }
    if (self->m_watch < 0)
        say("the applications folder %s is gone; removals go unseen until it is back",
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
        say("application %s was removed", application.c_str());
        m_list.announced(application);
    }
}

// True when somebody heard it.
bool AppInstaller::tell(const std::string& application) {
    const JsonRef object(json_object_new_object());
    json_object_object_add(object.get(), "returnValue", json_object_new_boolean(true));
    json_object_object_add(object.get(), "statusChange", json_object_new_string("REMOVED"));
    json_object_object_add(object.get(), "appId", json_object_new_string(application.c_str()));
    const std::string payload = json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN);
    bool heard = false;
    BusError error;
    QSSubscriptionIter* iter = nullptr;
    if (!QSSubscriptionAcquire(m_bus.handle(), kKey, &iter, error))
        return false;
    while (QSSubscriptionHasNext(iter)) {
        QSMessage* subscriber = QSSubscriptionNext(iter);
        BusError lost;
        if (wants(subscriber, application))
            heard = QSMessageRespond(subscriber, payload.c_str(), lost) || heard;
    }
    QSSubscriptionRelease(iter);
    return heard;
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
    // What was removed unheard follows the first answer.
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
