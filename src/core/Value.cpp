#include <kestrelvue/Value.h>

namespace kestrelvue {

std::optional<bool> Value::asBool() const {
    if (auto* b = std::get_if<bool>(&v_)) return *b;
    return std::nullopt;
}

std::optional<std::int64_t> Value::asInt() const {
    if (auto* i = std::get_if<std::int64_t>(&v_)) return *i;
    return std::nullopt;
}

std::optional<double> Value::asNumber() const {
    if (auto* i = std::get_if<std::int64_t>(&v_)) return static_cast<double>(*i);
    if (auto* d = std::get_if<double>(&v_)) return *d;
    return std::nullopt;
}

const std::string* Value::asString() const {
    return std::get_if<std::string>(&v_);
}

const List* Value::asList() const {
    if (auto* l = std::get_if<std::shared_ptr<const List>>(&v_)) return l->get();
    return nullptr;
}

const Object* Value::asObject() const {
    if (auto* o = std::get_if<std::shared_ptr<const Object>>(&v_)) return o->get();
    return nullptr;
}

const TransportError* Value::asError() const {
    return std::get_if<TransportError>(&v_);
}

const Value* Value::find(std::string_view key) const {
    const Object* o = asObject();
    if (!o) return nullptr;
    auto it = o->find(key);
    return it == o->end() ? nullptr : &it->second;
}

bool Value::operator==(const Value& other) const {
    if (kind() != other.kind()) return false;
    switch (kind()) {
        case Kind::List:
            return *asList() == *other.asList();
        case Kind::Object:
            return *asObject() == *other.asObject();
        default:
            return v_ == other.v_;
    }
}

}  // namespace kestrelvue
