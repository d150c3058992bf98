// The account's handlers, over its own call layer and notification centre.
// Replies are posted straight onto the centre; requests and real replies are covered by the
// integration tests.

#include <gtest/gtest.h>
#include <kestrelvue/Environment.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/User.h>

#include <cstdlib>

#include "core/Json.h"
#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

Object object(std::string_view text) {
    return *json::parse(text).value->asObject();
}

TEST(UserTest, LoginRepliesUpdateFieldsAndReportTheHandlingAccount) {
    test::EngineHarness h;                           // its client never answers
    const auto center = NotificationCenter::make();  // the call layer's, not the environment's
    RestfulCall call(h.env.http, center, std::make_shared<Reachability>(h.env.reachability));
    struct Case {
        const char* data;
        std::int64_t id;
        UserType type;
    };
    // Each case starts from Id 5 and Type driver.
    const Case cases[] = {
        {R"({"Id":57,"UserTypeId":4})", 57, UserType::driver},
        {R"({"Id":57,"UserTypeId":3})", 57, UserType::observer},
        {R"({"UserTypeId":2})", 5, UserType::passenger},
        {R"({"Id":"57","UserTypeId":"2"})", 5, UserType::driver},
        {R"({"Id":57.0,"UserTypeId":1})", 57, UserType::observer},
        {R"({"Id":true})", 5, UserType::driver},
        {"{}", 5, UserType::driver},
    };
    for (const Case& c : cases) {
        auto fresh = User::makeDetachedShared(h.env, call);
        auto d = std::make_shared<test::RecordingDelegate>();
        fresh->setDelegate(d);
        fresh->setId(5);
        center->post("UserLogedIn", nullptr, Object{{"Data", object(c.data)}});
        EXPECT_EQ(std::pair(fresh->Id(), fresh->Type()), std::pair(c.id, c.type)) << c.data;
        auto events = d->reports();
        ASSERT_EQ(events.size(), 1u) << c.data;
        EXPECT_EQ(std::pair(events[0].said(), events[0].user),
                  std::pair(std::string("userDidLogin"), static_cast<const User*>(fresh.get())));
    }
}

// The process-wide account is checked in a child process, so no other test meets it.
TEST(UserSharedInstance, HandlesAnswersOnTheSharedCallLayerAndOthersRegisterNothing) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            NotificationCenter& center = RestfulCall::sharedInstance().notificationCenter();
            User& shared = User::sharedInstance();
            bool ok = &shared == &User::sharedInstance() &&
                      &shared.restfulCall() == &RestfulCall::sharedInstance();
            for (const char* name : {"UserLogedIn", "UserAdded", "FriendAdded", "LeaderShipGot"})
                ok = ok && center.observerCount(name) == 1;
            User registrant("Ali", "Kaya", "ali@example.org", GenderType::male, "REF-3");
            ok = ok && center.observerCount("UserAdded") == 1 &&
                 registrant.addUserURL == Environment::current().serviceURL("/api/User/AddUser");
            std::_Exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kestrelvue
