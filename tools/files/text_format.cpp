#include "tools/files/text_format.h"

#include <cstdarg>
#include <cstdio>

namespace sorn_tool {

std::string fmt(const char *f, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, f);
    std::vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

}  // namespace sorn_tool
