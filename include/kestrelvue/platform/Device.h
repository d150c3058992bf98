#pragma once

#include <kestrelvue/Export.h>
// The device: its orientation as the platform sees it.

namespace kestrelvue::platform {

/// Raw values are the platform's.
enum class DeviceOrientation : int {
    unknown = 0,
    portrait = 1,
    portraitUpsideDown = 2,
    landscapeLeft = 3,
    landscapeRight = 4,
    faceUp = 5,
    faceDown = 6,
};

/// Threading contract: may be called from any thread.
class KESTRELVUE_EXPORT Device {
public:
    virtual ~Device() = default;
    virtual DeviceOrientation orientation() const = 0;
};

}  // namespace kestrelvue::platform
