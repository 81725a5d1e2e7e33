/*
 * Minimum-phase FIR synthesis: the prototype low-pass, its shaping by a dB curve and the
 * real-cepstrum minimum-phase conversion, all in double on one radix-2 FFT.
 */
#include "design/minimum_phase.h"

#include <array>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <utility>

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kLn2 = 0.6931471805599453;

/* Prototype taps 0..256 in millionths; taps 257..512 mirror them around tap 256. */
constexpr std::array<int, 257> kPrototypeHalfMicro = {
    -23, 1, 1, -4, 8, -11, 13, -12, 9, -4, -3, 9, -14, 16, -14, 8,
    1, -10, 19, -24, 24, -19, 9, 4, -18, 29, -34, 32, -22, 6, 13, -31,
    43, -47, 41, -24, 0, 26, -48, 61, -62, 48, -22, -11, 45, -71, 83, -77,
    53, -15, -30, 71, -100, 108, -92, 53, 0, -57, 106, -134, 134, -103, 47, 24,
    -95, 149, -173, 159, -109, 30, 61, -144, 200, -215, 182, -105, 0, 112, -206, 259,
    -257, 197, -89, -46, 179, -280, 324, -297, 202, -55, -112, 264, -366, 391, -329, 190,
    0, -200, 367, -461, 456, -349, 157, 81, -313, 488, -562, 514, -348, 95, 192, -452,
    624, -664, 558, -321, 0, 337, -616, 771, -760, 579, -260, -134, 517, -803, 923, -842,
    569, -155, -313, 734, -1010, 1074, -900, 517, 0, -541, 986, -1231, 1213, -922, 412, 213,
    -819, 1270, -1458, 1328, -896, 244, 492, -1150, 1581, -1679, 1405, -806, 0, 841, -1532, 1911,
    -1881, 1429, -638, -330, 1266, -1962, 2250, -2048, 1381, -376, -757, 1771, -2433, 2582, -2161, 1239,
    0, -1293, 2356, -2939, 2892, -2198, 982, 508, -1951, 3023, -3469, 3160, -2132, 581, 1172, -2743,
    3774, -4011, 3362, -1931, 0, 2022, -3690, 4614, -4551, 3466, -1553, -805, 3102, -4822, 5551, -5075,
    3436, -939, -1904, 4477, -6189, 6608, -5568, 3216, 0, -3410, 6263, -7885, 7835, -6015, 2717, 1421,
    -5529, 8682, -10102, 9342, -6403, 1773, 3646, -8702, 12224, -13281, 11401, -6719, 0, 7457, -14056, 18205,
    -18659, 14823, -6952, -3795, 15470, -25614, 31658, -31375, 23306, -7095, -16361, 44954, -75617, 104746, -128731, 144502,
    850000,
};

/* Dividing the exact integer by the exact 1e6 rounds once, so each tap is the double nearest
   to its decimal value. */
constexpr std::array<double, SORN_PROTOTYPE_TAPS> make_prototype() {
    std::array<double, SORN_PROTOTYPE_TAPS> p{};
    for (int i = 0; i < SORN_PROTOTYPE_TAPS; ++i) {
        const int half = i <= 256 ? i : SORN_PROTOTYPE_TAPS - 1 - i;
        p[i] = kPrototypeHalfMicro[half] / 1e6;
    }
    return p;
}

constexpr std::array<double, SORN_PROTOTYPE_TAPS> kPrototype = make_prototype();

struct FreeDeleter {
    void operator()(double *p) const { std::free(p); }
};
using DoubleBuffer = std::unique_ptr<double[], FreeDeleter>;

DoubleBuffer zeroed_doubles(size_t count) {
    return DoubleBuffer(static_cast<double *>(std::calloc(count, sizeof(double))));
}

constexpr bool is_power_of_two(long n) { return n > 0 && (n & (n - 1)) == 0; }

/* One radix-2 butterfly on the complex elements at p1 and p2 with the twiddle (ur, ui). */
inline void butterfly(double *p1, double *p2, double ur, double ui) {
    const double tr = p2[0] * ur - p2[1] * ui;
    const double ti = p2[0] * ui + p2[1] * ur;
    p2[0] = p1[0] - tr;
    p2[1] = p1[1] - ti;
    p1[0] += tr;
    p1[1] += ti;
}

void scale_all(double *z, long doubles, double factor) {
    for (long i = 0; i < doubles; ++i) z[i] *= factor;
}

}  // namespace

extern "C" void qelFft(double *buf, int n, int sign) {
    if (buf == nullptr || !is_power_of_two(n)) return;
    const long len = 2L * n; /* doubles in buf; indices below count doubles */

    /* Bit-reversal permutation: element e trades places with the element whose index is e's
       bits reversed. `r` is kept as that reversed index by a reversed-carry increment. */
    if (n >= 3) {
        long r = 0;
        for (long e = 0; e < n; ++e) {
            if (e < r) {
                std::swap(buf[2 * e], buf[2 * r]);
                std::swap(buf[2 * e + 1], buf[2 * r + 1]);
            }
            long bit = n >> 1;
            while (bit > 0 && (r & bit) != 0) {
                r ^= bit;
                bit >>= 1;
            }
            r |= bit;
        }
    }

    const long stages = static_cast<long>(std::log(static_cast<double>(n)) / kLn2 + 0.5);
    /* Each stage's twiddles come from one sine/cosine pair and the complex recurrence
       u <- u * w. They are generated once per stage into `twiddles`, so the butterflies can run
       block by block through memory; every butterfly of a stage touches its own two elements,
       so the order changes no bit of the result. Without work memory the butterflies run in
       the recurrence's own order instead. */
    DoubleBuffer twiddles(static_cast<double *>(std::malloc(sizeof(double) * len / 2)));
    long le = 2;
    for (long s = 0; s < stages; ++s) {
        le <<= 1;
        const long le2 = le >> 1;
        const double arg = kPi / static_cast<double>(le2 >> 1);
        const double wr = std::cos(arg);
        const double wi = sign * std::sin(arg);
        double ur = 1.0;
        double ui = 0.0;
        for (long j = 0; j < le2; j += 2) {
            if (twiddles) {
                twiddles[j] = ur;
                twiddles[j + 1] = ui;
            } else {
                for (long i = j; i < len; i += le) butterfly(buf + i, buf + i + le2, ur, ui);
            }
            const double next_ur = ur * wr - ui * wi;
            ui = ur * wi + ui * wr;
            ur = next_ur;
        }
        if (!twiddles) continue;
        for (long block = 0; block < len; block += le) {
            double *p1 = buf + block;
            for (long j = 0; j < le2; j += 2)
                butterfly(p1 + j, p1 + j + le2, twiddles[j], twiddles[j + 1]);
        }
    }
}

extern "C" void coef_transform(float *gain_db, int n, double *out, int nout) {
    if (gain_db == nullptr || out == nullptr || n < SORN_PROTOTYPE_TAPS || !is_power_of_two(n)) {
        return;
    }
    const size_t points = static_cast<size_t>(n);
    DoubleBuffer a = zeroed_doubles(2 * points);
    DoubleBuffer b = zeroed_doubles(2 * points);
    if (!a || !b) return;

    for (int m = 0; m < SORN_PROTOTYPE_TAPS; ++m) a[2 * m] = kPrototype[m];
    qelFft(a.get(), n, -1);

    for (int k = 0; k < n / 2; ++k) {
        const double g = std::pow(10.0, static_cast<double>(gain_db[k]) / 20.0);
        const int mirror = n - 1 - k;
        b[2 * k] = a[2 * k] * g;
        b[2 * k + 1] = a[2 * k + 1] * g;
        b[2 * mirror] = a[2 * mirror] * g;
        b[2 * mirror + 1] = a[2 * mirror + 1] * g;
    }
    qelFft(b.get(), n, +1);

    const int count = nout < n ? nout : n;
    for (int i = 0; i < count; ++i) out[i] = b[2 * i] / static_cast<double>(n);
}

extern "C" void line2mp(const double *in, int nin, double *out, int nout) {
    constexpr int M = SORN_LINE2MP_POINTS;
    constexpr double kInvM = 0.0001220703125; /* 2^-13 = 1/M */
    if (in == nullptr || out == nullptr) return;
    nin = nin < M ? nin : M;
    nout = nout < M ? nout : M;

    /* One block: complex work array (2M doubles), then the input and output copies. */
    DoubleBuffer work = zeroed_doubles(4 * static_cast<size_t>(M));
    if (!work) return;
    double *z = work.get();
    double *input = z + 2 * M;
    double *output = input + M;

    for (int k = 0; k < nin; ++k) input[k] = in[k];
    for (int k = 0; k < M; ++k) z[2 * k] = input[k];
    qelFft(z, M, -1);

    /* Real cepstrum: backward transform of the log magnitude. */
    for (int k = 0; k < M; ++k) {
        const double re = z[2 * k];
        const double im = z[2 * k + 1];
        z[2 * k] = std::log(std::sqrt(re * re + im * im));
        z[2 * k + 1] = 0.0;
    }
    qelFft(z, M, +1);
    scale_all(z, 2L * M, kInvM);

    /* Fold the anti-causal half onto the causal one: weights 1, 2 x (M/2 - 1), 1, then 0. */
    for (int k = 1; k < M / 2; ++k) {
        z[2 * k] *= 2.0;
        z[2 * k + 1] *= 2.0;
    }
    for (int k = M / 2 + 1; k < M; ++k) {
        z[2 * k] *= 0.0;
        z[2 * k + 1] *= 0.0;
    }
    qelFft(z, M, -1);

    for (int k = 0; k < M; ++k) {
        const double mag = std::exp(z[2 * k]);
        const double phase = z[2 * k + 1];
        z[2 * k] = mag * std::cos(phase);
        z[2 * k + 1] = mag * std::sin(phase);
    }
    qelFft(z, M, +1);
    scale_all(z, 2L * M, kInvM);

    for (int k = 0; k < M; ++k) output[k] = z[2 * k];
    for (int k = 0; k < nout; ++k) out[k] = output[k];
}

extern "C" void minimum_phase_get_prototype(double *out, int n) {
    if (out == nullptr) return;
    const int count = n < SORN_PROTOTYPE_TAPS ? n : SORN_PROTOTYPE_TAPS;
    for (int i = 0; i < count; ++i) out[i] = kPrototype[i];
}
