#pragma once

#include <kestrelvue/Export.h>
#include <kestrelvue/MotionDataItem.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kestrelvue {

struct KESTRELVUE_EXPORT MotionData {
    std::vector<MotionDataItem> motionDataArray;
    bool isSyncingToServer = false;
    std::int64_t serverSyncTryCount = 0;

    /// The text of the first min(first, size) records, each followed by ";"; empty for none.
    std::string bulkMotionDataToString(std::int64_t first) const;
    /// Drops the first min(first, size) records; the rest keep their order.
    void removeSentBulkMotionData(std::int64_t first);
};

}  // namespace kestrelvue
