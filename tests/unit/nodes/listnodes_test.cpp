// SPDX-License-Identifier: GPL-3.0-only
// listNodes: what the device knows of, without a connection.
#include "nodes/methods.h"
#include "tests/unit/nodes/requesttest.h"

namespace {

constexpr char kPrefs[] = "com.zelt.pubsubservice";

class ListNodes : public RequestTest {
  protected:
    std::string list() { return call(listNodes, "{}").text(); }
};

TEST_F(ListNodes, AnswersWithThoseOfHandlersAndOfReceivedItemsInTheirOrder) {
    session().serviceNodeMap["/c"] = {"zelt://com.example.service/item"};
    fakePrefs().store(kPrefs, "/a/b", R"({ "seqNo": "8" })");
    fakePrefs().store(kPrefs, "/c", R"({ "seqNo": "9" })");
    fakePrefs().store(kPrefs, "deletecom.example.app", "{}");
    EXPECT_EQ(list(), R"({ "returnValue": true, "nodes": [ "\/a\/b", "\/c" ] })");
}

TEST_F(ListNodes, AnswersWithNoneWhenThereAreNone) {
    EXPECT_EQ(list(), R"({ "returnValue": true, "nodes": [ ] })");
}

TEST_F(ListNodes, AnswersWithThoseOfHandlersWhenThePreferencesFail) {
    session().serviceNodeMap["/c"] = {"zelt://com.example.service/item"};
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    EXPECT_EQ(list(), R"({ "returnValue": true, "nodes": [ "\/c" ] })");
}

}  // namespace
