#pragma once

namespace kestrelvue {

/// A motion quantity: three 64-bit floats.
struct Vector3 {
    double x = 0, y = 0, z = 0;
    bool operator==(const Vector3&) const = default;
};

struct MotionDataItem {};

}  // namespace kestrelvue
