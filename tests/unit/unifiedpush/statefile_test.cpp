// SPDX-License-Identifier: GPL-3.0-only
// The state on disk: complete, readable by its user alone, and never lost to a file that is damaged.
#include "unifiedpush/statefile.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/faults/failingreads.h"
#include "tests/unit/host/privatebus.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class OnDisk : public testing::Test {
  protected:
    State sample() {
        State state;
        Registration registration;
        registration.service = "org.example.app";
        registration.token = "to\"ken\n";
        registration.vapid = "B" + std::string(86, 'A');
        registration.description = "mail";
        registration.version = 1;
        registration.url = "https://push.example.org/push/1";
        registration.announced = false;
        registration.newest = false;
        state.registrations[registration.endpoint()] = registration;
        state.deleting.insert(endpointName("org.example.app", "other", ""));
        state.absent["org.example.app"] = {3, 1'800'000'000};
        state.unclaimed["up-0123456789abcdef0123456789abcdef"] = {1, 1'700'000'000};
        return state;
    }
    State loaded() {
        State state;
        EXPECT_TRUE(file.load(state, problem)) << problem;
        return state;
    }
    void write(const std::string& text) {
        std::filesystem::create_directories(folder / "state");
        std::ofstream(file.path()) << text;
    }
    std::string text(const std::string& path) {
        std::ifstream in(path);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    TestFolder folder;
    StateFile file{folder / "state"};
    std::string problem;
};

TEST_F(OnDisk, EverythingComesBack) {
    const State state = sample();
    ASSERT_TRUE(file.save(state));
    const State again = loaded();
    ASSERT_THAT(again.registrations, SizeIs(1));
    const Registration& before = state.registrations.begin()->second;
    const Registration& after = again.registrations.begin()->second;
    EXPECT_EQ(again.registrations.begin()->first, state.registrations.begin()->first);
    EXPECT_EQ(after.service, before.service);
    EXPECT_EQ(after.token, before.token);
    EXPECT_EQ(after.vapid, before.vapid);
    EXPECT_EQ(after.description, before.description);
    EXPECT_EQ(after.version, before.version);
    EXPECT_EQ(after.url, before.url);
    EXPECT_EQ(after.announced, before.announced);
    EXPECT_EQ(after.newest, before.newest);
    EXPECT_EQ(again.deleting, state.deleting);
    EXPECT_EQ(again.absent.at("org.example.app").days, 3);
    EXPECT_EQ(again.absent.at("org.example.app").counted, 1'800'000'000);
    EXPECT_EQ(again.unclaimed.begin()->second.days, 1);
}

TEST_F(OnDisk, OnlyItsUserReadsIt) {
    ASSERT_TRUE(file.save(sample()));
    struct stat info = {};
    ASSERT_EQ(stat(file.path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
    ASSERT_EQ(stat((folder / "state").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0700U);
}

TEST_F(OnDisk, NoFileIsAnEmptyState) {
    EXPECT_THAT(loaded().registrations, IsEmpty());
}

TEST_F(OnDisk, GarbageIsKeptAsideUnderANumberOfItsOwn) {
    for (const char* garbage : {"garbage", "", "[1]", R"({"format":"x"})"}) {
        write(garbage);
        EXPECT_THAT(loaded().registrations, IsEmpty());
    }
    EXPECT_EQ(text(file.path() + ".damaged-1"), "garbage");
    EXPECT_EQ(text(file.path() + ".damaged-3"), "[1]");
    EXPECT_THAT(text(file.path()), HasSubstr("\"registrations\":[]"));
}

TEST_F(OnDisk, WhatIsGoodInADamagedFileStays) {
    write(R"({"format":1,"registrations":[{"service":"org.example.app","token":"t1"},5,)"
          R"({"service":":1.5","token":"t2"},{"service":"org.example.app","token":"t3","vapid":"short"}],)"
          R"("deleting":["up-",7,"up-0123456789abcdef0123456789abcdef"],"absent":[],"unclaimed":3})");
    const State state = loaded();
    ASSERT_THAT(state.registrations, SizeIs(1));
    EXPECT_EQ(state.registrations.begin()->second.token, "t1");
    EXPECT_THAT(state.deleting, SizeIs(1));
    EXPECT_TRUE(std::filesystem::exists(file.path() + ".damaged-1"));
    EXPECT_THAT(loaded().registrations, SizeIs(1));
}

TEST_F(OnDisk, AFileOfANewerVersionIsLeftAlone) {
    write(R"({"format":2})");
    State state;
    EXPECT_FALSE(file.load(state, problem));
    EXPECT_THAT(problem, HasSubstr("newer version"));
    EXPECT_EQ(text(file.path()), R"({"format":2})");
}

TEST_F(OnDisk, WhatIsNoFileIsMovedAsideOrToldOf) {
    std::filesystem::create_directories(file.path());
    State state;
    EXPECT_TRUE(file.load(state, problem));
    EXPECT_TRUE(std::filesystem::is_directory(file.path() + ".damaged-1"));
}

TEST_F(OnDisk, WhatCannotBeWrittenLeavesWhatWasThere) {
    ASSERT_TRUE(file.save(State()));
    const std::string before = text(file.path());
    std::filesystem::create_directories(file.path() + ".new");
    EXPECT_FALSE(file.save(sample()));
    EXPECT_EQ(text(file.path()), before);
}

TEST_F(OnDisk, ADiskWithoutRoomLeavesWhatWasThere) {
    ASSERT_TRUE(file.save(State()));
    const std::string before = text(file.path());
    const auto ignored = std::signal(SIGXFSZ, SIG_IGN);
    rlimit room = {};
    getrlimit(RLIMIT_FSIZE, &room);
    const rlimit little = {.rlim_cur = 10, .rlim_max = room.rlim_max};
    setrlimit(RLIMIT_FSIZE, &little);
    const bool saved = file.save(sample());
    setrlimit(RLIMIT_FSIZE, &room);
    std::signal(SIGXFSZ, ignored);
    EXPECT_FALSE(saved);
    EXPECT_EQ(text(file.path()), before);
}

TEST_F(OnDisk, WhatCannotBeReadIsLeftAlone) {
    ASSERT_TRUE(file.save(sample()));
    const std::string before = text(file.path());
    State state;
    {
        const FailingReads failing(file.path(), EIO);
        EXPECT_FALSE(file.load(state, problem));
        EXPECT_GT(failing.failures(), 0U);
    }
    EXPECT_THAT(problem, HasSubstr("cannot read"));
    EXPECT_EQ(text(file.path()), before);
}

TEST_F(OnDisk, WhatIsDamagedAndCannotBeMovedAsideIsToldOf) {
    write("garbage");
    for (int number = 1; number < 1000; ++number)
        std::filesystem::create_directories(file.path() + ".damaged-" + std::to_string(number));
    State state;
    EXPECT_FALSE(file.load(state, problem));
    EXPECT_THAT(problem, HasSubstr("is damaged and cannot be moved away"));
    EXPECT_EQ(text(file.path()), "garbage");
}

TEST_F(OnDisk, ALinkInItsPlaceIsNotFollowed) {
    std::ofstream(folder / "victim") << "precious";
    std::filesystem::create_directories(folder / "state");
    std::filesystem::create_symlink(folder / "victim", file.path() + ".new");
    EXPECT_FALSE(file.save(sample()));
    EXPECT_EQ(text(folder / "victim"), "precious");
}

TEST(StateFolder, IsBelowTheBaseDirectoryForState) {
    setenv("XDG_STATE_HOME", "/somewhere", 1);
    EXPECT_EQ(stateFolder(), "/somewhere/zelt-unifiedpush");
    setenv("XDG_STATE_HOME", "relative", 1);
    EXPECT_THAT(stateFolder(), HasSubstr("/.local/state/zelt-unifiedpush"));
    unsetenv("XDG_STATE_HOME");
    EXPECT_THAT(stateFolder(), HasSubstr("/.local/state/zelt-unifiedpush"));
}

TEST(Days, AreCountedOneAtATime) {
    constexpr int64_t kDay = 86'400;
    Age age;
    age.count(1000);
    age.count(1000 + kDay - 1);
    EXPECT_EQ(age.days, 0);
    age.count(1000 + kDay);
    EXPECT_EQ(age.days, 1);
    age.count(1000 + 400 * kDay);  // the clock was set, or the machine was off
    EXPECT_EQ(age.days, 2);
    age.count(5);
    age.count(5 + kDay);
    EXPECT_EQ(age.days, 3);
}

}  // namespace
