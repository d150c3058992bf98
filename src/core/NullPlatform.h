#pragma once
// What an environment holds where its host set nothing: objects that do nothing and answer
// "nothing here", so the core calls every member without asking whether it is there.

#include <kestrelvue/Environment.h>

#include <functional>

namespace kestrelvue::detail {

/// Puts a null object into every platform member of `environment` that is empty. The data
/// members (applicationInfo, outboxDirectory, makeOutboxStore) stay as they are.
void fillMissing(Environment& environment);

/// The platform layer's default environment, for makeDefault(). A host's own factory
/// (Environment::setDefaultFactory) comes first whenever both are set.
void setPlatformDefaultFactory(std::function<Environment()> factory);

}  // namespace kestrelvue::detail
