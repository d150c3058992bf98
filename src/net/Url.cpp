#include "net/Url.h"

#include <algorithm>
#include <cctype>

namespace kestrelvue {
namespace {

bool isAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isHex(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool isUnreserved(char c) {
    return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}
bool isSubDelim(char c) {
    switch (c) {
        case '!':
        case '$':
        case '&':
        case '\'':
        case '(':
        case ')':
        case '*':
        case '+':
        case ',':
        case ';':
        case '=':
            return true;
        default:
            return false;
    }
}

// Every byte of `part` is allowed by `allowed` or starts a well-formed percent escape.
template <class Allowed>
bool validComponent(std::string_view part, Allowed allowed) {
    for (std::size_t i = 0; i < part.size(); ++i) {
        char c = part[i];
        if (c == '%') {
            if (i + 2 >= part.size()) return false;
            if (!isHex(part[i + 1]) || !isHex(part[i + 2])) return false;
            i += 2;
            continue;
        }
        if (!allowed(c)) return false;
    }
    return true;
}

bool isPchar(char c) {
    return isUnreserved(c) || isSubDelim(c) || c == ':' || c == '@';
}

}  // namespace

std::optional<Url> parseUrl(std::string_view text) {
    // scheme ":" "//" authority path-abempty [ "?" query ] [ "#" fragment ]
    auto colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0) return std::nullopt;
    std::string scheme(text.substr(0, colon));
    if (!isAlpha(scheme[0])) return std::nullopt;
    for (char& c : scheme) {
        if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return std::nullopt;
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (scheme != "http" && scheme != "https") return std::nullopt;

    std::string_view rest = text.substr(colon + 1);
    if (!rest.starts_with("//")) return std::nullopt;
    rest.remove_prefix(2);

    std::size_t authorityEnd = rest.find_first_of("/?#");
    std::string_view authority = rest.substr(0, authorityEnd);
    std::string_view tail =
        authorityEnd == std::string_view::npos ? std::string_view{} : rest.substr(authorityEnd);

    // Authority: [ userinfo "@" ] host [ ":" port ]
    if (auto at = authority.rfind('@'); at != std::string_view::npos) {
        std::string_view userinfo = authority.substr(0, at);
        if (!validComponent(userinfo,
                            [](char c) { return isUnreserved(c) || isSubDelim(c) || c == ':'; }))
            return std::nullopt;
        authority.remove_prefix(at + 1);
    }
    std::string_view host;
    std::string_view portText;
    bool hasPort = false;
    if (authority.starts_with("[")) {
        auto close = authority.find(']');
        if (close == std::string_view::npos) return std::nullopt;
        host = authority.substr(0, close + 1);
        std::string_view inside = host.substr(1, host.size() - 2);
        if (inside.empty() || !std::all_of(inside.begin(), inside.end(),
                                           [](char c) { return isHex(c) || c == ':' || c == '.'; }))
            return std::nullopt;
        std::string_view after = authority.substr(close + 1);
        if (!after.empty()) {
            if (after[0] != ':') return std::nullopt;
            hasPort = true;
            portText = after.substr(1);
        }
    } else {
        auto portColon = authority.find(':');
        host = authority.substr(0, portColon);
        if (portColon != std::string_view::npos) {
            hasPort = true;
            portText = authority.substr(portColon + 1);
        }
        if (!validComponent(host, [](char c) { return isUnreserved(c) || isSubDelim(c); }))
            return std::nullopt;
    }
    if (host.empty()) return std::nullopt;
    std::optional<int> port;
    if (hasPort && !portText.empty()) {
        if (portText.size() > 5 || !std::all_of(portText.begin(), portText.end(), isDigit))
            return std::nullopt;
        int p = std::stoi(std::string(portText));
        if (p > 65535) return std::nullopt;
        port = p;
    } else if (hasPort && !std::all_of(portText.begin(), portText.end(), isDigit)) {
        return std::nullopt;
    }

    // Path, query and fragment.
    std::string_view fragment;
    bool hasFragment = false;
    if (auto hash = tail.find('#'); hash != std::string_view::npos) {
        fragment = tail.substr(hash + 1);
        hasFragment = true;
        tail = tail.substr(0, hash);
    }
    std::string_view path = tail;
    std::string_view query;
    bool hasQuery = false;
    if (auto q = tail.find('?'); q != std::string_view::npos) {
        path = tail.substr(0, q);
        query = tail.substr(q + 1);
        hasQuery = true;
    }
    if (!validComponent(path, [](char c) { return isPchar(c) || c == '/'; })) return std::nullopt;
    auto queryChar = [](char c) { return isPchar(c) || c == '/' || c == '?'; };
    if (hasQuery && !validComponent(query, queryChar)) return std::nullopt;
    if (hasFragment && !validComponent(fragment, queryChar)) return std::nullopt;

    Url url;
    url.scheme = std::move(scheme);
    url.host = std::string(host);
    url.port = port;
    url.pathAndQuery = path.empty() ? "/" : std::string(path);
    if (hasQuery) {
        url.pathAndQuery += '?';
        url.pathAndQuery += query;
    }
    url.text = std::string(text);
    return url;
}

}  // namespace kestrelvue
