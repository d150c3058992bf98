#include <kestrelvue/Threshold.h>

#include "records/KeyedArchive.h"

namespace kestrelvue {

namespace {
constexpr const char* kLimitStart = "LimitStart";
constexpr const char* kLimitEnd = "LimitEnd";
constexpr const char* kImpact = "Impact";
constexpr const char* kIsPerKilometer = "IsPerKilometer";
}  // namespace

void Threshold::encode(KeyedArchiver& coder) const {
    coder.encodeDouble(LimitStart, kLimitStart);
    coder.encodeDouble(LimitEnd, kLimitEnd);
    coder.encodeDouble(Impact, kImpact);
    coder.encodeBool(IsPerKilometer, kIsPerKilometer);
}

Threshold::Threshold(const KeyedUnarchiver& coder)
    : LimitStart(coder.decodeDouble(kLimitStart)),
      LimitEnd(coder.decodeDouble(kLimitEnd)),
      Impact(coder.decodeDouble(kImpact)),
      IsPerKilometer(coder.decodeBool(kIsPerKilometer)) {}

std::string Threshold::archivedData() const {
    KeyedArchiver coder{std::string(archiveClassName)};
    encode(coder);
    return coder.encodedData();
}

Threshold::UnarchiveResult Threshold::unarchive(std::string_view data) {
    KeyedUnarchiver::OpenResult opened = KeyedUnarchiver::open(data);
    if (!opened) return UnarchiveResult::failure(std::move(opened.error));
    const KeyedUnarchiver& coder = *opened;
    if (coder.className() != archiveClassName) {
        return UnarchiveResult::failure("archive holds a " + coder.className() + ", not a band");
    }
    for (const char* key : {kLimitStart, kLimitEnd, kImpact, kIsPerKilometer}) {
        if (coder.kindOf(key) == KeyedUnarchiver::Kind::other) {
            return UnarchiveResult::failure(std::string("archive value of ") + key +
                                            " is not a number");
        }
    }
    return Threshold(coder);
}

}  // namespace kestrelvue
