#pragma once
// What the call layer's observers hear for a finished request: the reply shaped into "Data" or
// turned into an "error". Pure, so that any reply the network can bring is easy to try.

#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/Value.h>
#include <kestrelvue/platform/HttpClient.h>

#include <optional>

namespace kestrelvue::detail {

UserInfo errorInfo(Value error);

/// A GET's outcome, or nullopt when its observers hear nothing (200 without a body).
std::optional<UserInfo> shapeGetReply(const platform::HttpResult& result, bool asArray);

/// A POST's outcome (empty when the caller wants no return value and the call succeeded).
UserInfo shapePostReply(const platform::HttpResult& result, bool useReturnValue,
                        RestfulCall::ReturnType returnType);

}  // namespace kestrelvue::detail
