#include "effect/sorn_hp_diag.h"

#include <cstdint>
#include <cstdio>

#include "platform/sat_math.h"
#include "platform/sorn_log.h"

namespace {

void dump_block(const sorn_hp_context_t *ctx, const char *direction) {
    if (ctx == nullptr || ctx->dump_pcm == 0 || ctx->work_buffer == nullptr) return;
    char path[256] = {};
    std::snprintf(path, sizeof path, SORN_HP_DUMP_DIR "/sorn_hp_%p_%u_%s.pcm",
                  static_cast<const void *>(ctx), ctx->sample_rate, direction);
    raw_write(path, ctx->work_buffer, static_cast<size_t>(ctx->frame_count) * 8);
}

}  // namespace

void raw_write(const char *path, const void *data, size_t size) {
    if (path == nullptr || (data == nullptr && size != 0)) return;
    FILE *file = std::fopen(path, "ab+");
    if (file == nullptr) return;
    std::fwrite(data, 1, size, file);
    std::fclose(file);
}

void sorn_hp_dump_input(const sorn_hp_context_t *ctx) { dump_block(ctx, "in"); }

void sorn_hp_dump_output(const sorn_hp_context_t *ctx) { dump_block(ctx, "out"); }

void sorn_hp_stat_begin(struct timeval *start) {
    if (start != nullptr) gettimeofday(start, nullptr);
}

void sorn_hp_stat_end(sorn_hp_context_t *ctx, const struct timeval *start) {
    if (ctx == nullptr || start == nullptr) return;
    struct timeval end;
    gettimeofday(&end, nullptr);
    const int64_t elapsed = (static_cast<int64_t>(end.tv_sec) - start->tv_sec) * 1000000 +
                            (static_cast<int64_t>(end.tv_usec) - start->tv_usec);
    ctx->stat_total_us += elapsed;
    if (elapsed >= ctx->stat_max_us) ctx->stat_max_us = elapsed;
    ctx->stat_frames = sorn::sat_i32(static_cast<int64_t>(ctx->stat_frames) + ctx->frame_count);
    ctx->stat_loops += 1;
    if (ctx->stat_frames < ctx->stat_interval) return;

    SORN_LOGD(SORN_LOG_TAG_EFFECT,
              "sorn_hp_process CPU usage: %d loops take %d msecs, max %.2f msecs", ctx->stat_loops,
              static_cast<int>(ctx->stat_total_us / 1000),
              static_cast<double>(ctx->stat_max_us) / 1000.0);
    const auto loop_ms_scale = static_cast<int32_t>(static_cast<int64_t>(ctx->stat_loops) * 1000);
    SORN_LOGD(SORN_LOG_TAG_EFFECT,
              "sorn_hp_process mean: %.2f msec & %d frames for each loop; state %d",
              static_cast<double>(ctx->stat_total_us) / loop_ms_scale,
              ctx->stat_frames / ctx->stat_loops, ctx->active);
    ctx->stat_loops = 0;
    ctx->stat_frames = 0;
    ctx->stat_total_us = 0;
    ctx->stat_max_us = 0;
}
