#pragma once
// Every "now" of the library goes through a Clock, so tests and replays run in virtual time.

#include <kestrelvue/Export.h>

#include <chrono>
#include <string>

namespace kestrelvue::platform {

using TimePoint = std::chrono::system_clock::time_point;

/// Threading contract: now() may be called from any thread.
class KESTRELVUE_EXPORT Clock {
public:
    virtual ~Clock() = default;
    virtual TimePoint now() const = 0;
};

class KESTRELVUE_EXPORT SystemClock final : public Clock {
public:
    TimePoint now() const override { return std::chrono::system_clock::now(); }
};

/// Produces trip identifiers: 36-character upper-case UUID texts (8-4-4-4-12).
/// Threading contract: may be called from any thread.
class KESTRELVUE_EXPORT IdGenerator {
public:
    virtual ~IdGenerator() = default;
    virtual std::string makeUuid() = 0;
};

/// Random version-4 UUIDs.
class KESTRELVUE_EXPORT RandomIdGenerator final : public IdGenerator {
public:
    std::string makeUuid() override;
};

}  // namespace kestrelvue::platform
