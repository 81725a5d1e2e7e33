/*
 * The studio on a socket: cpp-httplib listening on 127.0.0.1 only, every request handed to
 * studio_handle. Audio uploads are streamed to a file in the studio's private folder as they
 * arrive (never held in memory) and cut off past kAudioLimit with 413; every other body is read
 * into memory up to kStudioJsonLimit, and refused with 413 beyond it.
 *
 * studio_serve binds first (a busy port fails at once with a message), then opens the studio,
 * reports its address through `ready` and serves until SIGINT or SIGTERM, after which it closes
 * the studio: jobs cancelled, temporary files removed.
 */
#ifndef SORN_TOOLS_STUDIO_STUDIO_SERVER_H
#define SORN_TOOLS_STUDIO_STUDIO_SERVER_H

#include <functional>
#include <string>

#include "tools/files/tuning.h"

namespace sorn_tool {

struct StudioServeOptions {
    std::string lib_path;
    TuningResult start;
    int port = 8765; /* 0: any free port */
    std::string audio_dir;
};

/* False with `error` when the port cannot be bound or the studio cannot open; true after a
   stop by signal. `ready` gets "http://127.0.0.1:PORT/" once requests are served. */
bool studio_serve(const StudioServeOptions &o, const std::function<void(const std::string &url)> &ready,
                  std::string &error);

}  // namespace sorn_tool

#endif
