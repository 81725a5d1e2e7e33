// System properties on the host: set in-process then read back, defaults, truncation, refusals.

#include <cutils/properties.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(PlatformProperties, SetValuesAreReadBackAndUnsetOrEmptyOnesGiveTheDefault) {
    char value[PROPERTY_VALUE_MAX];
    ASSERT_EQ(property_set("test.sorn.props.dump", "1"), 0);
    ASSERT_EQ(property_set("test.sorn.props.dump", "12345"), 0);  // overwrites
    EXPECT_EQ(property_get("test.sorn.props.dump", value, "0"), 5);
    EXPECT_STREQ(value, "12345");

    ASSERT_EQ(property_set("test.sorn.props.cleared", "on"), 0);
    ASSERT_EQ(property_set("test.sorn.props.cleared", ""), 0);
    EXPECT_EQ(property_get("test.sorn.props.cleared", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
    std::memset(value, 'x', sizeof value);
    EXPECT_EQ(property_get("test.sorn.props.never_set", value, nullptr), 0);
    EXPECT_STREQ(value, "");
    EXPECT_EQ(property_get(nullptr, value, "d"), 1);
    EXPECT_STREQ(value, "d");
    EXPECT_EQ(property_get("test.sorn.props.dump", nullptr, "d"), -1);
}

TEST(PlatformProperties, LongValuesAreRefusedOrTruncatedAndTerminated) {
    const std::string longest(PROPERTY_VALUE_MAX - 1, 'a'), too_long(PROPERTY_VALUE_MAX, 'b');
    char value[PROPERTY_VALUE_MAX + 16];
    ASSERT_EQ(property_set("test.sorn.props.long", longest.c_str()), 0);
    EXPECT_EQ(property_set("test.sorn.props.long", too_long.c_str()), -1);
    EXPECT_EQ(property_get("test.sorn.props.long", value, "0"), PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(std::string(value), longest);  // unchanged by the refused write

    const std::string huge_default(300, 'c');
    std::memset(value, 'x', sizeof value);
    EXPECT_EQ(property_get("test.sorn.props.never_set", value, huge_default.c_str()),
              PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(value[PROPERTY_VALUE_MAX - 1], '\0');
    EXPECT_EQ(value[PROPERTY_VALUE_MAX], 'x');  // nothing written past the documented size
}

}  // namespace
