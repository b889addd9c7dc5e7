// SPDX-License-Identifier: GPL-3.0-only
// The two method tables. A handler that stands in neither cannot be reached from a bus.
#include "service/methods.h"

#include "delivery/methods.h"
#include "endpoints/methods.h"
#include "maintenance/methods.h"
#include "nodes/methods.h"
#include "session/methods.h"

const QSMethod pubMethods[] = {
    {"createEndpoint", createEndpoint, 0},
    {"deleteEndpoint", deleteEndpoint, 0},
    {"subscribe", subscribe, 0},
    {"unsubscribe", unsubscribe, 0},
    {"getPublishKey", getPublishKey, 0},
    {"connectStatus", connectStatus, 0},
    {"subscribeOnClose", subscribeOnClose, 0},
    {"unsubscribeOnClose", unsubscribeOnClose, 0},
    {nullptr, nullptr, 0},
};

const QSMethod methods[] = {
    {"createNode", createNode, 0},
    {"deleteNode", deleteNode, 0},
    {"publishItem", publishItemToNode, 0},
    {"registerItemCallback", registerItemCallback, 0},
    {"registerItemCallbackV2", registerItemCallbackV2, 0},
    {"unRegisterItemCallback", unRegisterItemCallback, 0},
    {"subscribeToNode", subscribeToNode, 0},
    {"unsubscribeFromNode", unsubscribeFromNode, 0},
    {"setNodeConfig", setNodeConfig, 0},
    {"getNodeConfig", getNodeConfig, 0},
    {"getPendingAuth", getPendingAuth, 0},
    {"approvePending", approvePending, 0},
    {"subscribeNodeAuth", subscribeNodeAuth, 0},
    {"subscribeConnStatus", subscribeConnStatus, 0},
    {"initializeAccount", initializeAccount, 0},
    {"getJabberId", getJabberId, 0},
    {"disconnect", disconnect, 0},
    {"getResource", getResource, 0},
    {"registerOnClose", registerOnClose, 0},
    {"keepAliveTimer", keepAliveTimer, 0},
    {"reconnectTimer", reconnectTimer, 0},
    {"activateNode", activateNode, 0},
    {nullptr, nullptr, 0},
};
