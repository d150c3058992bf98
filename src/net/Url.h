#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrelvue {

/// A parsed absolute URL. Only http and https are accepted.
struct Url {
    std::string scheme;  // lower-case
    std::string host;
    std::optional<int> port;
    std::string pathAndQuery;  // starts with "/" ("/" when the text had no path)
    std::string text;          // the text as given
};

/// Parses like the platform's URL(string:): a text with a blank, a control character, a
/// non-ASCII byte or another character not allowed in a URL fails.
std::optional<Url> parseUrl(std::string_view text);

}  // namespace kestrelvue
