// Loading the module; see bus_module.h.
#include "broker/link/bus_module.h"

#include <dlfcn.h>

#include <string>
#include <string_view>

#include "base/installed_path.h"

namespace kavri::broker {

namespace {

std::string loaderError() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): of this thread, in this C library.
    const char* const text = ::dlerror();
    return text == nullptr ? "there is no such symbol" : text;
}

void* symbolOf(void* module, const char* name, const std::string& path) {
    void* const symbol = ::dlsym(module, name);
    if (symbol == nullptr) {
        throw NoBus(path + ": " + loaderError());
    }
    return symbol;
}

}  // namespace

std::unique_ptr<Bus> loadBus(const BusOptions& options) {
    const std::string path = base::installedPath(KAVRI_LINK_PLACE "/kavri-link-nats.so");
    void* const module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        throw NoBus("the link needs a module, of the package kavri-broker-link: " + loaderError());
    }
    const std::string_view version =
        *static_cast<const char* const*>(symbolOf(module, busVersionSymbol, path));
    if (version != KAVRI_VERSION) {
        throw NoBus(path + " is of version " + std::string(version) +
                    ", this is " KAVRI_VERSION ": install kavri-broker-link of this version");
    }
    auto* const make = reinterpret_cast<MakeBus*>(symbolOf(module, makeBusSymbol, path));
    return std::unique_ptr<Bus>(make(options));
}

}  // namespace kavri::broker
