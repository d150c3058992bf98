#pragma once
// Values of parsed simdjson elements, for in-tree readers that walk a document themselves (the
// reference service's request reader) and still want what the general reader would make.

#include <kestrelvue/Value.h>
#include <simdjson.h>

namespace kestrelvue::json {

/// The value the general reader makes of a scalar element: integers beyond 64-bit signed become
/// doubles; a list or an object (and null) gives null.
Value scalarValue(simdjson::dom::element e);

}  // namespace kestrelvue::json
