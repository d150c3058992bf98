#pragma once
// The motion text the library uploads: records of 39 comma-terminated fields, each closed by
// ";". Read into records with every field checked, and written back the way the library writes
// it (for records that earlier files kept only in part).

#include <string>
#include <string_view>
#include <vector>

#include "Rows.h"

namespace kestrelvue::service {

/// The records of a motion text. A record that is malformed or holds what cannot be true (a
/// latitude beyond ±90, a record time that is no date, a penalty that is not finite) refuses the
/// whole text, named by its number and field. Without `checkValues` only the form is checked:
/// records stored before values were checked are read as they are.
Result<std::vector<MotionRecord>> parseMotionText(std::string_view text, bool checkValues = true);

/// Appends `record` as the library writes it, ";" included.
void appendMotionText(std::string& out, const MotionRecord& record);

/// The largest penalty, trip distance or score that any real trip could have: beyond it a value
/// is refused, so that no sum or average over a user's trips can overflow.
inline constexpr double kMaxPenalty = 1e9, kMaxScore = 1e6, kMaxDistanceMetres = 1e9;

}  // namespace kestrelvue::service
