#include "app/finding.h"

#include <gtest/gtest.h>

namespace trabex {
namespace {

using Severity = Finding::Severity;

TEST(Finding, ShowsWhatThereIsOfItsPlace) {
  EXPECT_EQ(FormatFinding({"a.ini", 7, Severity::kError, "Common", "Timeout", "Bad."}),
            "a.ini:7: error: [Common] Timeout: Bad.");
  EXPECT_EQ(FormatFinding({"a.ini", 0, Severity::kWarning, "Common", "Timeout", "Bad."}),
            "a.ini: warning: [Common] Timeout: Bad.");
  EXPECT_EQ(FormatFinding({"a.ini", 7, Severity::kError, "Common", "", "Bad."}),
            "a.ini:7: error: [Common]: Bad.");
  EXPECT_EQ(FormatFinding({"a.ini", 7, Severity::kError, "", "", "Bad."}), "a.ini:7: error: Bad.");
}

TEST(Finding, ShowsVisibleCharactersOnly) {
  EXPECT_EQ(FormatFinding({"\x1B[1m", 1, Severity::kError, "Common", "a\tb", "J\xC3\xBCrgen\r\n\xFF"}),
            "\\x1B[1m:1: error: [Common] a\\x09b: J\xC3\xBCrgen\\x0D\\x0A\\xFF");
}

TEST(Findings, EndWithTheirNumber) {
  const Finding error{"a.ini", 1, Severity::kError, "", "", "x"};
  const Finding warning{"a.ini", 2, Severity::kWarning, "", "", "y"};
  EXPECT_EQ(FormatFindings({}), "OK\n");
  EXPECT_EQ(FormatFindings({warning}), "a.ini:2: warning: y\n0 errors, 1 warnings\n");
  EXPECT_EQ(FormatFindings({error, warning, error}),
            "a.ini:1: error: x\na.ini:2: warning: y\na.ini:1: error: x\n2 errors, 1 warnings\n");
  EXPECT_EQ(CountErrors({error, warning, error}), 2U);
}

}  // namespace
}  // namespace trabex
