/*
 * sorn-hp studio: the server side of the browser workbench, without sockets.
 *
 * A request comes in as a plain record (method, path, decoded query, headers, body) and leaves as
 * a plain record (status, headers, body, or a file of the studio's own to send), so the HTTP
 * server, the tests and the fuzzer all drive the same function.
 *
 * What every request meets first:
 *   - Host must name this studio on loopback: 127.0.0.1:PORT, localhost:PORT or [::1]:PORT,
 *     else 403 (a page on another site that rebinds its name to 127.0.0.1 is refused);
 *   - a request that changes anything (any method but GET and HEAD) needs an Origin of the same
 *     three forms, else 403 (another site's page may send requests, but never with our Origin);
 *   - no response carries CORS headers, so no other origin can read one.
 * No request names a file: the page's assets are a fixed list compiled in, audio is named by its
 * entry in the studio's list, renders by ids the studio made. Uploads and renders live in the
 * studio's private folder (mode 0700), removed by studio_close.
 *
 * An edit is checked whole before anything changes: the tuning reader's rules (the same reader
 * as every command's tuning files) plus the edit limits below; a refused edit leaves the tuning
 * and its revision as they were. Each accepted edit is designed by the loaded library. The tuning
 * is kept as sent, so a table given fewer points than the block holds stays so in the page and in
 * the exported tuning.json; the block (and params.bin) is what the reader makes of it.
 *
 * Imports and renders run as background jobs with progress and cancel; edits go on meanwhile.
 * A render takes the tuning as it is when it starts.
 */
#ifndef SORN_TOOLS_STUDIO_STUDIO_H
#define SORN_TOOLS_STUDIO_STUDIO_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/plot/design_view.h"
#include "tools/host/effect_host.h"
#include "tools/files/tuning.h"

namespace sorn_tool {

using Fields = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
    std::string method, path;
    Fields query;   /* decoded */
    Fields headers; /* names in any case */
    std::string body;
    /* Set by the server when it streamed an upload to a file in the private folder instead of
       `body`; the handler takes the file over (moves or removes it). */
    std::string body_file;
};

struct HttpResponse {
    int status = 200;
    /* With the charset named, httplib leaves the answer uncompressed: on loopback brotli costs
       far more time (about 17 ms for a state) than the bytes it saves. */
    std::string content_type = "application/json; charset=utf-8";
    Fields headers;
    std::string body;
    std::string file; /* when set, the body is this file of the studio's own */
};

inline constexpr size_t kStudioJsonLimit = 1 << 20;       /* tuning edits and render requests */
inline constexpr size_t kCorrectionLimit = 1 << 20;       /* a correction upload */
inline constexpr size_t kAudioLimit = size_t{512} << 20;  /* an audio upload */
inline constexpr int kStudioRate = 48000;                 /* the rate the studio designs at */
inline constexpr double kEditMinHz = 10.0;                /* lowest point frequency an edit may set */
inline constexpr size_t kMaxTargetPoints = 4096;
inline constexpr size_t kKeptRenders = 8;                 /* older renders are removed */

struct StudioJob {
    std::string id, kind; /* "import" or "render" */
    std::atomic<double> progress{0.0};
    std::atomic<bool> cancel{false};
    std::mutex mutex; /* guards the fields below */
    std::string state = "running", error;
    nlohmann::json result;
    std::thread thread;
};

struct AudioEntry {
    std::string path; /* in the --audio folder or the private folder */
    bool uploaded = false;
};

struct Studio {
    int port = 0;
    std::string private_dir;
    std::string audio_dir;
    EffectLibrary lib;

    std::mutex mutex; /* guards everything below */
    int64_t revision = 0;
    sorn_hp_params_t params{};
    TuningTarget target;
    nlohmann::json tuning; /* the accepted tuning as sent (tables may hold fewer points than the block) */
    std::vector<std::string> notes; /* what the last accepted edit's reading did, e.g. resampling */
    nlohmann::json curve, limits;
    std::string summary;
    std::map<std::string, AudioEntry> audio;
    std::map<std::string, std::shared_ptr<StudioJob>> jobs;
    std::vector<std::string> renders; /* ids, oldest first */
    uint64_t next_id = 1;
};

/* Opens the library at `lib_path` (an empty path: this program itself, for builds that link the
   library in), makes the private folder and designs the starting tuning `start` (as the tuning
   reader gave it: a file's, a parameter block's or the built-in one). `port` is the one the
   server listens on; Host and Origin must name it. False with `error`, nothing left behind, on
   failure. */
bool studio_open(Studio &s, const std::string &lib_path, const TuningResult &start, int port,
                 const std::string &audio_dir, std::string &error);
/* Cancels and joins every job, removes the private folder and closes the library. */
void studio_close(Studio &s);

/* Host and Origin: true when the request may go on, else false with the 403 to send. Run by
   studio_handle itself; the server also runs it before it streams an upload. */
bool studio_request_allowed(const Studio &s, const HttpRequest &r, HttpResponse &refusal);

HttpResponse studio_handle(Studio &s, const HttpRequest &r);

/* Lists the --audio folder's files again (uploads stay). Call with s.mutex held. */
void studio_scan_audio(Studio &s);

/* A 4xx/5xx response with body {"error": message}. */
HttpResponse studio_error(int status, const std::string &message);

/* An uploaded file's name fit to show: no folders, no control characters, at most 80 bytes;
   `fallback` when nothing is left. */
std::string studio_shown_name(const std::string &given, const char *fallback);

/* The value of a header (name in any case) or query field; empty when absent. */
std::string field_value(const Fields &fields, const std::string &name, bool any_case);

}  // namespace sorn_tool

#endif
