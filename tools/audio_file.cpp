#include "tools/audio_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

#include <sndfile.h>

namespace sorn_tool {

namespace {

struct Container {
    const char *ext;
    int major;
};

constexpr Container kContainers[] = {
    {"wav", SF_FORMAT_WAV}, {"flac", SF_FORMAT_FLAC}, {"aiff", SF_FORMAT_AIFF},
    {"aif", SF_FORMAT_AIFF}, {"caf", SF_FORMAT_CAF}, {"w64", SF_FORMAT_W64},
    {"rf64", SF_FORMAT_RF64}, {"au", SF_FORMAT_AU},   {"ogg", SF_FORMAT_OGG},
};

std::string extension(const std::string &path) {
    auto slash = path.find_last_of('/');
    auto dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    std::string e = path.substr(dot + 1);
    std::transform(e.begin(), e.end(), e.begin(), [](unsigned char c) { return std::tolower(c); });
    return e;
}

std::string subtype_name(int subtype) {
    switch (subtype) {
    case SF_FORMAT_FLOAT: return "32-bit float";
    case SF_FORMAT_PCM_16: return "16-bit PCM";
    case SF_FORMAT_PCM_24: return "24-bit PCM";
    case SF_FORMAT_PCM_32: return "32-bit PCM";
    case SF_FORMAT_VORBIS: return "Vorbis";
    default: return "another encoding";
    }
}

}  // namespace

const char *sample_format_name(SampleFormat f) {
    switch (f) {
    case SampleFormat::f32: return "float";
    case SampleFormat::s16: return "16-bit";
    case SampleFormat::s32: return "32-bit";
    }
    return "?";
}

size_t audio_sample_bytes(SampleFormat f) { return f == SampleFormat::s16 ? 2 : 4; }

void audio_allocate(AudioBuffer &buf, int rate, int channels, int64_t frames, SampleFormat format) {
    buf = AudioBuffer{};
    buf.rate = rate;
    buf.channels = channels;
    buf.frames = frames;
    buf.format = format;
    const auto n = static_cast<size_t>(frames) * static_cast<size_t>(channels);
    switch (format) {
    case SampleFormat::f32: buf.f32.assign(n, 0.0f); break;
    case SampleFormat::s16: buf.s16.assign(n, 0); break;
    case SampleFormat::s32: buf.s32.assign(n, 0); break;
    }
}

void *audio_data(AudioBuffer &buf) {
    switch (buf.format) {
    case SampleFormat::f32: return buf.f32.data();
    case SampleFormat::s16: return buf.s16.data();
    case SampleFormat::s32: return buf.s32.data();
    }
    return nullptr;
}

const void *audio_data(const AudioBuffer &buf) { return audio_data(const_cast<AudioBuffer &>(buf)); }

double audio_sample(const AudioBuffer &buf, size_t i) {
    switch (buf.format) {
    case SampleFormat::f32: return buf.f32[i];
    case SampleFormat::s16: return buf.s16[i] / 32768.0;
    case SampleFormat::s32: return buf.s32[i] / 2147483648.0;
    }
    return 0.0;
}

bool audio_sample_at_full_scale(const AudioBuffer &buf, size_t i) {
    switch (buf.format) {
    case SampleFormat::f32: return std::fabs(buf.f32[i]) >= 1.0f;
    case SampleFormat::s16: return buf.s16[i] == INT16_MAX || buf.s16[i] == INT16_MIN;
    case SampleFormat::s32: return buf.s32[i] == INT32_MAX || buf.s32[i] == INT32_MIN;
    }
    return false;
}

void audio_mono_to_stereo(AudioBuffer &buf) {
    if (buf.channels != 1) return;
    AudioBuffer st;
    audio_allocate(st, buf.rate, 2, buf.frames, buf.format);
    for (int64_t k = 0; k < buf.frames; ++k) {
        switch (buf.format) {
        case SampleFormat::f32: st.f32[2 * k] = st.f32[2 * k + 1] = buf.f32[k]; break;
        case SampleFormat::s16: st.s16[2 * k] = st.s16[2 * k + 1] = buf.s16[k]; break;
        case SampleFormat::s32: st.s32[2 * k] = st.s32[2 * k + 1] = buf.s32[k]; break;
        }
    }
    buf = std::move(st);
}

bool audio_read(const std::string &path, SampleFormat format, AudioBuffer &out, std::string &error) {
    SF_INFO info{};
    SNDFILE *f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) {
        error = path + ": cannot read audio: " + sf_strerror(nullptr);
        return false;
    }
    if (info.channels < 1 || info.frames < 0) {
        sf_close(f);
        error = path + ": the file reports no channels";
        return false;
    }
    audio_allocate(out, info.samplerate, info.channels, info.frames, format);
    // Float files read as integers are scaled to full scale (libsndfile would truncate them
    // to tiny values otherwise); values beyond +-1 are clipped rather than wrapped.
    sf_command(f, SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
    sf_command(f, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    sf_count_t got = 0;
    switch (format) {
    case SampleFormat::f32: got = sf_readf_float(f, out.f32.data(), info.frames); break;
    case SampleFormat::s16: got = sf_readf_short(f, out.s16.data(), info.frames); break;
    case SampleFormat::s32: got = sf_readf_int(f, out.s32.data(), info.frames); break;
    }
    sf_close(f);
    if (got != info.frames) {
        error = path + ": read " + std::to_string(got) + " of " + std::to_string(info.frames) + " frames";
        return false;
    }
    return true;
}

bool audio_output_format(const std::string &path, SampleFormat format, int &sf_format,
                         std::string &note, std::string &error) {
    note.clear();
    std::string ext = extension(path);
    int major = 0;
    for (const Container &c : kContainers)
        if (ext == c.ext) major = c.major;
    if (!major) {
        std::string known;
        for (const Container &c : kContainers) known += (known.empty() ? "." : ", .") + std::string(c.ext);
        error = path + ": cannot tell the audio format from the name; use one of " + known;
        return false;
    }
    const int wanted = format == SampleFormat::f32   ? SF_FORMAT_FLOAT
                       : format == SampleFormat::s16 ? SF_FORMAT_PCM_16
                                                     : SF_FORMAT_PCM_32;
    const int choices[] = {wanted, SF_FORMAT_PCM_24, SF_FORMAT_PCM_16, SF_FORMAT_VORBIS};
    for (int subtype : choices) {
        SF_INFO probe{};
        probe.samplerate = 48000;
        probe.channels = 2;
        probe.format = major | subtype;
        if (!sf_format_check(&probe)) continue;
        sf_format = probe.format;
        if (subtype != wanted)
            note = path + ": ." + ext + " holds no " + subtype_name(wanted) + "; writing " +
                   subtype_name(subtype);
        return true;
    }
    error = path + ": libsndfile cannot write ." + ext + " files here";
    return false;
}

bool audio_write(const std::string &path, const AudioBuffer &buf, std::string &error) {
    int sf_format = 0;
    std::string note;
    if (!audio_output_format(path, buf.format, sf_format, note, error)) return false;

    auto slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string tmp = dir + "/." + base + ".partial-XXXXXX";
    int fd = mkstemp(tmp.data());
    if (fd < 0) {
        error = path + ": cannot write: " + std::strerror(errno);
        return false;
    }
    mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);

    SF_INFO info{};
    info.samplerate = buf.rate;
    info.channels = buf.channels;
    info.format = sf_format;
    SNDFILE *f = sf_open_fd(fd, SFM_WRITE, &info, SF_TRUE);
    if (!f) {
        close(fd);
        unlink(tmp.c_str());
        error = path + ": cannot write audio: " + sf_strerror(nullptr);
        return false;
    }
    sf_command(f, SFC_SET_SCALE_INT_FLOAT_WRITE, nullptr, SF_TRUE);
    sf_command(f, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    sf_count_t put = 0;
    switch (buf.format) {
    case SampleFormat::f32: put = sf_writef_float(f, buf.f32.data(), buf.frames); break;
    case SampleFormat::s16: put = sf_writef_short(f, buf.s16.data(), buf.frames); break;
    case SampleFormat::s32: put = sf_writef_int(f, buf.s32.data(), buf.frames); break;
    }
    std::string why = sf_strerror(f);
    int closed = sf_close(f);
    if (put != buf.frames || closed != 0) {
        unlink(tmp.c_str());
        error = path + ": writing failed: " + why;
        return false;
    }
    if (std::rename(tmp.c_str(), path.c_str()) != 0) {
        error = path + ": cannot write: " + std::strerror(errno);
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

}  // namespace sorn_tool
