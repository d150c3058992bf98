// Uses the call layer through the installed headers and library only.
#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/Version.h>
#include <kestrelvue/posix/CurlHttpClient.h>

#include <cstdio>

static_assert(KESTRELVUE_VERSION >= 100, "the installed Version.h names this version");
// The engine a host compiles against holds its implementation's pointer and nothing else.
static_assert(sizeof(kestrelvue::DrivingInsight) == sizeof(void*));

int main() {
    using namespace kestrelvue;
    // The Linux layer's default environment reaches a host that names nothing of it (only that
    // one opens an outbox store).
    if (!Environment::current().makeOutboxStore) return 2;
    auto center = NotificationCenter::make();
    RestfulCall call(
        std::make_shared<posix::CurlHttpClient>(), center,
        std::make_shared<Reachability>(std::make_shared<platform::FixedReachabilityProbe>(0u)));
    std::string error;
    ObserverToken token = center->addObserver("done", [&](const Notification& n) {
        if (const std::string* s = n.userInfo->at("error").asString()) error = *s;
    });
    call.Post("http://127.0.0.1:9/api/User/AddUser", Object{{"Name", "Ada"}}, "done");
    std::printf("%s\n", error.c_str());
    return error == kOfflineText ? 0 : 1;
}
