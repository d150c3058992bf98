#pragma once

#include <kestrelvue/MotionDataItem.h>

#include <cstdint>
#include <vector>

namespace kestrelvue {

struct MotionData {
    std::vector<MotionDataItem> motionDataArray;
    bool isSyncingToServer = false;
    std::int64_t serverSyncTryCount = 0;
};

}  // namespace kestrelvue
