// Framework simulator: the input is decoded into a sequence of create, command, process and
// release calls on one or two instances, made through AELI and the interface record as the
// effect factory makes them. Commands get any code, any cmdSize, any payload bytes and reply
// buffers of any size or none; process gets any frame count, in place or not, in the format
// the instance was last configured with.
//
// Checked on every call: nothing is read or written outside the exact-size buffers; a refused
// call changes neither its output buffer nor the reply; the input of an out-of-place call is
// left alone; reply sizes never grow; process refuses exactly the calls it must and otherwise
// returns 0 when enabled, -61 when not (after DISABLE 0 until the first -61: the fade back to
// dry); float output is finite and within [-1, 1]; integer accumulation never wraps.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <array>

#include "fuzz/fuzz_common.h"

namespace {

using sorn_fuzz::ExactBuffer;
using U8 = std::array<uint32_t, 8>;

constexpr int kMaxOps = 96;

struct Instance {
    effect_handle_t h = nullptr;
    int state = 0;  // what the instance should be in: 1 created, 2 enabled
    bool configured = false, accumulate = false;
    bool fading = false;  // disabled, and no -61 since: the fade back to dry may still run
    uint32_t format = AUDIO_FORMAT_PCM_32_BIT;
};

// Per input: frames processed by all calls together, parameter loads and reconfigurations.
struct Budget { size_t frames = 1 << 16; int designs = 4; };

template <typename T, size_t N>
T pick(FuzzedDataProvider &fdp, const std::array<T, N> &choices) {
    return choices[fdp.ConsumeIntegralInRange<size_t>(0, N - 1)];
}

// Values that reach distinct branches more often than uniformly random words would.
uint32_t interesting_u32(FuzzedDataProvider &fdp, const U8 &usual) {
    return fdp.ConsumeIntegralInRange(0, 3) != 0 ? pick(fdp, usual) : fdp.ConsumeIntegral<uint32_t>();
}
// Mostly `usual`, one time in eight any value of type T.
template <typename T>
T mostly(FuzzedDataProvider &fdp, T usual) {
    return fdp.ConsumeIntegralInRange(0, 7) == 0 ? fdp.ConsumeIntegral<T>() : usual;
}

void put_u32(std::vector<uint8_t> &v, size_t at, uint32_t x) {
    if (v.size() < at + 4) v.resize(at + 4);
    std::memcpy(v.data() + at, &x, 4);
}

template <typename T>
std::vector<uint8_t> bytes_of(const T &x) {
    const auto *b = reinterpret_cast<const uint8_t *>(&x);
    return std::vector<uint8_t>(b, b + sizeof x);
}

std::vector<uint8_t> config_payload(FuzzedDataProvider &fdp) {
    effect_config_t c{};
    const uint32_t rate = interesting_u32(fdp, {48000, 44100, 44050, 48050, 96000, 0, 44049, 8000});
    const uint32_t format = interesting_u32(fdp, {5, 1, 3, 4, 5, 2, 6, 0});
    for (buffer_config_t *b : {&c.inputCfg, &c.outputCfg}) {
        b->samplingRate = mostly<uint32_t>(fdp, rate);
        b->channels = interesting_u32(fdp, {3, 3, 3, 1, 0, 7, 0x80000003u, 3});
        b->format = static_cast<uint8_t>(mostly<uint8_t>(fdp, static_cast<uint8_t>(format)));
        b->mask = fdp.ConsumeIntegral<uint16_t>();
    }
    c.inputCfg.accessMode = mostly<uint8_t>(fdp, 1);
    c.outputCfg.accessMode = static_cast<uint8_t>(interesting_u32(fdp, {0, 2, 0, 2, 1, 3, 255, 0}));
    return bytes_of(c);
}

// A parameter block whose tables come from a small set of telling values: in range, at and
// beyond the limits, repeated, zero and negative.
void fill_block(FuzzedDataProvider &fdp, sorn_hp_params_t &p) {
    const std::array<int32_t, 8> switches = {0, 1, 1, 2, -5, 0, 1, INT32_MIN};
    const std::array<int32_t, 8> gains = {0, 3, -4, 12, -40, INT32_MAX, INT32_MIN, 6};
    for (int32_t *sw : {&p.lc, &p.hp, &p.ea, &p.ss}) *sw = pick(fdp, switches);
    auto fill = [&](uint32_t *f, int32_t *g, int n) {
        const bool ordered = fdp.ConsumeBool();
        for (int i = 0; i < n; ++i) {
            f[i] = ordered ? static_cast<uint32_t>(50 + i * 1500) : interesting_u32(fdp, {100, 1000, 22000, 22001, 0, 0xFFFFFFFFu, 8000, 1000});
            g[i] = fdp.ConsumeBool() ? pick(fdp, gains) : fdp.ConsumeIntegralInRange(-20, 20);
        }
    };
    fill(p.lc_freq, p.lc_gain, SORN_HP_LC_POINTS);
    fill(p.hp_freq, p.hp_gain, SORN_HP_HP_POINTS);
    fill(p.ea_freq, p.ea_gain, SORN_HP_EA_POINTS);
}

// Set and get parameter commands: a header with any key size, a known or unknown id, and a
// value of the id's kind; the parameter block also comes as raw bytes.
std::vector<uint8_t> param_payload(FuzzedDataProvider &fdp, uint32_t code, bool *designs) {
    std::vector<uint8_t> v(16, 0);
    const uint32_t id = interesting_u32(fdp, {100, 900, 201, 100, 900, 201, 0, 101});
    uint32_t vsize = 4;
    put_u32(v, 4, mostly<uint32_t>(fdp, 4));
    put_u32(v, 12, id);
    if (code == EFFECT_CMD_SET_PARAM && id == SORN_HP_PARAM_BLOCK) {
        sorn_hp_params_t p{};
        if (fdp.ConsumeBool()) {
            fill_block(fdp, p);
        } else {
            const auto raw = fdp.ConsumeBytes<uint8_t>(sizeof p);
            if (!raw.empty()) std::memcpy(&p, raw.data(), raw.size());
        }
        vsize = interesting_u32(fdp, {292, 292, 292, 291, 0, 300, 4, 1024});
        const auto block = bytes_of(p);
        v.insert(v.end(), block.begin(), block.end());
        *designs = true;
    } else if (code == EFFECT_CMD_SET_PARAM && id == SORN_HP_PARAM_BYPASS) {
        vsize = interesting_u32(fdp, {4, 2, 4, 2, 1, 0, 3, 8});
        put_u32(v, 16, interesting_u32(fdp, {0, 1, 0x10000, 0, 1, 0xFFFFFFFFu, 0x8000, 2}));
    } else if (code == EFFECT_CMD_GET_PARAM) {
        vsize = interesting_u32(fdp, {1024, 0, 4, 1024, 20, 2048, 1, 1024});
    }
    put_u32(v, 8, vsize);
    return v;
}

std::vector<uint8_t> command_payload(FuzzedDataProvider &fdp, uint32_t code, bool *designs) {
    std::vector<uint8_t> v;
    switch (code) {
        case EFFECT_CMD_SET_CONFIG: *designs = true; return config_payload(fdp);
        case EFFECT_CMD_SET_PARAM:
        case EFFECT_CMD_GET_PARAM: return param_payload(fdp, code, designs);
        case EFFECT_CMD_SET_DEVICE: put_u32(v, 0, interesting_u32(fdp, {0x8, 0x4, 0x2, 0x80, 0x20000000, 0x20000001, 0xC, 0})); return v;
        case EFFECT_CMD_SET_AUDIO_MODE: put_u32(v, 0, interesting_u32(fdp, {0, 1, 2, 3, 0, 0xFFFFFFFEu, 0xFFFFFFFFu, 7})); return v;
        default: return fdp.ConsumeBytes<uint8_t>(fdp.ConsumeIntegralInRange(0, 64));
    }
}

uint32_t command_code(FuzzedDataProvider &fdp) {
    const int k = fdp.ConsumeIntegralInRange(0, 15);
    if (k < 10)
        return pick(fdp, U8{EFFECT_CMD_SET_CONFIG, EFFECT_CMD_ENABLE, EFFECT_CMD_DISABLE, EFFECT_CMD_SET_PARAM,
                            EFFECT_CMD_GET_PARAM, EFFECT_CMD_SET_DEVICE, EFFECT_CMD_SET_AUDIO_MODE, EFFECT_CMD_SET_PARAM});
    return k < 14 ? fdp.ConsumeIntegralInRange<uint32_t>(0, 21) : fdp.ConsumeIntegral<uint32_t>();
}

void do_command(FuzzedDataProvider &fdp, Instance &in, Budget &budget) {
    const uint32_t code = command_code(fdp);
    bool designs = false;
    const std::vector<uint8_t> payload = command_payload(fdp, code, &designs);
    if (designs && budget.designs-- <= 0) return;

    // Usually the size the payload has; sometimes shorter or longer than what it carries.
    size_t cmd_size = payload.size();
    const int size_kind = fdp.ConsumeIntegralInRange(0, 9);
    if (size_kind == 0) cmd_size = fdp.ConsumeIntegralInRange<size_t>(0, payload.size());
    if (size_kind == 1) cmd_size = payload.size() + fdp.ConsumeIntegralInRange<size_t>(1, 64);
    ExactBuffer cmd(cmd_size, 0);
    if (!payload.empty()) std::memcpy(cmd.data(), payload.data(), std::min(cmd_size, payload.size()));
    const bool null_cmd = fdp.ConsumeIntegralInRange(0, 15) == 0;
    const uint32_t capacity = fdp.ConsumeIntegralInRange(0, 3) != 0 ? pick(fdp, U8{4, 4, 1040, 20, 0, 8, 19, 16})
                                                                    : fdp.ConsumeIntegralInRange<uint32_t>(0, 2048);
    const bool null_reply = fdp.ConsumeIntegralInRange(0, 11) == 0, null_size = fdp.ConsumeIntegralInRange(0, 11) == 0;
    ExactBuffer reply(capacity);
    const auto reply_before = reply.snapshot();
    uint32_t reply_size = capacity;

    const int32_t r = (*in.h)->command(in.h, code, static_cast<uint32_t>(cmd_size), null_cmd ? nullptr : cmd.data(),
                                       null_size ? nullptr : &reply_size, null_reply ? nullptr : reply.data());
    FUZZ_CHECK(r == 0 || r == -22 || r == -38, "command %u returned %d", code, r);
    FUZZ_CHECK(reply_size <= capacity, "reply size grew from %u to %u", capacity, reply_size);
    if (r != 0) {
        FUZZ_CHECK(reply.snapshot() == reply_before && reply_size == capacity, "refused command %u changed its reply", code);
        return;
    }
    if (null_reply || null_size || capacity < 4) return;
    int32_t word;
    std::memcpy(&word, reply.data(), 4);
    if (code == EFFECT_CMD_SET_CONFIG) {
        effect_config_t c;
        std::memcpy(&c, payload.data(), sizeof c);
        in.configured = word == 0;
        if (word == 0) in.format = c.inputCfg.format, in.accumulate = c.outputCfg.accessMode == EFFECT_BUFFER_ACCESS_ACCUMULATE;
    } else if (code == EFFECT_CMD_ENABLE || code == EFFECT_CMD_DISABLE) {
        in.state = code == EFFECT_CMD_ENABLE ? 2 : 1;
        in.fading = code == EFFECT_CMD_DISABLE;
    } else if (code == EFFECT_CMD_GET_CONFIG) {
        effect_config_t c;
        std::memcpy(&c, reply.data(), sizeof c);
        FUZZ_CHECK(c.inputCfg.channels == AUDIO_CHANNEL_OUT_STEREO && c.inputCfg.format == c.outputCfg.format,
                   "GET_CONFIG answered a configuration SET_CONFIG would refuse");
    } else if (code == EFFECT_CMD_GET_PARAM && reply_size > 16) {
        FUZZ_CHECK(std::memchr(reply.data() + 16, 0, reply_size - 16) != nullptr, "status text not terminated");
    }
}

// The usual start of a stream in one step (configure, parameter block, device, enable), so
// that short inputs reach the processing chain and its cross-fades.
void do_setup(FuzzedDataProvider &fdp, Instance &in, Budget &budget) {
    if (budget.designs-- <= 0) return;
    const uint32_t format = pick(fdp, std::array<uint32_t, 4>{5, 1, 3, 4});
    const uint32_t rate = fdp.ConsumeBool() ? 48000 : 44100;
    const bool accumulate = fdp.ConsumeBool();
    const int kind = fdp.ConsumeIntegralInRange(0, 3);
    const uint32_t device = pick(fdp, std::array<uint32_t, 4>{0x8, 0x4, 0x80, 0x20000000});
    FUZZ_CHECK(sorn_fuzz::start_stream(in.h, sorn_fuzz::stereo_config(rate, format, accumulate), kind, device, in.state == 1),
               "stream set-up refused");
    in.configured = true, in.format = format, in.accumulate = accumulate, in.state = 2;
}

size_t frame_count(FuzzedDataProvider &fdp) {
    switch (fdp.ConsumeIntegralInRange(0, 9)) {
        case 0: return 0;
        case 1: return fdp.ConsumeIntegralInRange<size_t>(1, 16);
        case 2: return fdp.ConsumeIntegralInRange<size_t>(1, 2048);
        case 3: return fdp.ConsumeIntegralInRange<size_t>(4096, 8192);
        default: return pick(fdp, std::array<size_t, 8>{240, 480, 192, 256, 441, 960, 1024, 240});
    }
}

// Fills a buffer: fuzz bytes first, then one of silence (which drives the mute logic), a loud
// square wave or a repeating byte pattern.
void fill_audio(FuzzedDataProvider &fdp, ExactBuffer &b) {
    const auto head = fdp.ConsumeBytes<uint8_t>(std::min<size_t>(b.size(), fdp.ConsumeIntegralInRange<size_t>(0, 256)));
    if (!head.empty()) std::memcpy(b.data(), head.data(), head.size());
    const int rest = fdp.ConsumeIntegralInRange(0, 2);
    for (size_t i = head.size(); i < b.size(); ++i)
        b.data()[i] = rest == 0 ? 0 : rest == 1 ? ((i / 400) % 2 ? 0x80 : 0x7F) : head.empty() ? 0x55 : head[i % head.size()];
}

void do_process(FuzzedDataProvider &fdp, Instance &in, Budget &budget) {
    const size_t frames = frame_count(fdp);
    if (frames > budget.frames) return;
    budget.frames -= frames;
    const size_t out_frames = fdp.ConsumeIntegralInRange(0, 15) == 0 ? frame_count(fdp) : frames;
    const bool in_place = out_frames == frames && fdp.ConsumeBool();
    const size_t frame_bytes = 2 * sorn_fuzz::bytes_per_sample(in.format);
    ExactBuffer in_buf(frames * frame_bytes), out_buf(in_place ? 0 : out_frames * frame_bytes);
    fill_audio(fdp, in_buf);
    fill_audio(fdp, out_buf);
    ExactBuffer &target = in_place ? in_buf : out_buf;
    const auto in_before = in_buf.snapshot(), out_before = target.snapshot();

    // Declarators initialize in order, so the three are read from the input one after the other.
    const bool null_in = fdp.ConsumeIntegralInRange(0, 31) == 0, null_out = fdp.ConsumeIntegralInRange(0, 31) == 0,
               null_self = fdp.ConsumeIntegralInRange(0, 31) == 0;
    audio_buffer_t ib{frames, {null_in ? nullptr : in_buf.data()}}, ob{out_frames, {null_out ? nullptr : target.data()}};
    const int32_t r = (*in.h)->process(null_self ? nullptr : in.h, &ib, &ob);

    const bool valid = !null_in && !null_out && !null_self && frames != 0 && frames == out_frames;
    FUZZ_CHECK(r == 0 || r == -61 || r == -22, "process returned %d", r);
    if (!in_place) FUZZ_CHECK(in_buf.snapshot() == in_before, "process wrote into its input");
    if (!valid || !in.configured) {
        FUZZ_CHECK(r == -22 && target.snapshot() == out_before, "a call that must be refused returned %d or changed the output", r);
        return;
    }
    in.fading = in.state == 1 && in.fading && r == 0;
    FUZZ_CHECK(r == (in.state == 2 || in.fading ? 0 : -61), "process returned %d in state %d", r, in.state);
    const long bad = sorn_fuzz::bad_output(in.format, in.accumulate && !in_place, out_before.data(), target.data(), frames * 2);
    FUZZ_CHECK(bad < 0, "output sample %ld of format %u out of range or wrapped", bad, in.format);
}

void do_create(FuzzedDataProvider &fdp, Instance &in) {
    effect_uuid_t uuid = sorn_fuzz::kUuid;
    const int kind = fdp.ConsumeIntegralInRange(0, 7);
    if (kind == 0) uuid.node[5] ^= fdp.ConsumeIntegralInRange<uint8_t>(1, 255);
    effect_handle_t h = reinterpret_cast<effect_handle_t>(&in);  // a sentinel that must survive
    const int32_t r = AELI.create_effect(kind == 1 ? nullptr : &uuid, fdp.ConsumeIntegral<int32_t>(),
                                         fdp.ConsumeIntegral<int32_t>(), kind == 2 ? nullptr : &h);
    if (kind <= 2) {
        FUZZ_CHECK(r == (kind == 0 ? -2 : -22) && h == reinterpret_cast<effect_handle_t>(&in),
                   "create with a bad argument returned %d or stored a handle", r);
        return;
    }
    FUZZ_CHECK(r == 0 && h != nullptr, "create failed: %d", r);
    in = Instance{h, 1};
}

void do_describe(FuzzedDataProvider &fdp, Instance &in) {
    ExactBuffer d(sizeof(effect_descriptor_t));
    auto *desc = reinterpret_cast<effect_descriptor_t *>(d.data());
    effect_uuid_t uuid = sorn_fuzz::kUuid;
    if (fdp.ConsumeBool()) uuid.timeLow = fdp.ConsumeIntegral<uint32_t>();
    const int32_t r = AELI.get_descriptor(&uuid, desc);
    FUZZ_CHECK(r == (std::memcmp(&uuid, &sorn_fuzz::kUuid, sizeof uuid) == 0 ? 0 : -22), "EffectGetDescriptor returned %d", r);
    FUZZ_CHECK((*in.h)->get_descriptor(in.h, desc) == 0, "get_descriptor failed");
    FUZZ_CHECK((*in.h)->command(nullptr, fdp.ConsumeIntegral<uint32_t>(), 0, nullptr, nullptr, nullptr) == -22,
               "command on a null handle was not refused");
}

void do_release(Instance &in) {
    FUZZ_CHECK(AELI.release_effect(in.h) == 0, "release failed");
    in = Instance{};
}

}  // namespace

SORN_FUZZ_INITIALIZE

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    Instance inst[2];
    Budget budget;
    for (int op = 0; op < kMaxOps && fdp.remaining_bytes() > 0; ++op) {
        Instance &in = inst[fdp.ConsumeBool() ? 1 : 0];
        const int kind = fdp.ConsumeIntegralInRange(0, 15);
        if (in.h == nullptr) {
            if (kind < 12) do_create(fdp, in);
        } else if (kind < 4) do_command(fdp, in, budget);
        else if (kind == 4) do_setup(fdp, in, budget);
        else if (kind < 12) do_process(fdp, in, budget);
        else if (kind == 12) do_describe(fdp, in);
        else if (kind == 13) do_release(in);
    }
    for (Instance &in : inst)
        if (in.h != nullptr) do_release(in);
    return 0;
}
