#include "tools/cli/cli_common.h"

#include <sys/stat.h>
#include <unistd.h>

#include <android/log.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "tools/files/builtin_tuning.h"

namespace sorn_tool::cli {

GlobalOptions g_opt;

void usage_error(const std::string &m) { throw Exit{kUsage, m}; }
void failure(const std::string &m) { throw Exit{kFailed, m}; }

void note(const std::string &m) {
    if (!g_opt.quiet) std::fprintf(stderr, "sorn-hp: note: %s\n", m.c_str());
}
void warn(const std::string &m) {
    if (!g_opt.quiet) std::fprintf(stderr, "sorn-hp: WARNING: %s\n", m.c_str());
}
void say(const std::string &m) {
    if (!g_opt.quiet) std::fputs(m.c_str(), stdout);
}

/* ---- files --------------------------------------------------------------------------------- */

namespace {

bool same_file(const std::string &a, const std::string &b) {
    struct stat sa{}, sb{};
    if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return a == b;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

bool exists(const std::string &p) {
    struct stat st{};
    return stat(p.c_str(), &st) == 0;
}

}  // namespace

void check_outputs(const std::vector<std::string> &outputs, const std::vector<std::string> &inputs) {
    for (size_t i = 0; i < outputs.size(); ++i) {
        for (const std::string &in : inputs)
            if (same_file(outputs[i], in))
                usage_error(outputs[i] + " is also an input; choose another output name");
        for (size_t j = 0; j < i; ++j)
            if (outputs[i] == outputs[j]) usage_error(outputs[i] + " is named for two outputs");
        if (exists(outputs[i]) && !g_opt.yes) usage_error(outputs[i] + " exists; add -y to overwrite it");
    }
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) failure(path + ": cannot read: " + std::strerror(errno));
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_file(const std::string &path, const void *data, size_t size) {
    std::string tmp = path + ".partial";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out.write(static_cast<const char *>(data), static_cast<std::streamsize>(size));
        out.close();
        if (!out) {
            std::remove(tmp.c_str());
            failure(path + ": cannot write: " + std::strerror(errno));
        }
    }
    if (std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        failure(path + ": cannot write: " + std::strerror(errno));
    }
}

void make_dir(const std::string &dir) {
    std::string partial;
    std::stringstream parts(dir);
    std::string part;
    if (!dir.empty() && dir[0] == '/') partial = "/";
    while (std::getline(parts, part, '/')) {
        if (part.empty()) continue;
        partial += part + "/";
        if (mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST)
            failure(dir + ": cannot make the folder: " + std::strerror(errno));
    }
}

/* ---- tunings and blocks -------------------------------------------------------------------- */

TuningResult load_tuning_file(const std::string &path) {
    TuningResult t = tuning_load(path);
    if (!t.ok) failure(t.error);
    for (const std::string &n : t.notes) note(n);
    return t;
}

sorn_hp_params_t load_tuning(const std::string &path) { return load_tuning_file(path).params; }

sorn_hp_params_t builtin_params() {
    TuningResult t = tuning_from_json(builtin_tuning_json(), "built-in tuning");
    if (!t.ok) failure(t.error);  // a broken build; the tests guard against it
    return t.params;
}

sorn_hp_params_t load_block(const std::string &path) {
    sorn_hp_params_t p{};
    std::vector<std::string> notes;
    std::string error;
    if (!params_block_read(read_file(path), path, p, notes, error)) failure(error);
    for (const std::string &n : notes) note(n);
    return p;
}

/* ---- library and log ------------------------------------------------------------------------ */

void open_library(LoadedLibrary &l) {
    std::string error;
    if (!effect_library_open(resolve_library_path(g_opt.lib), l.lib, error)) failure(error);
}

void set_log_level() { __android_log_set_minimum_priority(g_opt.verbose ? ANDROID_LOG_DEBUG : ANDROID_LOG_SILENT); }

/* ---- progress ---------------------------------------------------------------------------- */

namespace {

std::string clock_time(double seconds) {
    const long t = std::lround(seconds);
    return t >= 3600 ? fmt("%ld:%02ld:%02ld", t / 3600, t / 60 % 60, t % 60) : fmt("%ld:%02ld", t / 60, t % 60);
}

}  // namespace

/* A bar with the time spent and, once it can be estimated, the time left; redrawn at most ten
   times a second. */
std::function<void(double)> progress_bar(const std::string &label) {
    if (g_opt.quiet || !isatty(STDERR_FILENO)) return {};
    const auto start = std::chrono::steady_clock::now();
    return [label, start, drawn = start - std::chrono::seconds(1)](double done) mutable {
        const auto now = std::chrono::steady_clock::now();
        if (done < 1.0 && now - drawn < std::chrono::milliseconds(100)) return;
        drawn = now;
        const int width = 40;
        int fill = static_cast<int>(done * width + 0.5);
        const double spent = std::chrono::duration<double>(now - start).count();
        std::string times = "  " + clock_time(spent) + " elapsed";
        if (done >= 0.01 && done < 1.0) times += ", " + clock_time(spent * (1.0 - done) / done) + " left   ";
        const std::string line = fmt("%s [%s%s] %3d%%%s", label.c_str(), std::string(fill, '#').c_str(),
                                     std::string(width - fill, ' ').c_str(), static_cast<int>(done * 100 + 0.5),
                                     times.c_str());
        std::fprintf(stderr, "\r%s", line.c_str());
        if (done >= 1.0) std::fprintf(stderr, "\r%*s\r", static_cast<int>(line.size()) + 16, "");
        std::fflush(stderr);
    };
}

}  // namespace sorn_tool::cli
