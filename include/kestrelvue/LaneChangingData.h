#pragma once

namespace kestrelvue {

struct LaneChangingData {};

}  // namespace kestrelvue
