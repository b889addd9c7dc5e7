// SPDX-License-Identifier: GPL-3.0-only
// The item cache: file names, replacing writes, and files that are missing, empty or damaged.
#include <sys/stat.h>
#include <unistd.h>

#include "tests/fakes/servicefixture.h"
#include "tests/unit/delivery/synced.h"
#include "util/jsonref.h"

class Cache : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        std::filesystem::create_directory(folder());
    }
    std::filesystem::path folder() const { return stateFolder() / "cache"; }
    std::string pathOf(const std::string& node) const {
        std::string path;
        PubSubSession::getFilePathFromNodeId(node, path);
        return path;
    }
    std::size_t files() const {
        const std::filesystem::directory_iterator all(folder());
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }
    bool save(const std::string& node, const std::string& item) {
        return PubSubSession::saveItemInCache(node, parseJson(item.c_str()).get());
    }
    std::string cached(const std::string& node) {
        const JsonRef item(PubSubSession::getItemFromCache(node));
        return item ? json_object_to_json_string(item.get()) : "none";
    }
};

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

TEST_F(Cache, KeepsTheOldItemWhenTheNewOneCannotBeWritten) {
    save("/u/in", R"({"item":"old"})");
    std::filesystem::permissions(folder(),
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    const bool written = save("/u/in", R"({"item":"new"})");
    std::filesystem::permissions(folder(), std::filesystem::perms::owner_all);
    // The superuser is not held back.
    EXPECT_EQ(cached("/u/in"), written ? R"({ "item": "new" })" : R"({ "item": "old" })");
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

TEST_F(Cache, DeletesWithoutAWordWhatIsNotThere) {
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
