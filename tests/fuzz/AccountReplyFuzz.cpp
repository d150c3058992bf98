// Login, registration, add-friend and leaderboard replies: each body, shaped as its call shapes
// it and handed to the account, ends in at most one report to the host and never in a crash.
#include <kestrelvue/Environment.h>
#include <kestrelvue/User.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "FuzzInput.h"
#include "net/CallReply.h"

namespace {

using namespace kestrelvue;

class NoHttp final : public platform::HttpClient {
public:
    platform::AsyncRequest send(platform::HttpRequest, platform::HttpCompletion) override {
        return {};
    }
};

struct CountingDelegate final : UserDelegate {
    int reports = 0;
    void userDidLogin(User&) override { ++reports; }
    void userLoginDidFail(std::int64_t, const std::string&, const std::string&) override {
        ++reports;
    }
    void userDidAdd(User&) override { ++reports; }
    void userAddDidFail(std::int64_t, const std::string&, const std::string&) override {
        ++reports;
    }
    void friendDidAdd(const std::string&) override { ++reports; }
    void friendAddDidFail(std::int64_t, const std::string&, const std::string&) override {
        ++reports;
    }
    void leadershipDidGet(const std::vector<LeaderboardItem>&) override { ++reports; }
    void leadershipGetDidFail(std::int64_t, const std::string&, const std::string&) override {
        ++reports;
    }
};

struct Account {
    Environment env;
    std::unique_ptr<RestfulCall> call;
    std::unique_ptr<User> user;
    std::shared_ptr<CountingDelegate> delegate = std::make_shared<CountingDelegate>();
    Account() {
        env.http = std::make_shared<NoHttp>();
        env.notifications = NotificationCenter::make();
        env.applicationInfo = Object{{std::string(kBaseURLKey), Value("http://service.test")}};
        call = std::make_unique<RestfulCall>(env.http, env.notifications, nullptr);
        user = User::makeDetachedShared(env, *call);
        user->setDelegate(delegate);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Account* account = new Account;
    fuzz::Input input(data, size);
    const std::uint8_t which = input.choice() % 4;
    const platform::HttpResult result = input.result();
    User& user = *account->user;
    std::optional<UserInfo> info;
    std::string name;
    switch (which) {
        case 0:
            info = detail::shapePostReply(result, true, RestfulCall::ReturnType::dictionary);
            name = user.loginObserverName;
            break;
        case 1:
            info = detail::shapePostReply(result, true, RestfulCall::ReturnType::int_);
            name = user.addUserObserverName;
            break;
        case 2:
            info = detail::shapePostReply(result, true, RestfulCall::ReturnType::string);
            name = user.addFriendObserverName;
            break;
        default:
            info = detail::shapeGetReply(result, true);
            name = user.getLeaderShipObserverName;
    }
    if (!info) return 0;
    account->delegate->reports = 0;
    account->env.notifications->post(name, nullptr, std::move(*info));
    if (account->delegate->reports > 1) __builtin_trap();
    return 0;
}
