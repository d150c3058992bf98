// The call layer against a real loopback server: what each reply turns into, what the server
// received, and which failures are reported before the call returns.
#include <gtest/gtest.h>
#include <kestrelvue/RestfulCall.h>

#include <cmath>
#include <limits>
#include <thread>

#include "core/Json.h"
#include "support/TestEnvironment.h"

using namespace kestrelvue;
using namespace kestrelvue::test;
using namespace std::chrono_literals;

namespace {

const std::string kDetail = "Detay bilgisi alınamadı. Daha sonra tekrar deneyin.";
const std::string kOffline = "Lütfen internet bağlantınızı kontrol ediniz!";
using R = ScriptedReply;
using RT = RestfulCall::ReturnType;

// What one call is expected to post.
struct Expect {
    enum class Kind { nothing, errorText, data, noUserInfo, transportError } kind;
    Value value;
};
Expect err(std::string text) {
    return {Expect::Kind::errorText, Value(std::move(text))};
}
Expect posted(Value v) {
    return {Expect::Kind::data, std::move(v)};
}
const Expect kNothing{Expect::Kind::nothing, {}};
const Expect kNoInfo{Expect::Kind::noUserInfo, {}};
const Expect kTransport{Expect::Kind::transportError, {}};

Value parsed(std::string_view json) {
    return *json::parse(json).value;
}

class RestfulCallTest : public ::testing::Test {
protected:
    TestServer server;
    Environment env = makeTestEnvironment(server);
    std::unique_ptr<RestfulCall> call = makeRestfulCall(env);

    // Checks the one notification (or none) a call posted under "done".
    void check(const NotificationRecorder& rec, const Expect& expect, const std::string& label) {
        SCOPED_TRACE(label);
        if (expect.kind == Expect::Kind::nothing) {
            // The request was answered; give a stray post time to show up.
            ASSERT_TRUE(server.waitForRequests(1));
            EXPECT_TRUE(rec.settled(0, 300ms));
            return;
        }
        ASSERT_TRUE(rec.waitFor(1));
        EXPECT_TRUE(rec.settled(1));
        RecordedNotification n = rec.at(0);
        EXPECT_EQ(n.object, nullptr);
        EXPECT_NE(n.thread, std::this_thread::get_id()) << "replies arrive on a worker thread";
        if (expect.kind == Expect::Kind::noUserInfo) {
            EXPECT_FALSE(n.userInfo.has_value());
            return;
        }
        ASSERT_TRUE(n.userInfo);
        if (expect.kind == Expect::Kind::transportError) {
            const Value* e = n.find("error");
            ASSERT_TRUE(e && e->isError()) << "a transport failure is not a text";
            EXPECT_FALSE(e->asError()->domain.empty() || e->asError()->description.empty());
            return;
        }
        EXPECT_EQ(n.userInfo->size(), 1u);
        if (expect.kind == Expect::Kind::errorText) {
            ASSERT_NE(n.errorText(), nullptr);
            EXPECT_EQ(*n.errorText(), *expect.value.asString());
        } else {
            ASSERT_NE(n.find("Data"), nullptr);
            EXPECT_TRUE(*n.find("Data") == expect.value);
        }
    }
};

// Get's flag asks for a list; Post's for a typed return value.
TEST_F(RestfulCallTest, RepliesBecomeOneNotification) {
    struct Case {
        const char* label;
        ScriptedReply reply;
        bool isGet, flag;
        RT returnType;
        Expect expect;
    };
    const Case cases[] = {
        {"list of objects", R::json(R"([{"a":1},{"b":"ç"}])"), true, true, RT::int_,
         posted(parsed(R"([{"a":1},{"b":"ç"}])"))},
        {"object where a list is expected", R::json(R"({"a":1})"), true, true, RT::int_,
         posted(Value())},
        {"list with a non-object element", R::json(R"([{"a":1},2])"), true, true, RT::int_,
         posted(Value())},
        {"object", R::json(R"({"a":[1,2]})"), true, false, RT::int_,
         posted(parsed(R"({"a":[1,2]})"))},
        {"status 500", R::json(R"({"a":1})", 500), true, true, RT::int_,
         err(kDetail + " ErrorCode: 500")},
        {"status 500 without a body", R{.status = 500, .body = std::nullopt}, true, true, RT::int_,
         err(kDetail + " ErrorCode: 500")},
        {"not JSON", R::text("<html>oops</html>"), true, true, RT::int_, err(kDetail)},
        {"status 200 without a body", R{.status = 200, .body = std::nullopt}, true, true, RT::int_,
         kNothing},
        {"Get dropped before the reply", R{.drop = R::Drop::beforeReply}, true, true, RT::int_,
         err(kDetail)},
        {"int", R::text("42"), false, true, RT::int_, posted(42)},
        {"int overflow", R::text("9223372036854775808"), false, true, RT::int_, posted(Value())},
        {"int not UTF-8", R::text("4\xff"), false, true, RT::int_, err(kDetail)},
        {"string", R::text("Hoş geldin"), false, true, RT::string, posted("Hoş geldin")},
        {"dictionary", R::json(R"({"Token":"t","Id":3})"), false, true, RT::dictionary,
         posted(parsed(R"({"Token":"t","Id":3})"))},
        {"dictionary given a bare number", R::json("42"), false, true, RT::dictionary,
         err(kDetail)},
        {"array", R::json(R"([{"a":null}])"), false, true, RT::array,
         posted(parsed(R"([{"a":null}])"))},
        {"array given an object", R::json("{}"), false, true, RT::array, posted(Value())},
        {"403 with a body", R::text("Token süresi doldu", 403), false, true, RT::int_,
         err("expired")},
        {"400 with a text", R::text("Kullanıcı bulunamadı", 400), false, true, RT::int_,
         err("Kullanıcı bulunamadı")},
        {"500 with JSON", R::json(R"({"m":"x"})", 500), false, true, RT::dictionary,
         err(R"({"m":"x"})")},
        {"non-200 without return value", R::text("nope", 409), false, false, RT::int_, err("nope")},
        {"200 without return value", R::text("whatever"), false, false, RT::array, kNoInfo},
        {"200 with no body at all", R{.status = 200, .body = std::nullopt}, false, true, RT::int_,
         err(kDetail)},
        {"Post dropped before the reply", R{.drop = R::Drop::beforeReply}, false, true, RT::int_,
         kTransport},
    };
    int row = 0;
    for (const Case& c : cases) {
        const std::string path = "/api/x" + std::to_string(++row);
        server.reply(path, c.reply);
        NotificationRecorder rec(env.notifications, {"done"});
        if (c.isGet)
            call->Get(server.url(path), "done", c.flag);
        else
            call->Post(server.url(path), Object{{"k", "v"}}, "done", c.flag, c.returnType);
        check(rec, c.expect, c.label);
        ASSERT_TRUE(server.waitForRequests(1, path)) << c.label;
        EXPECT_EQ(server.requests(path).size(), 1u) << c.label;
        EXPECT_EQ(server.requests(path)[0].method, c.isGet ? "GET" : "POST") << c.label;
    }
}

TEST_F(RestfulCallTest, GetIgnoresReachabilityAndReportsTheFailedRequest) {
    call->setMReachability(std::make_shared<Reachability>(offlineProbe()));
    std::string deadURL;  // nothing listens on the port of a server that has gone
    {
        TestServer gone;
        deadURL = gone.url("/api/get");
    }
    NotificationRecorder rec(env.notifications, {"done"});
    call->Get(deadURL, "done");
    check(rec, err(kDetail), "refused connection");

    // With a live server the request is sent, plain, although the probe says offline.
    server.reply("/api/Driving/getPassedCoordinates/T-1", R::json("[]"));
    NotificationRecorder rec2(env.notifications, {"coords"});
    call->Get(server.url("/api/Driving/getPassedCoordinates/T-1?latitude=41.5&longitude=-2"),
              "coords");
    ASSERT_TRUE(rec2.waitFor(1));
    ASSERT_EQ(server.requests().size(), 1u);
    const ReceivedRequest r = server.requests()[0];
    EXPECT_EQ(r.target, "/api/Driving/getPassedCoordinates/T-1?latitude=41.5&longitude=-2");
    EXPECT_TRUE(r.body.empty() && r.header("Content-Type").empty());
}

TEST_F(RestfulCallTest, PostSendsCompactJsonWithJsonHeaders) {
    server.reply("/api/User/LoginWithToken", R::text("1"));
    NotificationRecorder rec(env.notifications, {"login"});
    call->Post(server.url("/api/User/LoginWithToken"),
               Object{{"Token", "a\"b\\ç"}, {"UserID", 12}, {"Score", 87.5}}, "login");
    ASSERT_TRUE(rec.waitFor(1));
    ASSERT_EQ(server.requests().size(), 1u);
    ReceivedRequest r = server.requests()[0];
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.path, "/api/User/LoginWithToken");
    EXPECT_EQ(r.header("Content-Type"), "application/json");
    EXPECT_EQ(r.header("Accept"), "application/json");
    EXPECT_EQ(r.header("Expect"), "");
    EXPECT_EQ(r.body, R"({"Score":87.5,"Token":"a\"b\\ç","UserID":12})");
    EXPECT_TRUE(*rec.at(0).find("Data") == Value(1));
}

TEST_F(RestfulCallTest, FailuresFoundBeforeSendingArePostedBeforeTheCallReturns) {
    auto reach = [](std::shared_ptr<platform::ReachabilityProbe> p) {
        return std::make_shared<Reachability>(std::move(p));
    };
    const auto online = reach(reachableProbe()), offline = reach(offlineProbe());
    const std::string good = server.url("/api/post"), badURL = "Bad URL!";
    const std::string notJson = "Json serialize edilemedi.!";
    struct Case {
        const char* label;
        bool isGet;
        std::string url;
        std::shared_ptr<Reachability> reachability;
        Object body;
        std::string text;
    };
    const Case cases[] = {
        {"Get with a blank in the URL", true, server.url("/api/a b"), online, {}, badURL},
        {"Post with a bad URL while offline", false, "not a url", offline, {}, badURL},
        {"Post offline", false, good, offline, {{"a", 1}}, kOffline},
        {"Post without a reachability object", false, good, nullptr, {{"a", 1}}, kOffline},
        {"Post with a NaN", false, good, online, {{"L", List{1, HUGE_VAL}}}, notJson},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        auto fresh = makeRestfulCall(env);
        fresh->setMReachability(c.reachability);
        NotificationRecorder rec(env.notifications, {"sync"});
        if (c.isGet) {
            fresh->Get(c.url, "sync");
        } else {
            fresh->Post(c.url, c.body, "sync", true, RT::int_);
        }
        // No waiting: the notification must already be there, from this thread.
        ASSERT_EQ(rec.count(), 1u);
        RecordedNotification n = rec.at(0);
        EXPECT_EQ(n.thread, std::this_thread::get_id());
        EXPECT_EQ(n.object, nullptr);
        ASSERT_NE(n.errorText(), nullptr);
        EXPECT_EQ(*n.errorText(), c.text);
        EXPECT_TRUE(rec.settled(1, 50ms));
    }
    EXPECT_EQ(server.requests().size(), 0u) << "no request may leave for a failure found before";
}

TEST_F(RestfulCallTest, ManyCallsInFlightEachPostOnce) {
    constexpr int kCalls = 24;
    std::vector<std::string> names;
    auto path = [](int i) { return "/api/item/" + std::to_string(i); };
    auto body = [](int i) { return R"({"i":)" + std::to_string(i) + "}"; };
    for (int i = 0; i < kCalls; ++i) {
        // Later calls answer sooner, so replies overtake each other.
        server.reply(path(i), R::json(body(i)).after(std::chrono::milliseconds((kCalls - i) * 10)));
        names.push_back("item" + std::to_string(i));
    }
    NotificationRecorder rec(env.notifications, names);
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int i = t; i < kCalls; i += 4) {
                if (i % 2 == 0) {
                    call->Get(server.url(path(i)), names[i], false);
                } else {
                    call->Post(server.url(path(i)), Object{}, names[i], true, RT::dictionary);
                }
            }
        });
    }
    for (auto& c : callers) c.join();
    ASSERT_TRUE(rec.waitFor(kCalls, 10s));
    EXPECT_TRUE(rec.settled(kCalls));
    for (int i = 0; i < kCalls; ++i) {
        auto got = rec.named(names[i]);
        ASSERT_EQ(got.size(), 1u) << names[i];
        ASSERT_NE(got[0].find("Data"), nullptr) << names[i];
        EXPECT_TRUE(*got[0].find("Data") == parsed(body(i)));
    }
}

TEST_F(RestfulCallTest, ARepliesOutliveTheGatewayThatSentIt) {
    server.reply("/api/slow", R::json("[]").after(100ms));
    NotificationRecorder rec(env.notifications, {"late"});
    makeRestfulCall(env)->Get(server.url("/api/slow"), "late");
    ASSERT_TRUE(rec.waitFor(1));
    EXPECT_TRUE(*rec.at(0).find("Data") == Value(List{}));
}

}  // namespace
