#include "platform/sim/Geocoder.h"

#include <utility>

namespace kestrelvue::sim {

Geocoder::Geocoder(std::shared_ptr<platform::Executor> mainQueue)
    : mainQueue_(std::move(mainQueue)) {}

platform::AsyncRequest Geocoder::reverseGeocodeLocation(const platform::Location& location,
                                                        platform::GeocodeCompletion completion) {
    auto [lookup, guarded] = platform::AsyncRequest::guard(std::move(completion));
    Answer answer;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(location);
        if (!script_.empty()) {
            answer = std::move(script_.front());
            script_.pop_front();
        } else if (answerer_) {
            answer = answerer_(location);
        } else {
            answer = placemark({platform::shortestDecimalText(location.coordinate.latitude) + ", " +
                                platform::shortestDecimalText(location.coordinate.longitude)});
        }
    }
    mainQueue_->post([completion = std::move(guarded), answer = std::move(answer)] {
        completion(answer.placemarks, answer.error);
    });
    return std::move(lookup);
}

void Geocoder::enqueueAnswer(Answer answer) {
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(answer));
}

void Geocoder::setAnswerer(Answerer answerer) {
    std::lock_guard lock(mutex_);
    answerer_ = std::move(answerer);
}

std::vector<platform::Location> Geocoder::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

Geocoder::Answer Geocoder::placemark(std::vector<std::string> lines) {
    return Answer{std::vector<platform::Placemark>{platform::Placemark{std::move(lines)}},
                  std::nullopt};
}

Geocoder::Answer Geocoder::failure(std::int64_t code, std::string description) {
    return Answer{std::nullopt, platform::GeocodeError{code, std::move(description)}};
}

Geocoder::Answer Geocoder::nothing() {
    return Answer{};
}

}  // namespace kestrelvue::sim
