#pragma once
// The one place where JSON is read and written.

#include <kestrelvue/Result.h>
#include <kestrelvue/Value.h>

#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace kestrelvue::json {

/// A parsed root, or the parser's message.
using ParseResult = Result<Value>;

/// Bounds a reply must keep to; one beyond them fails before any Value of it is built.
struct ParseLimits {
    std::size_t maxBytes = std::numeric_limits<std::size_t>::max();
    std::size_t maxRootElements = std::numeric_limits<std::size_t>::max();  // of a list root
    std::size_t keepParserBytes = std::size_t{256} << 10;  // the parser's room kept for the next
};

/// Parses `text` as JSON. The root must be a list or an object; a bare number, text or literal at
/// the root is a failure, as are invalid UTF-8, trailing content and text beyond `limits`.
/// Integers that fit in 64 bits become Int, all other numbers Double.
ParseResult parse(std::string_view text, const ParseLimits& limits = {});

/// Compact JSON for `value`. Fails (nullopt) for a non-finite number or a transport error value,
/// so invalid JSON never reaches the wire. Texts are written as given; `escapeTo` appends one
/// escaped, quoted text to `out` for writers that build bodies by hand.
std::optional<std::string> write(const Value& value);
bool writeTo(std::string& out, const Value& value);
void escapeTo(std::string& out, std::string_view text);

/// True when `text` is well-formed UTF-8.
bool isValidUtf8(std::string_view text);

}  // namespace kestrelvue::json
