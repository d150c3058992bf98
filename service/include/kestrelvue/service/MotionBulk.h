#pragma once
// A motion bulk as the reference service reads it, for the programs that look into what the
// library uploads (the replay tool counts and times its records this way).

#include <kestrelvue/Result.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "records/MotionText.h"

namespace kestrelvue::service {

using detail::MotionRecord;
using detail::RecordTime;

/// A motion bulk as it was read: the text of its records, and the records themselves when asked.
struct MotionBulk {
    std::string guid;
    std::int64_t userID = 0;
    std::string text;  // the bulk's "MotionStr", each record as it came
    std::size_t count = 0;
    MotionRecord first, last;           // what a bulk sent again is known by, with its count
    std::vector<MotionRecord> records;  // every record, unless the reader was told not to keep them
};

/// An "addMotionData" body: "UserID", "DrivingGuid" (required) and "MotionStr", whose records
/// each hold 39 comma-terminated fields and end with ";". A record that is malformed or holds
/// what cannot be true (a latitude beyond ±90, a record time that is no date, a penalty that is
/// not finite) refuses the bulk, named by its number and field.
/// A bulk is some 300 bytes a record: `keepRecords` false keeps only the first and the last.
Result<MotionBulk> parseMotionBulk(std::string_view body, bool keepRecords = true);

}  // namespace kestrelvue::service
