#include "tools/plot/response_plot.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

extern char **environ;

namespace sorn_tool {

namespace {

std::string lower_extension(const std::string &path) {
    auto slash = path.find_last_of('/');
    auto dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    std::string e = path.substr(dot + 1);
    for (char &c : e) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return e;
}

std::string stem(const std::string &path) {
    auto slash = path.find_last_of('/');
    auto dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return path;
    return path.substr(0, dot);
}

std::string absolute(const std::string &path) {
    if (!path.empty() && path[0] == '/') return path;
    char cwd[4096];
    return getcwd(cwd, sizeof cwd) ? std::string(cwd) + "/" + path : path;
}

/* Quoted for a gnuplot string. */
std::string gp_quote(const std::string &s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("''") : std::string(1, c);
    return out + "'";
}

std::string number(double v) {
    if (!std::isfinite(v)) return "NaN";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.4f", v);
    return buf;
}

bool write_text(const std::string &path, const std::string &text, std::string &error) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        error = path + ": cannot write: " + std::strerror(errno);
        std::remove(path.c_str());
        return false;
    }
    return true;
}

std::string data_text(const DesignView &v) {
    std::ostringstream o;
    o << "# frequency_hz requested_db achieved_db lc_db hp_db ea_db target_db\n";
    for (size_t i = 0; i < v.freq_hz.size(); ++i) {
        o << number(v.freq_hz[i]) << ' ' << number(v.requested_db[i]) << ' ' << number(v.achieved_db[i]);
        for (const auto &g : v.group_db) o << ' ' << (g.empty() ? "NaN" : number(g[i]));
        o << ' ' << (v.target_db.empty() ? "NaN" : number(v.target_db[i]));
        o << '\n';
    }
    return o.str();
}

std::string script_text(const DesignView &v, const std::string &data, const std::string &out,
                        const std::string &title) {
    const bool svg = lower_extension(out) == "svg";
    std::ostringstream o;
    o << (svg ? "set terminal svg size 1100,620 dynamic font 'Sans,12'\n"
              : "set terminal pngcairo size 1100,620 font 'Sans,11'\n");
    o << "set output " << gp_quote(out) << "\n"
      << "set title " << gp_quote(title) << " noenhanced\n"
      << "set logscale x\nset xrange [10:" << v.rate / 2 << "]\nset yrange [-12:12]\n"
      << "set xlabel 'Frequency (Hz)'\nset ylabel 'Gain (dB)'\n"
      << "set grid xtics mxtics ytics\nset key bottom left box opaque\n"
      << "set xtics ('20' 20, '50' 50, '100' 100, '200' 200, '500' 500, '1k' 1000, '2k' 2000, "
         "'5k' 5000, '10k' 10000, '20k' 20000)\n";
    const double resolution = double(v.rate) / 513.0; /* the filter has 513 taps */
    for (double x : {resolution, 0.42 * v.rate})
        o << "set arrow from " << number(x) << ",-12 to " << number(x)
          << ",12 nohead dashtype 2 linewidth 1.5 linecolor rgb '#999999'\n";
    o << "set label 'fs/513: finest detail' at " << number(resolution * 1.06)
      << ",11 textcolor rgb '#666666'\n"
      << "set label 'low-pass' at " << number(0.42 * v.rate * 0.72) << ",11 textcolor rgb '#666666'\n";
    o << "plot " << gp_quote(data);
    if (!v.target_db.empty())
        o << " using 1:7 with lines linewidth 5 linecolor rgb '#bbbbbb' title 'target (the imported correction, level moved)', \\\n     ''";
    o << " using 1:2 with lines linewidth 3 linecolor rgb '#1f77b4' title 'requested (sum, limited to -6..+7 dB)', \\\n"
      << "     '' using 1:3 with lines linewidth 2 linecolor rgb '#d62728' title 'achieved by the 513 taps'";
    static const char *const kNames[] = {"lc", "hp", "ea"};
    static const char *const kColors[] = {"#2ca02c", "#9467bd", "#ff7f0e"};
    for (int g = 0; g < 3; ++g)
        if (!v.group_db[g].empty())
            o << ", \\\n     '' using 1:" << 4 + g << " with lines dashtype 2 linecolor rgb '" << kColors[g]
              << "' title '" << kNames[g] << " group'";
    o << "\n";
    return o.str();
}

/* Runs `program script` with its output into `log`; returns the exit status or -1. */
int run_program(const std::string &program, const std::string &script, const std::string &log) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::string p = program, s = script;
    char *argv[] = {p.data(), s.data(), nullptr};
    pid_t pid = 0;
    int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

std::string find_gnuplot() {
    const char *path = std::getenv("PATH");
    if (!path) return {};
    std::stringstream dirs(path);
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (dir.empty()) continue;
        std::string candidate = dir + "/gnuplot";
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return {};
}

bool plot_name_supported(const std::string &path) {
    std::string e = lower_extension(path);
    return e == "png" || e == "svg";
}

bool plot_response(const DesignView &view, const std::string &out_path, const std::string &title,
                   const std::string &gnuplot, PlotResult &result, std::string &error) {
    result = PlotResult{};
    if (!plot_name_supported(out_path)) {
        error = out_path + ": a plot must be named .png or .svg";
        return false;
    }
    const std::string out = absolute(out_path);
    if (gnuplot.empty()) {
        const std::string base = stem(out);
        const std::string data = base + ".dat", script = base + ".gp";
        if (!write_text(data, data_text(view), error)) return false;
        if (!write_text(script, script_text(view, data, out, title), error)) {
            std::remove(data.c_str());
            return false;
        }
        result.message = "gnuplot is not installed, so no picture was drawn; wrote " + data + " and " +
                         script + ". Render it with: gnuplot " + script +
                         " (Debian: apt-get install gnuplot-nox)";
        return true;
    }
    char dir_template[] = "/tmp/sorn-hp-plot-XXXXXX";
    if (!mkdtemp(dir_template)) {
        error = std::string("cannot make a temporary folder: ") + std::strerror(errno);
        return false;
    }
    const std::string dir = dir_template;
    const std::string data = dir + "/response.dat", script = dir + "/response.gp", log = dir + "/gnuplot.log";
    bool ok = write_text(data, data_text(view), error) &&
              write_text(script, script_text(view, data, out, title), error);
    if (ok) {
        int rc = run_program(gnuplot, script, log);
        struct stat st{};
        if (rc != 0 || stat(out.c_str(), &st) != 0 || st.st_size == 0) {
            std::ifstream in(log);
            std::string said((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            error = out_path + ": gnuplot (" + gnuplot + ") failed" + (said.empty() ? "" : ": " + said);
            std::remove(out.c_str());
            ok = false;
        }
    }
    for (const std::string &f : {data, script, log}) std::remove(f.c_str());
    rmdir(dir.c_str());
    if (!ok) return false;
    result.rendered = true;
    result.message = "wrote " + out_path;
    return true;
}

bool write_response_csv(const DesignView &view, const std::string &path, std::string &error) {
    std::ostringstream o;
    const bool target = !view.target_db.empty();
    o << "frequency_hz,requested_db,achieved_db,lc_db,hp_db,ea_db" << (target ? ",target_db\n" : "\n");
    for (size_t i = 0; i < view.freq_hz.size(); ++i) {
        o << number(view.freq_hz[i]) << ',' << number(view.requested_db[i]) << ','
          << number(view.achieved_db[i]);
        for (const auto &g : view.group_db) o << ',' << (g.empty() ? "" : number(g[i]));
        if (target) o << ',' << number(view.target_db[i]);
        o << '\n';
    }
    return write_text(path, o.str(), error);
}

bool write_taps(const DesignView &view, const std::string &path, std::string &error) {
    std::ostringstream o;
    o << "# " << view.taps.size() << " minimum-phase FIR taps, Q23 (8388608 = 1.0), at " << view.rate
      << " Hz; tap 0 first\n";
    for (int32_t t : view.taps) o << t << '\n';
    return write_text(path, o.str(), error);
}

}  // namespace sorn_tool
