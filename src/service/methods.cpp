// SPDX-License-Identifier: GPL-3.0-only
// The two method tables. A handler in neither of them cannot be called over a bus.
#include "service/methods.h"

#include "delivery/methods.h"
#include "endpoints/methods.h"
#include "maintenance/methods.h"
#include "nodes/methods.h"
#include "session/methods.h"

const QSMethod pubMethods[] = {
    {.name = "createEndpoint", .handler = createEndpoint},
    {.name = "deleteEndpoint", .handler = deleteEndpoint},
    {.name = "subscribe", .handler = subscribe},
    {.name = "unsubscribe", .handler = unsubscribe},
    {.name = "getPublishKey", .handler = getPublishKey},
    {.name = "connectStatus", .handler = connectStatus},
    {.name = "subscribeOnClose", .handler = subscribeOnClose},
    {.name = "unsubscribeOnClose", .handler = unsubscribeOnClose},
    {.name = "receive", .handler = receive},
    {.name = "acknowledge", .handler = acknowledge},
    {.name = "listEndpoints", .handler = listEndpoints},
    {.name = nullptr},
};

const QSMethod methods[] = {
    {.name = "createNode", .handler = createNode},
    {.name = "deleteNode", .handler = deleteNode},
    {.name = "publishItem", .handler = publishItemToNode},
    {.name = "registerItemCallback", .handler = registerItemCallback},
    {.name = "registerItemCallbackV2", .handler = registerItemCallbackV2},
    {.name = "unRegisterItemCallback", .handler = unRegisterItemCallback},
    {.name = "subscribeToNode", .handler = subscribeToNode},
    {.name = "unsubscribeFromNode", .handler = unsubscribeFromNode},
    {.name = "setNodeConfig", .handler = setNodeConfig},
    {.name = "getNodeConfig", .handler = getNodeConfig},
    {.name = "getPendingAuth", .handler = getPendingAuth},
    {.name = "approvePending", .handler = approvePending},
    {.name = "subscribeNodeAuth", .handler = subscribeNodeAuth},
    {.name = "subscribeConnStatus", .handler = subscribeConnStatus},
    {.name = "initializeAccount", .handler = initializeAccount},
    {.name = "getJabberId", .handler = getJabberId},
    {.name = "disconnect", .handler = disconnect},
    {.name = "getResource", .handler = getResource},
    {.name = "registerOnClose", .handler = registerOnClose},
    {.name = "keepAliveTimer", .handler = keepAliveTimer},
    {.name = "reconnectTimer", .handler = reconnectTimer},
    {.name = "activateNode", .handler = activateNode},
    {.name = "getTrace", .handler = getTrace},
    {.name = "getPushBackend", .handler = getPushBackend},
    {.name = "pushRenewalTimer", .handler = pushRenewalTimer},
    {.name = "listNodes", .handler = listNodes},
    {.name = nullptr},
};
