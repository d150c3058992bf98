#include <kestrelvue/Environment.h>
#include <kestrelvue/Limits.h>
#include <kestrelvue/RestfulCall.h>

#include "core/Json.h"
#include "net/CallReply.h"
#include "net/Url.h"

namespace kestrelvue {

using detail::errorInfo;

RestfulCall& RestfulCall::sharedInstance() {
    // Never destroyed: replies may still arrive on worker threads while the process exits.
    static RestfulCall* instance = [] {
        const Environment& env = Environment::current();
        return new RestfulCall(env.http, env.notifications,
                               std::make_shared<Reachability>(env.reachability));
    }();
    return *instance;
}

RestfulCall::RestfulCall(std::shared_ptr<platform::HttpClient> http,
                         std::shared_ptr<NotificationCenter> notifications,
                         std::shared_ptr<Reachability> reachability)
    : http_(std::move(http)),
      notifications_(std::move(notifications)),
      reachability_(std::move(reachability)) {}

std::shared_ptr<Reachability> RestfulCall::mReachability() const {
    std::lock_guard lock(mutex_);
    return reachability_;
}

void RestfulCall::setMReachability(std::shared_ptr<Reachability> reachability) {
    std::lock_guard lock(mutex_);
    reachability_ = std::move(reachability);
}

void RestfulCall::Get(const std::string& argURL, const std::string& argObserverName,
                      bool argAsArray) {
    if (!parseUrl(argURL)) {
        notifications_->post(argObserverName, nullptr, errorInfo(kBadURLText));
        return;
    }
    platform::HttpRequest request;
    request.method = "GET";
    request.url = argURL;
    request.maxBodyBytes = kMaxCallReplyBytes;
    // Every reply is posted, whatever becomes of this gateway: the completion holds the centre
    // it posts to and nothing of this object.
    http_
        ->send(std::move(request),
               [center = notifications_, name = argObserverName,
                argAsArray](const platform::HttpResult& result) {
                   if (auto info = detail::shapeGetReply(result, argAsArray)) {
                       center->post(name, nullptr, std::move(*info));
                   }
               })
        .detach();
}

void RestfulCall::Post(const std::string& to, const Object& jsondictionary,
                       const std::string& observerName, bool useReturnValue,
                       ReturnType returnType) {
    if (!parseUrl(to)) {
        notifications_->post(observerName, nullptr, errorInfo(kBadURLText));
        return;
    }
    std::shared_ptr<Reachability> reachability = mReachability();
    if (!reachability || !reachability->isInternetAvailable()) {
        notifications_->post(observerName, nullptr, errorInfo(kOfflineText));
        return;
    }
    platform::HttpRequest request;
    request.method = "POST";
    request.url = to;
    request.maxBodyBytes = kMaxCallReplyBytes;
    request.setValue("application/json", "Content-Type");
    request.setValue("application/json", "Accept");
    std::optional<std::string> body = json::write(Value(jsondictionary));
    if (!body) {
        notifications_->post(observerName, nullptr, errorInfo(kSerializeFailedText));
        return;
    }
    request.body = std::move(body);

    http_
        ->send(std::move(request),
               [center = notifications_, name = observerName, useReturnValue,
                returnType](const platform::HttpResult& result) {
                   UserInfo info = detail::shapePostReply(result, useReturnValue, returnType);
                   center->post(name, nullptr, std::move(info));
               })
        .detach();
}

}  // namespace kestrelvue
