// The default environment of a build without a platform (KESTRELVUE_PLATFORM=none): null objects
// alone, until the host installs its own.

#include "core/NullPlatform.h"

kestrelvue::Environment kestrelvue::detail::platformDefaultEnvironment() {
    return {};
}
