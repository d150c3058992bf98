#pragma once
// A prepared alert with actions, handed to the host to present.

#include <kestrelvue/Export.h>

#include <functional>
#include <string>
#include <vector>

namespace kestrelvue::platform {

struct KESTRELVUE_EXPORT AlertAction {
    enum class Style { defaultStyle, cancel, destructive };
    std::string title;
    Style style = Style::defaultStyle;
    std::function<void()> handler;  // may be empty
};

struct KESTRELVUE_EXPORT Alert {
    enum class Style { alert, actionSheet };
    std::string title;
    std::string message;
    Style preferredStyle = Style::alert;
    std::vector<AlertAction> actions;
};

}  // namespace kestrelvue::platform
