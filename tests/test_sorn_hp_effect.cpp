// Processing chain: creation and the rate class, the FIR record's switch, refused calls
// and failed allocations. (What a chain does to a block is the reference of the wrapper tests.)
#include <android/log.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "dsp/sorn_hp_effect.h"
#include "tests/support/alloc_counter.h"
#include "tests/support/log_capture.h"

namespace {

using Plane = std::vector<int>;

struct Chain {
    sorn_hp_effect_t* c;
    explicit Chain(unsigned rate = 48000) : c(static_cast<sorn_hp_effect_t*>(sorn_hp_effect_init(rate, 2))) {}
    ~Chain() { sorn_hp_effect_end(c); }
    // Runs three blocks of a fixed noise sequence; returns the output planes one after another.
    std::vector<Plane> run(unsigned seed = 1) {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<int> dist(-(1 << 21), 1 << 21);
        std::vector<Plane> out;
        for (int b = 0; b < 3; ++b) {
            Plane l(240), r(240);
            for (int i = 0; i < 240; ++i) l[i] = dist(rng), r[i] = dist(rng);
            sorn_hp_effect_core_process(c, l.data(), r.data(), 240);
            out.push_back(l);
            out.push_back(r);
        }
        return out;
    }
};

bool silent(const Plane& p) { return std::all_of(p.begin(), p.end(), [](int x) { return x == 0; }); }

TEST(ProcessingChain, RefusesFewerThanTwoChannelsAndClassifiesTheRate) {
    sorn_test::LogCapture log;
    EXPECT_EQ(sorn_hp_effect_init(48000, 1), nullptr);
    EXPECT_EQ(sorn_hp_effect_init(48000, 0), nullptr);
    EXPECT_EQ(log.count("sorn_hp_effect_init: chnnum 1 unsupported, need to be stereo", ANDROID_LOG_ERROR, "ORLA_SORN"), 1);
    for (auto [rate, type] : {std::pair{48000u, 1}, {44100u, 0}, {96000u, 2}, {192000u, 3}, {44056u, 1}})
        EXPECT_EQ(Chain(rate).c->sample_rate_type, type) << rate;
}

// Taps are stored whatever the switch says, but applied only while the filter is on; empty and
// null calls change nothing. (Reset and the blocks' dynamics are decided by the output checksum.)
TEST(ProcessingChain, FirSwitchAndRefusedCalls) {
    Chain fresh, off, on;
    orla_earadapt_params_t zero_taps{};
    sorn_hp_effect_frc_setparameter(off.c, &zero_taps);
    zero_taps.enable = 1;
    sorn_hp_effect_frc_setparameter(on.c, &zero_taps);
    const auto out = fresh.run();
    EXPECT_FALSE(silent(out[4]));
    EXPECT_EQ(off.run(), out);
    for (const auto& p : on.run()) EXPECT_TRUE(silent(p));
    Plane l(240, 1000), r(240, -1000);
    sorn_hp_effect_core_process(fresh.c, l.data(), r.data(), 0);
    sorn_hp_effect_core_process(fresh.c, nullptr, r.data(), 240);
    sorn_hp_effect_core_process(nullptr, l.data(), r.data(), 240);
    EXPECT_EQ(l, Plane(240, 1000));
}

TEST(ProcessingChain, AnyFailedAllocationDuringCreationLeaksNothingAndLeavesAUsableChain) {
    using sorn_test::AllocCounter;
    if (!AllocCounter::available()) GTEST_SKIP() << "allocation counting unavailable";
    sorn_hp_effect_end(sorn_hp_effect_init(48000, 2));  // first-use allocations outside the chain
    AllocCounter counter;
    sorn_hp_effect_end(sorn_hp_effect_init(48000, 2));
    const long long allocations = counter.count();
    ASSERT_GT(allocations, 8);
    for (long long k = 0; k < allocations; ++k) {
        const long long live = AllocCounter::live();
        AllocCounter::fail_after(k);
        void* chain = sorn_hp_effect_init(48000, 2);
        AllocCounter::fail_after(-1);
        // Either no chain, or one that only lacks its surround or its limiter and still runs.
        if (chain != nullptr) {
            auto* c = static_cast<sorn_hp_effect_t*>(chain);
            EXPECT_TRUE(c->surround == nullptr || c->limiter == nullptr) << "allocation " << k;
            Plane l(240, 1000), r(240, -1000);
            sorn_hp_effect_ss_setparameter(chain, 1, 5000, 20);
            sorn_hp_effect_core_process(chain, l.data(), r.data(), 240);
        }
        sorn_hp_effect_end(chain);
        EXPECT_EQ(AllocCounter::live(), live) << "allocation " << k << " failed";
    }
}

}  // namespace
