#include "tools/host/effect_host.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sorn_tool {

#ifndef SORN_HP_DEFAULT_LIB
#define SORN_HP_DEFAULT_LIB "libsorn_hp_sfx_aw.so"
#endif

namespace {

/* The effect's parameter ids. */
constexpr int32_t kParamBlock = 100;
constexpr int32_t kParamStatus = 201;
constexpr int32_t kParamBypass = 900;
constexpr uint32_t kStatusValueBytes = 1024;

/* The effect's implementation uuid, as an integrator lists it in audio_effects.xml. */
constexpr effect_uuid_t kEffectUuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8, {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x34}};

/* Sent like AudioFlinger's first attempt: an insert effect on the output mix. */
constexpr int32_t kSessionOutputMix = 0;
constexpr int32_t kIoHandle = 1;

int32_t command(EffectInstance &fx, uint32_t code, uint32_t size, void *data, int32_t *reply) {
    int32_t word = 0;
    uint32_t reply_size = sizeof word;
    int32_t r = (*fx.handle)->command(fx.handle, code, size, data, &reply_size, &word);
    if (reply) *reply = word;
    return r;
}

/* effect_param_t with a one-word parameter id and a value of `value_bytes`. */
std::vector<uint8_t> param_command(int32_t id, const void *value, uint32_t value_bytes) {
    std::vector<uint8_t> cmd(sizeof(effect_param_t) + 4 + value_bytes);
    effect_param_t head{0, 4, value_bytes};
    std::memcpy(cmd.data(), &head, sizeof head);
    std::memcpy(cmd.data() + sizeof head, &id, 4);
    if (value_bytes) std::memcpy(cmd.data() + sizeof head + 4, value, value_bytes);
    return cmd;
}

struct Named {
    const char *name;
    uint32_t value;
};

constexpr Named kDevices[] = {
    {"wired-headphone", AUDIO_DEVICE_OUT_WIRED_HEADPHONE},
    {"wired-headset", AUDIO_DEVICE_OUT_WIRED_HEADSET},
    {"bt-a2dp", AUDIO_DEVICE_OUT_BLUETOOTH_A2DP},
    {"bt-a2dp-headphones", AUDIO_DEVICE_OUT_BLUETOOTH_A2DP_HEADPHONES},
    {"bt-a2dp-speaker", AUDIO_DEVICE_OUT_BLUETOOTH_A2DP_SPEAKER},
    {"usb-accessory", AUDIO_DEVICE_OUT_USB_ACCESSORY},
    {"usb-device", AUDIO_DEVICE_OUT_USB_DEVICE},
    {"usb-headset", AUDIO_DEVICE_OUT_USB_HEADSET},
    {"ble-headset", AUDIO_DEVICE_OUT_BLE_HEADSET},
    {"speaker", AUDIO_DEVICE_OUT_SPEAKER},
    {"earpiece", AUDIO_DEVICE_OUT_EARPIECE},
    {"bt-sco", AUDIO_DEVICE_OUT_BLUETOOTH_SCO},
    {"hdmi", AUDIO_DEVICE_OUT_HDMI},
    {"line", AUDIO_DEVICE_OUT_LINE},
    {"hearing-aid", AUDIO_DEVICE_OUT_HEARING_AID},
    {"ble-speaker", AUDIO_DEVICE_OUT_BLE_SPEAKER},
};

constexpr Named kModes[] = {
    {"normal", AUDIO_MODE_NORMAL},
    {"ringtone", AUDIO_MODE_RINGTONE},
    {"in-call", AUDIO_MODE_IN_CALL},
    {"in-communication", AUDIO_MODE_IN_COMMUNICATION},
    {"call-screen", AUDIO_MODE_CALL_SCREEN},
};

bool parse_number(const std::string &s, uint32_t &out) {
    if (s.empty()) return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(s.c_str(), &end, 0);
    if (errno || *end || v > 0xFFFFFFFFull || s[0] == '-') return false;
    out = static_cast<uint32_t>(v);
    return true;
}

template <size_t N>
bool lookup(const Named (&table)[N], const std::string &name, uint32_t &out) {
    for (const Named &n : table)
        if (name == n.name) return (out = n.value), true;
    return parse_number(name, out);
}

template <size_t N>
std::string names(const Named (&table)[N]) {
    std::string s;
    for (const Named &n : table) s += (s.empty() ? "" : ", ") + std::string(n.name);
    return s;
}

}  // namespace

const char *default_library_path() { return SORN_HP_DEFAULT_LIB; }

std::string resolve_library_path(const std::string &cli_path) {
    if (!cli_path.empty()) return cli_path;
    const char *env = std::getenv("SORN_HP_LIB");
    if (env && *env) return env;
    return default_library_path();
}

bool effect_library_open(const std::string &path, EffectLibrary &lib, std::string &error) {
    lib = EffectLibrary{};
    // An empty path is this program itself: builds that link the library in (the fuzzers) reach
    // it the same way.
    void *dl = dlopen(path.empty() ? nullptr : path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!dl) {
        const char *why = dlerror();
        error = "cannot load the effect library " + path + ": " + (why ? why : "unknown error") +
                " (set --lib PATH or SORN_HP_LIB)";
        return false;
    }
    auto done = [&](const std::string &why) {
        error = path + ": " + why;
        dlclose(dl);
        return false;
    };
    auto *aeli = static_cast<const audio_effect_library_t *>(dlsym(dl, AUDIO_EFFECT_LIBRARY_INFO_SYM_AS_STR));
    if (!aeli) return done("no \"AELI\" symbol: not an audio effect library");
    if (aeli->tag != AUDIO_EFFECT_LIBRARY_TAG) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "library tag 0x%08X is not 'AELT'", aeli->tag);
        return done(buf);
    }
    if (EFFECT_API_VERSION_MAJOR(aeli->version) != EFFECT_API_VERSION_MAJOR(EFFECT_LIBRARY_API_VERSION))
        return done("library API version " + describe_api_version(aeli->version) + " is not 3.x");
    if (!aeli->create_effect || !aeli->release_effect || !aeli->get_descriptor)
        return done("the library record lacks create, release or descriptor entry points");

    // The factory asks for the uuid that audio_effects.xml lists for this library.
    effect_descriptor_t desc{};
    int32_t r = aeli->get_descriptor(&kEffectUuid, &desc);
    if (r != 0)
        return done("get_descriptor does not know the effect " + uuid_to_string(kEffectUuid) + " (" +
                    std::to_string(r) + ")");
    if (EFFECT_API_VERSION_MAJOR(desc.apiVersion) != EFFECT_API_VERSION_MAJOR(EFFECT_CONTROL_API_VERSION))
        return done("effect control API version " + describe_api_version(desc.apiVersion) + " is not 2.x");

    lib.dl = dl;
    lib.aeli = aeli;
    lib.path = path;
    lib.descriptor = desc;
    struct link_map *map = nullptr;
    lib.resolved_path = (dlinfo(dl, RTLD_DI_LINKMAP, &map) == 0 && map && map->l_name) ? map->l_name : path;
    if (char *real = realpath(lib.resolved_path.c_str(), nullptr)) {
        lib.resolved_path = real;
        std::free(real);
    }
    return true;
}

void effect_library_close(EffectLibrary &lib) {
    if (lib.dl) dlclose(lib.dl);
    lib = EffectLibrary{};
}

void *effect_library_symbol(const EffectLibrary &lib, const char *name) {
    return lib.dl ? dlsym(lib.dl, name) : nullptr;
}

std::string uuid_to_string(const effect_uuid_t &u) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%08x-%04x-%04x-%04x-%02x%02x%02x%02x%02x%02x", u.timeLow,
                  u.timeMid, u.timeHiAndVersion, u.clockSeq, u.node[0], u.node[1], u.node[2],
                  u.node[3], u.node[4], u.node[5]);
    return buf;
}

std::string describe_api_version(uint32_t v) {
    return std::to_string(EFFECT_API_VERSION_MAJOR(v)) + "." + std::to_string(EFFECT_API_VERSION_MINOR(v));
}

std::string describe_effect_flags(uint32_t flags) {
    static const char *const kTypes[] = {"insert", "auxiliary", "replace", "pre-processing",
                                         "post-processing", "type 5", "type 6", "type 7"};
    static const char *const kInsert[] = {"insert anywhere", "insert first", "insert last",
                                          "insert exclusive", "", "", "", ""};
    std::string s = kTypes[flags & EFFECT_FLAG_TYPE_MASK];
    auto add = [&](const char *what) { s += ", "; s += what; };
    add(kInsert[(flags & EFFECT_FLAG_INSERT_MASK) >> EFFECT_FLAG_INSERT_SHIFT]);
    switch (flags & EFFECT_FLAG_VOLUME_MASK) {
    case EFFECT_FLAG_VOLUME_CTRL: add("volume control"); break;
    case EFFECT_FLAG_VOLUME_IND: add("volume indication"); break;
    case EFFECT_FLAG_VOLUME_MONITOR: add("volume monitor"); break;
    default: break;
    }
    if (flags & EFFECT_FLAG_DEVICE_IND) add("device indication");
    if (flags & EFFECT_FLAG_INPUT_MASK) add("input provider flags");
    if (flags & EFFECT_FLAG_OUTPUT_MASK) add("output provider flags");
    if (flags & EFFECT_FLAG_HW_ACC_MASK) add("hardware accelerated");
    if (flags & EFFECT_FLAG_AUDIO_MODE_IND) add("audio mode indication");
    if (flags & EFFECT_FLAG_AUDIO_SOURCE_IND) add("audio source indication");
    if (flags & EFFECT_FLAG_OFFLOAD_SUPPORTED) add("offload supported");
    if (flags & EFFECT_FLAG_NO_PROCESS) add("no process");
    return s;
}

bool parse_device(const std::string &name, uint32_t &device) { return lookup(kDevices, name, device); }
bool parse_audio_mode(const std::string &name, uint32_t &mode) { return lookup(kModes, name, mode); }
std::string device_names() { return names(kDevices); }
std::string audio_mode_names() { return names(kModes); }

int32_t effect_create(const EffectLibrary &lib, EffectInstance &fx) {
    fx = EffectInstance{};
    effect_handle_t h = nullptr;
    int32_t r = lib.aeli->create_effect(&lib.descriptor.uuid, kSessionOutputMix, kIoHandle, &h);
    if (r == 0 && h) {
        fx.lib = &lib;
        fx.handle = h;
    }
    return r == 0 && !h ? -EINVAL : r;
}

int32_t effect_set_config(EffectInstance &fx, uint32_t rate, audio_format_t format, int32_t *reply) {
    effect_config_t cfg{};
    for (buffer_config_t *b : {&cfg.inputCfg, &cfg.outputCfg}) {
        b->samplingRate = rate;
        b->channels = AUDIO_CHANNEL_OUT_STEREO;
        b->format = static_cast<uint8_t>(format);
        b->mask = EFFECT_CONFIG_ALL;
    }
    cfg.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ;
    cfg.outputCfg.accessMode = EFFECT_BUFFER_ACCESS_WRITE;
    return command(fx, EFFECT_CMD_SET_CONFIG, sizeof cfg, &cfg, reply);
}

int32_t effect_set_params(EffectInstance &fx, const sorn_hp_params_t &params, int32_t *reply) {
    std::vector<uint8_t> cmd = param_command(kParamBlock, &params, sizeof params);
    return command(fx, EFFECT_CMD_SET_PARAM, static_cast<uint32_t>(cmd.size()), cmd.data(), reply);
}

int32_t effect_set_bypass(EffectInstance &fx, bool on, int32_t *reply) {
    int32_t v = on ? 1 : 0;
    std::vector<uint8_t> cmd = param_command(kParamBypass, &v, sizeof v);
    return command(fx, EFFECT_CMD_SET_PARAM, static_cast<uint32_t>(cmd.size()), cmd.data(), reply);
}

int32_t effect_set_device(EffectInstance &fx, uint32_t device) {
    return command(fx, EFFECT_CMD_SET_DEVICE, sizeof device, &device, nullptr);
}

int32_t effect_set_audio_mode(EffectInstance &fx, uint32_t mode) {
    return command(fx, EFFECT_CMD_SET_AUDIO_MODE, sizeof mode, &mode, nullptr);
}

int32_t effect_enable(EffectInstance &fx, int32_t *reply) {
    return command(fx, EFFECT_CMD_ENABLE, 0, nullptr, reply);
}

int32_t effect_disable(EffectInstance &fx, int32_t *reply) {
    return command(fx, EFFECT_CMD_DISABLE, 0, nullptr, reply);
}

std::string effect_status_text(EffectInstance &fx) {
    std::vector<uint8_t> cmd = param_command(kParamStatus, nullptr, 0);
    std::vector<uint8_t> reply(cmd.size() + kStatusValueBytes, 0);
    uint32_t reply_size = static_cast<uint32_t>(reply.size());
    int32_t r = (*fx.handle)->command(fx.handle, EFFECT_CMD_GET_PARAM, static_cast<uint32_t>(cmd.size()),
                                      cmd.data(), &reply_size, reply.data());
    effect_param_t head{};
    std::memcpy(&head, reply.data(), sizeof head);
    const size_t value_at = sizeof head + 4;
    if (r != 0 || head.status != 0 || reply_size <= value_at) return {};
    const char *text = reinterpret_cast<const char *>(reply.data() + value_at);
    return std::string(text, strnlen(text, reply.size() - value_at));
}

int32_t effect_process(EffectInstance &fx, void *in, void *out, size_t frames) {
    audio_buffer_t a{};
    audio_buffer_t b{};
    a.frameCount = b.frameCount = frames;
    a.raw = in;
    b.raw = out;
    return (*fx.handle)->process(fx.handle, &a, &b);
}

void effect_release(EffectInstance &fx) {
    if (fx.handle && fx.lib) fx.lib->aeli->release_effect(fx.handle);
    fx = EffectInstance{};
}

bool status_item(const std::string &status, const std::string &name, int &value) {
    std::string key = name + ": ";
    for (size_t at = status.find(key); at != std::string::npos; at = status.find(key, at + 1)) {
        // Match whole names only ("state" must not match "...state").
        if (at > 0 && status[at - 1] != ' ' && status[at - 1] != '\n') continue;
        char *end = nullptr;
        long v = std::strtol(status.c_str() + at + key.size(), &end, 0);
        if (end == status.c_str() + at + key.size()) return false;
        value = static_cast<int>(v);
        return true;
    }
    return false;
}

StdoutMuffle::StdoutMuffle(bool active) {
    if (!active) return;
    std::fflush(stdout);
    int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null_fd < 0) return;
    saved_fd = dup(STDOUT_FILENO);
    if (saved_fd >= 0) dup2(null_fd, STDOUT_FILENO);
    close(null_fd);
}

StdoutMuffle::~StdoutMuffle() {
    if (saved_fd < 0) return;
    std::fflush(stdout);
    dup2(saved_fd, STDOUT_FILENO);
    close(saved_fd);
}

}  // namespace sorn_tool
