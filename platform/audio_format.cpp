// PCM sample format conversions: memcpy_by_audio_format and the typed helpers.
//
// Each format is a small struct that loads and stores one sample at an index (through memcpy,
// so any alignment and in-place type punning are fine); each supported pair is one per-sample
// function; run<> walks the buffer in the direction that keeps in-place conversion safe.

#include <audio_utils/format.h>

#include <cmath>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#define SORN_FORMAT_SSE2 1
#elif defined(__aarch64__)
#include <arm_neon.h>
#define SORN_FORMAT_NEON 1
#endif

#include "platform/sat_math.h"

namespace {

// --- Sample formats ---------------------------------------------------------------------------

template <typename T>
struct Plain {
    using value = T;
    static constexpr size_t bytes = sizeof(T);
    static T load(const void *buf, size_t i) {
        T v;
        std::memcpy(&v, static_cast<const unsigned char *>(buf) + i * bytes, bytes);
        return v;
    }
    static void store(void *buf, size_t i, T v) {
        std::memcpy(static_cast<unsigned char *>(buf) + i * bytes, &v, bytes);
    }
};

using I16 = Plain<int16_t>;
using U8 = Plain<uint8_t>;
using I32 = Plain<int32_t>;
using Q8_23 = Plain<int32_t>;  // Q8.23 in an int32
using F32 = Plain<float>;

// Packed 24-bit, little endian. The value is the sign-extended 24-bit integer.
struct P24 {
    using value = int32_t;
    static constexpr size_t bytes = 3;
    static int32_t load(const void *buf, size_t i) {
        const unsigned char *p = static_cast<const unsigned char *>(buf) + i * 3;
        const uint32_t u = (uint32_t{p[0]} << 8) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 24);
        return static_cast<int32_t>(u) >> 8;
    }
    static void store(void *buf, size_t i, int32_t v) {
        unsigned char *p = static_cast<unsigned char *>(buf) + i * 3;
        p[0] = static_cast<unsigned char>(v);
        p[1] = static_cast<unsigned char>(v >> 8);
        p[2] = static_cast<unsigned char>(v >> 16);
    }
};

// --- Per-sample conversions -------------------------------------------------------------------

constexpr float kTwo15 = 32768.0f;
constexpr float kTwo23 = 8388608.0f;
constexpr float kTwo31 = 2147483648.0f;

// Float to a signed integer of `limit` = 2^(bits-1): scale, clamp to [-limit, limit - 1], round
// half away from zero. fminf returns its other argument for a NaN, so NaN gives limit - 1, and
// the infinities give the limits; the cast always sees a value in range.
int32_t int_from_float(float f, float limit) {
    return static_cast<int32_t>(std::roundf(std::fmaxf(std::fminf(f * limit, limit - 1.0f), -limit)));
}

int32_t i32_from_i16(int16_t s) { return static_cast<int32_t>(static_cast<uint32_t>(s) << 16); }
int32_t i32_from_p24(int32_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v) << 8); }

int16_t i16_from_u8(uint8_t u) { return static_cast<int16_t>((u - 0x80) * 256); }
int16_t i16_from_i32(int32_t v) { return static_cast<int16_t>(v >> 16); }
int16_t i16_from_q8_23(int32_t v) { return sorn::sat_i16(v >> 8); }
int16_t i16_from_f32(float f) { return static_cast<int16_t>(int_from_float(f, kTwo15)); }
int16_t i16_from_p24(int32_t v) { return static_cast<int16_t>(v >> 8); }

uint8_t u8_from_i16(int16_t s) { return static_cast<uint8_t>((s >> 8) + 0x80); }
uint8_t u8_from_i32(int32_t v) { return static_cast<uint8_t>((v >> 24) + 0x80); }
uint8_t u8_from_q8_23(int32_t v) { return u8_from_i16(i16_from_q8_23(v)); }
// Float to unsigned 8-bit: offset by 128, clamp to [0, 255], round half away from zero. The sum
// f * 128 + 128 is itself a float, so a value just below a half-way point can land on it and
// round up. f * 128 is exact (or overflows, and clamps the same), so whether the compiler fuses
// the multiply-add does not change the result. NaN gives 255: fminf returns 255 for it.
uint8_t u8_from_f32(float f) {
    return static_cast<uint8_t>(std::roundf(std::fmaxf(std::fminf(f * 128.0f + 128.0f, 255.0f), 0.0f)));
}
uint8_t u8_from_p24(int32_t v) { return static_cast<uint8_t>((v >> 16) + 0x80); }

int32_t q8_23_from_i16(int16_t s) { return s * 256; }
int32_t q8_23_from_f32(float f) { return int_from_float(f, kTwo23); }
int32_t q8_23_from_p24(int32_t v) { return v; }

float f32_from_i16(int16_t s) { return static_cast<float>(s) * (1.0f / kTwo15); }
float f32_from_u8(uint8_t u) { return static_cast<float>(u - 0x80) * (1.0f / 128.0f); }
float f32_from_i32(int32_t v) { return static_cast<float>(v) * (1.0f / kTwo31); }
float f32_from_q8_23(int32_t v) { return static_cast<float>(v) * (1.0f / kTwo23); }
float f32_from_p24(int32_t v) { return static_cast<float>(v) * (1.0f / kTwo23); }

int32_t p24_from_i16(int16_t s) { return s * 256; }
int32_t p24_from_i32(int32_t v) { return v >> 8; }
int32_t p24_from_q8_23(int32_t v) { return v > 0x7FFFFF ? 0x7FFFFF : (v < -0x800000 ? -0x800000 : v); }
int32_t p24_from_f32(float f) { return int_from_float(f, kTwo23); }

// Double to int32, truncating, by the processor's own conversion instruction: a NaN or an
// out-of-range value gives what the processor gives (x86 CVTTSD2SI: INT32_MIN; arm64 FCVTZS to a
// 32-bit register, here as the 64-bit conversion followed by a saturating narrow, which is the
// same: saturation, NaN -> 0). No undefined behaviour is involved, unlike a plain cast of a NaN,
// which is what Android's code does and compiles to these very instructions. Other targets fall
// back to the plain cast.
inline int32_t cpu_trunc_i32(double d) {
#if defined(SORN_FORMAT_SSE2)
    return _mm_cvttsd_si32(_mm_set_sd(d));
#elif defined(SORN_FORMAT_NEON)
    return vqmovnd_s64(vcvtd_s64_f64(d));
#else
    return static_cast<int32_t>(d);
#endif
}

// --- Buffer loops -----------------------------------------------------------------------------

using Converter = void (*)(void *dst, const void *src, size_t count);

// Converts count samples. A wider destination is filled from the end so that, in place, each
// source sample is read before the destination reaches it; otherwise from the start.
template <typename D, typename S, typename D::value (*F)(typename S::value)>
void run(void *dst, const void *src, size_t count) {
    if constexpr (D::bytes > S::bytes) {
        for (size_t i = count; i-- > 0;) D::store(dst, i, F(S::load(src, i)));
    } else {
        for (size_t i = 0; i < count; ++i) D::store(dst, i, F(S::load(src, i)));
    }
}

// Float to 32-bit, the input conversion of every float stream: clamp32_from_float on each sample,
// four at a time, then the rest one by one. Same size in and out, forwards: in place is safe.
//
// The vector form rounds in float lanes and gives the same integer as the scalar form's double
// sum. Inside the rails |x| < 2^31, so the truncation t of x is exact, x - t is the exact
// fraction, and x + 0.5 truncated (x - 0.5 for x <= 0) is t moved one step away from zero exactly
// when that fraction is at least one half. A NaN passes the rail tests, as in the scalar form; the
// packed truncation gives it what the scalar one gives (x86 CVTTPS2DQ: INT32_MIN, arm64 FCVTZS:
// 0), and its fraction, a NaN, moves nothing.
void i32_from_f32_buffer(void *dst, const void *src, size_t count) {
    size_t i = 0;
#if defined(SORN_FORMAT_SSE2)
    const auto *in = static_cast<const float *>(src);
    auto *out = static_cast<unsigned char *>(dst);
    const __m128 lower = _mm_set1_ps(-1.0f), upper = _mm_set1_ps(1.0f), scale = _mm_set1_ps(kTwo31);
    const __m128 half = _mm_set1_ps(0.5f), minus_half = _mm_set1_ps(-0.5f);
    const __m128i min = _mm_set1_epi32(INT32_MIN), max = _mm_set1_epi32(INT32_MAX);
    for (; i + 4 <= count; i += 4) {
        const __m128 f = _mm_loadu_ps(in + i);
        const __m128 x = _mm_mul_ps(f, scale);
        const __m128i t = _mm_cvttps_epi32(x);
        const __m128 frac = _mm_sub_ps(x, _mm_cvtepi32_ps(t));
        // The masks are -1 where true: subtracting the up mask adds one, adding the down mask
        // subtracts one.
        const __m128i up = _mm_castps_si128(_mm_cmpge_ps(frac, half));
        const __m128i down = _mm_castps_si128(_mm_cmple_ps(frac, minus_half));
        const __m128i r = _mm_add_epi32(_mm_sub_epi32(t, up), down);
        const __m128i lo = _mm_castps_si128(_mm_cmple_ps(f, lower));
        const __m128i hi = _mm_castps_si128(_mm_cmpge_ps(f, upper));
        const __m128i rails = _mm_or_si128(_mm_and_si128(lo, min), _mm_and_si128(hi, max));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 4 * i),
                         _mm_or_si128(_mm_andnot_si128(_mm_or_si128(lo, hi), r), rails));
    }
#elif defined(SORN_FORMAT_NEON)
    const auto *in = static_cast<const float *>(src);
    auto *out = static_cast<int32_t *>(dst);
    for (; i + 4 <= count; i += 4) {
        const float32x4_t f = vld1q_f32(in + i);
        const float32x4_t x = vmulq_f32(f, vdupq_n_f32(kTwo31));
        const int32x4_t t = vcvtq_s32_f32(x);
        const float32x4_t frac = vsubq_f32(x, vcvtq_f32_s32(t));
        // The masks are all ones (-1) where true.
        const int32x4_t up = vreinterpretq_s32_u32(vcgeq_f32(frac, vdupq_n_f32(0.5f)));
        const int32x4_t down = vreinterpretq_s32_u32(vcleq_f32(frac, vdupq_n_f32(-0.5f)));
        int32x4_t r = vaddq_s32(vsubq_s32(t, up), down);
        r = vbslq_s32(vcleq_f32(f, vdupq_n_f32(-1.0f)), vdupq_n_s32(INT32_MIN), r);
        r = vbslq_s32(vcgeq_f32(f, vdupq_n_f32(1.0f)), vdupq_n_s32(INT32_MAX), r);
        vst1q_s32(out + i, r);
    }
#endif
    for (; i < count; ++i) I32::store(dst, i, clamp32_from_float(F32::load(src, i)));
}

constexpr int kFormats = 6;  // AUDIO_FORMAT_PCM_16_BIT (1) .. AUDIO_FORMAT_PCM_24_BIT_PACKED (6)

// kTable[dst - 1][src - 1]; null: equal formats (copied) or a pair left unconverted.
// Order: 16, 8, 32, 8_24, FLOAT, 24_PACKED.
constexpr Converter kTable[kFormats][kFormats] = {
    /* dst 16 */ {nullptr, run<I16, U8, i16_from_u8>, run<I16, I32, i16_from_i32>,
                  run<I16, Q8_23, i16_from_q8_23>, run<I16, F32, i16_from_f32>,
                  run<I16, P24, i16_from_p24>},
    /* dst 8 */ {run<U8, I16, u8_from_i16>, nullptr, run<U8, I32, u8_from_i32>,
                 run<U8, Q8_23, u8_from_q8_23>, run<U8, F32, u8_from_f32>, run<U8, P24, u8_from_p24>},
    /* dst 32 */ {run<I32, I16, i32_from_i16>, nullptr, nullptr, nullptr, i32_from_f32_buffer,
                  run<I32, P24, i32_from_p24>},
    /* dst 8_24 */ {run<Q8_23, I16, q8_23_from_i16>, nullptr, nullptr, nullptr,
                    run<Q8_23, F32, q8_23_from_f32>, run<Q8_23, P24, q8_23_from_p24>},
    /* dst FLOAT */ {run<F32, I16, f32_from_i16>, run<F32, U8, f32_from_u8>,
                     run<F32, I32, f32_from_i32>, run<F32, Q8_23, f32_from_q8_23>, nullptr,
                     run<F32, P24, f32_from_p24>},
    /* dst 24P */ {run<P24, I16, p24_from_i16>, nullptr, run<P24, I32, p24_from_i32>,
                   run<P24, Q8_23, p24_from_q8_23>, run<P24, F32, p24_from_f32>, nullptr},
};

bool is_pcm(audio_format_t f) { return f >= AUDIO_FORMAT_PCM_16_BIT && f <= AUDIO_FORMAT_PCM_24_BIT_PACKED; }

}  // namespace

extern "C" {

int32_t clamp32_from_float(float f) {
    if (f <= -1.0f) return INT32_MIN;
    if (f >= 1.0f) return INT32_MAX;
    const float x = f * kTwo31;  // exact: a power-of-two scale
    // Round half away from zero in double, then truncate. A NaN passes both tests above and
    // the processor decides what it becomes.
    return cpu_trunc_i32(static_cast<double>(x) + (x > 0 ? 0.5 : -0.5));
}

void memcpy_by_audio_format(void *dst, audio_format_t dst_format, const void *src,
                            audio_format_t src_format, size_t count) {
    if (dst == nullptr || src == nullptr || count == 0) return;
    if (!is_pcm(dst_format) || !is_pcm(src_format)) return;
    if (dst_format == src_format) {
        if (dst != src) std::memmove(dst, src, count * audio_bytes_per_sample(dst_format));
        return;
    }
    const Converter convert = kTable[dst_format - 1][src_format - 1];
    if (convert != nullptr) convert(dst, src, count);
}

void memcpy_to_i32_from_float(int32_t *dst, const float *src, size_t count) {
    if (dst != nullptr && src != nullptr) i32_from_f32_buffer(dst, src, count);
}

void memcpy_to_float_from_i32(float *dst, const int32_t *src, size_t count) {
    if (dst != nullptr && src != nullptr) run<F32, I32, f32_from_i32>(dst, src, count);
}

void memcpy_to_i16_from_i32(int16_t *dst, const int32_t *src, size_t count) {
    if (dst != nullptr && src != nullptr) run<I16, I32, i16_from_i32>(dst, src, count);
}

void memcpy_to_i32_from_i16(int32_t *dst, const int16_t *src, size_t count) {
    if (dst != nullptr && src != nullptr) run<I32, I16, i32_from_i16>(dst, src, count);
}

}  // extern "C"
