#include <kestrelvue/Environment.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/User.h>

#include "account/WireValues.h"

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
      restfulCall_(&restfulCall),
      center_(&restfulCall.notificationCenter()),
      firstName_(std::move(firstName)),
      lastName_(std::move(lastName)),
      email_(std::move(email)),
      gender_(gender),
      referenceId_(std::move(referenceId)) {
    if (handlesAnswers) registerHandlers();
}

void User::registerHandlers() {
    handlesAnswers_ = true;
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
        center_->addObserver(this, *entry.first, [this, method](const Notification& notification) {
            (this->*method)(notification);
        });
    }
}

User::~User() {
    // Returns once no handler of this account runs on another thread.
    if (handlesAnswers_) center_->removeObserver(this);
}

// ---- Fields -------------------------------------------------------------------------------

std::string User::firstName() const {
    std::lock_guard lock(mutex_);
    return firstName_;
}
void User::setFirstName(std::string value) {
    std::lock_guard lock(mutex_);
    firstName_ = std::move(value);
}
std::string User::lastName() const {
    std::lock_guard lock(mutex_);
    return lastName_;
}
void User::setLastName(std::string value) {
    std::lock_guard lock(mutex_);
    lastName_ = std::move(value);
}
std::string User::email() const {
    std::lock_guard lock(mutex_);
    return email_;
}
void User::setEmail(std::string value) {
    std::lock_guard lock(mutex_);
    email_ = std::move(value);
}
GenderType User::gender() const {
    std::lock_guard lock(mutex_);
    return gender_;
}
void User::setGender(GenderType value) {
    std::lock_guard lock(mutex_);
    gender_ = value;
}
std::string User::referenceId() const {
    std::lock_guard lock(mutex_);
    return referenceId_;
}
void User::setReferenceId(std::string value) {
    std::lock_guard lock(mutex_);
    referenceId_ = std::move(value);
}
std::shared_ptr<UserDelegate> User::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_;
}
void User::setDelegate(std::shared_ptr<UserDelegate> value) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(value);
}
std::int64_t User::Id() const {
    std::lock_guard lock(mutex_);
    return id_;
}
void User::setId(std::int64_t value) {
    std::lock_guard lock(mutex_);
    id_ = value;
}
UserType User::Type() const {
    std::lock_guard lock(mutex_);
    return type_;
}

// ---- Login and registration ---------------------------------------------------------------

void User::login(const std::string& userName, const std::string& password) {
    // The token lives only in this body, which is gone once the call layer has serialised it.
    restfulCall_->Post(loginURL, Object{{"Mobile", userName}, {"Token", password}},
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
        std::lock_guard lock(mutex_);
        if (auto it = reply->find("Id"); it != reply->end()) {
            if (auto id = account::integerOf(it->second)) id_ = *id;
        }
        if (auto it = reply->find("UserTypeId"); it != reply->end()) {
            if (auto typeId = account::integerOf(it->second)) type_ = userTypeFromWire(*typeId);
        }
        d = delegate_;
    }
    if (d) d->userDidLogin(*this);
}

void User::addUser() {
    Object body;
    {
        std::lock_guard lock(mutex_);
        body = Object{{"FirstName", firstName_},
                      {"LastName", lastName_},
                      {"Email", email_},
                      {"GenderId", genderWireId(gender_)},
                      {"ReferenceId", referenceId_}};
    }
    restfulCall_->Post(addUserURL, body, addUserObserverName, true, RestfulCall::ReturnType::int_);
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
        std::lock_guard lock(mutex_);
        id_ = *newId;
        d = delegate_;
    }
    if (d) d->userDidAdd(*this);
}

// ---- Friends and leaderboard --------------------------------------------------------------

void User::addFriend(const std::string& friendReferenceId) {
    Object body{{"ReferenceID", referenceId()},
                {"FriendReferenceID", friendReferenceId},
                {"LoginTypeID", 1}};
    restfulCall_->Post(addFriendURL, body, addFriendObserverName, true,
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
    restfulCall_->Get(url, getLeaderShipObserverName, true);
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
