#pragma once
// The host application: idle timer and the device settings page.

#include <kestrelvue/Export.h>

#include <string>

namespace kestrelvue::platform {

/// Threading contract: called from the host's thread; calls return at once.
class KESTRELVUE_EXPORT Application {
public:
    virtual ~Application() = default;

    /// True keeps the screen awake.
    virtual bool isIdleTimerDisabled() const = 0;
    virtual void setIdleTimerDisabled(bool value) = 0;

    /// The address that opens this application's page in the device settings; empty when the
    /// platform has none.
    virtual std::string openSettingsURLString() const = 0;
    /// Asks the platform to open `url`; false when it cannot.
    virtual bool openURL(const std::string& url) = 0;
};

}  // namespace kestrelvue::platform
