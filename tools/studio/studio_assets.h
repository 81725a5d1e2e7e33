/*
 * The studio page's files, compiled into the program from a fixed list (the build generates
 * their definitions from tools/studio/web/ and the plotting library's installed files). Nothing
 * is read from disk or the network to serve the page.
 */
#ifndef SORN_TOOLS_STUDIO_STUDIO_ASSETS_H
#define SORN_TOOLS_STUDIO_STUDIO_ASSETS_H

#include <cstddef>
#include <string>

namespace sorn_tool {

struct StudioAsset {
    const char *path; /* as requested, e.g. "/" or "/app.js" */
    const char *content_type;
    const unsigned char *data;
    size_t size;
};

/* The asset served at `path`, or null. */
const StudioAsset *studio_asset(const std::string &path);

}  // namespace sorn_tool

#endif
