// SPDX-License-Identifier: GPL-3.0-only
#include "platform/bus/uri.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/bus/qsraii.h"

using testing::HasSubstr;

namespace {

std::string parts(const char* uri) {
    BusAddress address;
    BusError error;
    if (!busParseUri(uri, address, error))
        return "refused";
    return address.service + " " + address.path + " " + address.method;
}

std::string reason(const char* uri) {
    BusAddress address;
    BusError error;
    EXPECT_FALSE(busParseUri(uri, address, error));
    EXPECT_EQ(error.code(), -EINVAL);
    return error.message();
}

}  // namespace

TEST(Address, HasServiceCategoryAndMethod) {
    EXPECT_EQ(parts("zelt://com.zelt.power/timeout/set"), "com.zelt.power /timeout set");
    EXPECT_EQ(parts("quor://com.zelt.power/timeout/set"), "com.zelt.power /timeout set");
    EXPECT_EQ(parts("zelt://com.zelt.connectionmanager/getstatus"), "com.zelt.connectionmanager / getstatus");
    EXPECT_EQ(parts("zelt://com.zelt.a/b/c/d/e_1"), "com.zelt.a /b/c/d e_1");
}

TEST(Address, SaysWhatIsWrongWithIt) {
    EXPECT_THAT(reason(nullptr), HasSubstr("neither zelt:// nor quor://"));
    EXPECT_THAT(reason("ZELT://com.zelt.power/set"), HasSubstr("neither zelt:// nor quor://"));
    EXPECT_THAT(reason("zelt:/com.zelt.power/set"), HasSubstr("neither zelt:// nor quor://"));
    EXPECT_THAT(reason("zelt://com.zelt.power"), HasSubstr("names no method"));
    EXPECT_THAT(reason("zelt://power/set"), HasSubstr("no valid service"));
    EXPECT_THAT(reason("zelt:///set"), HasSubstr("no valid service"));
    EXPECT_THAT(reason("zelt://:1.5/set"), HasSubstr("no valid service"));
    EXPECT_THAT(reason("zelt://com.my-app/set"), HasSubstr("no valid service"));
    EXPECT_THAT(reason("zelt://com.zelt.power//set"), HasSubstr("category"));
    EXPECT_THAT(reason("zelt://com.zelt.power/a b/set"), HasSubstr("category"));
    EXPECT_THAT(reason("zelt://com.zelt.power/gr\xc3\xbcn/set"), HasSubstr("category"));
    EXPECT_THAT(reason("zelt://com.zelt.power/"), HasSubstr("method name"));
    EXPECT_THAT(reason("zelt://com.zelt.power/1st"), HasSubstr("method name"));
    EXPECT_THAT(reason("zelt://com.zelt.power/set#x"), HasSubstr("method name"));
    EXPECT_THAT(reason(("zelt://com.zelt.power/" + std::string(256, 'm')).c_str()), HasSubstr("method name"));
    EXPECT_THAT(reason("zelt://org.freedesktop.DBus.Local/x"), HasSubstr("reserves"));
    EXPECT_THAT(reason("zelt://com.zelt.power/org/freedesktop/DBus/Local/x"), HasSubstr("reserves"));
    EXPECT_THAT(reason(("zelt://" + std::string(250, 's') + ".zelt.power/m").c_str()), HasSubstr("service"));
}
