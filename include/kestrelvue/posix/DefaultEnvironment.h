#pragma once
// The Linux layer's default environment: the one Environment::makeDefault() gives, and the one
// Environment::current() serves when the host installed none and set no factory of its own.

#include <kestrelvue/Environment.h>
#include <kestrelvue/Export.h>

namespace kestrelvue::posix {

/// System clock, random identifiers, libcurl, default-route reachability, the default
/// notification centre, the SQLite outbox store, and (Linux has no motion or location backend
/// yet) the scriptable sensors, geocoder, application and device, which deliver nothing until a
/// host drives them, on a main queue the host drains.
KESTRELVUE_EXPORT Environment defaultEnvironment();

}  // namespace kestrelvue::posix
