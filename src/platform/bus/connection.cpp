// SPDX-License-Identifier: GPL-3.0-only
// Opening and closing a bus connection. The addresses come from ZELT_PRIVATE_BUS and ZELT_PUBLIC_BUS; without
// them the private bus is the platform's own and the public one the machine's system bus.
#include "platform/bus/connection.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "platform/bus/calls.h"
#include "platform/bus/category.h"
#include "platform/bus/error.h"
#include "platform/bus/identity.h"
#include "platform/bus/peers.h"
#include "platform/bus/presence.h"
#include "platform/bus/unread.h"

namespace {

constexpr uint64_t kDaemonDeadline = 2'000'000;  // microseconds

constexpr size_t kMostLogBudgets = 256;  // beyond it those of inactive users are dropped

const char* addressVariable(QSBus side) {
    return side == QSBus::Public ? "ZELT_PUBLIC_BUS" : "ZELT_PRIVATE_BUS";
}

std::string address(QSBus side) {
    const char* chosen = std::getenv(addressVariable(side));
    if (chosen && *chosen)
        return chosen;
    if (side == QSBus::Private)
        return "unix:path=/run/zelt/private_bus";
    const char* system = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return system && *system ? system : "unix:path=/run/dbus/system_bus_socket";
}

int connectBus(QSHandle* handle, const std::string& where) {
    int result = sd_bus_new(&handle->bus);
    if (result >= 0)
        result = sd_bus_set_address(handle->bus, where.c_str());
    if (result >= 0)
        result = sd_bus_set_bus_client(handle->bus, 1);
    // No method takes a file descriptor; refusing them keeps clients from filling the descriptor table.
    if (result >= 0)
        result = sd_bus_negotiate_fds(handle->bus, 0);
    // The time limit for replies of the daemon itself; calls to services have none.
    if (result >= 0)
        result = sd_bus_set_method_call_timeout(handle->bus, kDaemonDeadline);
    if (result >= 0)
        result = sd_bus_start(handle->bus);
    // Waits for the reply to Hello, so that an unreachable bus is an error here and not
    // a lost connection later.
    const char* uniqueName = nullptr;
    if (result >= 0)
        result = sd_bus_get_unique_name(handle->bus, &uniqueName);
    return result;
}

void closeBus(QSHandle* handle) {
    sd_bus_flush_close_unref(handle->bus);
    handle->bus = nullptr;
}

bool takeName(QSHandle* handle, QSError* error) {
    if (handle->name.empty())
        return true;
    const int result = sd_bus_request_name(handle->bus, handle->name.c_str(), 0);
    if (result >= 0)
        return true;
    const std::string what =
        "Taking the name " + handle->name + " on the " + busSideName(handle) + " bus failed";
    if (result == -EEXIST)
        return busFail(error, result, what + ": another process has it");
    if (result == -EACCES || result == -EPERM)
        return busFail(error, result, what + ": the bus configuration does not let this user own it");
    return busFailErrno(error, result, what);
}

}  // namespace

QSHandle::~QSHandle() = default;

const char* busSideName(const QSHandle* handle) {
    return busIsPublic(handle) ? "public" : "private";
}

QSHandle* busOpen(QSBus side, const char* name, QSError* error) {
    busWarnOfTrustedEnvironment();
    auto handle = std::make_unique<QSHandle>();
    handle->side = side;
    handle->name = name ? name : "";
    const std::string where = address(side);
    int result = connectBus(handle.get(), where);
    if (result < 0) {
        busFailErrno(error, result,
                     std::string("Connecting to the ") + busSideName(handle.get()) + " bus at " + where +
                         " (" + addressVariable(side) + ") failed");
    } else if (side == QSBus::Public && !handle->name.empty() && (result = busWatchCalls(handle.get())) < 0) {
        busFailErrno(error, result, "Watching the calls of the public bus failed");
    } else if (takeName(handle.get(), error)) {
        if (side == QSBus::Private && !handle->name.empty())
            handle->names.start(handle.get());
        return handle.release();
    }
    closeBus(handle.get());
    return nullptr;
}

bool busIsOpen(const QSHandle* handle, QSError* error) {
    if (!handle)
        return busFail(error, -EINVAL, "There is no bus handle; register first");
    if (!handle->bus)
        return busFail(error, -ENOTCONN, "The bus connection is closed");
    return true;
}

LogBudget& busLogBudget(QSHandle* handle, unsigned user) {
    const int64_t now = g_get_monotonic_time();
    // No budget is erased while one is in use.
    if (handle->logBudgets.size() > kMostLogBudgets && !LogPayer::pays())
        std::erase_if(handle->logBudgets, [&](const auto& entry) { return entry.second.isFull(now); });
    return handle->logBudgets[user];
}

void busReference(QSHandle* handle) {
    handle->references++;
}

void busRelease(QSHandle* handle) {
    if (--handle->references == 0)
        delete handle;
}

bool QSRegister(QSBus bus, const char* name, QSHandle** handle, QSError* error) {
    if (!handle)
        return busFail(error, -EINVAL, "The pointer for the bus handle is null");
    *handle = busOpen(bus, name, error);
    return *handle != nullptr;
}

bool QSUnregister(QSHandle* handle, QSError* error) {
    if (!busIsOpen(handle, error))
        return false;
    busDetach(handle);
    // While the connection is still open, waiting callers are told that no answer follows.
    busDropAllSubscriptions(handle);
    busDropAllPeers(handle);
    busEndPresenceCheck(handle);
    const int result = handle->name.empty() ? 0 : sd_bus_release_name(handle->bus, handle->name.c_str());
    handle->answeredCalls.clear();
    handle->calls.clear();
    handle->answerFilter.reset();
    handle->callFilter.reset();
    handle->names.stop();
    handle->categories.clear();
    closeBus(handle);

    QSZeltService* service = std::exchange(handle->service, nullptr);
    if (service && --service->open == 0) {
        busRelease(service->privateHandle);
        busRelease(service->publicHandle);
        delete service;
    }
    const std::string what = "Releasing the name " + handle->name + " failed";
    busRelease(handle);
    return result < 0 ? busFailErrno(error, result, what) : true;
}
