#pragma once
// A plain history row offered to hosts that build their own lists. The library never fills or
// reads it.

#include <kestrelvue/Export.h>

#include <optional>
#include <string>

namespace kestrelvue {

class KESTRELVUE_EXPORT TarihceObject {
public:
    TarihceObject() = default;

    std::optional<std::string> Nereden;         // where the trip began
    std::optional<std::string> Nereye;          // where it ended
    std::optional<std::string> BaslangicSaati;  // start time
    std::optional<std::string> BitisSaati;      // end time
    std::optional<double> Score;
};

}  // namespace kestrelvue
