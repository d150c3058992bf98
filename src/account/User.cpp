#include <kestrelvue/Environment.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/User.h>

#include <mutex>

#include "account/WireValues.h"
#include "core/Locked.h"

namespace kestrelvue {
namespace {

const Value* entry(const UserInfo& info, std::string_view key) {
    if (!info) return nullptr;
    auto it = info->find(key);
    return it == info->end() ? nullptr : &it->second;
}

/// The "error" entry when it is a text. A transport error value is not one, and falls through.
const std::string* errorText(const UserInfo& info) {
    const Value* error = entry(info, "error");
    return error ? error->asString() : nullptr;
}

}  // namespace

struct User::Impl {
    RestfulCall* restfulCall = nullptr;
    NotificationCenter* center = nullptr;
    bool handlesAnswers = false;

    mutable std::mutex mutex = {};
    std::int64_t id = 0;
    std::string firstName = {};
    std::string lastName = {};
    std::string email = {};
    GenderType gender = GenderType::unknown;
    std::string referenceId = {};
    UserType type = UserType::driver;
    std::shared_ptr<UserDelegate> delegate = {};
};

User& User::sharedInstance() {
    // Never destroyed: answers may still arrive on worker threads while the process exits.
    static User* instance = new User("", "", "", GenderType::unknown, "", Environment::current(),
                                     RestfulCall::sharedInstance(), true);
    return *instance;
}

User::User(std::string firstName, std::string lastName, std::string email, GenderType gender,
           std::string referenceId)
    : User(std::move(firstName), std::move(lastName), std::move(email), gender,
           std::move(referenceId), Environment::current(), RestfulCall::sharedInstance(), false) {}

User::User(std::string firstName, std::string lastName, std::string email, GenderType gender,
           std::string referenceId, const Environment& environment, RestfulCall& restfulCall)
    : User(std::move(firstName), std::move(lastName), std::move(email), gender,
           std::move(referenceId), environment, restfulCall, false) {}

std::unique_ptr<User> User::makeDetachedShared(const Environment& environment,
                                               RestfulCall& restfulCall) {
    return std::unique_ptr<User>(
        new User("", "", "", GenderType::unknown, "", environment, restfulCall, true));
}

User::User(std::string firstName, std::string lastName, std::string email, GenderType gender,
           std::string referenceId, const Environment& environment, RestfulCall& restfulCall,
           bool handlesAnswers)
    : loginURL(environment.serviceURL("/api/User/LoginWithToken")),
      addUserURL(environment.serviceURL("/api/User/AddUser")),
      addFriendURL(environment.serviceURL("/api/General/AddFriend")),
      getLeaderShipURL(environment.serviceURL("/api/General/getLeaderShip/")),
      impl_(new Impl{.restfulCall = &restfulCall,
                     .center = &restfulCall.notificationCenter(),
                     .firstName = std::move(firstName),
                     .lastName = std::move(lastName),
                     .email = std::move(email),
                     .gender = gender,
                     .referenceId = std::move(referenceId)}) {
    if (handlesAnswers) registerHandlers();
}

void User::registerHandlers() {
    impl_->handlesAnswers = true;
    using Handler = void (User::*)(const Notification&);
    const std::pair<const std::string*, Handler> handlers[] = {
        {&loginObserverName, &User::userLogedIn},
        {&addUserObserverName, &User::userAdded},
        {&addFriendObserverName, &User::friendAdded},
        {&getLeaderShipObserverName, &User::leadershipGot},
    };
    for (const auto& entry : handlers) {
        // Copied out of the pair: clang rejects capturing a structured binding.
        Handler method = entry.second;
        impl_->center->addObserver(
            this, *entry.first,
            [this, method](const Notification& notification) { (this->*method)(notification); });
    }
}

User::~User() {
    // Returns once no handler of this account runs on another thread.
    if (impl_->handlesAnswers) impl_->center->removeObserver(this);
}

// ---- Fields -------------------------------------------------------------------------------

RestfulCall& User::restfulCall() const {
    return *impl_->restfulCall;
}

std::string User::firstName() const {
    return detail::lockedRead(impl_->mutex, impl_->firstName);
}
void User::setFirstName(std::string value) {
    detail::lockedWrite(impl_->mutex, impl_->firstName, std::move(value));
}
std::string User::lastName() const {
    return detail::lockedRead(impl_->mutex, impl_->lastName);
}
void User::setLastName(std::string value) {
    detail::lockedWrite(impl_->mutex, impl_->lastName, std::move(value));
}
std::string User::email() const {
    return detail::lockedRead(impl_->mutex, impl_->email);
}
void User::setEmail(std::string value) {
    detail::lockedWrite(impl_->mutex, impl_->email, std::move(value));
}
GenderType User::gender() const {
    return detail::lockedRead(impl_->mutex, impl_->gender);
}
void User::setGender(GenderType value) {
    detail::lockedWrite(impl_->mutex, impl_->gender, value);
}
std::string User::referenceId() const {
    return detail::lockedRead(impl_->mutex, impl_->referenceId);
}
void User::setReferenceId(std::string value) {
    detail::lockedWrite(impl_->mutex, impl_->referenceId, std::move(value));
}
std::shared_ptr<UserDelegate> User::delegate() const {
    return detail::lockedRead(impl_->mutex, impl_->delegate);
}
void User::setDelegate(std::shared_ptr<UserDelegate> value) {
    detail::lockedWrite(impl_->mutex, impl_->delegate, std::move(value));
}
std::int64_t User::Id() const {
    return detail::lockedRead(impl_->mutex, impl_->id);
}
void User::setId(std::int64_t value) {
    detail::lockedWrite(impl_->mutex, impl_->id, value);
}
UserType User::Type() const {
    return detail::lockedRead(impl_->mutex, impl_->type);
}

// ---- Login and registration ---------------------------------------------------------------

void User::login(const std::string& userName, const std::string& password) {
    // The token lives only in this body, which is gone once the call layer has serialised it.
    impl_->restfulCall->Post(loginURL, Object{{"Mobile", userName}, {"Token", password}},
                             loginObserverName, true, RestfulCall::ReturnType::dictionary);
}

void User::userLogedIn(const Notification& notification) {
    const UserInfo& info = notification.userInfo;
    if (const std::string* error = errorText(info)) {
        if (auto d = delegate()) d->userLoginDidFail(kUserErrorCode, kLoginFailedTitle, *error);
        return;
    }
    const Value* data = entry(info, "Data");
    const Object* reply = data ? data->asObject() : nullptr;
    if (!reply) return;
    std::shared_ptr<UserDelegate> d;
    {
        // Both fields change together, so a reader never sees one login's Id with another's Type.
        std::lock_guard lock(impl_->mutex);
        if (auto it = reply->find("Id"); it != reply->end()) {
            if (auto id = account::integerOf(it->second)) impl_->id = *id;
        }
        if (auto it = reply->find("UserTypeId"); it != reply->end()) {
            if (auto typeId = account::integerOf(it->second))
                impl_->type = userTypeFromWire(*typeId);
        }
        d = impl_->delegate;
    }
    if (d) d->userDidLogin(*this);
}

void User::addUser() {
    Object body;
    {
        std::lock_guard lock(impl_->mutex);
        body = Object{{"FirstName", impl_->firstName},
                      {"LastName", impl_->lastName},
                      {"Email", impl_->email},
                      {"GenderId", genderWireId(impl_->gender)},
                      {"ReferenceId", impl_->referenceId}};
    }
    impl_->restfulCall->Post(addUserURL, body, addUserObserverName, true,
                             RestfulCall::ReturnType::int_);
}

void User::userAdded(const Notification& notification) {
    const UserInfo& info = notification.userInfo;
    if (const std::string* error = errorText(info)) {
        if (auto d = delegate()) d->userAddDidFail(kUserErrorCode, kAddUserFailedTitle, *error);
        return;
    }
    const Value* data = entry(info, "Data");
    std::optional<std::int64_t> newId = data ? data->asInt() : std::nullopt;
    if (!newId) return;
    std::shared_ptr<UserDelegate> d;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->id = *newId;
        d = impl_->delegate;
    }
    if (d) d->userDidAdd(*this);
}

// ---- Friends and leaderboard --------------------------------------------------------------

void User::addFriend(const std::string& friendReferenceId) {
    Object body{{"ReferenceID", referenceId()},
                {"FriendReferenceID", friendReferenceId},
                {"LoginTypeID", 1}};
    impl_->restfulCall->Post(addFriendURL, body, addFriendObserverName, true,
                             RestfulCall::ReturnType::string);
}

void User::friendAdded(const Notification& notification) {
    const UserInfo& info = notification.userInfo;
    if (const std::string* error = errorText(info)) {
        if (auto d = delegate()) d->friendAddDidFail(kUserErrorCode, kAddFriendFailedTitle, *error);
        return;
    }
    const Value* data = entry(info, "Data");
    const std::string* reply = data ? data->asString() : nullptr;
    if (!reply) return;
    // The service's reply body, not the identifier that was sent.
    if (auto d = delegate()) d->friendDidAdd(*reply);
}

void User::getLeadership(RankTypes for_) {
    std::string url = getLeaderShipURL;
    url += std::to_string(Id());
    url += "?RankType=";
    url += std::to_string(rankTypeNumber(for_));
    impl_->restfulCall->Get(url, getLeaderShipObserverName, true);
}

void User::leadershipGot(const Notification& notification) {
    const UserInfo& info = notification.userInfo;
    if (const std::string* error = errorText(info)) {
        if (auto d = delegate()) {
            d->leadershipGetDidFail(kUserErrorCode, kLeadershipFailedTitle, *error);
        }
        return;
    }
    const Value* data = entry(info, "Data");
    auto leaderboard = data ? leaderboardFromData(*data) : std::nullopt;
    auto d = delegate();
    if (!d) return;
    if (leaderboard) {
        d->leadershipDidGet(*leaderboard);
    } else {
        d->leadershipGetDidFail(kUserErrorCode, kLeadershipFailedTitle, kLeadershipNotAListText);
    }
}

}  // namespace kestrelvue
