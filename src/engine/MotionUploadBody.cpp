// The motion upload body, written straight into one buffer.

#include "engine/MotionUploadBody.h"

#include "core/Json.h"

namespace kestrelvue {
namespace detail {

std::optional<std::string> writeMotionDataBody(std::int64_t userID, std::string_view drivingGuid,
                                               std::string_view motionStr,
                                               const std::optional<std::string>& appVersion) {
    if (!json::isValidUtf8(drivingGuid) || !json::isValidUtf8(motionStr) ||
        (appVersion && !json::isValidUtf8(*appVersion)))
        return std::nullopt;
    std::string out;
    out.reserve(motionStr.size() + drivingGuid.size() + (appVersion ? appVersion->size() : 0) + 96);
    out += "{\"UserID\":";
    out += std::to_string(userID);
    out += ",\"DrivingGuid\":";
    json::escapeTo(out, drivingGuid);
    out += ",\"MotionStr\":";
    json::escapeTo(out, motionStr);
    out += ",\"AppVersion\":";
    if (appVersion)
        json::escapeTo(out, *appVersion);
    else
        out += "null";
    out.push_back('}');
    return out;
}

std::string describeOptionalError(const std::optional<TransportError>& error) {
    if (!error) return "nil";
    return "Optional(Error Domain=" + error->domain + " Code=" + std::to_string(error->code) +
           " \"" + error->description + "\")";
}

}  // namespace detail

}  // namespace kestrelvue
