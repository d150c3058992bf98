#include "platform/sim/Device.h"

namespace kestrelvue::sim {

platform::DeviceOrientation Device::orientation() const {
    return static_cast<platform::DeviceOrientation>(orientation_.load());
}

void Device::setOrientation(platform::DeviceOrientation value) {
    orientation_.store(static_cast<int>(value));
}

}  // namespace kestrelvue::sim
