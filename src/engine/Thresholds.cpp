// The download of the penalty bands and scalar settings.
//
// A reply is applied whole or not at all: every element that names a setting or list is checked
// first, and one malformed element turns the whole reply into a failure (the settings keep their
// values and the host hears "thresholdsGot" with the error text). Elements without a name, or
// with a name the engine does not know, are ignored whatever else they hold, so the service can
// add kinds without breaking older engines.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <utility>

#include "core/Json.h"
#include "engine/EngineImpl.h"

namespace kestrelvue {

namespace {

constexpr const char* kThresholdsGot = "thresholdsGot";
constexpr const char* kThresholdsFailedText = "Sunucudan ayarlar indirilemedi. Tekrar deneyiniz";
// The kept reply, beside the outbox's store. A real reply is a few kilobytes.
constexpr const char* kKeptBandsFile = "thresholds.json";
constexpr std::size_t kKeptBandsMaxBytes = std::size_t{1} << 20;

std::optional<detail::Settings::Reply> readKept(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    auto parsed = json::parse(text.str(), json::ParseLimits{kKeptBandsMaxBytes});
    if (!parsed) return std::nullopt;
    Object info;
    info["Data"] = std::move(*parsed.value);
    return detail::Settings::Reply::read(UserInfo(std::move(info)));
}

}  // namespace

std::filesystem::path DrivingInsight::Impl::keptBandsFile() const {
    const std::string directory = env_.outboxPath();
    if (directory.empty()) return {};
    return std::filesystem::path(directory) / kKeptBandsFile;
}

void DrivingInsight::Impl::applyKeptBands() {
    const auto file = keptBandsFile();
    std::error_code ec;
    if (file.empty() || !std::filesystem::exists(file, ec)) return;
    if (auto reply = readKept(file)) {
        std::lock_guard lock(mutex_);
        settings.apply(*reply);
        keptBandsApplied_ = true;
        return;
    }
    // Read with the refusals of a download: a damaged file is applied not at all, and set aside
    // (not deleted) so that nothing is read from it again and it can still be looked at.
    const auto stamp =
        std::chrono::duration_cast<std::chrono::seconds>(env_.clock->now().time_since_epoch())
            .count();
    std::filesystem::rename(file, file.string() + ".damaged-" + std::to_string(stamp), ec);
}

void DrivingInsight::Impl::keepBands(const UserInfo& reply) {
    const auto file = keptBandsFile();
    if (file.empty() || !reply) return;
    auto data = reply->find("Data");
    if (data == reply->end()) return;
    auto text = json::write(data->second);
    if (!text) return;
    // Written aside and renamed over the old one, so a crash mid-write never leaves half a file.
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);
    const std::filesystem::path partial = file.string() + ".partial-" + env_.ids->makeUuid();
    {
        std::ofstream out(partial, std::ios::binary | std::ios::trunc);
        out << *text;
        out.flush();
        if (!out) {
            std::filesystem::remove(partial, ec);
            return;
        }
    }
    std::filesystem::rename(partial, file, ec);
    if (ec) std::filesystem::remove(partial, ec);
}

void DrivingInsight::Impl::getThresholdsFromServer() {
    restfulCall_->Get(getThresholdsURL, getThresholdsObserverName, true);
}

void DrivingInsight::Impl::getThresholds(const Notification& notification) {
    std::optional<detail::Settings::Reply> reply;
    const bool failed = notification.userInfo && notification.userInfo->count("error") &&
                        notification.userInfo->find("error")->second.isString();
    if (!failed) reply = detail::Settings::Reply::read(notification.userInfo);

    if (!reply) {
        center_.post(kThresholdsGot, &self_, Object{{"error", Value(kThresholdsFailedText)}});
        return;
    }
    {
        std::lock_guard lock(mutex_);
        // A fresh reply replaces the kept one rather than adding to it.
        if (std::exchange(keptBandsApplied_, false)) settings = detail::Settings{};
        settings.apply(*reply);
    }
    keepBands(notification.userInfo);
    center_.post(kThresholdsGot, &self_);
}

}  // namespace kestrelvue
