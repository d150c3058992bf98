#include <kestrelvue/Environment.h>
#include <kestrelvue/Json.h>
#include <kestrelvue/Limits.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/Url.h>

#include <charconv>

namespace kestrelvue {
namespace {

Object errorInfo(Value error) {
    return Object{{"error", std::move(error)}};
}
Object dataInfo(Value data) {
    return Object{{"Data", std::move(data)}};
}

// A reply beyond these is refused like one that is not JSON, before any Value of it is built.
constexpr json::ParseLimits kReplyLimits{kMaxCallReplyBytes, kMaxCallReplyElements};

// A list of objects, or null.
Value listOfObjects(Value root) {
    const List* list = root.asList();
    if (!list) return Value();
    for (const Value& v : *list) {
        if (!v.isObject()) return Value();
    }
    return root;
}

Value objectOrNull(Value root) {
    return root.isObject() ? root : Value();
}

// An optional sign and decimal digits, nothing else, within 64 bits.
Value parseInteger(std::string_view text) {
    std::string_view digits = text;
    bool negative = false;
    if (!digits.empty() && (digits.front() == '+' || digits.front() == '-')) {
        negative = digits.front() == '-';
        digits.remove_prefix(1);
    }
    if (digits.empty()) return Value();
    for (char c : digits) {
        if (c < '0' || c > '9') return Value();
    }
    // Parse with the sign attached so that the most negative value fits.
    std::string signedText = negative ? "-" : "";
    signedText += digits;
    long long n = 0;
    auto [end, ec] = std::from_chars(signedText.data(), signedText.data() + signedText.size(), n);
    if (ec != std::errc() || end != signedText.data() + signedText.size()) return Value();
    return Value(n);
}

}  // namespace

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
    // The completion holds the centre, not this object: a reply may outlive its gateway.
    http_->send(std::move(request), [center = notifications_, name = argObserverName,
                                     argAsArray](platform::HttpResult result) {
        if (!result.response || result.error) {
            center->post(name, nullptr, errorInfo(kDetailUnavailableText));
            return;
        }
        if (result.response->statusCode != 200) {
            center->post(name, nullptr,
                         errorInfo(std::string(kDetailUnavailableText) +
                                   " ErrorCode: " + std::to_string(result.response->statusCode)));
            return;
        }
        if (!result.body) return;
        json::ParseResult parsed = json::parse(*result.body, kReplyLimits);
        if (!parsed) {
            center->post(name, nullptr, errorInfo(kDetailUnavailableText));
            return;
        }
        Value data = argAsArray ? listOfObjects(std::move(*parsed.value))
                                : objectOrNull(std::move(*parsed.value));
        center->post(name, nullptr, dataInfo(std::move(data)));
    });
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
    request.setValue("application/json", "Content-Type");
    request.setValue("application/json", "Accept");
    std::optional<std::string> body = json::write(Value(jsondictionary));
    if (!body) {
        notifications_->post(observerName, nullptr, errorInfo(kSerializeFailedText));
        return;
    }
    request.body = std::move(body);

    http_->send(std::move(request), [center = notifications_, name = observerName, useReturnValue,
                                     returnType](platform::HttpResult result) {
        UserInfo info;
        if (result.body && !result.error) {
            const std::string& text = *result.body;
            if (result.response && result.response->statusCode != 200) {
                if (result.response->statusCode == 403) {
                    info = errorInfo("expired");
                } else if (json::isValidUtf8(text)) {
                    info = errorInfo(text);  // the service's own error text
                } else {
                    info = errorInfo(kDetailUnavailableText);
                }
            } else if (useReturnValue) {
                switch (returnType) {
                    case ReturnType::array:
                    case ReturnType::dictionary: {
                        json::ParseResult parsed = json::parse(text, kReplyLimits);
                        if (!parsed) {
                            info = errorInfo(kDetailUnavailableText);
                        } else if (returnType == ReturnType::array) {
                            info = dataInfo(listOfObjects(std::move(*parsed.value)));
                        } else {
                            info = dataInfo(objectOrNull(std::move(*parsed.value)));
                        }
                        break;
                    }
                    case ReturnType::int_:
                        info = json::isValidUtf8(text) ? dataInfo(parseInteger(text))
                                                       : errorInfo(kDetailUnavailableText);
                        break;
                    case ReturnType::string:
                        info = json::isValidUtf8(text) ? dataInfo(text)
                                                       : errorInfo(kDetailUnavailableText);
                        break;
                }
            }
        } else if (result.error) {
            info = errorInfo(*result.error);
        } else {
            // Neither a body nor an error: nothing to hand back, but the caller must hear.
            info = errorInfo(kDetailUnavailableText);
        }
        center->post(name, nullptr, std::move(info));
    });
}

}  // namespace kestrelvue
