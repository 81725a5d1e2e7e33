/*
 * printf-style formatting into a string, for the reports and messages the tool's modules build.
 * Texts longer than 1023 bytes are cut there.
 */
#ifndef SORN_TOOLS_FILES_TEXT_FORMAT_H
#define SORN_TOOLS_FILES_TEXT_FORMAT_H

#include <string>

namespace sorn_tool {

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));

}  // namespace sorn_tool

#endif
