#pragma once
// Whom a trip upload reports to. Records do not know the engine: an engine registers the way to
// reach its delegate for the environment it was made over, and an upload looks it up when its
// reply arrives. No engine over the environment, no report (and no engine is made for one).

#include <kestrelvue/Delegates.h>
#include <kestrelvue/Environment.h>

#include <functional>
#include <memory>

namespace kestrelvue::detail {

using DelegateSource = std::function<std::shared_ptr<DrivingInsightDelegate>()>;

/// Called by an engine when it starts and ends; the source is called only between the two.
void registerTripReporter(const Environment& environment, const void* owner, DelegateSource source);
void unregisterTripReporter(const Environment& environment, const void* owner);

/// The delegate of the first engine registered over `environment`, copied while that engine
/// cannot end; null without one.
std::shared_ptr<DrivingInsightDelegate> tripReporterFor(const Environment& environment);

}  // namespace kestrelvue::detail
