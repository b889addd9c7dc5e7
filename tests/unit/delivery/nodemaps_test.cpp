// SPDX-License-Identifier: GPL-3.0-only
// The node maps: the endpoints of a node, in their order.
#include "tests/fakes/servicefixture.h"

using Table = std::map<std::string, std::list<std::string>>;

class NodeMaps : public ServiceTest {
  protected:
    bool add(const std::string& node, const std::string& endpoint, bool app) {
        present = !present;
        return session().addNodeToMap(node, endpoint, app, present);
    }
    bool present = false;
};

TEST_F(NodeMaps, KeepsEndpointsInTheOrderInWhichTheyCame) {
    EXPECT_TRUE(add("a", "zelt://two", false));
    EXPECT_FALSE(present);
    EXPECT_TRUE(add("a", "zelt://one", false));
    EXPECT_FALSE(present);
    EXPECT_EQ(session().serviceNodeMap, (Table{{"a", {"zelt://two", "zelt://one"}}}));
    EXPECT_TRUE(session().appNodeMap.empty());
}

TEST_F(NodeMaps, ReportsAPresentPairAndDoesNotRepeatIt) {
    add("a", "x", true);
    EXPECT_TRUE(add("a", "x", true));
    EXPECT_TRUE(present);
    EXPECT_EQ(session().appNodeMap, (Table{{"a", {"x"}}}));
    EXPECT_TRUE(session().serviceNodeMap.empty());
}

TEST_F(NodeMaps, ComparesEndpointsInTheirWholeLength) {
    add("a", "zelt://x/item", false);
    EXPECT_TRUE(add("a", "zelt://x", false));
    EXPECT_FALSE(present);
    EXPECT_TRUE(add("a", "zelt://X", false));
    EXPECT_FALSE(present);
    EXPECT_TRUE(session().removeNodeFromMap("a", "zelt://x", false));
    EXPECT_FALSE(session().removeNodeFromMap("a", "zelt://", false));
    EXPECT_EQ(session().serviceNodeMap, (Table{{"a", {"zelt://x/item", "zelt://X"}}}));
}

TEST_F(NodeMaps, ChoosesTheTableByTheFlag) {
    add("a", "x", false);
    add("a", "x", true);
    EXPECT_FALSE(present);
    EXPECT_TRUE(session().removeNodeFromMap("a", "x", true));
    EXPECT_TRUE(session().appNodeMap.empty());
    EXPECT_EQ(session().serviceNodeMap, (Table{{"a", {"x"}}}));
}

TEST_F(NodeMaps, RemovesNothingForAnUnknownNodeOrEndpoint) {
    add("a", "x", false);
    EXPECT_FALSE(session().removeNodeFromMap("b", "x", false));
    EXPECT_FALSE(session().removeNodeFromMap("a", "y", false));
    EXPECT_FALSE(session().removeNodeFromMap("a", "x", true));
    EXPECT_EQ(session().serviceNodeMap, (Table{{"a", {"x"}}}));
    EXPECT_TRUE(session().appNodeMap.empty());
}

TEST_F(NodeMaps, ErasesTheNodeWithItsLastEndpoint) {
    add("a", "x", false);
    add("a", "y", false);
    EXPECT_TRUE(session().removeNodeFromMap("a", "x", false));
    EXPECT_EQ(session().serviceNodeMap, (Table{{"a", {"y"}}}));
    EXPECT_TRUE(session().removeNodeFromMap("a", "y", false));
    EXPECT_TRUE(session().serviceNodeMap.empty());
    EXPECT_FALSE(session().removeNodeFromMap("a", "y", false));
}
