// sorn-hp studio: the request handling as the server and the fuzzer drive it, and the studio
// command as a user starts it.
#include <filesystem>
#include <fstream>
#include <string>
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

    HttpResponse call(const std::string &method, const std::string &path, const std::string &body = "",
                      Fields headers = {{"Host", kOwn}, {"Origin", kOrigin}}, Fields query = {}) {
        HttpRequest r{method, path, std::move(query), std::move(headers), body, ""};
        return studio_handle(s, r);
    }
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
    const HttpResponse tuning = call("GET", "/api/export/tuning.json");
    const HttpResponse block = call("GET", "/api/export/params.bin");
    ASSERT_EQ(200, tuning.status);
    ASSERT_EQ(292u, block.body.size());
    std::ofstream(at("t.json"), std::ios::binary) << tuning.body;
    const auto r = tool({"params", "t.json", "-o", "p.bin"});
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_EQ(sorn_test::slurp(at("p.bin")), block.body);
}

}  // namespace
