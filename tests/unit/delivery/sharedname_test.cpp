// SPDX-License-Identifier: GPL-3.0-only
// Nodes whose names give the same file name in the item cache, and the files that earlier releases left there.
#include <algorithm>

#include "tests/unit/delivery/cachetest.h"
#include "tests/unit/delivery/smalldisk.h"
#include "tests/unit/delivery/synced.h"

TEST_F(SharedName, EachNodeHasItsOwnItemInEveryOrder) {
    std::vector<std::string> nodes = {kBank, kBankApp, kBankSlash};
    ASSERT_EQ(pathOf(kBank), pathOf(kBankApp));
    ASSERT_EQ(pathOf(kBank), pathOf(kBankSlash));
    std::sort(nodes.begin(), nodes.end());
    do {
        for (const std::string& node : nodes)
            EXPECT_TRUE(saveItem(node, "first of " + node));
        for (const std::string& node : nodes)
            EXPECT_TRUE(saveItem(node, node));
        for (const std::string& node : {nodes[1], nodes[2], nodes[0]}) {
            EXPECT_EQ(textOf(node), node);
            PubSubSession::deleteItemFromCache(node);
            EXPECT_EQ(textOf(node), "none") << node;
        }
        EXPECT_EQ(files() + filesApart(), 0u);
    } while (std::next_permutation(nodes.begin(), nodes.end()));
}

TEST_F(SharedName, NodeAloneUnderItHasTheTextsFileAndContent) {
    for (const std::string& node : {kBank, kBankApp, kBankSlash, std::string("/x/y-z/news"),
                                    std::string("/com/zelt/news"), std::string("/abc")}) {
        EXPECT_TRUE(saveItem(node, "older"));
        EXPECT_TRUE(saveItem(node, "hello"));
        EXPECT_EQ(fileText(pathOf(node)), item("hello", node.substr(node.rfind('/') + 1))) << node;
        EXPECT_EQ(files(), 1u);
        EXPECT_EQ(textOf(node), "hello");
        PubSubSession::deleteItemFromCache(node);
        EXPECT_EQ(files() + filesApart(), 0u) << node;
    }
    EXPECT_EQ(takeLog(), Texts{});
}

TEST_F(SharedName, NodesThatDifferInTheFirstSegmentAloneShareTheirItem) {
    for (const std::string rest :
         {"dev42/com.example.bank/alerts", "dev42/com.example.bank-app/alerts", "x/y-z"}) {
        EXPECT_TRUE(saveItem("/a/" + rest, "hello"));
        EXPECT_EQ(textOf("/b/" + rest), "hello");
        EXPECT_TRUE(saveItem("/b/" + rest, "newer"));
        EXPECT_EQ(textOf("/a/" + rest), "newer");
        PubSubSession::deleteItemFromCache("/a/" + rest);
        EXPECT_EQ(textOf("/b/" + rest), "none");
    }
    EXPECT_EQ(files() + filesApart(), 0u);
}

TEST_F(SharedName, ItemsSurviveARestart) {
    for (const std::string& node : {kBankApp, kBank, kBankSlash})
        saveItem(node, node);
    startWithTheseFiles();
    for (const std::string& node : {kBank, kBankSlash, kBankApp})
        EXPECT_EQ(textOf(node), node);
}

TEST_F(SharedName, ItemOfAnotherNodeIsNeverLeftUnderTheNameAloneWhileItIsReplaced) {
    saveItem(kBankApp, "first");
    syncs().watch(pathOf(kBankApp));
    saveItem(kBankApp, "second");
    // On disk the second link is gone before the new item is written, and made again after that.
    ASSERT_EQ(syncs().all.size(), 3u);
    EXPECT_TRUE(std::filesystem::equivalent(syncs().all[0].path, folder()));
    for (const Synced& synced : syncs().all)
        EXPECT_FALSE(synced.inPlace) << synced.path;
    EXPECT_EQ(std::filesystem::hard_link_count(pathOf(kBankApp)), 2u);
    // After a kill at any of these points the node has the old item or the new one, and no other
    // node has either.
    std::filesystem::remove(pathOf(kBankApp));
    EXPECT_EQ(textOf(kBankApp), "second");
    EXPECT_EQ(textOf(kBank), "none");
}

TEST_F(SharedName, DiskWithoutRoomTakesNothingFromEitherNode) {
    saveItem(kBank, "of bank");
    saveItem(kBankApp, "of bank-app");
    {
        const SmallDisk disk(100);
        EXPECT_FALSE(saveItem(kBankApp, std::string(200, 'x')));
        EXPECT_FALSE(saveItem(kBank, std::string(200, 'x')));
    }
    EXPECT_EQ(textOf(kBank), "of bank");
    EXPECT_EQ(textOf(kBankApp), "of bank-app");
}

TEST_F(SharedName, FileOfAnEarlierReleaseIsAssignedToTheNodeThatItsContentNames) {
    writeFile(folder() / kFile, item("hello", "app-alerts"));
    EXPECT_EQ(textOf(kBankApp), "none");
    EXPECT_EQ(textOf(kBankSlash), "none");
    saveItem(kBankApp, "other");
    PubSubSession::deleteItemFromCache(kBankApp);
    EXPECT_EQ(textOf(kBank), "hello");
    PubSubSession::deleteItemFromCache(kBank);
    EXPECT_EQ(files(), 0u);
}

TEST_F(SharedName, FileOfAnEarlierReleaseIsAssignedToTheOneKnownNodeThatMatches) {
    recordNode(kBankApp, "com.example.bank-app");
    recordNode(kBank, "com.example.bank");
    recordNode("/u1234/dev42/com.example.bank/other", "com.example.bank");
    writeFile(folder() / kFile, item("hello", "alerts"));
    EXPECT_EQ(textOf(kBank), "none");
    EXPECT_EQ(textOf(kBankSlash), "none");
    EXPECT_TRUE(saveItem(kBank, "of bank"));
    EXPECT_EQ(textOf(kBankApp), "hello");
    PubSubSession::deleteItemFromCache(kBankApp);
    EXPECT_EQ(textOf(kBankApp), "none");
    EXPECT_EQ(textOf(kBank), "of bank");
}

TEST_F(SharedName, FileOfAnEarlierReleaseThatMatchesTwoNodesOrNoneIsNotAssignedAndStays) {
    for (const bool known : {true, false}) {
        if (known) {
            recordNode(kBankApp, "com.example.bank-app");
            recordNode(kBankSlash, "com.example.bank");
        } else {
            fakePrefs().reset();
            restartService();
            std::filesystem::rename(stateFolder() / "cache", stateFolder() / "moved");
            setenv("PUBSUB_STATE_DIR", (stateFolder() / "second").c_str(), 1);
            std::filesystem::create_directories(stateFolder() / "second" / "cache");
            setAccountDetails();
        }
        const std::filesystem::path file = pathOf(kBankApp);
        writeFile(file, item("hello", "alerts"));
        for (const std::string& node : {kBank, kBankApp, kBankSlash}) {
            EXPECT_EQ(textOf(node), "none");
            EXPECT_TRUE(saveItem(node, node));
            EXPECT_EQ(textOf(node), node);
            PubSubSession::deleteItemFromCache(node);
        }
        EXPECT_EQ(fileText(file), item("hello", "alerts"));
        EXPECT_TRUE(log().contains("The item in " + file.string() +
                                   " may be that of several nodes, so it goes to none. Remove it by hand"));
    }
}

TEST_F(SharedName, FileOfAnEarlierReleaseIsAssignedToNoneWhileTheNodesCannotBeRead) {
    recordNode(kBankApp, "com.example.bank-app");
    writeFile(folder() / kFile, item("hello", "alerts"));
    restartService();
    setAccountDetails();
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    EXPECT_EQ(textOf(kBankApp), "none");
    EXPECT_FALSE(fakePrefs().faultPending("QPAppGetHandle"));
    EXPECT_EQ(fileText(folder() / kFile), item("hello", "alerts"));
    EXPECT_TRUE(log().contains("The item in " + (folder() / kFile).string() +
                               " may be that of several nodes, so it goes to none. Remove it by hand"));
}

TEST_F(SharedName, FileOfAnEarlierReleaseIsAssignedToNodesOfTheDeletionStoreAlone) {
    fakePrefs().store("com.zelt.pubsubservice", "other", R"({ "nodes": [ ")" + kBankApp + R"(" ] })");
    writeFile(folder() / kFile, item("hello", "alerts"));
    EXPECT_EQ(textOf(kBankApp), "none");
}

TEST_F(SharedName, FileOfAnEarlierReleaseReplacesNoNewerItem) {
    recordNode(kBankApp, "com.example.bank-app");
    saveItem(kBankApp, "newer");
    std::filesystem::remove(folder() / kFile);
    writeFile(folder() / kFile, item("older", "alerts"));
    startWithTheseFiles();
    EXPECT_EQ(textOf(kBankApp), "newer");
    EXPECT_EQ(takeLog(), Texts{"Taking over the item in " + pathOf(kBankApp) + " failed: File exists"});
}

TEST_F(SharedName, SecondLinkOfAnItemIsNoFileOfAnEarlierRelease) {
    saveItem(kBankApp, "hello");
    ASSERT_EQ(std::filesystem::hard_link_count(folder() / kFile), 2u);
    startWithTheseFiles();
    EXPECT_EQ(textOf(kBankApp), "hello");
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(SharedName, StartRemovesWhatAKillLeftOfAFileAndNothingElse) {
    writeFile(folder() / (kFile + ".A1b2C3"), item("half", "app-alerts"));
    writeFile(folder() / "dev42-com.example.bank-in.abcdef", item("whole", "in.abcdef"));
    std::filesystem::create_directory(apart());
    writeFile(apart() / ("com.example.bank-" + std::string(64, 'a') + ".A1b2C3"), "half");
    EXPECT_EQ(textOf("/u1234/dev42/com.example.bank/in.abcdef"), "whole");
    EXPECT_EQ(files(), 1u);
    EXPECT_EQ(filesApart(), 0u);
}
