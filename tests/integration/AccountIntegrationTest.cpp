// The account against a real HTTP server on 127.0.0.1, through the real call layer and libcurl.

#include <gtest/gtest.h>
#include <kestrelvue/Environment.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/User.h>

#include "core/Json.h"
#include "support/RecordingUserDelegate.h"
#include "support/TestDoubles.h"
#include "support/TestEnvironment.h"
#include "support/TestServer.h"

namespace kestrelvue {
namespace {

using test::RecordingUserDelegate;
using test::ScriptedReply;
using test::TestServer;
using namespace std::chrono_literals;

class AccountIntegration : public ::testing::Test {
protected:
    AccountIntegration() { account->setDelegate(delegate); }

    void setOnline(bool online) {
        call->setMReachability(
            std::make_shared<Reachability>(online ? test::reachableProbe() : test::offlineProbe()));
    }

    Object bodyOf(const test::ReceivedRequest& request) {
        auto parsed = json::parse(request.body);
        EXPECT_TRUE(parsed && parsed.value->isObject()) << request.body;
        return parsed && parsed.value->isObject() ? *parsed.value->asObject() : Object{};
    }

    // Declared first so that it outlives the client and the account.
    TestServer server;
    Environment env = test::makeTestEnvironment(server);
    std::unique_ptr<RestfulCall> call = test::makeRestfulCall(env);
    std::unique_ptr<User> account = User::makeDetachedShared(env, *call);
    std::shared_ptr<RecordingUserDelegate> delegate = std::make_shared<RecordingUserDelegate>();
    // Registered after the account, so an answer is recorded only once the account handled it.
    test::NotificationRecorder answers{
        env.notifications, {"UserLogedIn", "UserAdded", "FriendAdded", "LeaderShipGot"}};
};

TEST_F(AccountIntegration, LoginSendsTheNumberAndTokenAndTakesTheReply) {
    server.reply("/api/User/LoginWithToken", ScriptedReply::json(R"({"Id":58,"UserTypeId":3})"));
    account->login("5551234567", "t0k3n");
    auto events = delegate->waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].user, account.get());
    EXPECT_EQ(account->Id(), 58);
    EXPECT_EQ(account->Type(), UserType::observer);
    const auto request = server.requests("/api/User/LoginWithToken").at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(bodyOf(request), (Object{{"Mobile", "5551234567"}, {"Token", "t0k3n"}}));
}

TEST_F(AccountIntegration, RegistrationOfAFemaleAccountThroughAPublicInitialiserAccount) {
    server.reply("/api/User/AddUser", ScriptedReply::text("812"));
    User registrant("Ayşe", "Yılmaz", "ayse@example.org", GenderType::female, "REF-2", env, *call);
    auto own = std::make_shared<RecordingUserDelegate>();
    registrant.setDelegate(own);
    registrant.addUser();

    auto events = delegate->waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].operation, "userDidAdd");
    EXPECT_EQ(events[0].user, account.get());  // the handling account, not the registrant
    EXPECT_EQ(account->Id(), 812);
    EXPECT_EQ(registrant.Id(), 0);
    EXPECT_TRUE(own->events().empty());

    EXPECT_EQ(bodyOf(server.requests("/api/User/AddUser").at(0)),
              (Object{{"FirstName", "Ayşe"},
                      {"LastName", "Yılmaz"},
                      {"Email", "ayse@example.org"},
                      {"GenderId", 2},
                      {"ReferenceId", "REF-2"}}));
}

TEST_F(AccountIntegration, AddFriendPassesTheReplyBodyOn) {
    account->setReferenceId("REF-1");
    server.enqueue("/api/General/AddFriend", ScriptedReply::text("OK"));
    server.enqueue("/api/General/AddFriend", ScriptedReply::text("Zaten arkadaş", 500));
    account->addFriend("REF-9");
    delegate->waitFor(1);
    account->addFriend("REF-9");
    auto events = delegate->waitFor(2);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].operation, "friendDidAdd");
    EXPECT_EQ(events[0].friendReferenceId, "OK");
    EXPECT_EQ(events[1].operation, "friendAddDidFail");
    EXPECT_EQ(events[1].errorTitle, "Arkadaş eklenemedi");
    EXPECT_EQ(events[1].errorMessage, "Zaten arkadaş");
    EXPECT_EQ(
        bodyOf(server.requests("/api/General/AddFriend").at(0)),
        (Object{{"ReferenceID", "REF-1"}, {"FriendReferenceID", "REF-9"}, {"LoginTypeID", 1}}));
}

TEST_F(AccountIntegration, OverlappingLeaderboardRequestsAreToldApartByRankType) {
    account->setId(57);
    // The first request's answer is held back so that the second one overtakes it.
    server.enqueue("/api/General/getLeaderShip/57",
                   ScriptedReply::json(R"([{"UserID":"a1","RankType":1}])").after(500ms));
    server.enqueue("/api/General/getLeaderShip/57",
                   ScriptedReply::json(R"([{"UserID":"a1","RankType":2}])"));
    account->getLeadership(RankTypes::Country);
    ASSERT_TRUE(server.waitForRequests(1));
    account->getLeadership(RankTypes::City);
    auto events = delegate->waitFor(2);
    ASSERT_EQ(events.size(), 2u);
    ASSERT_EQ(events[0].leaderboard.size(), 1u);
    ASSERT_EQ(events[1].leaderboard.size(), 1u);
    EXPECT_EQ(events[0].leaderboard[0].RankType, RankTypes::City);
    EXPECT_EQ(events[1].leaderboard[0].RankType, RankTypes::Country);
    EXPECT_EQ(server.requests().at(0).target, "/api/General/getLeaderShip/57?RankType=1");
    EXPECT_EQ(server.requests().at(1).target, "/api/General/getLeaderShip/57?RankType=2");
}

// The token may appear in the login body and nowhere else: not in the reports to the host, nor in
// the answers the call layer posts, whatever way the login fails.
TEST_F(AccountIntegration, TheLoginTokenAppearsOnlyInTheRequestBody) {
    const std::string token = "Zq9-SECRET-token-7Hk";
    for (const ScriptedReply& reply :
         {ScriptedReply{.drop = ScriptedReply::Drop::beforeReply},  // not reported
          ScriptedReply{.status = 403}, ScriptedReply::text("Hatalı giriş", 500),
          ScriptedReply::text("not json"), ScriptedReply::json(R"({"Id":5})")})
        server.enqueue("/api/User/LoginWithToken", reply);
    for (std::size_t i = 1; i <= 5; ++i) {
        account->login("5551234567", token);
        ASSERT_TRUE(server.waitForRequests(i));
    }
    ASSERT_TRUE(answers.waitFor(5));
    setOnline(false);
    account->login("5551234567", token);
    ASSERT_EQ(answers.count(), 6u);
    auto events = delegate->events();
    ASSERT_EQ(events.size(), 5u);

    for (const auto& request : server.requests()) {
        EXPECT_NE(request.body.find(token), std::string::npos);  // it was sent ...
        EXPECT_EQ(request.target.find(token), std::string::npos);
        for (const auto& [name, value] : request.headers)
            EXPECT_EQ(value.find(token), std::string::npos) << name;
    }
    for (const auto& e : events)  // ... and never reported
        EXPECT_EQ(e.errorMessage.find(token), std::string::npos) << e.errorMessage;
    int transportErrors = 0;
    for (const auto& answer : answers.all()) {
        ASSERT_TRUE(answer.userInfo);
        transportErrors += answer.find("error") && answer.find("error")->isError();
        for (const auto& [key, value] : *answer.userInfo) {
            auto* e = value.asError();
            const std::string text =
                e ? e->domain + " " + e->description : json::write(value).value_or("");
            EXPECT_EQ(text.find(token), std::string::npos) << key << ": " << text;
        }
    }
    EXPECT_EQ(transportErrors, 1);
}

}  // namespace
}  // namespace kestrelvue
