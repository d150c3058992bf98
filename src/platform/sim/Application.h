#pragma once
// Part of the scriptable platform (platform/sim/Sim.h): safe to call from any thread.

#include <kestrelvue/platform/Application.h>

#include <mutex>
#include <string>
#include <vector>

namespace kestrelvue::sim {

/// An application that records the idle-timer changes and the addresses it was asked to open.
class Application final : public platform::Application {
public:
    bool isIdleTimerDisabled() const override;
    void setIdleTimerDisabled(bool value) override;
    std::string openSettingsURLString() const override;
    bool openURL(const std::string& url) override;

    void setOpenSettingsURLString(std::string value);
    std::vector<bool> idleTimerChanges() const;
    std::vector<std::string> openedURLs() const;

private:
    mutable std::mutex mutex_;
    bool idleTimerDisabled_ = false;
    std::string settingsURL_ = "app-settings:";
    std::vector<bool> idleChanges_;
    std::vector<std::string> opened_;
};

}  // namespace kestrelvue::sim
