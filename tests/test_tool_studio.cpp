// sorn-hp studio: the request handling as the server and the fuzzer drive it, and the studio
// command as a user starts it.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/tool_test_support.h"
#include "tools/files/builtin_tuning.h"
#include "tools/studio/studio.h"

namespace {

namespace fs = std::filesystem;
using namespace sorn_tool;
using nlohmann::json;

constexpr int kPort = 4711;
const std::string kOwn = "127.0.0.1:4711";
const std::string kOrigin = "http://127.0.0.1:4711";

class ToolStudio : public sorn_test::ToolDir {
protected:
    Studio s;

    void SetUp() override {
        ToolDir::SetUp();
        TuningResult start = tuning_from_json(builtin_tuning_json(), "built-in");
        std::string error;
        ASSERT_TRUE(studio_open(s, SORN_LIBRARY_PATH, start, kPort, dir.string(), error)) << error;
    }
    void TearDown() override {
        const std::string priv = s.private_dir;
        studio_close(s);
        EXPECT_FALSE(fs::exists(priv)) << "the private folder outlives the studio";
        ToolDir::TearDown();
    }

public:
    HttpResponse call(const std::string &method, const std::string &path, const std::string &body = "",
                      Fields headers = {{"Host", kOwn}, {"Origin", kOrigin}}, Fields query = {}) {
        HttpRequest r{method, path, std::move(query), std::move(headers), body, ""};
        return studio_handle(s, r);
    }
protected:
    json state() { return json::parse(call("GET", "/api/state").body); }
    std::vector<std::string> private_files() {
        std::vector<std::string> names;
        for (const auto &e : fs::directory_iterator(s.private_dir)) names.push_back(e.path().filename());
        return names;
    }
};

std::string builtin_with(const std::string &group, const json &points) {
    json t = json::parse(builtin_tuning_json());
    t[group]["points"] = points;
    return t.dump();
}

json flat(int n, int gain = 0) {
    json p = json::array();
    for (int i = 0; i < n; ++i) p.push_back({100 * (i + 1), gain});
    return p;
}

// Everything a page on another site, a broken page or a hostile request may send: refused with
// the status and a one-line reason, the tuning, its revision and the private folder unchanged,
// and no CORS header on any answer.
TEST_F(ToolStudio, RefusedRequestsChangeNothing) {
    const json before = state();
    const auto block_before = call("GET", "/api/export/params.bin").body;
    const Fields own_get = {{"Host", kOwn}};
    struct Case {
        const char *what;
        std::string method, path, body;
        Fields headers;
        int status;
    };
    const std::vector<Case> cases = {
        {"foreign Host", "GET", "/api/state", "", {{"Host", "evil.example:4711"}}, 403},
        {"rebound name on our port", "GET", "/", "", {{"Host", "attacker.test:4711"}}, 403},
        {"our name on another port", "GET", "/api/state", "", {{"Host", "127.0.0.1:80"}}, 403},
        {"no Host", "GET", "/api/state", "", {{"Origin", kOrigin}}, 403},
        {"two Hosts", "GET", "/api/state", "", {{"Host", kOwn}, {"host", "evil.example"}}, 403},
        {"change without Origin", "PUT", "/api/tuning", builtin_tuning_json(), own_get, 403},
        {"change from another site", "PUT", "/api/tuning", builtin_tuning_json(),
         {{"Host", kOwn}, {"Origin", "http://evil.example"}}, 403},
        {"Origin of another scheme", "PUT", "/api/tuning", builtin_tuning_json(),
         {{"Host", kOwn}, {"Origin", "https://127.0.0.1:4711"}}, 403},
        {"opaque Origin", "DELETE", "/api/jobs/1", "", {{"Host", kOwn}, {"Origin", "null"}}, 403},
        {"correction over 1 MiB", "POST", "/api/import", std::string((1 << 20) + 1, '#'), {}, 413},
        {"tuning over 1 MiB", "PUT", "/api/tuning", std::string((1 << 20) + 1, ' '), {}, 413},
        {"not JSON", "PUT", "/api/tuning", "{\"lc\": ", {}, 400},
        {"not an object", "PUT", "/api/tuning", "[1, 2]", {}, 400},
        {"wrong type", "PUT", "/api/tuning", R"({"surround": "yes"})", {}, 400},
        {"unknown key", "PUT", "/api/tuning", R"({"lc": {"enabled": true, "gain": 3}})", {}, 400},
        {"non-finite gain", "PUT", "/api/tuning", R"({"ea": {"enabled": true, "points": [[100, 1e999]]}})", {}, 400},
        {"fractional gain", "PUT", "/api/tuning", builtin_with("ea", {{100, 0.5}}), {}, 400},
        {"below 10 Hz", "PUT", "/api/tuning", builtin_with("lc", {{5, 0}, {100, 1}}), {}, 400},
        {"above Nyquist", "PUT", "/api/tuning", builtin_with("hp", {{100, 0}, {23000, 1}}), {}, 400},
        {"gain beyond the design", "PUT", "/api/tuning", builtin_with("hp", {{100, 61}}), {}, 400},
        {"too many points", "PUT", "/api/tuning", builtin_with("ea", flat(9)), {}, 400},
        {"unordered points", "PUT", "/api/tuning", builtin_with("lc", {{200, 0}, {100, 0}}), {}, 400},
        {"endless target", "PUT", "/api/tuning",
         R"({"target": {"points": [[100, 1e30]]}, "surround": false})", {}, 400},
        {"render of no entry", "POST", "/api/render", R"({"entry": "../../etc/passwd"})", {}, 400},
        {"upload that is no audio", "POST", "/api/audio", "RIFF but not really", {}, 400},
        {"a path outside the list", "GET", "/../CMakeLists.txt", "", own_get, 404},
        {"a file by name", "GET", "/etc/passwd", "", own_get, 404},
        {"a rendering by path", "GET", "/api/renders/../../x/processed.wav", "", own_get, 404},
        {"an unknown job", "GET", "/api/jobs/99", "", own_get, 404},
        {"a page changed", "PUT", "/app.js", "alert(1)", {}, 405},
    };
    const auto files_before = private_files();
    for (const Case &c : cases) {
        Fields headers = c.headers;
        if (headers.empty()) headers = {{"Host", kOwn}, {"Origin", kOrigin}};
        const HttpResponse r = call(c.method, c.path, c.body, headers);
        EXPECT_EQ(c.status, r.status) << c.what << ": " << r.body.substr(0, 300);
        const json reply = json::parse(r.body, nullptr, false);
        ASSERT_TRUE(reply.is_object() && reply.contains("error") && reply["error"].is_string()) << c.what;
        const std::string reason = reply["error"];
        EXPECT_TRUE(!reason.empty() && reason.find('\n') == std::string::npos) << c.what << ": " << reason;
        for (const auto &h : r.headers) EXPECT_NE(0u, h.first.rfind("Access-Control", 0)) << c.what;
        EXPECT_EQ(files_before, private_files()) << c.what << " left a file behind";
    }
    // An upload the server streamed to a file beyond the limit is refused and its file removed.
    const std::string incoming = s.private_dir + "/incoming-1";
    std::ofstream(incoming).close();
    fs::resize_file(incoming, kAudioLimit + 1);
    HttpRequest upload{"POST", "/api/audio", {}, {{"Host", kOwn}, {"Origin", kOrigin}}, "", incoming};
    EXPECT_EQ(413, studio_handle(s, upload).status);
    EXPECT_EQ(files_before, private_files());
    EXPECT_EQ(before, state());
    EXPECT_EQ(block_before, call("GET", "/api/export/params.bin").body);
}

// The studio answers to each of its loopback names; each accepted edit is designed and counted,
// and what the page reads back is the tuning it sent, designed by the library.
TEST_F(ToolStudio, EditsFromEachLoopbackNameAreDesigned) {
    const int64_t first = state()["revision"];
    int n = 0;
    for (const std::string host : {"127.0.0.1", "localhost", "[::1]", "LOCALHOST"}) {
        json t = json::parse(builtin_tuning_json());
        t["hp"]["points"][3] = {1000, 5 - n};
        const HttpResponse r = call("PUT", "/api/tuning", t.dump(),
                                    {{"Host", host + ":4711"}, {"Origin", "http://" + host + ":4711"}});
        ASSERT_EQ(200, r.status) << host << ": " << r.body;
        const json st = json::parse(r.body);
        EXPECT_EQ(first + ++n, st["revision"]);
        EXPECT_EQ(t["hp"]["points"], st["tuning"]["hp"]["points"]);
        EXPECT_EQ(0u, st["summary"].get<std::string>().rfind("sorn-hp design: the studio's tuning at 48000 Hz", 0));
        const auto &freq = st["curve"]["freq"];
        ASSERT_EQ(freq.size(), st["curve"]["achieved"].size());
        // Near 1 kHz the achieved response follows the point that moved.
        size_t k = 0;
        while (freq[k].get<double>() < 1000.0) ++k;
        EXPECT_NEAR(st["curve"]["requested"][k].get<double>(), st["curve"]["achieved"][k].get<double>(), 1.0);
    }
}

// What the studio exports is what the command line makes of the same tuning: tuning.json loads
// back into `params`, which writes the very bytes of params.bin.
TEST_F(ToolStudio, ExportsMatchTheCommandLine) {
    json t = json::parse(builtin_tuning_json());
    t["lc"]["enabled"] = false;
    t["ea"]["points"] = {{900, -3}, {2100, 2}, {4000, 4}};  // resampled to the table's 8, as files are
    ASSERT_EQ(200, call("PUT", "/api/tuning", t.dump()).status);
    EXPECT_EQ(3u, state()["tuning"]["ea"]["points"].size()) << "the page's table as it sent it";
    const HttpResponse tuning = call("GET", "/api/export/tuning.json");
    const HttpResponse block = call("GET", "/api/export/params.bin");
    ASSERT_EQ(200, tuning.status);
    ASSERT_EQ(292u, block.body.size());
    std::ofstream(at("t.json"), std::ios::binary) << tuning.body;
    const auto r = tool({"params", "t.json", "-o", "p.bin"});
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_EQ(sorn_test::slurp(at("p.bin")), block.body);
}

// Waits for a job to end and returns its record.
json finish(ToolStudio &t, const std::string &id);

// A rendering is the very file `run` writes for the same tuning, options and file, and its
// original lines up with it; an import gives the tuning `import` writes for the same file. A
// job cancelled right away ends cancelled and leaves no file behind.
TEST_F(ToolStudio, JobsGiveWhatTheCommandsWrite) {
    write_signal("song.wav", 48000, 1, 0.5);
    json t = json::parse(builtin_tuning_json());
    t["surround"] = false;
    ASSERT_EQ(200, call("PUT", "/api/tuning", t.dump()).status);
    std::ofstream(at("t.json"), std::ios::binary) << t.dump();

    const std::string correction = SORN_HP_CORRECTIONS "/Sennheiser HD 650 ParametricEQ.txt";
    const HttpResponse import = call("POST", "/api/import", sorn_test::slurp(correction), {{"Host", kOwn}, {"Origin", kOrigin}},
                                     {{"name", "hd650.txt"}});
    ASSERT_EQ(200, import.status) << import.body;
    const HttpResponse render = call("POST", "/api/render", R"({"entry": "song.wav", "device": "usb-headset", "format": "16"})");
    ASSERT_EQ(200, render.status) << render.body;

    const json rendered = finish(*this, json::parse(render.body)["job"]);
    ASSERT_EQ("done", rendered["state"]) << rendered.dump();
    const auto r = tool({"run", "song.wav", "cli.wav", "--tuning", "t.json", "--device", "usb-headset", "--format", "16"});
    ASSERT_EQ(0, r.code) << r.err;
    const HttpResponse processed = call("GET", rendered["result"]["processed"], "", {{"Host", kOwn}});
    const HttpResponse original = call("GET", rendered["result"]["original"], "", {{"Host", kOwn}});
    ASSERT_EQ(200, processed.status);
    EXPECT_EQ(sorn_test::slurp(at("cli.wav")), sorn_test::slurp(processed.file));
    sorn_tool::AudioBuffer in, orig;
    std::string error;
    ASSERT_TRUE(audio_read(at("song.wav"), SampleFormat::s16, in, error) &&
                audio_read(original.file, SampleFormat::s16, orig, error)) << error;
    ASSERT_EQ(in.frames, orig.frames);
    for (int64_t k = 0; k < in.frames; k += 997) EXPECT_EQ(in.s16[k], orig.s16[2 * k + 1]) << k;

    const json imported = finish(*this, json::parse(import.body)["job"]);
    ASSERT_EQ("done", imported["state"]) << imported.dump();
    std::ofstream(at("hd650.txt"), std::ios::binary) << sorn_test::slurp(correction);
    const auto i = tool({"import", "hd650.txt", "-o", "cli.json"});
    ASSERT_EQ(0, i.code) << i.err;
    EXPECT_EQ(json::parse(sorn_test::slurp(at("cli.json"))), imported["result"]["tuning"]);
    const std::string report = imported["result"]["report"];
    const std::string figures = i.out.substr(i.out.find("  level offset"));
    EXPECT_NE(std::string::npos, report.find(figures)) << report << "\nvs\n" << i.out;

    size_t files = private_files().size();
    for (const char *path : {"/api/import", "/api/render"}) {
        const HttpResponse started = path[5] == 'i' ? call("POST", path, sorn_test::slurp(correction))
                                                    : call("POST", path, R"({"entry": "song.wav"})");
        ASSERT_EQ(200, started.status) << started.body;
        const std::string id = json::parse(started.body)["job"];
        EXPECT_EQ(200, call("DELETE", "/api/jobs/" + id).status);
        const json job = finish(*this, id);
        EXPECT_TRUE(job["state"] == "cancelled" || job["state"] == "done") << job.dump();
        if (path[5] == 'r' && job["state"] == "done") files += 2;  // it ended before the cancel
        EXPECT_EQ(files, private_files().size()) << path << " left files behind";
    }
}

json finish(ToolStudio &t, const std::string &id) {
    // Generous: under valgrind a fit takes minutes.
    for (int i = 0; i < 30000; ++i) {
        const json job = json::parse(t.call("GET", "/api/jobs/" + id, "", {{"Host", kOwn}}).body);
        if (job.value("state", "") != "running") return job;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return {{"state", "still running after 10 minutes"}};
}

// The status line of a request sent to the studio's socket.
std::string status_line(int port, const std::string &host) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) return close(fd), "no connection";
    const std::string req = "GET /api/state HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n\r\n";
    if (write(fd, req.data(), req.size()) < 0) return close(fd), "no request";
    char buf[64] = {};
    const ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    const std::string got(buf, n > 0 ? size_t(n) : 0);
    return got.substr(0, got.find('\r'));
}

// The command: a busy port is one line and exit 2; on a free port it serves the address it
// prints, refuses a foreign Host there too, and a Ctrl-C ends it with its private folder removed.
TEST_F(ToolStudio, CommandServesItsAddressAndStopsClean) {
    // The port is held as a server that allows sharing would hold it.
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const int yes = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &yes, sizeof yes);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a));
    ASSERT_EQ(0, listen(fd, 1));
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    // A studio that shared the port would serve on: `timeout` ends it, and the check fails.
    std::string run = "cd '" + dir.string() + "' && timeout 20";
#ifdef SORN_HP_TOOL_EMULATOR
    run += " '" SORN_HP_TOOL_EMULATOR "'";
#endif
    run += " '" SORN_HP_TOOL "' studio --port " + std::to_string(ntohs(a.sin_port)) + " >.stdout 2>.stderr";
    const int code = std::system(run.c_str());
    const sorn_test::ToolResult busy{WIFEXITED(code) ? WEXITSTATUS(code) : -1, "", sorn_test::slurp(at(".stderr"))};
    close(fd);
    EXPECT_EQ(2, busy.code);
    EXPECT_EQ(1, std::count(busy.err.begin(), busy.err.end(), '\n')) << busy.err;
    EXPECT_NE(std::string::npos, busy.err.find("is busy")) << busy.err;

    fs::create_directory(at("tmp"));
    std::string cmd = "echo $$; cd '" + dir.string() + "' && TMPDIR='" + at("tmp").string() + "' exec";
#ifdef SORN_HP_TOOL_EMULATOR
    cmd += " '" SORN_HP_TOOL_EMULATOR "'";
#endif
    cmd += " '" SORN_HP_TOOL "' studio --port 0 2>/dev/null";
    FILE *p = popen(cmd.c_str(), "r");
    ASSERT_NE(nullptr, p);
    char pid[32] = {}, url[64] = {};
    ASSERT_TRUE(std::fgets(pid, sizeof pid, p) && std::fgets(url, sizeof url, p));
    const std::string address = url;
    const int port = std::atoi(address.c_str() + std::strlen("http://127.0.0.1:"));
    EXPECT_EQ(0u, address.rfind("http://127.0.0.1:", 0)) << address;
    EXPECT_EQ(1u, std::distance(fs::directory_iterator(at("tmp")), fs::directory_iterator()));
    EXPECT_EQ("HTTP/1.1 200 OK", status_line(port, "127.0.0.1:" + std::to_string(port)));
    EXPECT_EQ("HTTP/1.1 403 Forbidden", status_line(port, "attacker.test:" + std::to_string(port)));
    kill(std::atoi(pid), SIGINT);
    const int status = pclose(p);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(fs::is_empty(at("tmp"))) << "the private folder outlives the studio";
}

}  // namespace
