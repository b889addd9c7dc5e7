// SPDX-License-Identifier: GPL-3.0-only
// The item cache: file names, replacing writes, files that are missing, empty or damaged, and the bounds.
#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/delivery/cachetest.h"
#include "tests/unit/delivery/smalldisk.h"
#include "tests/unit/delivery/synced.h"

struct FileName {
    const char* node;
    const char* file;
};

class CacheFileName : public Cache, public testing::WithParamInterface<FileName> {};

TEST_P(CacheFileName, DropsTheFirstSegmentAndJoinsTheRest) {
    EXPECT_EQ(pathOf(GetParam().node), (folder() / GetParam().file).string());
}

INSTANTIATE_TEST_SUITE_P(Nodes, CacheFileName,
                         testing::Values(FileName{"/a/b/com/zelt/news", "b-com-zelt-news"},
                                         FileName{"/abc", "-abc"}, FileName{"abc", "abc"},
                                         FileName{"a/b", "b"}, FileName{"//a/b", "a-b"},
                                         FileName{"/a/../../etc/passwd", "..-..-etc-passwd"},
                                         FileName{"/u/x-y", "x-y"}, FileName{"/u/x/y", "x-y"},
                                         FileName{"/other/x/y", "x-y"}, FileName{"/a/", ""}, FileName{"", ""},
                                         FileName{"/", "-"}));

TEST_F(Cache, HoldsTheTextOfTheObjectWithoutANewline) {
    EXPECT_TRUE(save("/u/r/app/in", R"({"item":"x/y","endpoint":"in","returnValue":true})"));
    EXPECT_EQ(fileText(pathOf("/u/r/app/in")),
              R"({ "item": "x\/y", "endpoint": "in", "returnValue": true })");
    EXPECT_EQ(files(), 1u);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Cache, HasTheItemAndItsNameOnTheDiskBeforeItCountsAsSaved) {
    const std::filesystem::path watchedFile = pathOf("/u/in");
    syncs().watch(watchedFile);
    EXPECT_TRUE(save("/u/in", "{}"));
    const std::vector<Synced>& synced = syncs().all;
    ASSERT_EQ(synced.size(), 2u);
    EXPECT_TRUE(synced[0].path.string().starts_with(watchedFile.string() + '.')) << synced[0].path;
    EXPECT_FALSE(synced[0].inPlace);
    EXPECT_TRUE(std::filesystem::equivalent(synced[1].path, folder())) << synced[1].path;
    EXPECT_TRUE(synced[1].inPlace);
}

TEST_F(Cache, MakesFilesThatTheUmaskAloneProtects) {
    const mode_t mask = umask(0027);
    EXPECT_TRUE(save("/u/in", "{}"));
    umask(mask);
    struct stat file = {};
    ASSERT_EQ(stat(pathOf("/u/in").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0640u);
}

TEST_F(Cache, RefusesAnObjectWithoutAText) {
    const JsonRef item(json_object_new_object());
    json_object_set_serializer(
        item.get(), [](json_object*, printbuf*, int, int) { return -1; }, nullptr, nullptr);
    EXPECT_FALSE(PubSubSession::saveItemInCache("/u/in", item.get()));
    EXPECT_EQ(takeLogLines(), Texts{"saveItemInCache: String null - cache not updated"});
    EXPECT_EQ(files(), 0u);
}

TEST_F(Cache, KeepsTheLaterOfTwoItems) {
    save("/u/in", R"({"item":"first"})");
    save("/u/in", R"({"item":"second"})");
    EXPECT_EQ(cached("/u/in"), R"({ "item": "second" })");
    EXPECT_EQ(files(), 1u);
}

TEST_F(Cache, RefusesAnEmptyNodeOrAMissingObject) {
    EXPECT_FALSE(save("", "{}"));
    EXPECT_FALSE(PubSubSession::saveItemInCache("/u/in", nullptr));
    EXPECT_EQ(takeLogLines(), (Texts{"saveItemInCache: Invalid node or payload  ",
                                     "saveItemInCache: Invalid node or payload /u/in "}));
    EXPECT_EQ(files(), 0u);
}

TEST_F(Cache, ReportsAFileThatCannotBeWritten) {
    std::filesystem::remove_all(folder());
    EXPECT_FALSE(save("/u/in", "{}"));
    const Texts lines = takeLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("updateFile: Error saving item to cache Failed to create file"))
        << lines[0];
    EXPECT_TRUE(lines[0].ends_with("No such file or directory")) << lines[0];
}

TEST_F(Cache, CannotHoldANodeThatIsNoFileName) {
    for (const std::string& node :
         {std::string("/u/"), std::string("/u/.."), std::string("/u/."), "/u/" + std::string(300, 'x')}) {
        EXPECT_FALSE(save(node, "{}")) << node;
        EXPECT_EQ(takeLog().size(), 1u) << node;
        EXPECT_EQ(cached(node), "none") << node;
        takeLog();
        PubSubSession::deleteItemFromCache(node);
    }
    EXPECT_TRUE(std::filesystem::is_directory(folder()));
    EXPECT_EQ(files(), 0u);
}

TEST_F(Cache, KeepsTheOldItemWhenTheDiskHasNoRoomForTheNewOne) {
    ASSERT_TRUE(save("/u/in", R"({"item":"old"})"));
    {
        const SmallDisk disk(100);
        EXPECT_FALSE(save("/u/in", R"({"item":")" + std::string(200, 'x') + R"("})"));
    }
    EXPECT_EQ(cached("/u/in"), R"({ "item": "old" })");
    EXPECT_EQ(files(), 1u);
}

TEST_F(Cache, GivesNothingForAnEmptyNode) {
    EXPECT_EQ(cached(""), "none");
    EXPECT_EQ(takeLogLines(), Texts{"getItemFromCache: Empty node passed  "});
}

TEST_F(Cache, GivesNothingForAMissingOrEmptyFile) {
    EXPECT_EQ(cached("/u/in"), "none");
    writeFile(pathOf("/u/in"), "");
    EXPECT_EQ(cached("/u/in"), "none");
    EXPECT_EQ(takeLogLines(), (Texts{"getItemFromCache: No content in the file? ",
                                     "getItemFromCache: No content in the file? "}));
}

TEST_F(Cache, LeavesADamagedFileOnTheDisk) {
    writeFile(pathOf("/u/in"), "{ damaged");
    EXPECT_EQ(cached("/u/in"), "none");
    EXPECT_EQ(takeLogLines(), Texts{"getItemFromCache: Malformed json packet in file? \n"});
    EXPECT_EQ(fileText(pathOf("/u/in")), "{ damaged");
}

TEST_F(Cache, DeletesTheItemOfTheNodeAlone) {
    save("/u/a", "{}");
    save("/u/b", "{}");
    PubSubSession::deleteItemFromCache("/u/a");
    EXPECT_FALSE(std::filesystem::exists(pathOf("/u/a")));
    EXPECT_TRUE(std::filesystem::exists(pathOf("/u/b")));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Cache, DeletesAMissingItemSilently) {
    PubSubSession::deleteItemFromCache("/u/a");
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Cache, LogsAnEmptyNodeToDelete) {
    save("/u/a", "{}");
    PubSubSession::deleteItemFromCache("");
    EXPECT_EQ(takeLogLines(), Texts{"deleteItemFromCache: Invalid node  "});
    EXPECT_EQ(files(), 1u);
}

TEST_F(Cache, NeverTakesItsOwnFolderForAFile) {
    PubSubSession::deleteItemFromCache("/u/");
    EXPECT_TRUE(std::filesystem::is_directory(folder()));
}

TEST_F(Cache, SurvivesARestart) {
    save("/u/in", R"({"item":"kept"})");
    restartService();
    EXPECT_EQ(cached("/u/in"), R"({ "item": "kept" })");
}

// --- bounds

class CacheBound : public SharedName {
  protected:
    void SetUp() override {
        SharedName::SetUp();
        cached("/u/nothing");  // files present at the start are read, later ones are only counted
        takeLog();
    }
    std::string nodeOf(const std::string& app, int number) {
        return "/u1234/dev42/" + app + "/e" + std::to_string(number);
    }
    // Writes files as if the items had been saved one by one.
    void fill(const std::string& app, int count) {
        for (int i = 0; i < count; ++i)
            writeFile(pathOf(nodeOf(app, i)), item("x", "e" + std::to_string(i)));
    }
    const std::string kFull = " stays with the server, too many items wait in the cache";
};

TEST_F(CacheBound, ApplicationHasOnlySoManyFilesAndOthersKeepTheirs) {
    fill("com.example.many", 999);
    EXPECT_TRUE(saveItem(nodeOf("com.example.many", 999), "x"));
    const std::string more = nodeOf("com.example.many", 1000);
    EXPECT_FALSE(saveItem(more, "x"));
    EXPECT_EQ(takeLogLines(), Texts{"updateFile: Item of " + more + kFull});
    EXPECT_EQ(textOf(more), "none");
    EXPECT_TRUE(saveItem(nodeOf("com.example.many", 5), "y"));
    EXPECT_TRUE(saveItem(kBank, "x"));
    EXPECT_TRUE(saveItem(kBankApp, "x"));
    PubSubSession::deleteItemFromCache(nodeOf("com.example.many", 7));
    EXPECT_TRUE(saveItem(more, "x"));
}

TEST_F(CacheBound, ApplicationHasOnlySoManyBytes) {
    ASSERT_TRUE(saveItem(nodeOf("com.example.many", 1), "x"));
    const std::string large = nodeOf("com.example.many", 0);
    writeFile(pathOf(large), item("x", "e0"));
    std::filesystem::resize_file(pathOf(large), (16 << 20) - 1000);
    const std::string text(1000, 'x');
    EXPECT_FALSE(saveItem(nodeOf("com.example.many", 2), text));
    EXPECT_FALSE(saveItem(nodeOf("com.example.many", 1), text));
    EXPECT_EQ(textOf(nodeOf("com.example.many", 1)), "x");
    EXPECT_TRUE(saveItem(nodeOf("com.example.many", 1), "y"));
    EXPECT_TRUE(saveItem(nodeOf("com.example.many", 2), "z"));
    EXPECT_TRUE(saveItem(kBank, text));
    EXPECT_TRUE(saveItem(large, "x"));
    EXPECT_TRUE(saveItem(nodeOf("com.example.many", 3), text));
}

TEST_F(CacheBound, ApplicationWithItemsInTheSecondFolderHasTheSameBound) {
    ASSERT_TRUE(saveItem(kBankApp, "x"));
    const std::filesystem::path file = *std::filesystem::directory_iterator(apart());
    std::filesystem::resize_file(file, (16 << 20) - 1000);
    writeFile(apart() / "passing", "");  // so that the folder is read again
    EXPECT_FALSE(saveItem("/u1234/dev42/com.example.bank-app/more", std::string(1000, 'x')));
    EXPECT_TRUE(saveItem("/u1234/dev42/com.example.bank-app/more", "x"));
    EXPECT_TRUE(saveItem(kBank, std::string(1000, 'x')));
    EXPECT_FALSE(std::filesystem::exists(apart() / "passing"));
}

TEST_F(CacheBound, NodesThatAreNoApplicationsHaveOneTogether) {
    for (int i = 0; i < 1000; ++i)
        writeFile(folder() / ("news" + std::to_string(i)), "{}");
    EXPECT_FALSE(saveItem("/u/more", "x"));
    EXPECT_FALSE(saveItem("/stranger/dev43/com.example.bank/x", "x"));
    EXPECT_TRUE(saveItem(kBank, "x"));
    EXPECT_TRUE(saveItem(kBankApp, "x"));
}

TEST_F(CacheBound, AllTogetherIsBoundedToo) {
    for (int app = 0; app < 9; ++app) {
        const std::string file = pathOf(nodeOf("com.example.many" + std::to_string(app), 0));
        writeFile(file, "");
        std::filesystem::resize_file(file, app < 8 ? 15 << 20 : (8 << 20) - 10);
    }
    EXPECT_FALSE(saveItem(kBank, "x"));
    EXPECT_FALSE(saveItem("/u/news", "x"));
    std::filesystem::remove(pathOf(nodeOf("com.example.many3", 0)));
    EXPECT_TRUE(saveItem(kBank, "x"));
}

TEST_F(CacheBound, ItemBeyondItIsNeitherCountedNorAcknowledged) {
    connectSession();
    fill("com.example.app", 1000);
    const std::string node = "/u1234/dev42/com.example.app/inbox";
    pushItem(node, "7", "i1", "hello");
    for (const std::string& event : takeEvents())
        EXPECT_FALSE(event.starts_with("prefs.") || event.starts_with("xmpp.send")) << event;
    PubSubSession::deleteItemFromCache(nodeOf("com.example.app", 0));
    pushItem(node, "7", "i1", "hello");
    EXPECT_EQ(textOf(node), "hello");
    EXPECT_NE(lastStanza().xml().find("<ack "), std::string::npos);
}
