#include "platform/sim/Platform.h"

namespace kestrelvue::sim {

void Platform::installInto(Environment& env) const {
    env.clock = clock;
    env.ids = ids;
    env.mainQueue = queue;
    env.makeMotionManager = [m = motion] { return m; };
    env.makeLocationManager = [l = location] { return l; };
    env.geocoder = geocoder;
    env.application = application;
    env.device = device;
}

}  // namespace kestrelvue::sim
