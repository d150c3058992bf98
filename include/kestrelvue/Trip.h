#pragma once

#include <memory>

namespace kestrelvue {

class Trip {
public:
    Trip() = default;
};

using TripRef = std::shared_ptr<Trip>;

}  // namespace kestrelvue
