// The platform stand-ins. Sample format conversions: every supported pair at its limits, in
// place and out of place, NaN and infinities as the processor converts them, and the pairs that
// leave the destination alone. System properties on the host: set in-process then read back,
// defaults, truncation, refusals.

#include <audio_utils/format.h>
#include <cutils/properties.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr audio_format_t F16 = AUDIO_FORMAT_PCM_16_BIT, F8 = AUDIO_FORMAT_PCM_8_BIT, F32 = AUDIO_FORMAT_PCM_32_BIT,
                         Q824 = AUDIO_FORMAT_PCM_8_24_BIT, FLT = AUDIO_FORMAT_PCM_FLOAT, P24 = AUDIO_FORMAT_PCM_24_BIT_PACKED;
constexpr int32_t kMin = std::numeric_limits<int32_t>::min(), kMax = std::numeric_limits<int32_t>::max();
constexpr float kInf = std::numeric_limits<float>::infinity();
// The double to int32 conversion of a NaN: CVTTSD2SI gives INT32_MIN, FCVTZS gives 0.
#if defined(__aarch64__)
constexpr int32_t kNaN32 = 0;
#else
constexpr int32_t kNaN32 = kMin;
#endif

template <typename T>
Bytes pack(std::initializer_list<T> values) {
    Bytes out(values.size() * sizeof(T));
    std::memcpy(out.data(), values.begin(), out.size());
    return out;
}
Bytes i16(std::initializer_list<int16_t> v) { return pack(v); }
Bytes u8(std::initializer_list<uint8_t> v) { return pack(v); }
Bytes i32(std::initializer_list<int32_t> v) { return pack(v); }
Bytes flt(std::initializer_list<float> v) { return pack(v); }
// Three NaNs of either sign and payload, +Inf, -Inf (as float bit patterns).
const Bytes kNonFinite = i32({0x7FC00000, -0x400000, 0x7F800001, -1, 0x7F800000, -0x800000});
// Packed 24-bit from 24-bit integer values, little endian.
Bytes p24(std::initializer_list<int32_t> v) {
    Bytes out;
    for (int32_t x : v) out.insert(out.end(), {uint8_t(x), uint8_t(x >> 8), uint8_t(x >> 16)});
    return out;
}

struct Case {
    audio_format_t dst, src;
    Bytes in, want;
};

// Expected values are written out from the conversion rules, not computed. Float to 32-bit,
// 16-bit and 8.24 are checked against the rounding rule on random inputs below.
const std::vector<Case> kCases = {
    // to 32-bit
    {F32, F16, i16({-32768, -1, 0, 1, 32767}), i32({kMin, -65536, 0, 65536, 0x7FFF0000})},
    {F32, P24, p24({-0x800000, 0x7FFFFF, -1, 1}), i32({kMin, 0x7FFFFF00, -256, 256})},
    // to 16-bit
    {F16, F8, u8({0, 0x80, 0xFF}), i16({-32768, 0, 32512})},
    {F16, F32, i32({kMin, -32768, 0xFFFF, kMax}), i16({-32768, -1, 0, 32767})},
    {F16, Q824, i32({kMin, -0x800000, -1, 255, 0x7FFFFF, 0x1000000}), i16({-32768, -32768, -1, 0, 32767, 32767})},
    {F16, P24, p24({-0x800000, 0x7FFFFF, -1, 256}), i16({-32768, 32767, -1, 1})},
    // to 8-bit
    {F8, F16, i16({-32768, -1, 0, 255, 256, 32767}), u8({0, 0x7F, 0x80, 0x80, 0x81, 0xFF})},
    {F8, F32, i32({kMin, -1, 0xFFFFFF, 0x1000000, kMax}), u8({0, 0x7F, 0x80, 0x81, 0xFF})},
    {F8, Q824, i32({kMin, 0, 0xFFFF, 0x10000, 0x7FFFFF, kMax}), u8({0, 0x80, 0x80, 0x81, 0xFF, 0xFF})},
    {F8, FLT, flt({-kInf, -1.0f, 0.0f, 0x1p-8f, 0.5f, 1.0f}), u8({0, 0, 0x80, 0x81, 0xC0, 0xFF})},
    // float to 8-bit offsets by 128 before rounding, and that sum is a float: just below a
    // half-way point it can land on it (the last one by rounding to even) and so round up
    {F8, FLT, flt({0x1p-8f - 0x1p-31f, -0x1p-8f - 0x1p-31f, 0x1.f9fffep-1f}), u8({0x81, 0x80, 0xFF})},
    {F8, P24, p24({-0x800000, 0x7FFFFF, -1}), u8({0, 0xFF, 0x7F})},
    // to 8.24
    {Q824, F16, i16({-32768, -1, 32767}), i32({-0x800000, -256, 0x7FFF00})},
    {Q824, P24, p24({-0x800000, 0x7FFFFF, -1}), i32({-0x800000, 0x7FFFFF, -1})},
    // to float (8.24 beyond full scale is not clamped)
    {FLT, F16, i16({-32768, 1, 32767}), flt({-1.0f, 0x1p-15f, 32767.0f / 32768.0f})},
    {FLT, F8, u8({0, 0x80, 0xFF}), flt({-1.0f, 0.0f, 127.0f / 128.0f})},
    {FLT, F32, i32({kMin, 1, 0x7FFFFF80, kMax}), flt({-1.0f, 0x1p-31f, 0.99999994f, 1.0f})},
    {FLT, Q824, i32({-0x800000, 0x7FFFFF, kMax}), flt({-1.0f, 1.0f - 0x1p-23f, 256.0f})},
    {FLT, P24, p24({-0x800000, 1, 0x7FFFFF}), flt({-1.0f, 0x1p-23f, 1.0f - 0x1p-23f})},
    // to packed 24-bit
    {P24, F16, i16({-32768, -1, 32767}), p24({-0x800000, -256, 0x7FFF00})},
    {P24, F32, i32({kMin, 0xFF, -1, kMax}), p24({-0x800000, 0, -1, 0x7FFFFF})},
    {P24, Q824, i32({kMin, 0x123456, -1, kMax}), p24({-0x800000, 0x123456, -1, 0x7FFFFF})},
    {P24, FLT, flt({-kInf, 0.5f, 1.0f}), p24({-0x800000, 0x400000, 0x7FFFFF})},
    // non-finite floats: the clamp's formulas, no rule of their own (NaN is the upper limit);
    // to 16-bit and 8.24 they are among the random inputs below
    {F8, FLT, kNonFinite, u8({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0})},
    {F32, FLT, kNonFinite, i32({kNaN32, kNaN32, kNaN32, kNaN32, kMax, kMin})},
    {P24, FLT, kNonFinite, p24({0x7FFFFF, 0x7FFFFF, 0x7FFFFF, 0x7FFFFF, 0x7FFFFF, -0x800000})},
    // equal formats: a copy
    {P24, P24, p24({1, -2, 0x7FFFFF}), p24({1, -2, 0x7FFFFF})},
};

// Out of place nothing past `count` samples is written; in place a wider destination must not
// overwrite samples it has yet to read.
TEST(PlatformFormat, EveryPairOutOfPlaceAndInPlace) {
    for (const Case &c : kCases) {
        SCOPED_TRACE(testing::Message() << "dst " << c.dst << " src " << c.src);
        const size_t count = c.in.size() / audio_bytes_per_sample(c.src);
        Bytes want = c.want, dst(c.want.size() + 8, 0xA5), buf = c.in;
        want.resize(dst.size(), 0xA5);
        memcpy_by_audio_format(dst.data(), c.dst, c.in.data(), c.src, count);
        EXPECT_EQ(dst, want);
        buf.resize(std::max(c.in.size(), c.want.size()));
        memcpy_by_audio_format(buf.data(), c.dst, buf.data(), c.src, count);
        EXPECT_EQ(Bytes(buf.begin(), buf.begin() + c.want.size()), c.want) << "in place";
    }
}

TEST(PlatformFormat, UnconvertedPairsUnknownFormatsAndNullBuffersLeaveDestinationAlone) {
    const audio_format_t pairs[][2] = {{Q824, F8}, {Q824, F32}, {P24, F8}, {F32, F8}, {F32, Q824}, {F32, AUDIO_FORMAT_DEFAULT},
                                       {AUDIO_FORMAT_INVALID, AUDIO_FORMAT_INVALID}, {audio_format_t{7}, audio_format_t{7}},
                                       {F16, audio_format_t{0x01000001u}}};
    const Bytes in(64, 0x11);
    Bytes dst(64, 0xA5);
    for (const auto &p : pairs) memcpy_by_audio_format(dst.data(), p[0], in.data(), p[1], 8);
    memcpy_by_audio_format(dst.data(), F32, nullptr, F16, 8);
    memcpy_by_audio_format(nullptr, F32, in.data(), F16, 8);  // must not crash
    EXPECT_EQ(dst, Bytes(64, 0xA5));
}

// Float to integer conversions against the rule computed in double: scale (and for 8-bit add the
// offset 128, the sum rounded to float, which a double sum of these two floats rounds correctly),
// round half away from zero, clamp; a NaN is the upper limit, in 32-bit the processor's
// conversion of it. Inputs: every sign and exponent with the extreme and middle mantissas, the
// float patterns around every 8-bit half-way point (where rounding the sum to float decides the
// result), and a million random patterns (all exponents, NaN and Inf among them; half of them
// integers over a power of two, which hit the half-way points of the wider formats). The buffer
// path (vector) must equal clamp32_from_float (scalar) everywhere.
TEST(PlatformFormat, FloatToIntegerMatchesRoundingRuleAtBoundariesHalfWayPointsAndRandomInputs) {
    std::vector<float> in;
    auto add_bits = [&in](uint32_t bits) { in.push_back(std::bit_cast<float>(bits)); };
    for (uint32_t top = 0; top < 512; ++top) {
        for (uint32_t mantissa : {0u, 1u, 0x400000u, 0x7FFFFEu, 0x7FFFFFu}) add_bits(top << 23 | mantissa);
    }
    for (int k = 1; k <= 255; ++k) {  // sums k - 0.5, between 8-bit outputs k - 1 and k
        const uint32_t half_way = std::bit_cast<uint32_t>((static_cast<float>(k) - 128.5f) / 128.0f);
        for (uint32_t d = 0; d <= 300; ++d) add_bits(half_way + d), add_bits(half_way - d);
    }
    std::mt19937 rng(1234);
    for (int i = 0; i < 1000000; ++i) {
        const uint32_t bits = rng();
        in.push_back(rng() % 2 ? std::bit_cast<float>(bits)
                               : std::ldexp(static_cast<float>(static_cast<int32_t>(bits)), -31 - int(rng() % 12)));
    }
    in.insert(in.end(), {kInf, -kInf});  // into the scalar tail after the vectors
    auto rule = [](float f, double scale, double offset, double lo, double hi) -> int64_t {
        if (std::isnan(f)) return hi == kMax ? kNaN32 : hi;
        const double v = std::round(static_cast<double>(static_cast<float>(static_cast<double>(f) * scale + offset)));
        return static_cast<int64_t>(std::fmin(std::fmax(v, lo), hi));
    };
    std::vector<int32_t> out32(in.size()), outq(in.size());
    std::vector<int16_t> out16(in.size());
    std::vector<uint8_t> out8(in.size());
    memcpy_by_audio_format(out32.data(), F32, in.data(), FLT, in.size());
    memcpy_by_audio_format(outq.data(), Q824, in.data(), FLT, in.size());
    memcpy_by_audio_format(out16.data(), F16, in.data(), FLT, in.size());
    memcpy_by_audio_format(out8.data(), F8, in.data(), FLT, in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        const float f = in[i];
        ASSERT_EQ(out32[i], rule(f, 0x1p31, 0, kMin, kMax)) << f;
        ASSERT_EQ(outq[i], rule(f, 0x1p23, 0, -0x800000, 0x7FFFFF)) << f;
        ASSERT_EQ(out16[i], rule(f, 0x1p15, 0, -32768, 32767)) << f;
        ASSERT_EQ(out8[i], rule(f, 128, 128, 0, 255)) << std::hexfloat << f;
        ASSERT_EQ(clamp32_from_float(f), out32[i]) << f;
    }
}

TEST(PlatformProperties, ReadBackDefaultsTruncationAndRefusals) {
    const std::string longest(PROPERTY_VALUE_MAX - 1, 'a'), too_long(PROPERTY_VALUE_MAX, 'b'), huge(300, 'c');
    char value[PROPERTY_VALUE_MAX + 16];
    const char *sets[][2] = {{"test.sorn.props.a", "1"}, {"test.sorn.props.a", "12345"}, {"test.sorn.props.cleared", "on"},
                             {"test.sorn.props.cleared", ""}, {"test.sorn.props.long", longest.c_str()}};  // overwriting
    for (const auto &[key, v] : sets) ASSERT_EQ(property_set(key, v), 0) << key << " " << v;
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
