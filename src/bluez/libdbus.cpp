#include "bluez/libdbus.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <dlfcn.h>

namespace kelvane::bluez {

namespace {

struct Loaded {
    LibDbus functions{};
    std::string error;
    bool ok = false;
};

template <typename Pointer> bool resolve(void *library, const char *name, Pointer &pointer) {
    pointer = reinterpret_cast<Pointer>(::dlsym(library, name));
    return pointer != nullptr;
}

Loaded load() {
    Loaded loaded;
    void *library = ::dlopen("libdbus-1.so.3", RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        loaded.error = ::dlerror();
        return loaded;
    }
    loaded.ok = true;
#define KELVANE_LIBDBUS_RESOLVE(name)                                                              \
    if (!resolve(library, #name, loaded.functions.name)) {                                         \
        loaded.ok = false;                                                                         \
        loaded.error = "libdbus-1.so.3 lacks " #name;                                              \
    }
    KELVANE_LIBDBUS_FUNCTIONS(KELVANE_LIBDBUS_RESOLVE)
#undef KELVANE_LIBDBUS_RESOLVE
    return loaded;
}

const Loaded &loaded() {
    static const Loaded instance = load();
    return instance;
}

} // namespace

const LibDbus *loadLibDbus() {
    return loaded().ok ? &loaded().functions : nullptr;
}

const char *libdbusLoadError() {
    return loaded().error.c_str();
}

const LibDbus &libdbus() {
    if (const LibDbus *functions = loadLibDbus())
        return *functions;
    // Unreachable in a run: every use follows a connection, which fails
    // with this reason when the library is missing.
    std::fprintf(stderr, "kelvane: %s\n", libdbusLoadError());
    std::abort();
}

} // namespace kelvane::bluez
