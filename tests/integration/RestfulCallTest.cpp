// The call layer against a real loopback server: what each reply turns into, what the server
// received, and which failures are reported before the call returns.
#include <gtest/gtest.h>
#include <kestrelvue/Json.h>
#include <kestrelvue/RestfulCall.h>

#include <cmath>
#include <limits>
#include <thread>

#include "support/TestEnvironment.h"

using namespace kestrelvue;
using namespace kestrelvue::test;
using namespace std::chrono_literals;

namespace {

const std::string kDetail = "Detay bilgisi alınamadı. Daha sonra tekrar deneyin.";
const std::string kOffline = "Lütfen internet bağlantınızı kontrol ediniz!";

// What one call is expected to post.
struct Expect {
    enum class Kind { nothing, errorText, data, noUserInfo, transportError } kind;
    Value value;

    static Expect nothing() { return {Kind::nothing, {}}; }
    static Expect error(std::string text) { return {Kind::errorText, Value(std::move(text))}; }
    static Expect data(Value v) { return {Kind::data, std::move(v)}; }
    static Expect noUserInfo() { return {Kind::noUserInfo, {}}; }
    static Expect transportError() { return {Kind::transportError, {}}; }
};

posix::CurlHttpClient::Options smallBodies() {
    posix::CurlHttpClient::Options o;
    o.maxBodyBytes = 64 * 1024;
    return o;
}

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
        switch (expect.kind) {
            case Expect::Kind::errorText:
                ASSERT_TRUE(n.userInfo);
                EXPECT_EQ(n.userInfo->size(), 1u);
                ASSERT_NE(n.errorText(), nullptr);
                EXPECT_EQ(*n.errorText(), *expect.value.asString());
                break;
            case Expect::Kind::data:
                ASSERT_TRUE(n.userInfo);
                EXPECT_EQ(n.userInfo->size(), 1u);
                ASSERT_NE(n.find("Data"), nullptr);
                EXPECT_TRUE(*n.find("Data") == expect.value);
                break;
            case Expect::Kind::noUserInfo:
                EXPECT_FALSE(n.userInfo.has_value());
                break;
            case Expect::Kind::transportError: {
                ASSERT_TRUE(n.userInfo);
                const Value* e = n.find("error");
                ASSERT_NE(e, nullptr);
                ASSERT_TRUE(e->isError()) << "a transport failure is not a text";
                EXPECT_FALSE(e->asError()->domain.empty());
                EXPECT_FALSE(e->asError()->description.empty());
                break;
            }
            case Expect::Kind::nothing:
                break;
        }
    }
};

struct GetCase {
    const char* label;
    ScriptedReply reply;
    bool asArray;
    Expect expect;
};

TEST_F(RestfulCallTest, GetRepliesBecomeOneNotification) {
    const GetCase cases[] = {
        {"list of objects", ScriptedReply::json(R"([{"a":1},{"b":"ç"}])"), true,
         Expect::data(parsed(R"([{"a":1},{"b":"ç"}])"))},
        {"empty list", ScriptedReply::json("[]"), true, Expect::data(List{})},
        {"object where a list is expected", ScriptedReply::json(R"({"a":1})"), true,
         Expect::data(Value())},
        {"list with a non-object element", ScriptedReply::json(R"([{"a":1},2])"), true,
         Expect::data(Value())},
        {"object", ScriptedReply::json(R"({"a":[1,2]})"), false,
         Expect::data(parsed(R"({"a":[1,2]})"))},
        {"list where an object is expected", ScriptedReply::json(R"([{"a":1}])"), false,
         Expect::data(Value())},
        {"status 500", ScriptedReply::json(R"({"a":1})", 500), true,
         Expect::error(kDetail + " ErrorCode: 500")},
        {"status 404", ScriptedReply::statusOnly(404), true,
         Expect::error(kDetail + " ErrorCode: 404")},
        {"status 201 is not success", ScriptedReply::json("[]", 201), true,
         Expect::error(kDetail + " ErrorCode: 201")},
        {"status 500 without a body", ScriptedReply::noBody(500), true,
         Expect::error(kDetail + " ErrorCode: 500")},
        {"status 204", ScriptedReply::noBody(204), true,
         Expect::error(kDetail + " ErrorCode: 204")},
        {"empty body", ScriptedReply::json(""), true, Expect::error(kDetail)},
        {"not JSON", ScriptedReply::text("<html>oops</html>"), true, Expect::error(kDetail)},
        {"bare number", ScriptedReply::json("42"), true, Expect::error(kDetail)},
        {"invalid UTF-8 in JSON", ScriptedReply::json("[{\"a\":\"\xff\xfe\"}]"), true,
         Expect::error(kDetail)},
        {"truncated JSON", ScriptedReply::json(R"([{"a":1})"), true, Expect::error(kDetail)},
        {"status 200 without a body", ScriptedReply::noBody(200), true, Expect::nothing()},
        {"connection dropped before the reply",
         ScriptedReply::dropped(ScriptedReply::Drop::beforeReply), true, Expect::error(kDetail)},
        {"connection dropped after the headers",
         ScriptedReply::dropped(ScriptedReply::Drop::afterHeaders, "[{}]"), true,
         Expect::error(kDetail)},
    };
    for (const GetCase& c : cases) {
        server.clearRequests();
        server.reply("/api/get", c.reply);
        NotificationRecorder rec(env.notifications, {"done"});
        call->Get(server.url("/api/get"), "done", c.asArray);
        check(rec, c.expect, c.label);
        ASSERT_TRUE(server.waitForRequests(1)) << c.label;
        EXPECT_EQ(server.requests()[0].method, "GET") << c.label;
    }
}

TEST_F(RestfulCallTest, GetSendsAPlainRequestToTheGivenAddress) {
    server.reply("/api/Driving/getPassedCoordinates/T-1", ScriptedReply::json("[]"));
    NotificationRecorder rec(env.notifications, {"coords"});
    call->Get(server.url("/api/Driving/getPassedCoordinates/T-1?latitude=41.5&longitude=-2"),
              "coords");
    ASSERT_TRUE(rec.waitFor(1));
    ASSERT_EQ(server.requestCount(), 1u);
    ReceivedRequest r = server.requests()[0];
    EXPECT_EQ(r.method, "GET");
    EXPECT_EQ(r.path, "/api/Driving/getPassedCoordinates/T-1");
    EXPECT_EQ(r.query, "latitude=41.5&longitude=-2");
    EXPECT_TRUE(r.body.empty());
    EXPECT_FALSE(r.hasHeader("Content-Type"));
}

TEST_F(RestfulCallTest, GetIgnoresReachabilityAndReportsTheFailedRequest) {
    call->setMReachability(std::make_shared<Reachability>(offlineProbe()));
    // Nothing listens on the port of a server that has gone.
    std::string deadURL;
    {
        TestServer gone;
        deadURL = gone.url("/api/get");
    }
    NotificationRecorder rec(env.notifications, {"done"});
    call->Get(deadURL, "done");
    check(rec, Expect::error(kDetail), "refused connection");

    // And with a live server the request is sent although the probe says offline.
    NotificationRecorder rec2(env.notifications, {"done2"});
    server.reply("/api/get", ScriptedReply::json("[]"));
    call->Get(server.url("/api/get"), "done2");
    ASSERT_TRUE(rec2.waitFor(1));
    EXPECT_EQ(server.requestCount(), 1u);
}

struct PostCase {
    const char* label;
    ScriptedReply reply;
    bool useReturnValue;
    RestfulCall::ReturnType returnType;
    Expect expect;
};

TEST_F(RestfulCallTest, PostRepliesBecomeOneNotification) {
    using RT = RestfulCall::ReturnType;
    const std::int64_t maxInt = std::numeric_limits<std::int64_t>::max();
    const std::int64_t minInt = std::numeric_limits<std::int64_t>::min();
    const PostCase cases[] = {
        {"int", ScriptedReply::text("42"), true, RT::int_, Expect::data(42)},
        {"negative int", ScriptedReply::text("-17"), true, RT::int_, Expect::data(-17)},
        {"int with plus sign", ScriptedReply::text("+7"), true, RT::int_, Expect::data(7)},
        {"largest int", ScriptedReply::text("9223372036854775807"), true, RT::int_,
         Expect::data(Value(static_cast<long long>(maxInt)))},
        {"smallest int", ScriptedReply::text("-9223372036854775808"), true, RT::int_,
         Expect::data(Value(static_cast<long long>(minInt)))},
        {"int overflow", ScriptedReply::text("9223372036854775808"), true, RT::int_,
         Expect::data(Value())},
        {"quoted int", ScriptedReply::text("\"42\""), true, RT::int_, Expect::data(Value())},
        {"int and a blank", ScriptedReply::text("42 "), true, RT::int_, Expect::data(Value())},
        {"int and a line end", ScriptedReply::text("42\n"), true, RT::int_, Expect::data(Value())},
        {"blank and an int", ScriptedReply::text(" 42"), true, RT::int_, Expect::data(Value())},
        {"sign alone", ScriptedReply::text("-"), true, RT::int_, Expect::data(Value())},
        {"empty int", ScriptedReply::text(""), true, RT::int_, Expect::data(Value())},
        {"decimal", ScriptedReply::text("4.0"), true, RT::int_, Expect::data(Value())},
        {"int not UTF-8", ScriptedReply::text("4\xff"), true, RT::int_, Expect::error(kDetail)},
        {"string", ScriptedReply::text("Hoş geldin"), true, RT::string, Expect::data("Hoş geldin")},
        {"empty string", ScriptedReply::text(""), true, RT::string, Expect::data("")},
        {"string not UTF-8", ScriptedReply::text("a\xc3"), true, RT::string,
         Expect::error(kDetail)},
        {"dictionary", ScriptedReply::json(R"({"Token":"t","Id":3})"), true, RT::dictionary,
         Expect::data(parsed(R"({"Token":"t","Id":3})"))},
        {"dictionary given a list", ScriptedReply::json("[{}]"), true, RT::dictionary,
         Expect::data(Value())},
        {"dictionary given a bare number", ScriptedReply::json("42"), true, RT::dictionary,
         Expect::error(kDetail)},
        {"dictionary given an empty body", ScriptedReply::json(""), true, RT::dictionary,
         Expect::error(kDetail)},
        {"array", ScriptedReply::json(R"([{"a":null}])"), true, RT::array,
         Expect::data(parsed(R"([{"a":null}])"))},
        {"array given an object", ScriptedReply::json("{}"), true, RT::array,
         Expect::data(Value())},
        {"array given a list of numbers", ScriptedReply::json("[1,2]"), true, RT::array,
         Expect::data(Value())},
        {"403 with a body", ScriptedReply::text("Token süresi doldu", 403), true, RT::int_,
         Expect::error("expired")},
        {"403 with an empty body", ScriptedReply::statusOnly(403), false, RT::int_,
         Expect::error("expired")},
        {"400 with a text", ScriptedReply::text("Kullanıcı bulunamadı", 400), true, RT::int_,
         Expect::error("Kullanıcı bulunamadı")},
        {"500 with JSON", ScriptedReply::json(R"({"m":"x"})", 500), true, RT::dictionary,
         Expect::error(R"({"m":"x"})")},
        {"500 with an empty body", ScriptedReply::statusOnly(500), true, RT::int_,
         Expect::error("")},
        {"400 not UTF-8", ScriptedReply::text("\xff", 400), true, RT::int_, Expect::error(kDetail)},
        {"non-200 without return value", ScriptedReply::text("nope", 409), false, RT::int_,
         Expect::error("nope")},
        {"200 without return value", ScriptedReply::text("whatever"), false, RT::array,
         Expect::noUserInfo()},
        {"200 with no body at all", ScriptedReply::noBody(200), true, RT::int_,
         Expect::error(kDetail)},
        {"500 with no body at all", ScriptedReply::noBody(500), true, RT::int_,
         Expect::error(kDetail)},
        {"connection dropped before the reply",
         ScriptedReply::dropped(ScriptedReply::Drop::beforeReply), true, RT::int_,
         Expect::transportError()},
        {"connection dropped after the headers",
         ScriptedReply::dropped(ScriptedReply::Drop::afterHeaders, "12"), true, RT::int_,
         Expect::transportError()},
    };
    for (const PostCase& c : cases) {
        server.clearRequests();
        server.reply("/api/post", c.reply);
        NotificationRecorder rec(env.notifications, {"done"});
        call->Post(server.url("/api/post"), Object{{"k", "v"}}, "done", c.useReturnValue,
                   c.returnType);
        check(rec, c.expect, c.label);
        EXPECT_EQ(server.requestCount(), 1u) << c.label;
    }
}

TEST_F(RestfulCallTest, PostSendsCompactJsonWithJsonHeaders) {
    server.reply("/api/User/LoginWithToken", ScriptedReply::text("1"));
    NotificationRecorder rec(env.notifications, {"login"});
    call->Post(server.url("/api/User/LoginWithToken"),
               Object{{"Token", "a\"b\\ç"}, {"UserID", 12}, {"Score", 87.5}}, "login");
    ASSERT_TRUE(rec.waitFor(1));
    ASSERT_EQ(server.requestCount(), 1u);
    ReceivedRequest r = server.requests()[0];
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.path, "/api/User/LoginWithToken");
    EXPECT_EQ(r.header("Content-Type"), "application/json");
    EXPECT_EQ(r.header("Accept"), "application/json");
    EXPECT_FALSE(r.hasHeader("Expect"));
    EXPECT_EQ(r.body, R"({"Score":87.5,"Token":"a\"b\\ç","UserID":12})");
    EXPECT_TRUE(*rec.at(0).find("Data") == Value(1));
}

TEST_F(RestfulCallTest, FailuresFoundBeforeSendingArePostedBeforeTheCallReturns) {
    using RT = RestfulCall::ReturnType;
    struct Case {
        const char* label;
        std::function<void(RestfulCall&, const std::string& name)> act;
        std::string text;
    };
    std::string good = server.url("/api/post");
    const Case cases[] = {
        {"Get with a blank in the URL",
         [&](RestfulCall& c, const std::string& n) { c.Get(server.url("/api/a b"), n); },
         "Bad URL!"},
        {"Get with an empty URL", [](RestfulCall& c, const std::string& n) { c.Get("", n); },
         "Bad URL!"},
        {"Get with a non-ASCII URL",
         [&](RestfulCall& c, const std::string& n) { c.Get(server.url("/api/ş"), n); }, "Bad URL!"},
        {"Post with a blank in the URL",
         [&](RestfulCall& c, const std::string& n) {
             c.Post(server.url("/api/ post"), Object{}, n);
         },
         "Bad URL!"},
        {"Post with a bad URL while offline reports the URL first",
         [&](RestfulCall& c, const std::string& n) {
             c.setMReachability(std::make_shared<Reachability>(offlineProbe()));
             c.Post("not a url", Object{}, n);
         },
         "Bad URL!"},
        {"Post offline",
         [&](RestfulCall& c, const std::string& n) {
             c.setMReachability(std::make_shared<Reachability>(offlineProbe()));
             c.Post(good, Object{{"a", 1}}, n);
         },
         kOffline},
        {"Post when a connection must be established first",
         [&](RestfulCall& c, const std::string& n) {
             c.setMReachability(
                 std::make_shared<Reachability>(std::make_shared<platform::FixedReachabilityProbe>(
                     platform::kReachabilityFlagsReachable |
                     platform::kReachabilityFlagsConnectionRequired)));
             c.Post(good, Object{{"a", 1}}, n);
         },
         kOffline},
        {"Post when the platform cannot answer",
         [&](RestfulCall& c, const std::string& n) {
             c.setMReachability(std::make_shared<Reachability>(unanswerableProbe()));
             c.Post(good, Object{{"a", 1}}, n);
         },
         kOffline},
        {"Post without a reachability object",
         [&](RestfulCall& c, const std::string& n) {
             c.setMReachability(nullptr);
             c.Post(good, Object{{"a", 1}}, n);
         },
         kOffline},
        {"Post with a non-finite number",
         [&](RestfulCall& c, const std::string& n) {
             c.Post(good, Object{{"Score", std::numeric_limits<double>::quiet_NaN()}}, n, true,
                    RT::int_);
         },
         "Json serialize edilemedi.!"},
        {"Post with an infinite number in a nested value",
         [&](RestfulCall& c, const std::string& n) {
             c.Post(good, Object{{"List", List{1, HUGE_VAL}}}, n);
         },
         "Json serialize edilemedi.!"},
    };
    for (const Case& c : cases) {
        auto fresh = makeRestfulCall(env);
        NotificationRecorder rec(env.notifications, {"sync"});
        c.act(*fresh, "sync");
        // No waiting: the notification must already be there, from this thread.
        ASSERT_EQ(rec.count(), 1u) << c.label;
        RecordedNotification n = rec.at(0);
        EXPECT_EQ(n.thread, std::this_thread::get_id()) << c.label;
        EXPECT_EQ(n.object, nullptr) << c.label;
        ASSERT_NE(n.errorText(), nullptr) << c.label;
        EXPECT_EQ(*n.errorText(), c.text) << c.label;
        EXPECT_TRUE(rec.settled(1, 50ms)) << c.label;
    }
    EXPECT_EQ(server.requestCount(), 0u) << "no request may leave for a failure found before";
}

TEST_F(RestfulCallTest, HugeRepliesAreRefusedNotBuffered) {
    Environment small = makeTestEnvironment(server, smallBodies());
    auto capped = makeRestfulCall(small);
    std::string big = "[" + std::string(200 * 1024, ' ') + "]";
    server.reply("/api/big", ScriptedReply::json(big));

    NotificationRecorder getRec(small.notifications, {"get"});
    capped->Get(server.url("/api/big"), "get");
    check(getRec, Expect::error(kDetail), "Get");

    server.clearRequests();
    NotificationRecorder postRec(small.notifications, {"post"});
    capped->Post(server.url("/api/big"), Object{}, "post", true, RestfulCall::ReturnType::array);
    check(postRec, Expect::transportError(), "Post");
    EXPECT_EQ(postRec.at(0).find("error")->asError()->code, platform::kTransportBodyTooLarge);
}

TEST_F(RestfulCallTest, ManyCallsInFlightEachPostOnce) {
    constexpr int kCalls = 24;
    for (int i = 0; i < kCalls; ++i) {
        std::string path = "/api/item/" + std::to_string(i);
        // Later calls answer sooner, so replies overtake each other.
        ScriptedReply r = ScriptedReply::json(R"({"i":)" + std::to_string(i) + "}");
        r.delay = std::chrono::milliseconds((kCalls - i) * 10);
        server.reply(path, r);
    }
    std::vector<std::string> names;
    for (int i = 0; i < kCalls; ++i) names.push_back("item" + std::to_string(i));
    NotificationRecorder rec(env.notifications, names);
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int i = t; i < kCalls; i += 4) {
                if (i % 2 == 0) {
                    call->Get(server.url("/api/item/" + std::to_string(i)), names[i], false);
                } else {
                    call->Post(server.url("/api/item/" + std::to_string(i)), Object{}, names[i],
                               true, RestfulCall::ReturnType::dictionary);
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
        EXPECT_TRUE(*got[0].find("Data") == parsed(R"({"i":)" + std::to_string(i) + "}"));
    }
}

TEST_F(RestfulCallTest, ARepliesOutliveTheGatewayThatSentIt) {
    ScriptedReply slow = ScriptedReply::json("[]");
    slow.delay = 100ms;
    server.reply("/api/slow", slow);
    NotificationRecorder rec(env.notifications, {"late"});
    {
        auto shortLived = makeRestfulCall(env);
        shortLived->Get(server.url("/api/slow"), "late");
    }
    ASSERT_TRUE(rec.waitFor(1));
    EXPECT_TRUE(*rec.at(0).find("Data") == Value(List{}));
}

TEST(RestfulCallShared, SharedInstanceIsOneObjectBuiltFromTheEnvironment) {
    RestfulCall* seen[4] = {};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] { seen[i] = &RestfulCall::sharedInstance(); });
    for (auto& t : threads) t.join();
    for (auto* p : seen) EXPECT_EQ(p, seen[0]);
    EXPECT_NE(RestfulCall::sharedInstance().mReachability(), nullptr);
    EXPECT_EQ(&RestfulCall::sharedInstance().notificationCenter(),
              Environment::current().notifications.get());
}

}  // namespace
