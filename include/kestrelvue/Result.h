#pragma once
// A value, or the reason there is none: what every reader of outside data returns. Public
// because a public operation (Threshold::unarchive) answers with one.

#include <optional>
#include <string>
#include <utility>

namespace kestrelvue {

template <class T>
struct [[nodiscard]] Result {
    std::optional<T> value;  // present on success
    std::string error;       // on failure, why; empty on success

    Result(T v) : value(std::move(v)) {}  // NOLINT(google-explicit-constructor): return a value
    static Result failure(std::string why) { return Result(std::move(why), 0); }

    explicit operator bool() const { return value.has_value(); }
    T& operator*() { return *value; }
    const T& operator*() const { return *value; }
    T* operator->() { return &*value; }
    const T* operator->() const { return &*value; }

private:
    Result(std::string why, int /*tag*/) : error(std::move(why)) {}
};

}  // namespace kestrelvue
