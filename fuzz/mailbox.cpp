// Addresses: the first line is one, the second another text, the third a pattern. Folding is stable, and an
// address that is taken is the same mailbox folded and as it is, and matches as its folded form does.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/text.h"
#include "base/unicode_fold.h"
#include "filter_dependencies.h"
#include "match/mText.h"
#include "proxy/dialogue/mailbox.h"

namespace {

using namespace trabex;

void CheckFolding(std::string_view text, std::string_view other) {
  const std::string folded = FoldText(text);
  Require(FoldText(folded) == folded);
  Require(!IsAscii(text) || folded == ToLower(text));
  Require(EqualFolded(text, folded) && EqualFolded(folded, text));
  Require(EqualFolded(text, other) == (folded == FoldText(other)));
  Require(EndsWithFolded(text, other) == folded.ends_with(FoldText(other)));
  if (HoldsAddressCharacters(text)) Require(!HoldsIgnorable(folded));
  // The text in front of an "@" does not depend on what follows.
  Require(FoldText("Sales@" + std::string(text)).starts_with("sales@"));
}

void CheckMailbox(std::string_view address) {
  const auto form = NormalizeMailbox(address);
  if (!form || form->empty()) return;
  const std::string folded = FoldText(*form);
  Require(form->size() <= kMaxMailbox && folded.size() <= kMaxMailbox);
  Require(NormalizeMailbox(*form) == form);
  Require(NormalizeMailbox(folded) == folded);
  Require(HoldsAddressCharacters(*form));
  for (const char byte : std::string_view("@%!.\"()<>[]:;,\\ ")) {
    Require(std::count(form->begin(), form->end(), byte) == std::count(folded.begin(), folded.end(), byte));
  }
  Require(HasRouteInLocalPart(*form) == HasRouteInLocalPart(folded));
  // The domain of the folded address is the folded domain.
  const std::size_t at = form->rfind('@');
  if (at != std::string::npos) {
    Require(folded.substr(folded.rfind('@') + 1) == FoldText(std::string_view(*form).substr(at + 1)));
  }
}

// A text and its folded form match the same, by hash and by trying.
void CheckMatching(std::string_view text, const std::string& pattern) {
  if (mText::IsInvalidPattern(pattern)) return;
  const std::string folded = FoldText(text);
  const bool matches = mText::LikeText(text, pattern);
  Require(mText::LikeText(folded, pattern) == matches);
  ExpressionList by_hash;
  by_hash.Add(pattern, {{pattern}, false});
  ExpressionList tried;
  tried.Add("", {{pattern}, false});
  Require(by_hash.Contains(text) == matches && tried.Contains(text) == matches);
  Require(by_hash.Contains(folded) == matches);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const auto lines = Split(input, '\n');
  const std::string_view address = lines[0];
  const std::string_view other = lines.size() > 1 ? lines[1] : address;
  CheckFolding(address, other);
  CheckMailbox(address);
  CheckMatching(address, std::string(lines.size() > 2 ? lines[2] : other));
  return 0;
}
