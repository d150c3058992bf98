#pragma once
// The motion record text written the plain way: one snprintf per field and strftime for the
// stamps. Tests compare the library's formatter against it; the benchmark uses it as baseline.

#include <kestrelvue/MotionData.h>

#include <string>

namespace kestrelvue::test {

/// Appends the record's text, as snprintf in the current locale writes it.
void appendReferenceText(std::string& out, const MotionDataItem& item);

/// The bulk text built with appendReferenceText().
std::string referenceBulk(const MotionData& data, std::size_t first);

}  // namespace kestrelvue::test
