#pragma once
// Keyed archives of single objects in the container the phone platform's keyed archiver writes: a
// binary property list ("bplist00") holding "$archiver", "$version", "$top" {"root"} and
// "$objects" (["$null", the object's keyed values with "$class", the class description]).
// Hosts exchange archived records with phone applications through it.

#include <kestrelvue/Result.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kestrelvue {

/// Collects one object's keyed values and writes its archive.
class KeyedArchiver {
public:
    /// `classChain` is the class and its ancestors, most derived first; empty means
    /// {className, "NSObject"}.
    explicit KeyedArchiver(std::string className, std::vector<std::string> classChain = {});

    void encodeDouble(double value, const std::string& key);
    void encodeBool(bool value, const std::string& key);
    void encodeInt64(std::int64_t value, const std::string& key);

    /// The archive's bytes. Keys keep the order in which they were first encoded.
    std::string encodedData() const;

private:
    using Scalar = std::variant<double, bool, std::int64_t>;
    std::string className_;
    std::vector<std::string> classChain_;
    std::vector<std::pair<std::string, Scalar>> values_;
    void put(const std::string& key, Scalar value);
};

/// Reads one object's archive. Opening checks the whole container; a damaged, truncated or
/// hostile archive is refused with a message and never read past its end.
class KeyedUnarchiver {
public:
    using OpenResult = Result<KeyedUnarchiver>;
    static OpenResult open(std::string_view data);

    /// The root object's class name ("$classname").
    const std::string& className() const { return className_; }

    enum class Kind { absent, number, boolean, other };
    Kind kindOf(std::string_view key) const;
    bool containsValue(std::string_view key) const { return kindOf(key) != Kind::absent; }

    /// The value as a double (numbers and booleans); 0.0 when absent or of another kind.
    double decodeDouble(std::string_view key) const;
    /// The value as a boolean (booleans and non-zero numbers); false when absent or other.
    bool decodeBool(std::string_view key) const;

private:
    struct Entry {
        Kind kind = Kind::other;
        double number = 0.0;
        bool boolean = false;
    };
    std::string className_;
    std::map<std::string, Entry, std::less<>> entries_;
};

}  // namespace kestrelvue
