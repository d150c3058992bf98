// TEMPORARY: stand-ins for operations whose owners have not landed yet, so the engine links.
// Whoever lands the real definition deletes its stand-in here (the linker's "multiple definition"
// error points at it); delete this file when it is empty.

#include <kestrelvue/DrivingInsight.h>

namespace kestrelvue {

// Sample evaluation: only the lifecycle's part (end position, first-sample start position,
// annotation, time and address).
void DrivingInsight::evaluateActionForDrivingScore(std::int64_t motionId, const Vector3&,
                                                   const Vector3&, const Vector3&, const Vector3&) {
    std::optional<platform::Location> start;
    {
        std::lock_guard lock(mutex_);
        if (!currentLocation) return;
        endLocation = currentLocation;
        if (motionId == 1) {
            startLocation = currentLocation;
            startAnnotation->coordinate = currentLocation->coordinate;
            startAnnotation->subtitle = "Başlangıç";
            startDateTime = env_.clock->now();
            start = startLocation;
        }
    }
    if (start) geocodeStartAddress(*start);
}

// Trip score (detection).
double DrivingInsight::calculateScore() {
    return 100.0;
}

}  // namespace kestrelvue
