// The location permission check that a trip start asks, with the alerts handed to the host.

#include <kestrelvue/platform/Alert.h>
#include <kestrelvue/platform/Application.h>
#include <kestrelvue/platform/LocationManager.h>

#include <memory>
#include <string>
#include <utility>

#include "engine/EngineImpl.h"

namespace kestrelvue {
namespace {

// Two buttons: one that opens this application's page in the device settings, one that only
// closes the alert.
std::shared_ptr<platform::Alert> makePermissionAlert(
    std::string title, std::string message, std::string settingsTitle,
    std::shared_ptr<platform::Application> application) {
    auto alert = std::make_shared<platform::Alert>();
    alert->title = std::move(title);
    alert->message = std::move(message);
    alert->preferredStyle = platform::Alert::Style::alert;
    alert->actions.push_back(
        platform::AlertAction{std::move(settingsTitle), platform::AlertAction::Style::defaultStyle,
                              [application = std::move(application)] {
                                  const std::string settings = application->openSettingsURLString();
                                  // Without a settings address the button does nothing.
                                  if (!settings.empty()) application->openURL(settings);
                              }});
    alert->actions.push_back(
        platform::AlertAction{"Vazgeç", platform::AlertAction::Style::cancel, nullptr});
    return alert;
}

}  // namespace

bool DrivingInsight::Impl::checkLocationPermisionWhenInUse() {
    std::shared_ptr<platform::LocationManager> manager;
    std::string displayName;
    {
        std::lock_guard lock(mutex_);
        manager = locationManager_;
        displayName = bundleDisplayName_;
    }

    std::shared_ptr<platform::Alert> alert;
    bool allowed = false;
    // An engine without a location manager cannot locate at all: treated as services off.
    if (!manager || !manager->locationServicesEnabled()) {
        alert = makePermissionAlert("Konum Servisleri Kapalı",
                                    "Sürüş başlatabilmek için Konum Servislerini açarak " +
                                        displayName + " uygulamasına izin veriniz",
                                    "Ayarlara Git", env_.application);
    } else {
        auto status = manager->authorizationStatus();
        if (status == platform::AuthorizationStatus::notDetermined) {
            // The answer comes later; the host starts the trip again once the user has answered.
            manager->requestWhenInUseAuthorization();
        } else if (status == platform::AuthorizationStatus::restricted ||
                   status == platform::AuthorizationStatus::denied) {
            alert = makePermissionAlert("Konum Erişim Yetkisi Bulunmuyor",
                                        "Sürüş başlatabilmek için Konum Servisleri'nden " +
                                            displayName + " uygulamasına izin veriniz",
                                        "Ayarlara  Git", env_.application);
        }
        allowed = status == platform::AuthorizationStatus::authorizedWhenInUse ||
                  status == platform::AuthorizationStatus::authorizedAlways;
    }

    if (alert) {
        if (auto delegate = delegateSnapshot())
            delegate->tripDidFail(1000, alert->title, alert->message, alert);
        return false;
    }
    return allowed;
}

}  // namespace kestrelvue
