#pragma once
// The dynamic value carried in notification user information and produced by the JSON reader.

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/TransportError.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kestrelvue {

class Value;
using List = std::vector<Value>;
using Object = std::map<std::string, Value, std::less<>>;

// Value::Kind's scoped enumerators List and Object cannot clash with the aliases above, but GCC's
// -Wshadow reports them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
class KESTRELVUE_EXPORT Value {
public:
    enum class Kind { Null, Bool, Int, Double, String, List, Object, Error };

    Value() = default;
    Value(std::nullptr_t) {}
    Value(bool b) : v_(b) {}
    Value(int i) : v_(static_cast<std::int64_t>(i)) {}
    Value(long i) : v_(static_cast<std::int64_t>(i)) {}
    Value(long long i) : v_(static_cast<std::int64_t>(i)) {}
    Value(unsigned i) : v_(static_cast<std::int64_t>(i)) {}
    Value(double d) : v_(d) {}
    Value(std::string s) : v_(std::move(s)) {}
    Value(std::string_view s) : v_(std::string(s)) {}
    Value(const char* s) : v_(std::string(s)) {}
    Value(List l) : v_(std::make_shared<List>(std::move(l))) {}
    Value(Object o) : v_(std::make_shared<Object>(std::move(o))) {}
    Value(TransportError e) : v_(std::move(e)) {}

    Kind kind() const { return static_cast<Kind>(v_.index()); }
    bool isNull() const { return kind() == Kind::Null; }
    bool isBool() const { return kind() == Kind::Bool; }
    bool isInt() const { return kind() == Kind::Int; }
    bool isDouble() const { return kind() == Kind::Double; }
    /// Int or Double.
    bool isNumber() const { return isInt() || isDouble(); }
    bool isString() const { return kind() == Kind::String; }
    bool isList() const { return kind() == Kind::List; }
    bool isObject() const { return kind() == Kind::Object; }
    bool isError() const { return kind() == Kind::Error; }

    // Typed reads: nullptr / nullopt when the value is of another kind.
    std::optional<bool> asBool() const;
    std::optional<std::int64_t> asInt() const;
    /// Int or Double as a double.
    std::optional<double> asNumber() const;
    const std::string* asString() const;
    const List* asList() const;
    const Object* asObject() const;
    const TransportError* asError() const;

    /// Member lookup on an object; nullptr when this is not an object or the key is absent.
    const Value* find(std::string_view key) const;

    bool operator==(const Value& other) const;

private:
    std::variant<std::monostate, bool, std::int64_t, double, std::string,
                 std::shared_ptr<const List>, std::shared_ptr<const Object>, TransportError>
        v_;
};
#pragma GCC diagnostic pop

/// User information of a notification: absent, or a dictionary with text keys.
using UserInfo = std::optional<Object>;

}  // namespace kestrelvue
