#pragma once
// Part of the scriptable platform (platform/sim/Sim.h): safe to call from any thread.

#include <kestrelvue/platform/Clock.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace kestrelvue::sim {

/// Identifiers 00000001-0000-4000-8000-000000000001, ...-000000000002, ...: deterministic, in the
/// 36-character upper-case form of the real ones.
class SequentialIdGenerator final : public platform::IdGenerator {
public:
    std::string makeUuid() override;
    /// How many identifiers were handed out.
    std::uint64_t count() const { return next_.load(); }

private:
    std::atomic<std::uint64_t> next_{0};
};

}  // namespace kestrelvue::sim
