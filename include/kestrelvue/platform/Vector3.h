#pragma once
// The three-component quantity the motion seam and the motion records share.

#include <kestrelvue/Export.h>

namespace kestrelvue {

/// A motion quantity: three 64-bit floats.
struct KESTRELVUE_EXPORT Vector3 {
    double x = 0, y = 0, z = 0;
    bool operator==(const Vector3&) const = default;
};

}  // namespace kestrelvue
