// SPDX-License-Identifier: GPL-3.0-only
// The functions of the fake store for tests; the contract suite covers the QP calls.
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>

#include <cstdlib>

#include "tests/fakes/fakeprefs.h"
#include "tests/fakes/journal.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

namespace {

class FakePrefsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakePrefs().reset();
        journal().take();
        ASSERT_EQ(QPAppGetHandle("app", &m_handle), QP_OK);
    }
    void TearDown() override { fakePrefs().reset(); }

    QPHandle* m_handle = nullptr;
};

}  // namespace

TEST_F(FakePrefsTest, JournalsWhatIsWritten) {
    QPAppSetValue(m_handle, "/a", "{\"seqNo\": \"42\"}");
    QPAppRemoveValue(m_handle, "/a");
    QPAppFreeHandle(m_handle, true);
    QPAppGetHandle("app", &m_handle);
    QPAppFreeHandle(m_handle, false);
    EXPECT_THAT(journal().take(), ElementsAre("prefs.set app /a {\"seqNo\": \"42\"}", "prefs.remove app /a",
                                              "prefs.commit app", "prefs.drop app"));
}

TEST_F(FakePrefsTest, LosesBuffersButNoCommitsAtARestart) {
    QPAppSetValue(m_handle, "kept", "1");
    QPAppFreeHandle(m_handle, true);
    QPAppGetHandle("app", &m_handle);
    QPAppSetValue(m_handle, "lost", "2");
    fakePrefs().restart();
    EXPECT_EQ(fakePrefs().openHandles(), 0u);
    EXPECT_THAT(fakePrefs().stored("app"), ElementsAre(Pair("kept", "1")));
}

TEST_F(FakePrefsTest, LosesTheBufferOfAFailedCommit) {
    QPAppSetValue(m_handle, "key", "1");
    fakePrefs().failNext("QPAppFreeHandle", QP_IO);
    journal().take();
    EXPECT_EQ(QPAppFreeHandle(m_handle, true), QP_IO);
    EXPECT_THAT(fakePrefs().stored("app"), IsEmpty());
    EXPECT_THAT(journal().take(), IsEmpty());
    EXPECT_EQ(fakePrefs().openHandles(), 0u);
}

TEST_F(FakePrefsTest, FailsAsOftenAsTheTestSpecified) {
    fakePrefs().failNext("QPAppSetValue", QP_IO);
    EXPECT_EQ(QPAppSetValue(m_handle, "key", "1"), QP_IO);
    EXPECT_FALSE(fakePrefs().faultPending("QPAppSetValue"));
    EXPECT_EQ(QPAppSetValue(m_handle, "key", "1"), QP_OK);
}

TEST_F(FakePrefsTest, ReportsTheUseOfAFreedHandle) {
    static QPHandle* freed;
    freed = m_handle;
    QPAppFreeHandle(m_handle, true);
    EXPECT_NONFATAL_FAILURE(QPAppSetValue(freed, "key", "1"), "not open");
}
