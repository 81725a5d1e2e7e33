// property_get / property_set on libbase's in-process property map.

#include <cutils/properties.h>
#include <dlfcn.h>

#include <cstring>
#include <mutex>
#include <string>

#include <android-base/properties.h>

namespace {

// Debian's libbase allocates its property map when it is loaded and never frees it. If the
// module holding this layer were unloaded (dlclose of the effect library by a host or a test),
// libbase would go with it and that block would be lost on every load and unload. So the module
// pins itself, as the platform's own libraries stay loaded on a device.
__attribute__((constructor)) void pin_module() {
    Dl_info self;
    if (dladdr(reinterpret_cast<void *>(&pin_module), &self) != 0 && self.dli_fname != nullptr) {
        dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

// libbase's host map has no lock of its own; every access from this layer goes through this one.
std::mutex g_property_lock;

// Copies at most PROPERTY_VALUE_MAX - 1 characters and the terminating NUL; returns the length.
int copy_value(char *out, const char *text, size_t length) {
    if (length > PROPERTY_VALUE_MAX - 1) length = PROPERTY_VALUE_MAX - 1;
    std::memcpy(out, text, length);
    out[length] = '\0';
    return static_cast<int>(length);
}

}  // namespace

extern "C" {

int property_get(const char *key, char *value, const char *default_value) {
    if (value == nullptr) return -1;
    if (key != nullptr && key[0] != '\0') {
        try {
            std::string current;
            {
                std::lock_guard<std::mutex> hold(g_property_lock);
                current = android::base::GetProperty(key, "");
            }
            if (!current.empty()) return copy_value(value, current.data(), current.size());
        } catch (...) {
            // Out of memory: fall back to the default, as for an unset property.
        }
    }
    if (default_value == nullptr) default_value = "";
    return copy_value(value, default_value, std::strlen(default_value));
}

int property_set(const char *key, const char *value) {
    if (key == nullptr || key[0] == '\0') return -1;
    if (value == nullptr) value = "";
    if (std::strlen(value) >= PROPERTY_VALUE_MAX) return -1;
    try {
        std::lock_guard<std::mutex> hold(g_property_lock);
        if (std::strncmp(key, "ro.", 3) == 0 && !android::base::GetProperty(key, "").empty()) {
            return -1;
        }
        return android::base::SetProperty(key, value) ? 0 : -1;
    } catch (...) {
        return -1;
    }
}

}  // extern "C"
