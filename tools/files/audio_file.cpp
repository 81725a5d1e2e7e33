#include "tools/files/audio_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

#include <sndfile.h>

namespace sorn_tool {

namespace {

// The temporary file being written, for the interrupt handler. A handler may call only
// async-signal-safe functions, so the name sits in a fixed buffer and the handler just unlinks
// it and re-raises the signal with its default action.
char g_partial[4096];
volatile sig_atomic_t g_has_partial = 0;

void remove_partial_and_reraise(int sig) {
    if (g_has_partial) unlink(g_partial);
    signal(sig, SIG_DFL);
    raise(sig);
}

void track_partial(const std::string &tmp) {
    static const bool installed = [] {
        struct sigaction sa {};
        sa.sa_handler = remove_partial_and_reraise;
        sigemptyset(&sa.sa_mask);
        for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
        return true;
    }();
    (void)installed;
    g_has_partial = 0;
    if (tmp.size() >= sizeof g_partial) return;
    std::memcpy(g_partial, tmp.c_str(), tmp.size() + 1);
    g_has_partial = 1;
}

void untrack_partial() { g_has_partial = 0; }

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

/* libsndfile reads a file cut short without complaint: it only notes in its header log that a
   chunk declares more than the file holds ("data : 46080000 (should be 3999942)"). The lines of
   the audio data (WAV "data", AIFF "SSND", AU "Data Size", W64 "riff", RF64 "Riff size") are
   checked; 0xFFFFFFFF is what a writer that streams leaves when it cannot know the length. */
std::string declared_shortfall(SNDFILE *f) {
    std::string log(16384, '\0');
    sf_command(f, SFC_GET_LOG_INFO, log.data(), static_cast<int>(log.size()));
    std::istringstream lines(log.c_str());
    for (std::string line; std::getline(lines, line);) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string name = line.substr(0, colon);
        name.erase(0, name.find_first_not_of(' '));
        name.erase(name.find_last_not_of(' ') + 1);
        if (name != "data" && name != "SSND" && name != "Data Size" && name != "riff" && name != "Riff size")
            continue;
        unsigned long long declared = 0, held = 0;
        if (std::sscanf(line.c_str() + colon + 1, " %llu (should be %llu)", &declared, &held) == 2 &&
            declared > held && declared != 0xFFFFFFFFull)
            return "its header declares " + std::to_string(declared) + " bytes where the file holds " +
                   std::to_string(held);
    }
    return {};
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

bool parse_sample_format(const std::string &name, SampleFormat &f) {
    if (name == "float") f = SampleFormat::f32;
    else if (name == "16") f = SampleFormat::s16;
    else if (name == "32") f = SampleFormat::s32;
    else return false;
    return true;
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

double sample_value(const void *data, SampleFormat format, size_t i) {
    switch (format) {
    case SampleFormat::f32: return static_cast<const float *>(data)[i];
    case SampleFormat::s16: return static_cast<const int16_t *>(data)[i] / 32768.0;
    case SampleFormat::s32: return static_cast<const int32_t *>(data)[i] / 2147483648.0;
    }
    return 0.0;
}

bool sample_at_full_scale(const void *data, SampleFormat format, size_t i) {
    switch (format) {
    case SampleFormat::f32: return std::fabs(static_cast<const float *>(data)[i]) >= 1.0f;
    case SampleFormat::s16: {
        const int16_t v = static_cast<const int16_t *>(data)[i];
        return v == INT16_MAX || v == INT16_MIN;
    }
    case SampleFormat::s32: {
        const int32_t v = static_cast<const int32_t *>(data)[i];
        return v == INT32_MAX || v == INT32_MIN;
    }
    }
    return false;
}

double audio_sample(const AudioBuffer &buf, size_t i) { return sample_value(audio_data(buf), buf.format, i); }

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

AudioReader::~AudioReader() {
    if (sf) sf_close(static_cast<SNDFILE *>(sf));
}

bool audio_reader_open(AudioReader &r, const std::string &path, SampleFormat format, std::string &error) {
    SF_INFO info{};
    SNDFILE *f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) {
        error = path + ": cannot read audio: " + sf_strerror(nullptr);
        return false;
    }
    r.sf = f;
    r.path = path;
    r.rate = info.samplerate;
    r.channels = info.channels;
    r.frames = info.frames == SF_COUNT_MAX ? -1 : info.frames;
    r.done = 0;
    r.format = format;
    if (info.channels < 1 || info.frames < 0) {
        error = path + ": the file reports no channels";
        return false;
    }
    const std::string cut = declared_shortfall(f);
    if (!cut.empty()) {
        error = path + ": cannot read to its end: " + cut;
        return false;
    }
    // Float files read as integers are scaled to full scale (libsndfile would truncate them
    // to tiny values otherwise); values beyond +-1 are clipped rather than wrapped.
    sf_command(f, SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
    sf_command(f, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    return true;
}

int64_t audio_reader_read(AudioReader &r, void *dst, int64_t frames, std::string &error) {
    auto *f = static_cast<SNDFILE *>(r.sf);
    sf_count_t got = 0;
    switch (r.format) {
    case SampleFormat::f32: got = sf_readf_float(f, static_cast<float *>(dst), frames); break;
    case SampleFormat::s16: got = sf_readf_short(f, static_cast<int16_t *>(dst), frames); break;
    case SampleFormat::s32: got = sf_readf_int(f, static_cast<int32_t *>(dst), frames); break;
    }
    r.done += got;
    if (got == frames) return got;
    if (sf_error(f) != SF_ERR_NO_ERROR) {
        error = r.path + ": cannot read to its end: " + sf_strerror(f) + " (after " + std::to_string(r.done) +
                " frames)";
        return -1;
    }
    if (r.frames >= 0 && r.done < r.frames) {
        error = r.path + ": cannot read to its end: it holds " + std::to_string(r.done) + " of its " +
                std::to_string(r.frames) + " frames";
        return -1;
    }
    return got;
}

bool audio_read(const std::string &path, SampleFormat format, AudioBuffer &out, std::string &error) {
    AudioReader r;
    if (!audio_reader_open(r, path, format, error)) return false;
    const int64_t piece = 65536;
    audio_allocate(out, r.rate, r.channels, 0, format);
    for (int64_t got = piece; got > 0;) {
        const size_t at = static_cast<size_t>(out.frames) * static_cast<size_t>(r.channels);
        const size_t room = at + static_cast<size_t>(piece) * static_cast<size_t>(r.channels);
        out.f32.resize(format == SampleFormat::f32 ? room : 0);
        out.s16.resize(format == SampleFormat::s16 ? room : 0);
        out.s32.resize(format == SampleFormat::s32 ? room : 0);
        got = audio_reader_read(r, static_cast<uint8_t *>(audio_data(out)) + at * audio_sample_bytes(format), piece,
                                error);
        if (got < 0) return false;
        out.frames += got;
    }
    const size_t n = static_cast<size_t>(out.frames) * static_cast<size_t>(r.channels);
    out.f32.resize(format == SampleFormat::f32 ? n : 0);
    out.s16.resize(format == SampleFormat::s16 ? n : 0);
    out.s32.resize(format == SampleFormat::s32 ? n : 0);
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

AudioWriter::~AudioWriter() {
    if (sf) sf_close(static_cast<SNDFILE *>(sf));
    if (!tmp.empty()) {
        untrack_partial();
        unlink(tmp.c_str());
    }
}

bool audio_writer_open(AudioWriter &w, const std::string &path, int rate, int channels, SampleFormat format,
                       std::string &error) {
    int sf_format = 0;
    std::string note;
    if (!audio_output_format(path, format, sf_format, note, error)) return false;
    auto slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string tmp = dir + "/." + base + ".partial-XXXXXX";
    int fd = mkstemp(tmp.data());
    if (fd < 0) {
        error = path + ": cannot write: " + std::strerror(errno);
        return false;
    }
    w.path = path;
    w.tmp = tmp;
    track_partial(tmp);
    w.channels = channels;
    w.format = format;
    mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);

    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = sf_format;
    SNDFILE *f = sf_open_fd(fd, SFM_WRITE, &info, SF_TRUE);
    if (!f) {
        close(fd);
        error = path + ": cannot write audio: " + sf_strerror(nullptr);
        return false;
    }
    w.sf = f;
    sf_command(f, SFC_SET_SCALE_INT_FLOAT_WRITE, nullptr, SF_TRUE);
    sf_command(f, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    return true;
}

bool audio_writer_write(AudioWriter &w, const void *data, int64_t frames, std::string &error) {
    auto *f = static_cast<SNDFILE *>(w.sf);
    sf_count_t put = 0;
    switch (w.format) {
    case SampleFormat::f32: put = sf_writef_float(f, static_cast<const float *>(data), frames); break;
    case SampleFormat::s16: put = sf_writef_short(f, static_cast<const int16_t *>(data), frames); break;
    case SampleFormat::s32: put = sf_writef_int(f, static_cast<const int32_t *>(data), frames); break;
    }
    if (put == frames) return true;
    error = w.path + ": writing failed: " + sf_strerror(f);
    return false;
}

bool audio_writer_commit(AudioWriter &w, std::string &error) {
    auto *f = static_cast<SNDFILE *>(w.sf);
    std::string why = sf_strerror(f);
    w.sf = nullptr;
    if (sf_close(f) != 0) {
        error = w.path + ": writing failed: " + why;
        return false;
    }
    if (std::rename(w.tmp.c_str(), w.path.c_str()) != 0) {
        error = w.path + ": cannot write: " + std::strerror(errno);
        return false;
    }
    untrack_partial();
    w.tmp.clear();
    return true;
}

bool audio_write(const std::string &path, const AudioBuffer &buf, std::string &error) {
    AudioWriter w;
    return audio_writer_open(w, path, buf.rate, buf.channels, buf.format, error) &&
           audio_writer_write(w, audio_data(buf), buf.frames, error) && audio_writer_commit(w, error);
}

}  // namespace sorn_tool
