#pragma once
// What an environment holds where its host set nothing: objects that do nothing and answer
// "nothing here", so the core calls every member without asking whether it is there.

#include <kestrelvue/Environment.h>

#include <functional>

namespace kestrelvue::detail {

/// Puts a null object into every platform member of `environment` that is empty. The data
/// members (applicationInfo, outboxDirectory, makeOutboxStore) stay as they are.
void fillMissing(Environment& environment);

/// The platform's default environment, for makeDefault(). The build links exactly one
/// definition, the platform's (KESTRELVUE_PLATFORM):
/// src/platform/<platform>/DefaultEnvironment.cpp. A host's own factory
/// (Environment::setDefaultFactory) comes first whenever it is set.
Environment platformDefaultEnvironment();

}  // namespace kestrelvue::detail
