#include "net/CallReply.h"

#include <kestrelvue/Limits.h>

#include <charconv>
#include <string>
#include <string_view>

#include "core/Json.h"
#include "net/HttpReply.h"

namespace kestrelvue::detail {
namespace {

// A reply beyond these is refused like one that is not JSON, before any Value of it is built.
constexpr json::ParseLimits kReplyLimits{kMaxCallReplyBytes, kMaxCallReplyElements};

Object dataInfo(Value data) {
    return Object{{"Data", std::move(data)}};
}

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
    if (!root.isObject()) return Value();
    return root;  // moved, not copied: a reply's value can be large
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

UserInfo errorInfo(Value error) {
    return Object{{"error", std::move(error)}};
}

std::optional<UserInfo> shapeGetReply(const platform::HttpResult& result, bool asArray) {
    const HttpReply reply = classify(result);
    if (reply.transportFailed()) return errorInfo(kDetailUnavailableText);
    if (reply.kind == HttpReply::Kind::status) {
        return errorInfo(std::string(kDetailUnavailableText) +
                         " ErrorCode: " + std::to_string(reply.status));
    }
    if (!reply.body) return std::nullopt;
    json::ParseResult parsed = json::parse(*reply.body, kReplyLimits);
    if (!parsed) return errorInfo(kDetailUnavailableText);
    return dataInfo(asArray ? listOfObjects(std::move(*parsed.value))
                            : objectOrNull(std::move(*parsed.value)));
}

UserInfo shapePostReply(const platform::HttpResult& result, bool useReturnValue,
                        RestfulCall::ReturnType returnType) {
    const HttpReply reply = classify(result);
    if (reply.error) return errorInfo(*reply.error);
    // Neither a body nor an error: nothing to hand back, but the caller must hear.
    if (!reply.body) return errorInfo(kDetailUnavailableText);
    const std::string& text = *reply.body;
    // A body without any response is taken as the answer, as one from a 200 is.
    if (reply.kind == HttpReply::Kind::status) {
        if (reply.status == 403) return errorInfo("expired");
        // The service's own error text, when it is text at all.
        return errorInfo(json::isValidUtf8(text) ? Value(text) : Value(kDetailUnavailableText));
    }
    if (!useReturnValue) return {};
    switch (returnType) {
        case RestfulCall::ReturnType::array:
        case RestfulCall::ReturnType::dictionary: {
            json::ParseResult parsed = json::parse(text, kReplyLimits);
            if (!parsed) return errorInfo(kDetailUnavailableText);
            return dataInfo(returnType == RestfulCall::ReturnType::array
                                ? listOfObjects(std::move(*parsed.value))
                                : objectOrNull(std::move(*parsed.value)));
        }
        case RestfulCall::ReturnType::int_:
            return json::isValidUtf8(text) ? dataInfo(parseInteger(text))
                                           : errorInfo(kDetailUnavailableText);
        case RestfulCall::ReturnType::string:
            return json::isValidUtf8(text) ? dataInfo(text) : errorInfo(kDetailUnavailableText);
    }
    return {};
}

}  // namespace kestrelvue::detail
