// SPDX-License-Identifier: GPL-3.0-only
// A service that owns one name on both buses. It keeps the two connections; the method tables
// belong to the categories.
#include <cerrno>

#include "platform/bus/category.h"
#include "platform/bus/connection.h"
#include "platform/bus/error.h"

bool QSRegisterZeltService(const char* name, QSZeltService** service, QSError* error) {
    if (!service || !name || sd_bus_service_name_is_valid(name) <= 0 ||
        sd_bus_interface_name_is_valid(name) <= 0)
        return busFail(error, -EINVAL, std::string("\"") + (name ? name : "") + "\" is no service name");
    QSHandle* privateHandle = busOpen(QSBus::Private, name, error);
    if (!privateHandle)
        return false;
    QSHandle* publicHandle = busOpen(QSBus::Public, name, error);
    if (!publicHandle) {
        QSUnregister(privateHandle, nullptr);
        return false;
    }
    *service = new QSZeltService{privateHandle, publicHandle, 2};
    for (QSHandle* handle : {privateHandle, publicHandle}) {
        handle->service = *service;
        // The service's own reference, so that a closed handle stays valid until both are unregistered.
        busReference(handle);
    }
    return true;
}

bool QSZeltServiceRegisterCategory(QSZeltService* service, const char* category,
                                   const QSMethod* publicMethods, const QSMethod* privateMethods,
                                   void* context, QSError* error) {
    if (!service)
        return busFail(error, -EINVAL, "There is no service; register it first");
    return busAddCategory(service->privateHandle, category, {{publicMethods, true}, {privateMethods, false}},
                          context, error) &&
           busAddCategory(service->publicHandle, category, {{publicMethods, true}}, context, error);
}

bool QSGmainAttachZeltService(QSZeltService* service, GMainLoop* loop, QSError* error) {
    if (!service)
        return busFail(error, -EINVAL, "There is no service; register it first");
    return QSGmainAttach(service->privateHandle, loop, error) &&
           QSGmainAttach(service->publicHandle, loop, error);
}

QSHandle* QSZeltServiceGetPrivateConnection(QSZeltService* service) {
    return service ? service->privateHandle : nullptr;
}

QSHandle* QSZeltServiceGetPublicConnection(QSZeltService* service) {
    return service ? service->publicHandle : nullptr;
}
