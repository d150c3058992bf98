#pragma once
// Part of the scriptable platform (platform/sim/Sim.h): safe to call from any thread.

#include <kestrelvue/platform/Executor.h>
#include <kestrelvue/platform/Geocoder.h>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrelvue::sim {

/// A geocoder that answers from a script, later, through the main queue.
class Geocoder final : public platform::Geocoder {
public:
    struct Answer {
        std::optional<std::vector<platform::Placemark>> placemarks;
        std::optional<platform::GeocodeError> error;
    };
    using Answerer = std::function<Answer(const platform::Location&)>;

    explicit Geocoder(std::shared_ptr<platform::Executor> mainQueue);

    platform::AsyncRequest reverseGeocodeLocation(const platform::Location& location,
                                                  platform::GeocodeCompletion completion) override;

    /// Answers used by the next lookups, first in first out.
    void enqueueAnswer(Answer answer);
    /// Answers lookups once the queued answers are used up. The default names the coordinate:
    /// one placemark with the single line "<latitude>, <longitude>".
    void setAnswerer(Answerer answerer);

    /// Every location asked about, in order.
    std::vector<platform::Location> requests() const;

    static Answer placemark(std::vector<std::string> lines);
    static Answer failure(std::int64_t code = 2, std::string description = "network");
    static Answer nothing();

private:
    std::shared_ptr<platform::Executor> mainQueue_;
    mutable std::mutex mutex_;
    std::deque<Answer> script_;
    Answerer answerer_;
    std::vector<platform::Location> requests_;
};

}  // namespace kestrelvue::sim
