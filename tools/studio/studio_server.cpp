#include "tools/studio/studio_server.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include <httplib.h>

#include "tools/studio/studio.h"

namespace sorn_tool {

namespace {

HttpRequest from_httplib(const httplib::Request &req) {
    HttpRequest r;
    r.method = req.method;
    r.path = req.path;
    for (const auto &[k, v] : req.params) r.query.push_back({k, v});
    for (const auto &[k, v] : req.headers) r.headers.push_back({k, v});
    return r;
}

void to_httplib(const HttpResponse &in, httplib::Response &res) {
    res.status = in.status;
    for (const auto &[k, v] : in.headers) res.set_header(k, v);
    if (in.file.empty()) {
        res.set_content(in.body, in.content_type);
        return;
    }
    // A file of the studio's own (a rendering), sent in pieces. It is opened now: a rendering
    // removed while it is being sent stays readable until the stream closes.
    auto file = std::make_shared<std::ifstream>(in.file, std::ios::binary);
    if (!*file) {
        to_httplib(studio_error(404, "the rendering is no longer there"), res);
        return;
    }
    file->seekg(0, std::ios::end);
    const auto size = static_cast<size_t>(file->tellg());
    file->seekg(0);
    res.set_content_provider(size, in.content_type, [file](size_t offset, size_t length, httplib::DataSink &sink) {
        char buf[1 << 16];
        file->seekg(static_cast<std::streamoff>(offset));
        file->read(buf, static_cast<std::streamsize>(std::min(length, sizeof buf)));
        const auto got = file->gcount();
        return got > 0 && sink.write(buf, static_cast<size_t>(got));
    });
}

/* An audio upload into a new file of the private folder, stopped past the limit. Returns the
   file, or empty with `refusal` set (nothing left behind). */
std::string stream_upload(Studio &s, const httplib::Request &req, const httplib::ContentReader &reader,
                          HttpResponse &refusal) {
    const std::string too_large = "the audio file is larger than the studio's limit of 512 MiB";
    if (req.has_header("Content-Length") && std::strtoull(req.get_header_value("Content-Length").c_str(), nullptr, 10) > kAudioLimit) {
        refusal = studio_error(413, too_large);
        return {};
    }
    static std::atomic<uint64_t> counter{0};
    const std::string path = s.private_dir + "/incoming-" + std::to_string(++counter);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        refusal = studio_error(500, std::string("cannot store the upload: ") + std::strerror(errno));
        return {};
    }
    size_t total = 0;
    bool over = false, failed = false;
    reader([&](const char *data, size_t length) {
        total += length;
        if (total > kAudioLimit) return !(over = true);
        while (length > 0) {
            const ssize_t n = write(fd, data, length);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return !(failed = true);
            data += n;
            length -= static_cast<size_t>(n);
        }
        return true;
    });
    const bool closed = close(fd) == 0;
    if (over || failed || !closed) {
        unlink(path.c_str());
        refusal = over ? studio_error(413, too_large) : studio_error(500, "cannot store the upload");
        return {};
    }
    return path;
}

/* Any other body, read into memory up to the limit. */
bool read_body(const httplib::ContentReader &reader, std::string &body) {
    bool over = false;
    reader([&](const char *data, size_t length) {
        if (body.size() + length > kStudioJsonLimit) return !(over = true);
        body.append(data, length);
        return true;
    });
    return !over;
}

}  // namespace

bool studio_serve(const StudioServeOptions &o, const std::function<void(const std::string &url)> &ready,
                  std::string &error) {
    // SIGINT and SIGTERM are taken by a thread of their own (sigwait), so every thread the
    // server starts has them blocked.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigset_t old_mask;
    pthread_sigmask(SIG_BLOCK, &stop_signals, &old_mask);

    httplib::Server svr;
    // SO_REUSEADDR only: httplib's default adds SO_REUSEPORT, which would let a second studio
    // share a port that is in use instead of being refused.
    svr.set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    // Answers go out at once: with Nagle's algorithm a kept-alive answer waits about 40 ms for
    // the browser's delayed acknowledgement, which a drag would feel.
    svr.set_tcp_nodelay(true);
    int port = o.port;
    if (port == 0) port = svr.bind_to_any_port("127.0.0.1");
    else if (!svr.bind_to_port("127.0.0.1", port)) port = -1;
    if (port <= 0) {
        pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
        error = o.port == 0 ? std::string("cannot listen on 127.0.0.1: no free port")
                            : "port " + std::to_string(o.port) +
                                  " on 127.0.0.1 is busy; choose another with --port N, or --port 0 for a free one";
        return false;
    }
    Studio s;
    if (!studio_open(s, o.lib_path, o.start, port, o.audio_dir, error)) {
        pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
        return false;
    }

    svr.set_payload_max_length(kAudioLimit + 1);
    auto plain = [&s](const httplib::Request &req, httplib::Response &res) {
        to_httplib(studio_handle(s, from_httplib(req)), res);
    };
    auto with_body = [&s](const httplib::Request &req, httplib::Response &res, const httplib::ContentReader &reader) {
        HttpRequest r = from_httplib(req);
        HttpResponse refusal;
        if (!studio_request_allowed(s, r, refusal)) return to_httplib(refusal, res);
        if (r.path == "/api/audio" && r.method == "POST") {
            r.body_file = stream_upload(s, req, reader, refusal);
            if (r.body_file.empty()) return to_httplib(refusal, res);
        } else if (!read_body(reader, r.body)) {
            return to_httplib(studio_error(413, "the request body is larger than 1 MiB"), res);
        }
        to_httplib(studio_handle(s, r), res);
    };
    svr.Get(".*", plain);
    svr.Options(".*", plain);
    svr.Post(".*", with_body);
    svr.Put(".*", with_body);
    svr.Patch(".*", with_body);
    svr.Delete(".*", with_body);
    svr.set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (res.body.empty())
            res.set_content(std::string("{\"error\": \"HTTP ") + std::to_string(res.status) + "\"}", "application/json; charset=utf-8");
    });

    std::atomic<bool> done{false};
    std::thread waiter([&] {
        const timespec tick{0, 200 * 1000 * 1000};
        while (!done.load()) {
            if (sigtimedwait(&stop_signals, nullptr, &tick) > 0) break;
        }
        svr.stop();
    });
    ready("http://127.0.0.1:" + std::to_string(port) + "/");
    const bool served = svr.listen_after_bind();
    done = true;
    waiter.join();
    studio_close(s);
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    if (!served) error = "the server stopped unexpectedly";
    return served;
}

}  // namespace sorn_tool
