// SPDX-License-Identifier: GPL-3.0-only
// The device id: derived from the machine id, and never the machine id itself.
#include <cerrno>

#include "tests/faults/failingreads.h"
#include "tests/unit/prefs/prefsfolder.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class DeviceId : public PrefsFolderTest {
  protected:
    void SetUp() override {
        PrefsFolderTest::SetUp();
        setenv("ZELT_MACHINE_ID_FILE", (folder() / "machine-id").c_str(), 1);
    }
    void TearDown() override {
        unsetenv("ZELT_MACHINE_ID_FILE");
        PrefsFolderTest::TearDown();
    }
    // The id, or "(RESULT)" when there is none.
    static std::string id() {
        char* text = nullptr;
        const int result = QPSystemCopyStringValue("com.zelt.properties.kduid", &text);
        const std::string found = text ? text : '(' + std::to_string(result) + ')';
        std::free(text);
        return found;
    }
};

}  // namespace

TEST_F(DeviceId, IsDerivedFromTheMachineIdForThisApplication) {
    write(folder() / "machine-id", "0123456789abcdef0123456789abcdef\n");
    EXPECT_EQ(id(), "cfb7c38732fb4bd29a90f22ce33550cb");
}

TEST_F(DeviceId, DiffersFromMachineToMachine) {
    write(folder() / "machine-id", "0123456789abcdef0123456789abcdee\n");
    EXPECT_NE(id(), "cfb7c38732fb4bd29a90f22ce33550cb");
    EXPECT_EQ(id().size(), 32u);
}

TEST_F(DeviceId, SaysWhatToDoWithoutAMachineId) {
    for (const char* content : {"", "uninitialized\n", "0123"}) {
        write(folder() / "machine-id", content);
        LogCapture log;
        EXPECT_EQ(id(), "(3)") << content;  // QP_IO
        EXPECT_THAT(log.texts(), ElementsAre((folder() / "machine-id").string() +
                                             " holds no machine id: write 32 hexadecimal digits to it"));
    }
}

TEST_F(DeviceId, IsNoneWhenTheMachineIdCannotBeRead) {
    write(folder() / "machine-id", "0123456789abcdef0123456789abcdef\n");
    LogCapture log;
    FailingReads reads(folder().string(), EIO, 8);
    EXPECT_EQ(id(), "(3)");  // QP_IO
    EXPECT_GT(reads.failures(), 0u);
}
