// The call layer against a real loopback server: what each reply turns into, what the server
// received, and which failures are reported before the call returns.
#include <gtest/gtest.h>
#include <kestrelvue/RestfulCall.h>

#include <cmath>
#include <thread>

#include "core/Json.h"
#include "support/TestEnvironment.h"

using namespace kestrelvue;
using namespace kestrelvue::test;
using namespace std::chrono_literals;

namespace {

const std::string kDetail = "Detay bilgisi alınamadı. Daha sonra tekrar deneyin.";
using R = ScriptedReply;
using RT = RestfulCall::ReturnType;

std::string posted(std::string_view json) {
    return R"({"Data":)" + std::string(json) + "}";
}
std::string err(const std::string& text) {
    return *json::write(Value(Object{{"error", text}}));
}

// What a call posted, in one line: "nothing", "no userInfo", "transport error" or its userInfo as
// JSON. Replies arrive on a worker thread, without an object.
std::string outcome(const NotificationRecorder& rec, bool quiet) {
    if (!rec.waitFor(1, quiet ? 300ms : 5s)) return "nothing";
    EXPECT_TRUE(rec.settled(1));
    const RecordedNotification n = rec.at(0);
    EXPECT_EQ(n.object, nullptr);
    EXPECT_NE(n.thread, std::this_thread::get_id());
    if (!n.userInfo) return "no userInfo";
    const Value info(*n.userInfo);
    if (const Value* e = info.find("error"); e && e->isError())
        return e->asError()->domain.empty() || e->asError()->description.empty()
                   ? "a transport error without a text"
                   : "transport error";
    return json::write(Value(*n.userInfo)).value_or("not writable");
}

class RestfulCallTest : public ::testing::Test {
protected:
    TestServer server;
    Environment env = makeTestEnvironment(server);
};

// Get's flag asks for a list; Post's for a typed return value. Each call goes through a gateway
// that is gone before the reply comes, and Get ignores a probe that says offline.
TEST_F(RestfulCallTest, RepliesBecomeOneNotification) {
    struct Case {
        R reply;
        bool isGet, flag;
        RT returnType;
        std::string expect;
    };
    const R noBody500{.status = 500, .body = std::nullopt};
    const Case cases[] = {
        {R::json(R"([{"a":1},{"b":"ç"}])"), true, true, RT::int_, posted(R"([{"a":1},{"b":"ç"}])")},
        {R::json(R"({"a":1})"), true, true, RT::int_, posted("null")},  // not a list
        {R::json(R"([{"a":1},2])"), true, true, RT::int_, posted("null")},
        {R::json(R"({"a":[1,2]})"), true, false, RT::int_, posted(R"({"a":[1,2]})")},
        {R::json(R"({"a":1})", 500), true, true, RT::int_, err(kDetail + " ErrorCode: 500")},
        {noBody500, true, true, RT::int_, err(kDetail + " ErrorCode: 500")},
        {R::text("<html>oops</html>"), true, true, RT::int_, err(kDetail)},
        {{.body = std::nullopt}, true, true, RT::int_, "nothing"},
        {{.drop = R::Drop::beforeReply}, true, true, RT::int_, err(kDetail)},
        {R::text("42"), false, true, RT::int_, posted("42")},
        {R::text("9223372036854775808"), false, true, RT::int_, posted("null")},
        {R::text("4\xff"), false, true, RT::int_, err(kDetail)},
        {R::text("Hoş geldin"), false, true, RT::string, posted(R"("Hoş geldin")")},
        {R::json(R"({"Id":3,"Token":"t"})"), false, true, RT::dictionary,
         posted(R"({"Id":3,"Token":"t"})")},
        {R::json("42"), false, true, RT::dictionary, err(kDetail)},
        {R::json(R"([{"a":null}])"), false, true, RT::array, posted(R"([{"a":null}])")},
        {R::json("{}"), false, true, RT::array, posted("null")},
        {R::text("Token süresi doldu", 403), false, true, RT::int_, err("expired")},
        {R::text("Kullanıcı bulunamadı", 400), false, true, RT::int_, err("Kullanıcı bulunamadı")},
        {R::json(R"({"m":"x"})", 500), false, true, RT::dictionary, err(R"({"m":"x"})")},
        {R::text("nope", 409), false, false, RT::int_, err("nope")},  // no return value asked
        {R::text("whatever"), false, false, RT::array, "no userInfo"},
        {{.body = std::nullopt}, false, true, RT::int_, err(kDetail)},
        {{.drop = R::Drop::beforeReply}, false, true, RT::int_, "transport error"},
    };
    int row = 0;
    for (const Case& c : cases) {
        const std::string path = "/api/case" + std::to_string(++row);
        SCOPED_TRACE(path);
        server.reply(path, c.reply);
        NotificationRecorder rec(env.notifications, {"done"});
        auto gateway = makeRestfulCall(env);
        const std::string url = server.url(path + "?latitude=41.5&longitude=-2");
        if (c.isGet) {
            gateway->setMReachability(std::make_shared<Reachability>(offlineProbe()));
            gateway->Get(url, "done", c.flag);
        } else {
            gateway->Post(url, Object{{"Token", "a\"b\\ç"}, {"UserID", 12}, {"Score", 87.5}},
                          "done", c.flag, c.returnType);
        }
        gateway.reset();
        ASSERT_TRUE(server.waitForRequests(1, path));
        EXPECT_EQ(outcome(rec, c.expect == "nothing"), c.expect);

        const auto requests = server.requests(path);
        ASSERT_EQ(requests.size(), 1u);
        const ReceivedRequest& r = requests[0];
        EXPECT_EQ(r.target, path + "?latitude=41.5&longitude=-2");
        EXPECT_EQ(r.method, c.isGet ? "GET" : "POST");
        EXPECT_EQ(r.header("Content-Type"), c.isGet ? "" : "application/json");
        EXPECT_EQ(r.header("Accept"), c.isGet ? "*/*" : "application/json");
        EXPECT_EQ(r.header("Expect"), "");
        EXPECT_EQ(r.body, c.isGet ? "" : R"({"Score":87.5,"Token":"a\"b\\ç","UserID":12})");
    }
}

TEST_F(RestfulCallTest, FailuresFoundBeforeSendingArePostedBeforeTheCallReturns) {
    const auto online = std::make_shared<Reachability>(reachableProbe());
    const auto offline = std::make_shared<Reachability>(offlineProbe());
    const std::string good = server.url("/api/post"), badURL = "Bad URL!";
    const std::string kOffline = "Lütfen internet bağlantınızı kontrol ediniz!";
    struct Case {
        bool isGet;
        std::string url;
        std::shared_ptr<Reachability> reachability;
        Object body;
        std::string text;
    } cases[] = {
        {true, server.url("/api/a b"), online, {}, badURL},
        {false, "not a url", offline, {}, badURL},
        {false, good, offline, {{"a", 1}}, kOffline},
        {false, good, nullptr, {{"a", 1}}, kOffline},  // no reachability object
        {false, good, online, {{"L", List{1, HUGE_VAL}}}, "Json serialize edilemedi.!"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url + " " + c.text);
        auto gateway = makeRestfulCall(env);
        gateway->setMReachability(c.reachability);
        NotificationRecorder rec(env.notifications, {"sync"});
        if (c.isGet) {
            gateway->Get(c.url, "sync");
        } else {
            gateway->Post(c.url, c.body, "sync", true, RT::int_);
        }
        // No waiting: the notification must already be there, from this thread.
        ASSERT_TRUE(rec.settled(1, 0ms));
        RecordedNotification n = rec.at(0);
        EXPECT_EQ(n.thread, std::this_thread::get_id());
        EXPECT_EQ(n.object, nullptr);
        EXPECT_EQ(n.userInfo, UserInfo(Object{{"error", c.text}}));
        EXPECT_TRUE(rec.settled(1, 50ms));
    }
    EXPECT_TRUE(server.requests().empty()) << "no request may leave for a failure found before";
}

}  // namespace
