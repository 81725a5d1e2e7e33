// The studio's request handling, driven without a socket: any method, path, query, headers and
// body reach studio_handle on a studio with the library linked into this program.
//
// Input: a request as text, HTTP-like so that seeds stay readable: the first line
// "METHOD PATH[?name=value&...]", then "Name: value" header lines, an empty line, and the body
// (the rest, bytes as they are). Lines end in "\n". Anything missing is empty.
//
// Checked: every answer is one of the statuses the studio gives, never 5xx; a refusal (but to
// HEAD, which has no body) is a JSON object whose "error" is one line; no answer carries a CORS header; a request whose Host is not
// the studio's own is refused with 403, and so is a change without the studio's Origin; a
// request that was not accepted leaves the tuning, its revision and the parameter block as they
// were; a file answered is one of the studio's own. Jobs a request started are cancelled and
// waited for before the next input.
#include <strings.h>

#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "fuzz/fuzz_common.h"
#include "tools/files/builtin_tuning.h"
#include "tools/studio/studio.h"
#include "tools/studio/studio_jobs.h"

namespace {

using namespace sorn_tool;

constexpr int kPort = 8765;

Studio &studio() {
    static Studio *s = [] {
        auto *st = new Studio;
        std::string error;
        TuningResult start = tuning_from_json(builtin_tuning_json(), "built-in");
        FUZZ_CHECK(studio_open(*st, "", start, kPort, "", error), "%s", error.c_str());
        FUZZ_CHECK(st->lib.aeli == &AELI, "the studio did not take the library linked in");
        std::atexit([] { studio_close(studio()); });
        return st;
    }();
    return *s;
}

std::string next_line(const std::string &text, size_t &at) {
    const size_t end = text.find('\n', at);
    std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
    at = end == std::string::npos ? text.size() : end + 1;
    return line;
}

HttpRequest parse(const std::string &text) {
    HttpRequest r;
    size_t at = 0;
    const std::string first = next_line(text, at);
    const size_t space = first.find(' ');
    r.method = first.substr(0, space);
    std::string target = space == std::string::npos ? "" : first.substr(space + 1);
    const size_t q = target.find('?');
    r.path = target.substr(0, q);
    if (q != std::string::npos) {
        std::string rest = target.substr(q + 1);
        size_t p = 0;
        while (p <= rest.size()) {
            size_t amp = rest.find('&', p);
            if (amp == std::string::npos) amp = rest.size();
            const std::string field = rest.substr(p, amp - p);
            const size_t eq = field.find('=');
            r.query.push_back({field.substr(0, eq), eq == std::string::npos ? "" : field.substr(eq + 1)});
            p = amp + 1;
        }
    }
    for (std::string line = next_line(text, at); !line.empty(); line = next_line(text, at)) {
        const size_t colon = line.find(": ");
        r.headers.push_back({line.substr(0, colon), colon == std::string::npos ? "" : line.substr(colon + 2)});
    }
    r.body = text.substr(at);
    return r;
}

bool own(const std::string &host) {
    const std::string port = ":" + std::to_string(kPort);
    for (std::string name : {"127.0.0.1", "localhost", "[::1]"}) {
        if (host.size() != name.size() + port.size()) continue;
        std::string lower = host;
        for (char &c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (lower == name + port) return true;
    }
    return false;
}

/* Header names compare whole (a name may hold NUL bytes) and in any case. */
bool is_header(const std::string &got, const std::string &name) {
    return got.size() == name.size() && strncasecmp(got.data(), name.data(), name.size()) == 0;
}

int header_count(const HttpRequest &r, const char *name) {
    int n = 0;
    for (const auto &h : r.headers) n += is_header(h.first, name);
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    studio();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Studio &s = studio();
    const HttpRequest r = parse(std::string(reinterpret_cast<const char *>(data), size));
    int64_t revision;
    std::array<uint8_t, kParamsBytes> block;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        revision = s.revision;
        block = params_to_bytes(s.params);
    }
    const HttpResponse out = studio_handle(s, r);
    studio_jobs_stop(s);

    const int st = out.status;
    FUZZ_CHECK(st == 200 || st == 400 || st == 403 || st == 404 || st == 405 || st == 409 || st == 413,
               "status %d for %s %s: %s", st, r.method.c_str(), r.path.c_str(), out.body.c_str());
    for (const auto &h : out.headers)
        FUZZ_CHECK(h.first.rfind("Access-Control", 0) != 0, "CORS header %s", h.first.c_str());
    if (st != 200 && r.method != "HEAD") {  // HEAD answers carry no body
        const auto reply = nlohmann::json::parse(out.body, nullptr, false);
        FUZZ_CHECK(reply.is_object() && reply.contains("error") && reply["error"].is_string() &&
                       reply["error"].get<std::string>().find('\n') == std::string::npos,
                   "refusal without a one-line reason: %s", out.body.c_str());
    }
    std::string host;
    for (const auto &h : r.headers)
        if (is_header(h.first, "Host")) host = h.second;
    if (header_count(r, "Host") != 1 || !own(host)) FUZZ_CHECK(st == 403, "foreign Host answered %d", st);
    const bool change = r.method != "GET" && r.method != "HEAD";
    std::string origin;
    for (const auto &h : r.headers)
        if (is_header(h.first, "Origin")) origin = h.second;
    if (change && (header_count(r, "Origin") != 1 || origin.rfind("http://", 0) != 0 || !own(origin.substr(7))))
        FUZZ_CHECK(st == 403, "a change without our Origin answered %d", st);
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        const bool accepted_edit = st == 200 && r.method == "PUT" && r.path == "/api/tuning";
        FUZZ_CHECK(accepted_edit ? s.revision == revision + 1 : s.revision == revision,
                   "revision %lld after %lld", static_cast<long long>(s.revision), static_cast<long long>(revision));
        if (!accepted_edit) FUZZ_CHECK(params_to_bytes(s.params) == block, "the block changed without an edit");
    }
    if (!out.file.empty())
        FUZZ_CHECK(out.file.rfind(s.private_dir + "/", 0) == 0 && out.file.find("/..") == std::string::npos,
                   "answered a file outside the private folder: %s", out.file.c_str());
    return 0;
}
