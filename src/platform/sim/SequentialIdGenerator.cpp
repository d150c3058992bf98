#include "platform/sim/SequentialIdGenerator.h"

#include <cstdio>

namespace kestrelvue::sim {

std::string SequentialIdGenerator::makeUuid() {
    unsigned long long n = ++next_;
    char text[40];
    std::snprintf(text, sizeof text, "%08llX-0000-4000-8000-%012llX", n & 0xFFFFFFFFull,
                  n & 0xFFFFFFFFFFFFull);
    return text;
}

}  // namespace kestrelvue::sim
