// SPDX-License-Identifier: GPL-3.0-only
// The two method tables: the handler of each name.
#include "service/methods.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "delivery/methods.h"
#include "endpoints/methods.h"
#include "maintenance/methods.h"
#include "nodes/methods.h"
#include "session/methods.h"

namespace {

using Methods = std::vector<std::pair<std::string, QSFilter>>;

Methods listed(const QSMethod* table) {
    Methods found;
    for (; table->name; ++table) {
        EXPECT_EQ(table->flags, 0u) << table->name;
        found.emplace_back(table->name, table->handler);
    }
    return found;
}

TEST(MethodTables, HoldThePublicMethods) {
    const Methods expected = {{"createEndpoint", createEndpoint},
                              {"deleteEndpoint", deleteEndpoint},
                              {"subscribe", subscribe},
                              {"unsubscribe", unsubscribe},
                              {"getPublishKey", getPublishKey},
                              {"connectStatus", connectStatus},
                              {"subscribeOnClose", subscribeOnClose},
                              {"unsubscribeOnClose", unsubscribeOnClose},
                              {"receive", receive},
                              {"acknowledge", acknowledge},
                              {"listEndpoints", listEndpoints}};
    EXPECT_EQ(listed(pubMethods), expected);
}

TEST(MethodTables, HoldThePrivateMethods) {
    const Methods expected = {{"createNode", createNode},
                              {"deleteNode", deleteNode},
                              {"publishItem", publishItemToNode},
                              {"registerItemCallback", registerItemCallback},
                              {"registerItemCallbackV2", registerItemCallbackV2},
                              {"unRegisterItemCallback", unRegisterItemCallback},
                              {"subscribeToNode", subscribeToNode},
                              {"unsubscribeFromNode", unsubscribeFromNode},
                              {"setNodeConfig", setNodeConfig},
                              {"getNodeConfig", getNodeConfig},
                              {"getPendingAuth", getPendingAuth},
                              {"approvePending", approvePending},
                              {"subscribeNodeAuth", subscribeNodeAuth},
                              {"subscribeConnStatus", subscribeConnStatus},
                              {"initializeAccount", initializeAccount},
                              {"getJabberId", getJabberId},
                              {"disconnect", disconnect},
                              {"getResource", getResource},
                              {"registerOnClose", registerOnClose},
                              {"keepAliveTimer", keepAliveTimer},
                              {"reconnectTimer", reconnectTimer},
                              {"activateNode", activateNode},
                              {"getTrace", getTrace},
                              {"getPushBackend", getPushBackend},
                              {"pushRenewalTimer", pushRenewalTimer},
                              {"listNodes", listNodes}};
    EXPECT_EQ(listed(methods), expected);
}

}  // namespace
