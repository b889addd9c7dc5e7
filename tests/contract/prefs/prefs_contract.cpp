// SPDX-License-Identifier: GPL-3.0-only
// The contract of the preferences store: what every implementation of the QP calls does.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "platform/prefs/qp.h"
#include "tests/contract/prefs/engine.h"

namespace {

class PrefsContract : public ::testing::Test {
  protected:
    static QPHandle* open(const char* app = "com.zelt.pubsubservice") {
        QPHandle* handle = nullptr;
        EXPECT_EQ(QPAppGetHandle(app, &handle), QP_OK);
        return handle;
    }
    // The value, or "(RESULT)" when there is none.
    static std::string value(QPHandle* handle, const char* key) {
        char* copy = nullptr;
        const int result = QPAppCopyValue(handle, key, &copy);
        std::string text = copy ? copy : '(' + std::to_string(result) + ')';
        std::free(copy);
        return text;
    }
    static std::string keys(QPHandle* handle) {
        json_object* list = nullptr;
        EXPECT_EQ(QPAppCopyKeysCJ(handle, &list), QP_OK);
        std::string text = json_object_to_json_string(list);
        json_object_put(list);
        return text;
    }
    static std::string storedValue(const char* key, const char* app = "com.zelt.pubsubservice") {
        QPHandle* handle = open(app);
        const std::string text = value(handle, key);
        EXPECT_EQ(QPAppFreeHandle(handle, false), QP_OK);
        return text;
    }
    static void store(const char* key, const char* text, const char* app = "com.zelt.pubsubservice") {
        QPHandle* handle = open(app);
        EXPECT_EQ(QPAppSetValue(handle, key, text), QP_OK);
        EXPECT_EQ(QPAppFreeHandle(handle, true), QP_OK);
    }

    std::unique_ptr<PrefsEngine> m_engine = makePrefsEngine();
};

constexpr char kNone[] = "(1)";  // QP_NOT_FOUND

}  // namespace

TEST_F(PrefsContract, HasNothingAtFirst) {
    QPHandle* handle = open();
    EXPECT_EQ(value(handle, "/u1234/dev42/a/b"), kNone);
    EXPECT_EQ(keys(handle), "[ ]");
    QPAppFreeHandle(handle, false);
}

TEST_F(PrefsContract, ReadsItsOwnWritesBeforeTheCommit) {
    QPHandle* handle = open();
    QPAppSetValue(handle, "key", "1");
    EXPECT_EQ(value(handle, "key"), "1");
    QPAppSetValue(handle, "key", "2");
    EXPECT_EQ(value(handle, "key"), "2");
    QPAppRemoveValue(handle, "key");
    EXPECT_EQ(value(handle, "key"), kNone);
    QPAppFreeHandle(handle, false);
}

TEST_F(PrefsContract, KeepsWhatIsFreedWithCommit) {
    store("key", "{\"seqNo\": \"42\"}");
    EXPECT_EQ(storedValue("key"), "{\"seqNo\": \"42\"}");
    m_engine->restart();
    EXPECT_EQ(storedValue("key"), "{\"seqNo\": \"42\"}");
}

TEST_F(PrefsContract, DropsWhatIsFreedWithoutCommit) {
    store("key", "old");
    QPHandle* handle = open();
    QPAppSetValue(handle, "key", "new");
    QPAppSetValue(handle, "other", "1");
    EXPECT_EQ(QPAppFreeHandle(handle, false), QP_OK);
    EXPECT_EQ(storedValue("key"), "old");
    EXPECT_EQ(storedValue("other"), kNone);
}

TEST_F(PrefsContract, DropsWhatIsNotFreedWhenTheProcessEnds) {
    static QPHandle* unfreed;
    unfreed = open();
    QPAppSetValue(unfreed, "key", "1");
    m_engine->restart();
    EXPECT_EQ(storedValue("key"), kNone);
}

TEST_F(PrefsContract, RemovesDurably) {
    store("key", "1");
    QPHandle* handle = open();
    EXPECT_EQ(QPAppRemoveValue(handle, "key"), QP_OK);
    EXPECT_EQ(QPAppFreeHandle(handle, true), QP_OK);
    m_engine->restart();
    EXPECT_EQ(storedValue("key"), kNone);
}

TEST_F(PrefsContract, CannotRemoveWhatIsNotThere) {
    QPHandle* handle = open();
    EXPECT_EQ(QPAppRemoveValue(handle, "key"), QP_NOT_FOUND);
    QPAppSetValue(handle, "key", "1");
    EXPECT_EQ(QPAppRemoveValue(handle, "key"), QP_OK);
    EXPECT_EQ(QPAppRemoveValue(handle, "key"), QP_NOT_FOUND);
    QPAppFreeHandle(handle, false);
}

TEST_F(PrefsContract, StoresValuesAsGiven) {
    const std::string longText(100000, 'x');
    for (const char* text :
         {"", "plain", "\"quoted\"", "{ \"a\" : [ 1,2 ] }", "not json {", "\\/ \n\t \x01",
          "\xc3\xa4\xe2\x82\xac", "\xff\xfe no utf-8", "'; DROP TABLE prefs; --", longText.c_str()}) {
        store("key", text);
        m_engine->restart();
        EXPECT_EQ(storedValue("key"), text);
    }
}

TEST_F(PrefsContract, TreatsJsonAndStringValuesAlike) {
    QPHandle* handle = open();
    EXPECT_EQ(QPAppSetValueString(handle, "key", "com.example.app"), QP_OK);
    EXPECT_EQ(value(handle, "key"), "com.example.app");
    EXPECT_EQ(QPAppSetValue(handle, "key", "{}"), QP_OK);
    char* copy = nullptr;
    EXPECT_EQ(QPAppCopyValueString(handle, "key", &copy), QP_OK);
    EXPECT_STREQ(copy, "{}");
    std::free(copy);
    QPAppFreeHandle(handle, false);
}

TEST_F(PrefsContract, ListsKeysInByteOrderAsJsonPrintsThem) {
    for (const char* key : {"b", "/u1234/dev42/a", "B", "\xc3\xa4", "a b", "bb", "say \"hi\""})
        store(key, "1");
    QPHandle* handle = open();
    EXPECT_EQ(
        keys(handle),
        "[ \"\\/u1234\\/dev42\\/a\", \"B\", \"a b\", \"b\", \"bb\", \"say \\\"hi\\\"\", \"\xc3\xa4\" ]");
    QPAppFreeHandle(handle, false);
}

TEST_F(PrefsContract, ListsKeysAsItsOwnWritesLeaveThem) {
    store("gone", "1");
    store("stays", "1");
    QPHandle* handle = open();
    QPAppRemoveValue(handle, "gone");
    QPAppSetValue(handle, "added", "1");
    EXPECT_EQ(keys(handle), "[ \"added\", \"stays\" ]");
    QPAppFreeHandle(handle, false);
    handle = open();
    EXPECT_EQ(keys(handle), "[ \"gone\", \"stays\" ]");
    QPAppFreeHandle(handle, false);
}

TEST_F(PrefsContract, KeepsApplicationsApart) {
    store("key", "service", "com.zelt.pubsubservice");
    store("key", "map", "pubsubservice.offlineMap");
    EXPECT_EQ(storedValue("key", "com.zelt.pubsubservice"), "service");
    EXPECT_EQ(storedValue("key", "pubsubservice.offlineMap"), "map");
}

TEST_F(PrefsContract, ServesTwoHandlesAtOnce) {
    QPHandle* first = open();
    QPHandle* second = open();
    QPAppSetValue(first, "key", "1");
    QPAppSetValue(first, "mine", "1");
    QPAppSetValue(second, "key", "2");
    EXPECT_EQ(value(second, "mine"), kNone);
    EXPECT_EQ(QPAppFreeHandle(first, true), QP_OK);
    EXPECT_EQ(value(second, "mine"), "1");
    EXPECT_EQ(value(second, "key"), "2");
    EXPECT_EQ(QPAppFreeHandle(second, true), QP_OK);
    EXPECT_EQ(storedValue("key"), "2");
}

TEST_F(PrefsContract, AcceptsACommitOfNothing) {
    EXPECT_EQ(QPAppFreeHandle(open(), true), QP_OK);
}

TEST_F(PrefsContract, RefusesIdsThatAreNoFileNames) {
    const std::string tooLong(201, 'a');
    for (const char* id : {"", ".", "..", "../x", "a/b", "/etc/passwd", ".hidden", "a b", "a\nb", "\xc3\xa4",
                           tooLong.c_str()}) {
        auto* handle = reinterpret_cast<QPHandle*>(1);
        EXPECT_EQ(QPAppGetHandle(id, &handle), QP_BAD_ARGUMENT) << id;
        EXPECT_EQ(handle, nullptr) << id;
    }
    EXPECT_EQ(QPAppGetHandle(nullptr, nullptr), QP_BAD_ARGUMENT);
}

TEST_F(PrefsContract, AcceptsIdsUpToTheLongestFileName) {
    const std::string longest(200, 'a');
    store("key", "1", longest.c_str());
    EXPECT_EQ(storedValue("key", longest.c_str()), "1");
    store("key", "2", "A-z_0.9");
    EXPECT_EQ(storedValue("key", "A-z_0.9"), "2");
}

TEST_F(PrefsContract, RefusesMissingArguments) {
    QPHandle* handle = open();
    char* copy = nullptr;
    EXPECT_EQ(QPAppSetValue(handle, "", "1"), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppSetValue(handle, nullptr, "1"), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppSetValue(handle, "key", nullptr), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppSetValue(nullptr, "key", "1"), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppSetValueString(nullptr, "key", "1"), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppCopyValue(nullptr, "key", &copy), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppCopyValue(handle, "", &copy), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppCopyValue(handle, "key", nullptr), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppCopyKeysCJ(nullptr, nullptr), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppRemoveValue(nullptr, "key"), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppRemoveValue(handle, ""), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppFreeHandle(nullptr, true), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPAppFreeHandle(handle, true), QP_OK);
}

TEST_F(PrefsContract, GivesADeviceIdThatStays) {
    char* first = nullptr;
    char* second = nullptr;
    ASSERT_EQ(QPSystemCopyStringValue("com.zelt.properties.kduid", &first), QP_OK);
    m_engine->restart();
    ASSERT_EQ(QPSystemCopyStringValue("com.zelt.properties.kduid", &second), QP_OK);
    EXPECT_STREQ(first, second);
    EXPECT_EQ(std::string(first).size(), 32u);
    EXPECT_EQ(std::string(first).find_first_not_of("0123456789abcdef"), std::string::npos);
    std::free(first);
    std::free(second);
}

TEST_F(PrefsContract, KnowsNoOtherSystemValue) {
    auto* text = reinterpret_cast<char*>(1);
    EXPECT_EQ(QPSystemCopyStringValue("com.zelt.properties.other", &text), QP_NOT_FOUND);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(QPSystemCopyStringValue("", &text), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPSystemCopyStringValue(nullptr, &text), QP_BAD_ARGUMENT);
    EXPECT_EQ(QPSystemCopyStringValue("com.zelt.properties.kduid", nullptr), QP_BAD_ARGUMENT);
}
