#pragma once
// The host's "main queue": tasks posted here run later on the host's thread, never inline.

#include <kestrelvue/Export.h>

#include <functional>

namespace kestrelvue::platform {

/// Threading contract: post() may be called from any thread; tasks run one at a time, in order,
/// on the executor's own thread (the host's main thread), never inside post().
class KESTRELVUE_EXPORT Executor {
public:
    virtual ~Executor() = default;
    virtual void post(std::function<void()> task) = 0;
};

}  // namespace kestrelvue::platform
