#pragma once
// The shared HTTP/JSON gateway. Every call's outcome comes back as exactly one notification under
// the observer name the caller chose (a Get answered 200 with no body posts none).

#include <kestrelvue/Export.h>
#include <kestrelvue/NotificationCenter.h>
#include <kestrelvue/Reachability.h>
#include <kestrelvue/Value.h>
#include <kestrelvue/platform/HttpClient.h>

#include <memory>
#include <mutex>
#include <string>

namespace kestrelvue {

class KESTRELVUE_EXPORT RestfulCall {
public:
    /// The shape in which Post hands the reply body back under "Data".
    enum class ReturnType : int {
        array = 0,
        dictionary = 1,
        int_ = 2,  // `int` is a C++ keyword
        string = 3,
    };

    static RestfulCall& sharedInstance();

    /// For tests and hosts that want their own gateway.
    RestfulCall(std::shared_ptr<platform::HttpClient> http,
                std::shared_ptr<NotificationCenter> notifications,
                std::shared_ptr<Reachability> reachability);

    void Get(const std::string& argURL, const std::string& argObserverName, bool argAsArray = true);
    void Post(const std::string& to, const Object& jsondictionary, const std::string& observerName,
              bool useReturnValue = true, ReturnType returnType = ReturnType::int_);

    std::shared_ptr<Reachability> mReachability() const;
    void setMReachability(std::shared_ptr<Reachability> reachability);

    NotificationCenter& notificationCenter() const { return *notifications_; }

private:
    std::shared_ptr<platform::HttpClient> http_;
    std::shared_ptr<NotificationCenter> notifications_;
    mutable std::mutex mutex_;
    std::shared_ptr<Reachability> reachability_;
};

// Texts of the call layer, shared with the engine's own uploads.
inline constexpr const char* kBadURLText = "Bad URL!";
inline constexpr const char* kOfflineText = "Lütfen internet bağlantınızı kontrol ediniz!";
inline constexpr const char* kSerializeFailedText = "Json serialize edilemedi.!";
inline constexpr const char* kDetailUnavailableText =
    "Detay bilgisi alınamadı. Daha sonra tekrar deneyin.";

}  // namespace kestrelvue
