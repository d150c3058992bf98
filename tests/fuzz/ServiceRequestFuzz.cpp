// The reference service's reading of request bodies: any bytes, for any endpoint, are read or
// refused with a reason, never a crash; motion records accepted are written back as they read.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzInput.h"
#include "Requests.h"

using namespace kestrelvue::service;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrelvue::fuzz::Input input(data, size);
    const std::uint8_t which = input.choice();
    const std::string_view body = input.rest();
    auto check = [](const auto& parsed) {
        if (!parsed && parsed.error.empty()) __builtin_trap();  // a refusal always says why
    };
    switch (which % 8) {
        case 0: {
            auto bulk = parseMotionBulk(std::string(body));
            check(bulk);
            if (bulk && bulk->guid.empty()) __builtin_trap();
            break;
        }
        case 1: {
            auto records = kestrelvue::detail::parseMotionText(body);
            check(records);
            if (!records) break;
            std::string again;
            for (const MotionRecord& r : *records) appendMotionText(again, r);
            auto reread = kestrelvue::detail::parseMotionText(again);
            if (!reread || reread->size() != records->size()) __builtin_trap();
            break;
        }
        case 2:
            check(parseDrivingScore(body));
            break;
        case 3:
            check(parseLogin(body));
            break;
        case 4:
            check(parseAddUser(body));
            break;
        case 5:
            check(parseAddFriend(body));
            break;
        case 6:
            check(parseBands(body));
            break;
        default:
            (void)parsePathInteger(body);
            break;
    }
    return 0;
}
