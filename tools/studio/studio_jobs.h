/*
 * The studio's background work: importing a correction (the fit of `import`) and rendering an
 * audio entry through the effect (the run of `run`). Each job runs on a thread of its own,
 * reports progress from 0 to 1 and stops soon after a cancel; its result stays readable until
 * the studio closes. A request that cannot start a job (bad correction, unknown entry, bad
 * options) is refused at once with 400 and starts nothing.
 */
#ifndef SORN_TOOLS_STUDIO_STUDIO_JOBS_H
#define SORN_TOOLS_STUDIO_STUDIO_JOBS_H

#include <string>

#include "tools/studio/studio.h"

namespace sorn_tool {

HttpResponse start_import(Studio &s, const HttpRequest &r);
HttpResponse start_render(Studio &s, const HttpRequest &r);
HttpResponse job_status(Studio &s, const std::string &id);
HttpResponse job_cancel(Studio &s, const std::string &id);
/* "RID/processed.wav" or "RID/original.wav" of a finished render. */
HttpResponse render_file(Studio &s, const std::string &rest);
/* Cancels every job and waits for them. */
void studio_jobs_stop(Studio &s);

}  // namespace sorn_tool

#endif
