// Binary property lists ("bplist00") as keyed archives.
//
// Layout: "bplist00", the objects, an offset table, and a 32-byte trailer (offset size, reference
// size, object count, top object, offset table position). Objects refer to each other by index,
// so the reader decodes every object once, flat, and then follows indices with range checks:
// there is no recursion for a hostile archive to exhaust, and cycles cannot loop.

#include "records/KeyedArchive.h"

#include <bit>
#include <cstring>
#include <limits>
#include <utility>

#include "core/Utf8.h"

namespace kestrelvue {

namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr std::string_view kNull = "$null";
// Keyed archives of single records are a few hundred bytes; anything far larger is refused before
// the reader allocates a record per object.
constexpr std::size_t kMaxArchiveBytes = 1 << 20;

// ---- Writer -------------------------------------------------------------------------------------

class PlistWriter {
public:
    std::size_t addString(std::string_view text) {
        // Only ASCII texts are written (keys and class names); each is stored once.
        for (std::size_t i = 0; i < strings_.size(); ++i)
            if (strings_[i].first == text) return strings_[i].second;
        std::string o = marker(0x50, text.size());
        o += text;
        std::size_t index = add(std::move(o));
        strings_.emplace_back(std::string(text), index);
        return index;
    }
    std::size_t addInt(std::int64_t v) {
        std::string o(1, '\x13');
        appendBig(o, static_cast<std::uint64_t>(v), 8);
        return add(std::move(o));
    }
    std::size_t addReal(double v) {
        std::string o(1, '\x23');
        appendBig(o, std::bit_cast<std::uint64_t>(v), 8);
        return add(std::move(o));
    }
    std::size_t addBool(bool v) { return add(std::string(1, v ? '\x09' : '\x08')); }
    std::size_t addUid(std::uint8_t v) { return add(std::string{'\x80', static_cast<char>(v)}); }
    std::size_t addArray(const std::vector<std::size_t>& items) {
        std::string o = marker(0xA0, items.size());
        for (std::size_t r : items) o += static_cast<char>(r);
        return add(std::move(o));
    }
    std::size_t addDict(const std::vector<std::pair<std::size_t, std::size_t>>& entries) {
        std::string o = marker(0xD0, entries.size());
        for (const auto& e : entries) o += static_cast<char>(e.first);
        for (const auto& e : entries) o += static_cast<char>(e.second);
        return add(std::move(o));
    }

    std::string finish(std::size_t top) const {
        std::string out(kMagic);
        std::vector<std::uint64_t> offsets;
        for (const std::string& o : objects_) {
            offsets.push_back(out.size());
            out += o;
        }
        const std::uint64_t tableOffset = out.size();
        const int offsetSize = tableOffset < 0x100 ? 1 : tableOffset < 0x10000 ? 2 : 4;
        for (std::uint64_t off : offsets) appendBig(out, off, offsetSize);
        std::string trailer(6, '\0');
        trailer += static_cast<char>(offsetSize);
        trailer += static_cast<char>(1);  // one-byte object references: archives stay small
        appendBig(trailer, objects_.size(), 8);
        appendBig(trailer, top, 8);
        appendBig(trailer, tableOffset, 8);
        return out + trailer;
    }

    std::size_t size() const { return objects_.size(); }

private:
    std::size_t add(std::string encoded) {
        objects_.push_back(std::move(encoded));
        return objects_.size() - 1;
    }
    static void appendBig(std::string& out, std::uint64_t v, int bytes) {
        for (int i = bytes - 1; i >= 0; --i) out += static_cast<char>((v >> (8 * i)) & 0xFF);
    }
    static std::string marker(unsigned char kind, std::size_t count) {
        std::string o;
        if (count < 15) {
            o += static_cast<char>(kind | count);
        } else {
            o += static_cast<char>(kind | 0x0F);
            o += '\x11';  // two-byte integer
            appendBig(o, count, 2);
        }
        return o;
    }

    std::vector<std::string> objects_;
    std::vector<std::pair<std::string, std::size_t>> strings_;
};

// ---- Reader -------------------------------------------------------------------------------------

struct Obj {
    enum class Type { null, boolean, integer, real, date, data, string, uid, array, set, dict };
    Type type = Type::null;
    bool boolean = false;
    std::int64_t integer = 0;
    double real = 0;
    std::uint64_t uid = 0;
    std::string text;                 // strings, as UTF-8
    std::vector<std::uint64_t> refs;  // arrays, sets; dicts: keys then values
};

class PlistReader {
public:
    explicit PlistReader(std::string_view data) : d_(data) {}

    bool parse(std::string& error) {
        if (d_.size() < kMagic.size() + 32 || d_.substr(0, 6) != "bplist") {
            error = "not a binary property list";
            return false;
        }
        if (d_.substr(6, 2) != "00") {
            error = "unsupported property list version";
            return false;
        }
        const std::size_t t = d_.size() - 32;
        offsetSize_ = byte(t + 6);
        refSize_ = byte(t + 7);
        const std::uint64_t count = big(t + 8, 8);
        top_ = big(t + 16, 8);
        const std::uint64_t table = big(t + 24, 8);
        if (!validSize(offsetSize_) || !validSize(refSize_)) {
            error = "bad trailer sizes";
            return false;
        }
        // Every object takes at least one byte between the header and the table.
        if (count == 0 || table < kMagic.size() || table > t || count > table - kMagic.size() ||
            count > (t - table) / offsetSize_ || top_ >= count) {
            error = "bad trailer";
            return false;
        }
        objects_.resize(count);
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t off = big(table + i * offsetSize_, offsetSize_);
            if (off < kMagic.size() || off >= table) {
                error = "object offset out of range";
                return false;
            }
            if (!readObject(off, table, count, objects_[i])) {
                error = "damaged object " + std::to_string(i);
                return false;
            }
        }
        return true;
    }

    const Obj& top() const { return objects_[top_]; }
    const Obj* at(std::uint64_t index) const {
        return index < objects_.size() ? &objects_[index] : nullptr;
    }
    /// A dictionary's value for a text key, or nullptr.
    const Obj* lookUp(const Obj& dict, std::string_view key) const {
        if (dict.type != Obj::Type::dict) return nullptr;
        const std::size_t n = dict.refs.size() / 2;
        for (std::size_t i = 0; i < n; ++i) {
            const Obj* k = at(dict.refs[i]);
            if (k && k->type == Obj::Type::string && k->text == key) return at(dict.refs[n + i]);
        }
        return nullptr;
    }

private:
    static bool validSize(unsigned s) { return s == 1 || s == 2 || s == 4 || s == 8; }
    unsigned byte(std::size_t at) const { return static_cast<unsigned char>(d_[at]); }
    std::uint64_t big(std::size_t at, unsigned bytes) const {
        std::uint64_t v = 0;
        for (unsigned i = 0; i < bytes; ++i) v = (v << 8) | byte(at + i);
        return v;
    }

    // Reads the count of a container or string: the low nibble, or an integer object after it.
    bool count(std::uint64_t& at, std::uint64_t end, unsigned low, std::uint64_t& n) const {
        if (low != 0x0F) {
            n = low;
            return true;
        }
        if (at >= end) return false;
        const unsigned m = byte(at);
        if ((m & 0xF0) != 0x10 || (m & 0x0F) > 3) return false;
        const unsigned bytes = 1u << (m & 0x0F);
        if (end - at - 1 < bytes) return false;
        n = big(at + 1, bytes);
        at += 1 + bytes;
        return true;
    }

    bool readObject(std::uint64_t at, std::uint64_t end, std::uint64_t objectCount, Obj& o) const {
        const unsigned m = byte(at++);
        const unsigned high = m >> 4, low = m & 0x0F;
        auto need = [&](std::uint64_t bytes) { return end - at >= bytes; };
        switch (high) {
            case 0x0:
                if (m == 0x00) return true;
                if (m == 0x08 || m == 0x09) {
                    o.type = Obj::Type::boolean;
                    o.boolean = m == 0x09;
                    return true;
                }
                return false;
            case 0x1: {
                if (low > 3 || !need(1u << low)) return false;  // 16-byte integers are refused
                const unsigned bytes = 1u << low;
                const std::uint64_t v = big(at, bytes);
                o.type = Obj::Type::integer;
                o.integer =
                    bytes == 8 ? static_cast<std::int64_t>(v) : static_cast<std::int64_t>(v);
                return true;
            }
            case 0x2:
                o.type = Obj::Type::real;
                if (low == 2 && need(4)) {
                    o.real = std::bit_cast<float>(static_cast<std::uint32_t>(big(at, 4)));
                    return true;
                }
                if (low == 3 && need(8)) {
                    o.real = std::bit_cast<double>(big(at, 8));
                    return true;
                }
                return false;
            case 0x3:
                if (m != 0x33 || !need(8)) return false;
                o.type = Obj::Type::date;
                o.real = std::bit_cast<double>(big(at, 8));
                return true;
            case 0x4: {
                std::uint64_t n;
                if (!count(at, end, low, n) || !need(n)) return false;
                o.type = Obj::Type::data;
                o.text.assign(d_.substr(at, n));
                return true;
            }
            case 0x5: {
                std::uint64_t n;
                if (!count(at, end, low, n) || !need(n)) return false;
                o.type = Obj::Type::string;
                o.text.assign(d_.substr(at, n));
                for (unsigned char c : o.text)
                    if (c >= 0x80) return false;
                return true;
            }
            case 0x6: {
                std::uint64_t n;
                if (!count(at, end, low, n) || n > (end - at) / 2) return false;
                o.type = Obj::Type::string;
                return utf16ToUtf8(at, n, o.text);
            }
            case 0x8:
                if (!need(low + 1u)) return false;
                o.type = Obj::Type::uid;
                o.uid = big(at, low + 1u > 8 ? 8 : low + 1u);
                return low < 8;
            case 0xA:
            case 0xC:
            case 0xD: {
                std::uint64_t n;
                if (!count(at, end, low, n)) return false;
                const std::uint64_t refs = high == 0xD ? 2 * n : n;
                if (n > (end - at) / refSize_ || refs > (end - at) / refSize_) return false;
                o.type = high == 0xA   ? Obj::Type::array
                         : high == 0xC ? Obj::Type::set
                                       : Obj::Type::dict;
                o.refs.reserve(refs);
                for (std::uint64_t i = 0; i < refs; ++i) {
                    const std::uint64_t r = big(at + i * refSize_, refSize_);
                    if (r >= objectCount) return false;
                    o.refs.push_back(r);
                }
                return true;
            }
            default:
                return false;
        }
    }

    bool utf16ToUtf8(std::uint64_t at, std::uint64_t units, std::string& out) const {
        for (std::uint64_t i = 0; i < units; ++i) {
            std::uint32_t c = static_cast<std::uint32_t>(big(at + 2 * i, 2));
            if (c >= 0xD800 && c <= 0xDBFF) {
                if (i + 1 >= units) return false;
                const std::uint32_t c2 = static_cast<std::uint32_t>(big(at + 2 * (i + 1), 2));
                if (c2 < 0xDC00 || c2 > 0xDFFF) return false;
                c = 0x10000 + ((c - 0xD800) << 10) + (c2 - 0xDC00);
                ++i;
            } else if (c >= 0xDC00 && c <= 0xDFFF) {
                return false;
            }
            detail::appendUtf8(out, c);
        }
        return true;
    }

    std::string_view d_;
    unsigned offsetSize_ = 0, refSize_ = 0;
    std::uint64_t top_ = 0;
    std::vector<Obj> objects_;
};

}  // namespace

// ---- KeyedArchiver ------------------------------------------------------------------------------

KeyedArchiver::KeyedArchiver(std::string className, std::vector<std::string> classChain)
    : className_(std::move(className)), classChain_(std::move(classChain)) {
    if (classChain_.empty()) classChain_ = {className_, "NSObject"};
}

void KeyedArchiver::put(const std::string& key, Scalar value) {
    for (auto& entry : values_) {
        if (entry.first == key) {
            entry.second = value;
            return;
        }
    }
    values_.emplace_back(key, value);
}

void KeyedArchiver::encodeDouble(double value, const std::string& key) {
    put(key, value);
}
void KeyedArchiver::encodeBool(bool value, const std::string& key) {
    put(key, value);
}
void KeyedArchiver::encodeInt64(std::int64_t value, const std::string& key) {
    put(key, value);
}

std::string KeyedArchiver::encodedData() const {
    PlistWriter w;
    // $objects: [ "$null", the object, its class ]; references inside are UIDs into this list.
    const std::size_t nullText = w.addString(kNull);
    std::vector<std::pair<std::size_t, std::size_t>> fields;
    fields.emplace_back(w.addString("$class"), w.addUid(2));
    for (const auto& [key, value] : values_) {
        std::size_t v;
        if (const double* d = std::get_if<double>(&value))
            v = w.addReal(*d);
        else if (const bool* b = std::get_if<bool>(&value))
            v = w.addBool(*b);
        else
            v = w.addInt(std::get<std::int64_t>(value));
        fields.emplace_back(w.addString(key), v);
    }
    const std::size_t object = w.addDict(fields);
    std::vector<std::size_t> chain;
    for (const std::string& c : classChain_) chain.push_back(w.addString(c));
    const std::size_t classes = w.addArray(chain);
    const std::size_t classDict = w.addDict(
        {{w.addString("$classes"), classes}, {w.addString("$classname"), w.addString(className_)}});
    const std::size_t objects = w.addArray({nullText, object, classDict});
    const std::size_t top = w.addDict({{w.addString("root"), w.addUid(1)}});
    const std::size_t root = w.addDict({{w.addString("$archiver"), w.addString("NSKeyedArchiver")},
                                        {w.addString("$objects"), objects},
                                        {w.addString("$top"), top},
                                        {w.addString("$version"), w.addInt(100000)}});
    return w.finish(root);
}

// ---- KeyedUnarchiver ----------------------------------------------------------------------------

KeyedUnarchiver::OpenResult KeyedUnarchiver::open(std::string_view data) {
    if (data.size() > kMaxArchiveBytes) return OpenResult::failure("archive too large");
    PlistReader reader(data);
    if (std::string error; !reader.parse(error)) return OpenResult::failure(std::move(error));

    const Obj& top = reader.top();
    const Obj* archiver = reader.lookUp(top, "$archiver");
    if (!archiver || archiver->type != Obj::Type::string || archiver->text != "NSKeyedArchiver") {
        return OpenResult::failure("not a keyed archive");
    }
    const Obj* objects = reader.lookUp(top, "$objects");
    const Obj* topDict = reader.lookUp(top, "$top");
    if (!objects || objects->type != Obj::Type::array || !topDict) {
        return OpenResult::failure("keyed archive without $objects or $top");
    }
    auto member = [&](const Obj* uid) -> const Obj* {
        if (!uid || uid->type != Obj::Type::uid || uid->uid >= objects->refs.size()) return nullptr;
        return reader.at(objects->refs[uid->uid]);
    };
    const Obj* root = member(reader.lookUp(*topDict, "root"));
    if (!root || root->type != Obj::Type::dict) {
        return OpenResult::failure("keyed archive without a root object");
    }
    const Obj* classDict = member(reader.lookUp(*root, "$class"));
    const Obj* className = classDict ? reader.lookUp(*classDict, "$classname") : nullptr;
    if (!className || className->type != Obj::Type::string) {
        return OpenResult::failure("root object without a class name");
    }

    KeyedUnarchiver u;
    u.className_ = className->text;
    const std::size_t n = root->refs.size() / 2;
    for (std::size_t i = 0; i < n; ++i) {
        const Obj* key = reader.at(root->refs[i]);
        const Obj* value = reader.at(root->refs[n + i]);
        if (!key || !value || key->type != Obj::Type::string) {
            return OpenResult::failure("root object with a key that is not a text");
        }
        if (key->text == "$class") continue;
        Entry e;
        switch (value->type) {
            case Obj::Type::boolean:
                e.kind = Kind::boolean;
                e.boolean = value->boolean;
                e.number = value->boolean ? 1.0 : 0.0;
                break;
            case Obj::Type::integer:
                e.kind = Kind::number;
                e.number = static_cast<double>(value->integer);
                e.boolean = value->integer != 0;
                break;
            case Obj::Type::real:
                e.kind = Kind::number;
                e.number = value->real;
                e.boolean = value->real != 0.0;
                break;
            default:
                e.kind = Kind::other;
                break;
        }
        u.entries_[key->text] = e;
    }
    return u;
}

KeyedUnarchiver::Kind KeyedUnarchiver::kindOf(std::string_view key) const {
    auto it = entries_.find(key);
    return it == entries_.end() ? Kind::absent : it->second.kind;
}

double KeyedUnarchiver::decodeDouble(std::string_view key) const {
    auto it = entries_.find(key);
    return it == entries_.end() || it->second.kind == Kind::other ? 0.0 : it->second.number;
}

bool KeyedUnarchiver::decodeBool(std::string_view key) const {
    auto it = entries_.find(key);
    return it != entries_.end() && it->second.kind != Kind::other && it->second.boolean;
}

}  // namespace kestrelvue
