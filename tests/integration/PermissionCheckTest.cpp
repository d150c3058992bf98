// The permission check at trip start, through the real engine.
#include <gtest/gtest.h>

#include "support/UploadFixture.h"

namespace kestrelvue::uploadtest {
namespace {

class PermissionCheck : public UploadHost {};

TEST_F(PermissionCheck, RefusalsHandTheHostAnAlert) {
    struct Case {
        const char* name;
        bool servicesEnabled;
        platform::AuthorizationStatus status;
        std::string title;
        std::string message;
        std::string settingsButton;
    };
    using S = platform::AuthorizationStatus;
    const std::vector<Case> cases = {
        {"services off", false, S::authorizedWhenInUse, "Konum Servisleri Kapalı",
         "Sürüş başlatabilmek için Konum Servislerini açarak Sürüş Takip uygulamasına izin veriniz",
         "Ayarlara Git"},
        {"denied", true, S::denied, "Konum Erişim Yetkisi Bulunmuyor",
         "Sürüş başlatabilmek için Konum Servisleri'nden Sürüş Takip uygulamasına izin veriniz",
         "Ayarlara  Git"},
        {"restricted", true, S::restricted, "Konum Erişim Yetkisi Bulunmuyor",
         "Sürüş başlatabilmek için Konum Servisleri'nden Sürüş Takip uygulamasına izin veriniz",
         "Ayarlara  Git"},
    };
    SetUpEngine();
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(c.name);
        location_->setLocationServicesEnabled(c.servicesEnabled);
        location_->setAuthorizationStatus(c.status);
        EXPECT_FALSE(engine_->startTrip());
        EXPECT_FALSE(engine_->IsDriving());
        const auto failed = delegate_->reports("tripDidFail");
        ASSERT_EQ(failed.size(), i + 1);
        const Failure& f = failed.back();
        EXPECT_EQ(f.code, 1000);
        EXPECT_EQ(f.title, c.title);
        EXPECT_EQ(f.message, c.message);
        ASSERT_NE(f.alert, nullptr);
        EXPECT_EQ(f.alert->title, c.title);
        EXPECT_EQ(f.alert->message, c.message);
        EXPECT_EQ(f.alert->preferredStyle, platform::Alert::Style::alert);
        ASSERT_EQ(f.alert->actions.size(), 2u);
        EXPECT_EQ(f.alert->actions[0].title, c.settingsButton);
        EXPECT_EQ(f.alert->actions[0].style, platform::AlertAction::Style::defaultStyle);
        EXPECT_EQ(f.alert->actions[1].title, "Vazgeç");
        EXPECT_EQ(f.alert->actions[1].style, platform::AlertAction::Style::cancel);
        EXPECT_FALSE(f.alert->actions[1].handler);

        // The first button opens this application's settings page.
        ASSERT_TRUE(f.alert->actions[0].handler);
        f.alert->actions[0].handler();
        EXPECT_EQ(application_->openedURLs().size(), i + 1);
        EXPECT_EQ(application_->openedURLs().back(), "app-settings:");
    }
    EXPECT_EQ(location_->authorizationRequestCount(), 0);

    // Without a settings address the button does nothing.
    application_->setOpenSettingsURLString("");
    delegate_->reports("tripDidFail").back().alert->actions[0].handler();
    EXPECT_EQ(application_->openedURLs().size(), cases.size());
}

TEST_F(PermissionCheck, NotYetAskedIsRequestedSilently) {
    SetUpEngine();
    location_->setAuthorizationStatus(platform::AuthorizationStatus::notDetermined);
    // Even a user who answers at once: this start still returns false; the host starts again.
    location_->setAuthorizationAnswer(platform::AuthorizationStatus::authorizedWhenInUse);
    EXPECT_FALSE(engine_->startTrip());
    EXPECT_EQ(location_->authorizationRequestCount(), 1);
    EXPECT_TRUE(delegate_->reports("tripDidFail").empty());
    EXPECT_TRUE(finishedTrips(*delegate_).empty());
    EXPECT_TRUE(engine_->startTrip());
}

TEST_F(PermissionCheck, GrantedStartsWithoutAlert) {
    SetUpEngine();
    for (auto status : {platform::AuthorizationStatus::authorizedAlways,
                        platform::AuthorizationStatus::authorizedWhenInUse}) {
        location_->setAuthorizationStatus(status);
        EXPECT_TRUE(engine_->startTrip());
        engine_->stopTrip();
    }
    EXPECT_TRUE(delegate_->reports("tripDidFail").empty());
}

}  // namespace
}  // namespace kestrelvue::uploadtest
