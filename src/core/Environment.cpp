#include <kestrelvue/Environment.h>

#include <mutex>
#include <utility>

#include "core/NullPlatform.h"

#ifndef KESTRELVUE_DEFAULT_BASE_URL
#define KESTRELVUE_DEFAULT_BASE_URL "http://127.0.0.1:8080"
#endif

namespace kestrelvue {
namespace {
std::mutex gMutex;
// Installed environments are never freed: shared objects keep references to them for the life of
// the process, and installs are rare.
const Environment* gEnvironment = nullptr;
// Held apart from gMutex while the default is built, so that a factory may call makeDefault():
// the factory runs once.
std::mutex gBuildMutex;

// Function-local so that the platform layer may register from a static initialiser.
std::function<Environment()>& hostFactory() {
    static auto* factory = new std::function<Environment()>;
    return *factory;
}
std::function<Environment()>& platformFactory() {
    static auto* factory = new std::function<Environment()>;
    return *factory;
}
}  // namespace

Environment::Environment() {
    detail::fillMissing(*this);
}

void detail::setPlatformDefaultFactory(std::function<Environment()> factory) {
    std::lock_guard lock(gMutex);
    platformFactory() = std::move(factory);
}

std::string_view defaultBaseURL() {
    return KESTRELVUE_DEFAULT_BASE_URL;
}

std::string Environment::baseURL() const {
    if (applicationInfo) {
        auto it = applicationInfo->find(kBaseURLKey);
        if (it != applicationInfo->end()) {
            if (const std::string* s = it->second.asString(); s && !s->empty()) {
                // A trailing slash would double the one every path starts with.
                std::string base = *s;
                while (!base.empty() && base.back() == '/') base.pop_back();
                return base;
            }
        }
    }
    return std::string(defaultBaseURL());
}

std::string Environment::outboxPath() const {
    if (!outboxDirectory.empty()) return outboxDirectory;
    if (applicationInfo) {
        auto it = applicationInfo->find(kOutboxDirectoryKey);
        if (it != applicationInfo->end()) {
            if (const std::string* s = it->second.asString()) return *s;
        }
    }
    return {};
}

bool Environment::uploadsCompressed() const {
    if (compressUploads) return true;
    if (!applicationInfo) return false;
    auto it = applicationInfo->find(kCompressUploadsKey);
    return it != applicationInfo->end() && it->second.asBool().value_or(false);
}

std::string Environment::serviceURL(std::string_view path) const {
    std::string url = baseURL();
    url += path;
    return url;
}

void Environment::install(Environment environment) {
    auto* env = new Environment(std::move(environment));
    detail::fillMissing(*env);
    std::lock_guard lock(gMutex);
    gEnvironment = env;
}

void Environment::setDefaultFactory(std::function<Environment()> factory) {
    std::lock_guard lock(gMutex);
    hostFactory() = std::move(factory);
}

Environment Environment::makeDefault() {
    std::function<Environment()> factory;
    {
        std::lock_guard lock(gMutex);
        factory = platformFactory();
    }
    return factory ? factory() : Environment();
}

const Environment& Environment::current() {
    std::function<Environment()> factory;
    {
        std::lock_guard lock(gMutex);
        if (gEnvironment) return *gEnvironment;
    }
    std::lock_guard build(gBuildMutex);
    {
        std::lock_guard lock(gMutex);
        if (gEnvironment) return *gEnvironment;
        factory = hostFactory();
    }
    auto made = std::make_unique<Environment>(factory ? factory() : makeDefault());
    detail::fillMissing(*made);
    std::lock_guard lock(gMutex);
    // An install() while the default was being built wins; the built one was never shared.
    if (!gEnvironment) gEnvironment = made.release();
    return *gEnvironment;
}

}  // namespace kestrelvue
