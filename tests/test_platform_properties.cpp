// System properties on the host: set in-process then read back, defaults, truncation, refusals.
#include <cutils/properties.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(PlatformProperties, ReadBackDefaultsTruncationAndRefusals) {
    const std::string longest(PROPERTY_VALUE_MAX - 1, 'a'), too_long(PROPERTY_VALUE_MAX, 'b'), huge(300, 'c');
    char value[PROPERTY_VALUE_MAX + 16];
    ASSERT_EQ(property_set("test.sorn.props.a", "1"), 0);
    ASSERT_EQ(property_set("test.sorn.props.a", "12345"), 0);  // overwrites
    ASSERT_EQ(property_set("test.sorn.props.cleared", "on"), 0);
    ASSERT_EQ(property_set("test.sorn.props.cleared", ""), 0);
    ASSERT_EQ(property_set("test.sorn.props.long", longest.c_str()), 0);
    EXPECT_EQ(property_set("test.sorn.props.long", too_long.c_str()), -1);  // refused, value kept
    // {key, default, result, value}: an empty or unset property gives the default, which is
    // truncated like any value to PROPERTY_VALUE_MAX - 1 characters; no key gives the default.
    const struct { const char *key, *dflt; int result; std::string want; } reads[] = {
        {"test.sorn.props.a", "0", 5, "12345"}, {"test.sorn.props.cleared", "dflt", 4, "dflt"},
        {"test.sorn.props.never_set", nullptr, 0, ""}, {nullptr, "d", 1, "d"},
        {"test.sorn.props.long", "0", PROPERTY_VALUE_MAX - 1, longest},
        {"test.sorn.props.never_set", huge.c_str(), PROPERTY_VALUE_MAX - 1, huge.substr(0, PROPERTY_VALUE_MAX - 1)}};
    for (const auto &r : reads) {
        std::memset(value, 'x', sizeof value);
        EXPECT_EQ(property_get(r.key, value, r.dflt), r.result) << r.want;
        EXPECT_EQ(std::string(value), r.want);
        EXPECT_EQ(value[PROPERTY_VALUE_MAX], 'x') << "nothing written past the documented size";
    }
    EXPECT_EQ(property_get("test.sorn.props.a", nullptr, "d"), -1);
}

}  // namespace
