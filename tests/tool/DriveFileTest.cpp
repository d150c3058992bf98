// The drive file reader's refusals.

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Drive.h"

using namespace kestrelvue;

namespace {

// Writing and reading back is the command-line check's (simulate -o, then replay).
TEST(DriveFile, NamesTheLineItRefuses) {
    const std::string v1 = "fix 0 41 29 1 0 5\nmotion 0.5 0 0 0 0 0 0 0 0 0 0 0 -1";
    const std::pair<std::string, const char*> cases[] = {
        // the error, "" when the drive is good
        {v1 + "\n", ""},  // no header: version 1, face up
        {"kestrelvue-drive 2\n" + v1 + "\n", "line 3: a motion sample"},  // no orientation
        {"kestrelvue-drive 3\n", "line 1: unsupported drive format"},
        {"fix 0 95 29 1 0 5\n", "line 1: latitude must lie"},
        {"fix 0 41 29 1 0\n", "line 1: a fix needs"},
        {"fix 2 41 29 1 0 5\nfix 1 41 29 1 0 5\n", "line 2: time goes backwards"},
        {"fix 0 41 29 1 0 5\nmotion 1 0 0 0 0 0 0 0 0 0 0 0 nan\n", "line 2: a motion sample"},
        {"jump 0\n", "line 1: unknown event 'jump'"},
        {"kestrelvue-drive 2 start=2026-11-25T07:10:00Z\n" + v1 + " 5\n", ""},
        {"kestrelvue-drive 2 start=2026-11-31T07:10:00Z\n", "line 1: after the version"},
    };
    for (const auto& [text, error] : cases) {
        std::stringstream in(text);
        const auto result = tools::parseDrive(in);
        EXPECT_EQ(result.value.has_value(), *error == '\0') << text << result.error;
        EXPECT_EQ(result.error.rfind(error, 0), 0u) << text << result.error;
    }
}

}  // namespace
