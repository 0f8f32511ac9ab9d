// Delimited text and numbers. The first byte chooses delimiters and separator, the rest is the text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/delimited_text.h"
#include "base/error.h"
#include "base/numbers.h"
#include "base/text.h"

namespace {

using namespace trabex;

void Require(bool condition) {
  if (!condition) std::abort();
}

struct Form {
  std::string_view separator;
  std::string_view open;
  std::string_view close;
};

constexpr Form kForms[] = {
    {",", "\"", "\""}, {" ", "\"", ""},    {"=", "<", ">"},
    {",", "", ""},     {"ab", "<<", ">>"}, {"\"", "\"", "\""},
};

void CheckSplitting(std::string_view text, const Form& form) {
  try {
    // Nothing is lost: the pieces and the separators between them are the text.
    std::string joined;
    std::size_t count = 0;
    for (std::string_view piece : mCommon::SplitOutside(text, form.separator, form.open, form.close)) {
      if (count++ > 0) joined += form.separator;
      joined += piece;
    }
    Require(joined == text);
    for (std::string_view piece :
         mCommon::SplitOutside(text, form.separator, form.open, form.close,
                               {.compareMode = mCommon::Compare::kNoCase, .skipEmpty = true})) {
      Require(!piece.empty());
    }
  } catch (const Error& error) {
    Require(error.Source() == "mCommon.InstrOutsise");
  }
}

void CheckUndelimiting(std::string_view text, const Form& form) {
  try {
    const std::string_view inside = mCommon::Undelimit(text, form.open, form.close);
    Require(std::string(form.open) + std::string(inside) + std::string(form.close) == text);
  } catch (const Error& error) {
    Require(error.Source() == "mCommon.Undelimit");
  }
}

void CheckNumbers(std::string_view text) {
  const auto whole = ParseInteger(text);
  if (whole) Require(ParseInteger(std::to_string(*whole)) == whole);
  const auto fixed = ParseFixedPoint(text, 1);
  if (whole) Require(fixed.has_value());
  if (fixed) FormatWhole(*fixed);
  ParseFixedPoint(text, 1073741824);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const Form& form = kForms[data[0] % (sizeof kForms / sizeof kForms[0])];
  CheckSplitting(text, form);
  CheckUndelimiting(text, form);
  CheckNumbers(text);
  const std::string_view trimmed = Trim(text);
  Require(trimmed.empty() || (trimmed.front() != ' ' && trimmed.back() != ' '));
  Require(EqualNoCase(ToUpper(text), ToLower(text)) && HashNoCase{}(ToUpper(text)) == HashNoCase{}(text));
  return 0;
}
