// SPDX-License-Identifier: GPL-3.0-only
// The file that keeps the node maps over a restart: every form of a record, and damaged files.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/fakes/servicefixture.h"
#include "tests/unit/delivery/smalldisk.h"
#include "tests/unit/delivery/synced.h"

namespace {

using Table = std::map<std::string, std::list<std::string>>;

const std::string kZero(1, '\0');

// A record as both writers write it.
std::string line(const std::string& record) {
    return record + kZero + '\n';
}

std::string appendedRecord(const std::string& node, const std::string& endpoint,
                           const std::string& more = "") {
    return R"({"node":")" + node + R"(","endpoint":")" + endpoint + '"' + more + '}';
}

std::string rewrittenRecord(const std::string& node, bool app, const std::string& endpoint) {
    return R"({ "node": ")" + node + R"(", "app": )" + (app ? "true" : "false") + R"(, "endpoint": ")" +
           endpoint + R"(" })";
}

// A record of exactly `length` characters.
std::string recordOfLength(std::size_t length, const std::string& node) {
    const std::string start = R"({"node":")" + node + R"(","endpoint":"zelt://com.example.long/in","pad":")";
    return start + std::string(length - start.size() - 2, 'x') + "\"}";
}

}  // namespace

class HandlerFile : public ServiceTest {
  protected:
    std::filesystem::path file() const { return stateFolder() / "pubsubhandlers.conf"; }
    bool exists() const { return std::filesystem::exists(file()); }
    std::string text() const { return fileText(file()); }
    void load(const std::string& content) {
        writeFile(file(), content);
        session().ReadHandlerFile();
    }
    bool append(const std::string& record) { return session().UpdateHandlerFile(record.c_str(), true); }
    bool rewrite() { return session().UpdateHandlerFile("not used", false); }
    std::size_t filesInStateFolder() const {
        const std::filesystem::directory_iterator all(stateFolder());
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }
    Table& services() { return session().serviceNodeMap; }
    Table& apps() { return session().appNodeMap; }

    const Texts kMalformed{"ReadHandlerFile: Malformed handler file. Stop reading \n"};
};

TEST_F(HandlerFile, WarnsWhenThereIsNone) {
    session().ReadHandlerFile();
    EXPECT_EQ(takeLogLines(), Texts{"ReadHandlerFile: Warning: No handler file present"});
    EXPECT_TRUE(services().empty());
    EXPECT_FALSE(exists());
}

TEST_F(HandlerFile, LoadsAnEmptyFileAsNothing) {
    load("");
    EXPECT_TRUE(services().empty());
    EXPECT_TRUE(exists());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(HandlerFile, LoadsRecordsWithAndWithoutTheirZeroByte) {
    load(line(appendedRecord("a", "x")) + appendedRecord("b", "y") + "\n" + appendedRecord("c", "z"));
    EXPECT_EQ(services(), (Table{{"a", {"x"}}, {"b", {"y"}}, {"c", {"z"}}}));
    EXPECT_TRUE(exists());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(HandlerFile, CarriesAppOverToRecordsThatHaveNone) {
    load(line(appendedRecord("a", "x", R"(,"app":true)")) + line(appendedRecord("b", "y")));
    EXPECT_EQ(apps(), (Table{{"a", {"x"}}, {"b", {"y"}}}));
    EXPECT_TRUE(services().empty());
}

TEST_F(HandlerFile, BeginsWithServicesAndFollowsEveryAppThatIsGiven) {
    load(line(appendedRecord("a", "x")) + line(appendedRecord("b", "y", R"(,"app":true)")) +
         line(appendedRecord("c", "z", R"(,"app":false)")) + line(appendedRecord("d", "z")));
    EXPECT_EQ(apps(), (Table{{"b", {"y"}}}));
    EXPECT_EQ(services(), (Table{{"a", {"x"}}, {"c", {"z"}}, {"d", {"z"}}}));
}

TEST_F(HandlerFile, TakesANullAppForNone) {
    load(line(appendedRecord("a", "x", R"(,"app":true)")) + line(appendedRecord("b", "y", R"(,"app":null)")));
    EXPECT_EQ(apps(), (Table{{"a", {"x"}}, {"b", {"y"}}}));
}

TEST_F(HandlerFile, StartsEveryReadingWithServices) {
    load(line(appendedRecord("a", "x", R"(,"app":true)")));
    load(line(appendedRecord("b", "y")));
    EXPECT_EQ(services(), (Table{{"b", {"y"}}}));
}

TEST_F(HandlerFile, SkipsARepeatedPair) {
    load(line(appendedRecord("a", "x")) + line(appendedRecord("a", "x")) + line(appendedRecord("a", "y")));
    EXPECT_EQ(services(), (Table{{"a", {"x", "y"}}}));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(HandlerFile, IgnoresOtherMembersAndCleansNames) {
    load(line(R"({"more":[1],"node":"\/a\/\"b\"","endpoint":"zelt:\/\/x","subscribe":true})"));
    EXPECT_EQ(services(), (Table{{"/a/b", {"zelt://x"}}}));
}

class DamagedHandlerFile : public HandlerFile, public testing::WithParamInterface<const char*> {};

TEST_P(DamagedHandlerFile, LosesTheFileButNotTheRecordsBefore) {
    load(line(appendedRecord("a", "x")) + line(appendedRecord("b", "y")) + line(GetParam()) +
         line(appendedRecord("c", "z")));
    EXPECT_EQ(services(), (Table{{"a", {"x"}}, {"b", {"y"}}}));
    EXPECT_TRUE(apps().empty());
    EXPECT_FALSE(exists());
    EXPECT_EQ(takeLogLines(), kMalformed);
}

INSTANTIATE_TEST_SUITE_P(Records, DamagedHandlerFile,
                         testing::Values("not json", "", "null", "5", "[]", "{}", R"({"node":"c"})",
                                         R"({"endpoint":"z"})", R"({"node":"","endpoint":"z"})",
                                         R"({"node":"c","endpoint":""})", R"({"node":null,"endpoint":"z"})",
                                         R"({"node":"c","endpoint":null})", R"({"node":"c","endp)"));

TEST_F(HandlerFile, StartsAnewAfterADamagedOne) {
    load(line(appendedRecord("a", "x")) + "damaged\n");
    ASSERT_FALSE(exists());
    EXPECT_TRUE(append(appendedRecord("b", "y")));
    EXPECT_EQ(text(), line(appendedRecord("b", "y")));
    EXPECT_TRUE(rewrite());
    EXPECT_EQ(text(), line(rewrittenRecord("a", false, "x")));
}

TEST_F(HandlerFile, AppendsTheRecordAsItIsWithZeroByteAndNewline) {
    const std::string record = R"({"node":"a", "endpoint":"x","extra":{"k":[1,2]}})";
    EXPECT_TRUE(append(record));
    EXPECT_TRUE(append(appendedRecord("b", "y")));
    EXPECT_EQ(text(), line(record) + line(appendedRecord("b", "y")));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(HandlerFile, TurnsLineBreaksOfARecordIntoBlanks) {
    EXPECT_TRUE(append("{\n  \"node\":\"a\",\r\n  \"endpoint\":\"x\"\n}"));
    EXPECT_EQ(text(), line(R"({   "node":"a",    "endpoint":"x" })"));
    session().ReadHandlerFile();
    EXPECT_EQ(services(), (Table{{"a", {"x"}}}));
}

TEST_F(HandlerFile, RewritesServicesBeforeApplicationsInTheirOrders) {
    bool present = false;
    session().addNodeToMap("b", "two", false, present);
    session().addNodeToMap("b", "one", false, present);
    session().addNodeToMap("a", "zelt://com.example.mail/in", false, present);
    session().addNodeToMap("0", "late", true, present);
    writeFile(file(), line("what stood there before"));
    EXPECT_TRUE(rewrite());
    EXPECT_EQ(text(), line(rewrittenRecord("a", false, R"(zelt:\/\/com.example.mail\/in)")) +
                          line(rewrittenRecord("b", false, "two")) +
                          line(rewrittenRecord("b", false, "one")) +
                          line(rewrittenRecord("0", true, "late")));
}

TEST_F(HandlerFile, LeavesAnEmptyFileForEmptyTables) {
    writeFile(file(), line(appendedRecord("a", "x")));
    EXPECT_TRUE(rewrite());
    EXPECT_TRUE(exists());
    EXPECT_EQ(text(), "");
}

TEST_F(HandlerFile, ReadsBackWhatItWrote) {
    bool present = false;
    session().addNodeToMap("/u/r/com/zelt/news", "zelt://com.example.news/item", false, present);
    session().addNodeToMap("\xc3\xa4", "zelt://x", true, present);
    const Table wroteServices = services();
    const Table wroteApps = apps();
    EXPECT_TRUE(rewrite());
    restartService();
    session().ReadHandlerFile();
    EXPECT_EQ(services(), wroteServices);
    EXPECT_EQ(apps(), wroteApps);
}

TEST_F(HandlerFile, LoadsTheLongestRecordAndWhatFollowsIt) {
    EXPECT_TRUE(append(recordOfLength(4094, "a")));
    EXPECT_TRUE(append(recordOfLength(4094, "b")));
    EXPECT_TRUE(append(appendedRecord("c", "z")));
    EXPECT_EQ(takeLogLines(), Texts{});
    session().ReadHandlerFile();
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(
        services(),
        (Table{{"a", {"zelt://com.example.long/in"}}, {"b", {"zelt://com.example.long/in"}}, {"c", {"z"}}}));
}

TEST_F(HandlerFile, RefusesALongerRecordAndKeepsTheFile) {
    EXPECT_TRUE(append(appendedRecord("a", "x")));
    EXPECT_FALSE(append(recordOfLength(4095, "b")));
    EXPECT_EQ(text(), line(appendedRecord("a", "x")));
    EXPECT_EQ(takeLogLines(),
              Texts{"UpdateHandlerFile: Handler record of 4095 characters not saved, the limit is 4094. "
                    "Use a shorter node or endpoint."});
}

TEST_F(HandlerFile, SplitsALongerRecordThatSomebodyElseWrote) {
    load(line(appendedRecord("a", "x")) + line(recordOfLength(4095, "b")) + line(appendedRecord("c", "z")));
    // The record fits the buffer without its zero byte; the rest of its line is read as malformed.
    EXPECT_EQ(services(), (Table{{"a", {"x"}}, {"b", {"zelt://com.example.long/in"}}}));
    EXPECT_FALSE(exists());
    EXPECT_EQ(takeLogLines(), kMalformed);
}

TEST_F(HandlerFile, ReadsALongLineInPiecesWithoutLosingACharacter) {
    load(recordOfLength(4095, "b") + line(appendedRecord("c", "z")));
    EXPECT_EQ(services(), (Table{{"b", {"zelt://com.example.long/in"}}, {"c", {"z"}}}));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(HandlerFile, LeavesARecordThatGrewTooLongOutOfTheRewrite) {
    bool present = false;
    session().addNodeToMap("a", "x", false, present);
    session().addNodeToMap("b", std::string(4094, 'y'), false, present);
    session().addNodeToMap("c", "z", true, present);
    EXPECT_FALSE(rewrite());
    EXPECT_EQ(text(), line(rewrittenRecord("a", false, "x")) + line(rewrittenRecord("c", true, "z")));
    EXPECT_EQ(takeLogLines(),
              Texts{"UpdateHandlerFile: Handler record of 4139 characters not saved, the limit is 4094. "
                    "Use a shorter node or endpoint."});
}

TEST_F(HandlerFile, CreatesItsFolder) {
    std::filesystem::remove_all(stateFolder());
    const mode_t mask = umask(0);
    EXPECT_TRUE(append(appendedRecord("a", "x")));
    umask(mask);
    EXPECT_EQ(text(), line(appendedRecord("a", "x")));
    struct stat folder = {};
    ASSERT_EQ(stat(stateFolder().c_str(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 07777, 0744u);
}

TEST_F(HandlerFile, ReportsAFolderThatCannotBeCreated) {
    writeFile(stateFolder() / "plain", "");
    setenv("PUBSUB_STATE_DIR", (stateFolder() / "plain" / "below").c_str(), 1);
    EXPECT_FALSE(append(appendedRecord("a", "x")));
    EXPECT_FALSE(rewrite());
    EXPECT_EQ(takeLogLines(), (Texts{"UpdateHandlerFile: Creating /var/pubsub failed",
                                     "UpdateHandlerFile: Creating /var/pubsub failed"}));
}

TEST_F(HandlerFile, ReportsAFileThatCannotBeOpened) {
    std::filesystem::create_directory(file());
    EXPECT_FALSE(append(appendedRecord("a", "x")));
    EXPECT_FALSE(rewrite());
    EXPECT_EQ(takeLogLines(), (Texts{"UpdateHandlerFile: Cannot open handler file.",
                                     "UpdateHandlerFile: Cannot open handler file."}));
}

TEST_F(HandlerFile, LeavesNoPieceOfARecordThatADiskHadNoRoomFor) {
    const std::string first = recordOfLength(1000, "a");
    {
        const SmallDisk disk(1500);
        EXPECT_TRUE(append(first));
        EXPECT_FALSE(append(recordOfLength(1000, "b")));
        EXPECT_EQ(text(), line(first));
    }
    EXPECT_TRUE(append(appendedRecord("c", "z")));
    EXPECT_EQ(text(), line(first) + line(appendedRecord("c", "z")));
    EXPECT_EQ(takeLogLines(), Texts{"UpdateHandlerFile: Cannot write to file."});
}

TEST_F(HandlerFile, StaysAsItWasWhenADiskHasNoRoomForTheRewrite) {
    bool present = false;
    const std::string endpoint(1000, 'x');
    for (const char* node : {"a", "b", "c"})
        session().addNodeToMap(node, endpoint, false, present);
    ASSERT_TRUE(rewrite());
    const std::string before = text();
    session().removeNodeFromMap("a", endpoint, false);
    {
        const SmallDisk disk(1500);
        EXPECT_FALSE(rewrite());
    }
    EXPECT_EQ(text(), before);
    EXPECT_EQ(takeLogLines(), Texts{"UpdateHandlerFile: Cannot write to file."});
    EXPECT_EQ(services().size(), 2u);
    EXPECT_EQ(filesInStateFolder(), 1u);
}

TEST_F(HandlerFile, ReportsADiskThatIsFull) {
    std::filesystem::create_symlink("/dev/full", file());
    EXPECT_FALSE(append(appendedRecord("a", "x")));
    EXPECT_EQ(takeLogLines(), Texts{"UpdateHandlerFile: Cannot write to file."});
}

// --- a rewrite is a new file

TEST_F(HandlerFile, RewriteIsOnTheDiskBeforeItTakesTheOldOnesName) {
    bool present = false;
    session().addNodeToMap("a", "x", false, present);
    session().addNodeToMap("b", "y", false, present);
    ASSERT_TRUE(rewrite());
    const std::string before = text();
    const std::filesystem::path old = stateFolder() / "old";
    std::filesystem::create_hard_link(file(), old);
    session().removeNodeFromMap("a", "x", false);
    syncs().watch(file());
    EXPECT_TRUE(rewrite());
    EXPECT_EQ(fileText(old), before);
    EXPECT_EQ(text(), line(rewrittenRecord("b", false, "y")));
    const std::vector<Synced>& synced = syncs().all;
    ASSERT_EQ(synced.size(), 2u);
    EXPECT_TRUE(synced[0].path.string().starts_with(file().string() + '.')) << synced[0].path;
    EXPECT_EQ(synced[0].size, before.size());
    EXPECT_TRUE(std::filesystem::equivalent(synced[1].path, stateFolder())) << synced[1].path;
    EXPECT_EQ(synced[1].size, text().size());
}

TEST_F(HandlerFile, RewriteIsOneWriteHoweverManyRecordsThereAre) {
    bool present = false;
    std::string expected;
    for (int i = 0; i < 10'000; ++i) {
        const std::string number = std::to_string(100'000 + i);  // sorted as the map sorts them
        session().addNodeToMap("/u/dev/" + number, "zelt://com.example/" + number, false, present);
        expected +=
            line(rewrittenRecord(R"(\/u\/dev\/)" + number, false, R"(zelt:\/\/com.example\/)" + number));
    }
    ASSERT_TRUE(rewrite());
    syncs().watch(file());
    ASSERT_TRUE(rewrite());
    EXPECT_EQ(syncs().writes, 1);
    EXPECT_EQ(text(), expected);
}

TEST_F(HandlerFile, RewriteKeepsWhoMayReadTheFile) {
    writeFile(file(), "");
    chmod(file().c_str(), 0600);
    EXPECT_TRUE(rewrite());
    struct stat status = {};
    ASSERT_EQ(stat(file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(HandlerFile, StartRemovesWhatAnUnfinishedRewriteLeftAndNothingElse) {
    load(line(appendedRecord("a", "x")));
    writeFile(stateFolder() / "pubsubhandlers.conf.A1b2C3", "half");
    writeFile(stateFolder() / "pubsubhandlers.conf.saved", "somebody's");
    writeFile(stateFolder() / "pubsub.conf", "");
    session().ReadHandlerFile();
    EXPECT_EQ(filesInStateFolder(), 3u);
    EXPECT_FALSE(std::filesystem::exists(stateFolder() / "pubsubhandlers.conf.A1b2C3"));
}

TEST_F(HandlerFile, KillWhileAHandlerIsWithdrawnLosesNoOther) {
    constexpr int kKills = 8;
    constexpr int kOthers = 300;
    bool present = false;
    for (int i = 0; i < kOthers; ++i)
        session().addNodeToMap("/u1234/dev42/kept/" + std::to_string(i), "zelt://com.example.kept/in", false,
                               present);
    ASSERT_TRUE(rewrite());
    for (int kills = 0; kills < kKills; ++kills) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            close(ends[0]);
            for (char turn = 0;; ++turn) {
                session().addNodeToMap("/u1234/dev42/withdrawn", "x", false, present);
                if (!append(appendedRecord("/u1234/dev42/withdrawn", "x")))
                    _exit(1);
                session().removeNodeFromMap("/u1234/dev42/withdrawn", "x", false);
                if (!rewrite() || write(ends[1], &turn, 1) != 1)
                    _exit(1);
            }
        }
        close(ends[1]);
        // Kills during a withdrawal, since these take most of the child's time.
        char turn = 0;
        for (int turns = 0; turns <= kills % 3; ++turns)
            ASSERT_EQ(read(ends[0], &turn, 1), 1);
        usleep(static_cast<useconds_t>(90 * kills));
        kill(child, SIGKILL);
        close(ends[0]);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status)) << "the child could not write";
        restartService();
        session().ReadHandlerFile();
        services().erase("/u1234/dev42/withdrawn");
        ASSERT_EQ(services().size(), static_cast<std::size_t>(kOthers)) << "after kill " << kills;
    }
}

// --- records that were shorter when they were accepted

TEST_F(HandlerFile, RewriteKeepsTheShorterFormOfALongRecord) {
    // Every slash takes a second character in the file's usual form.
    const std::string endpoint = "zelt://com.example.long/" + std::string(3900, '/');
    const std::string record = appendedRecord("/u/r/b", endpoint);
    ASSERT_LE(record.size(), 4094u);
    bool present = false;
    session().addNodeToMap("a", "x", false, present);
    session().addNodeToMap("/u/r/b", endpoint, false, present);
    session().addNodeToMap("c", "z", true, present);
    EXPECT_TRUE(append(record));
    EXPECT_TRUE(rewrite());
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(text(),
              line(record) + line(rewrittenRecord("a", false, "x")) + line(rewrittenRecord("c", true, "z")));
    restartService();
    session().ReadHandlerFile();
    EXPECT_EQ(services(), (Table{{"/u/r/b", {endpoint}}, {"a", {"x"}}}));
    EXPECT_EQ(apps(), (Table{{"c", {"z"}}}));
}

TEST_F(HandlerFile, RewriteKeepsALongRecordOfAnApplicationInItsRegistry) {
    const std::string endpoint = "zelt://com.example.long/" + std::string(3900, '/');
    bool present = false;
    session().addNodeToMap("a", "x", false, present);
    session().addNodeToMap("b", endpoint, true, present);
    EXPECT_TRUE(rewrite());
    restartService();
    session().ReadHandlerFile();
    EXPECT_EQ(services(), (Table{{"a", {"x"}}}));
    EXPECT_EQ(apps(), (Table{{"b", {endpoint}}}));
}

TEST_F(HandlerFile, KeepsTheLongestRecordThatWasAcceptedOverAWithdrawal) {
    for (const std::size_t length : {4093, 4094}) {
        const std::string empty = appendedRecord("/b", "");
        const std::string endpoint = std::string(length - empty.size(), '/');
        ASSERT_TRUE(append(appendedRecord("/b", endpoint)));
        bool present = false;
        session().addNodeToMap("/b", endpoint, false, present);
        EXPECT_TRUE(rewrite());
        EXPECT_EQ(text(), line(appendedRecord("/b", endpoint)));
        session().removeNodeFromMap("/b", endpoint, false);
    }
}

TEST_F(HandlerFile, RefusesARecordThatNoRewriteCouldHold) {
    // A bare control character takes six characters in every form that is written.
    const std::string record = appendedRecord("/b", std::string(1000, '\x01'));
    EXPECT_FALSE(append(record));
    EXPECT_FALSE(exists());
    EXPECT_EQ(takeLogLines(),
              Texts{"UpdateHandlerFile: Handler record of 6027 characters not saved, the limit is 4094. "
                    "Use a shorter node or endpoint."});
}
