// The call layer's shaping of a reply: whatever the network brings, the observers hear exactly
// one "Data" or one "error" (a GET answered 200 without a body: nothing), and "Data" has the
// shape the caller asked for.
#include <cstddef>
#include <cstdint>

#include "FuzzInput.h"
#include "net/CallReply.h"

using namespace kestrelvue;

namespace {

void checkOne(const UserInfo& info) {
    if (!info || info->size() != 1) __builtin_trap();
    auto error = info->find("error");
    if (error != info->end() && !error->second.isString() && !error->second.isError()) {
        __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::uint8_t kind = input.choice() % 7;
    const platform::HttpResult result = input.result();
    if (kind < 2) {
        const bool asArray = kind == 0;
        auto info = detail::shapeGetReply(result, asArray);
        if (!info) return 0;
        checkOne(*info);
        auto found = (*info)->find("Data");
        if (found == (*info)->end()) return 0;
        const Value& value = found->second;
        if (asArray && !value.isNull()) {
            if (!value.isList()) __builtin_trap();
            for (const Value& v : *value.asList()) {
                if (!v.isObject()) __builtin_trap();
            }
        }
        if (!asArray && !value.isNull() && !value.isObject()) __builtin_trap();
        return 0;
    }
    const bool useReturnValue = kind != 6;
    const auto type = static_cast<RestfulCall::ReturnType>((kind - 2) % 4);
    const UserInfo info = detail::shapePostReply(result, useReturnValue, type);
    if (!info && useReturnValue) __builtin_trap();
    if (info) checkOne(info);
    return 0;
}
