#pragma once
// What an environment holds where its host set nothing: objects that do nothing and answer
// "nothing here", so the core calls every member without asking whether it is there.

#include <kestrelvue/Environment.h>

namespace kestrelvue::detail {

/// Puts a null object into every platform member of `environment` that is empty. The data
/// members (applicationInfo, outboxDirectory, makeOutboxStore) stay as they are.
void fillMissing(Environment& environment);

}  // namespace kestrelvue::detail
