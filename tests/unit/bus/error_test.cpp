// SPDX-License-Identifier: GPL-3.0-only
#include "platform/bus/error.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/bus/qsraii.h"

namespace {

std::string printed(QSError* error) {
    char text[256] = {};
    FILE* stream = fmemopen(text, sizeof text, "w");
    QSErrorPrint(error, stream);
    fclose(stream);
    return text;
}

}  // namespace

TEST(ErrorRecord, IsEmptyWhenInitialised) {
    QSError error = {7, nullptr};
    EXPECT_TRUE(QSErrorInit(&error));
    EXPECT_EQ(error.code, 0);
    EXPECT_EQ(error.message, nullptr);
    QSErrorFree(&error);
    EXPECT_EQ(printed(&error), "bus error 0: \n");
}

TEST(ErrorRecord, HoldsTheLatestFailureUntilItIsFreed) {
    QSError error;
    QSErrorInit(&error);
    EXPECT_FALSE(busFail(&error, -EINVAL, "first"));
    EXPECT_FALSE(busFailErrno(&error, -ENOENT, "Opening it failed"));
    EXPECT_EQ(error.code, -ENOENT);
    EXPECT_STREQ(error.message, "Opening it failed: No such file or directory");
    EXPECT_EQ(printed(&error), "bus error -2: Opening it failed: No such file or directory\n");
    QSErrorFree(&error);
    EXPECT_EQ(error.code, 0);
    EXPECT_EQ(error.message, nullptr);
    QSErrorFree(&error);
}

TEST(ErrorRecord, MayBeLeftOut) {
    EXPECT_FALSE(busFail(nullptr, -EINVAL, "unread"));
    EXPECT_FALSE(QSErrorInit(nullptr));
    QSErrorFree(nullptr);
    QSErrorPrint(nullptr, stderr);
}

TEST(ErrorRecord, FreesItselfInAScope) {
    BusError error;
    EXPECT_STREQ(error.message(), "");
    busFail(error, -EIO, "text");
    EXPECT_STREQ(error.message(), "text");
    EXPECT_EQ(error.code(), -EIO);
}

TEST(ErrorRecord, PrintsControlCharactersOfItsTextAsEscapes) {
    QSError error;
    QSErrorInit(&error);
    busFail(&error, -EIO, "a\nbus error 0: b\r\t\x1b[2J\x7f\xc2\x9bz \xc3\xa9");
    EXPECT_EQ(printed(&error), "bus error -5: a\\nbus error 0: b\\r\\t\\x1b[2J\\x7f\\xc2\\x9bz \xc3\xa9\n");
    QSErrorFree(&error);
}
