#pragma once
// One reading of a finished request's three optionals, which every consumer starts from. What
// counts as success stays each consumer's own: a sender that must not lose a record asks for a
// clean 200, while the upload reports look at the response alone, the transport's error aside.

#include <kestrelvue/platform/HttpClient.h>

#include <string>

namespace kestrelvue::detail {

struct HttpReply {
    enum class Kind {
        noResponse,  // no response came: a transport failure, or nothing at all
        status,      // a response with a status other than 200
        ok,          // a response with status 200
    };
    Kind kind = Kind::noResponse;
    long status = 0;                        // the response's status; 0 without one
    const TransportError* error = nullptr;  // the transport's error, with or without one
    const std::string* body = nullptr;      // the body, when one came

    /// No usable answer: no response, or the transport reports an error beside one.
    bool transportFailed() const { return kind == Kind::noResponse || error; }
    /// Status 200 with no transport error: what may be counted as delivered.
    bool delivered() const { return kind == Kind::ok && !error; }
};

/// Points into `result`, which must outlive the reading.
inline HttpReply classify(const platform::HttpResult& result) {
    HttpReply reply;
    if (result.response) {
        reply.status = result.response->statusCode;
        reply.kind = reply.status == 200 ? HttpReply::Kind::ok : HttpReply::Kind::status;
    }
    if (result.error) reply.error = &*result.error;
    if (result.body) reply.body = &*result.body;
    return reply;
}

}  // namespace kestrelvue::detail
