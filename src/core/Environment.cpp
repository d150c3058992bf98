#include <kestrelvue/Environment.h>

#include <mutex>

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
}  // namespace

Environment::Environment() {
    detail::fillMissing(*this);
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

const Environment& Environment::current() {
    std::lock_guard lock(gMutex);
    if (!gEnvironment) gEnvironment = new Environment(makeDefault());
    return *gEnvironment;
}

}  // namespace kestrelvue
