// Letters beyond ASCII. Mail servers compare addresses by the rules of Unicode, so that one mailbox has many
// spellings: U+017F is an s to them, U+212A a k, U+FB06 "st". Texts with such letters are compared after
// folding both sides. A text that is all ASCII needs no folding, and costs one pass over its bytes.
#pragma once

#include <string>
#include <string_view>

namespace trabex {

// Whether every byte of `text` is below 80.
bool IsAscii(std::string_view text);

// `text` as it is compared: its NFKC case folding (Unicode Standard, section 3.13), in which letter case,
// width and other compatible forms, ligatures and default-ignorable characters (zero-width ones, the soft
// hyphen) make no difference. Of ASCII only the letters change, to lower case. Folding a folded text again
// changes nothing. In a text that is no well-formed UTF-8 (RFC 3629) the well-formed runs are folded, without
// dropping any character, and the other bytes stay as they are. Raises std::bad_alloc only.
std::string FoldText(std::string_view text);

// Whether `text` (well-formed UTF-8) folds to the same as after folding only its case, as servers do that do
// not order marks: a mark after a letter with U+0345 is one of that letter, but of an iota to them.
bool FoldsLikeItsCaseFolding(std::string_view text);

// Whether the folded texts are equal; for texts in ASCII, whether they are without regard to case.
bool EqualFolded(std::string_view a, std::string_view b);
// Likewise for the end of `text`.
bool EndsWithFolded(std::string_view text, std::string_view suffix);

// Whether `text` is well-formed UTF-8 (RFC 3629) in which every character beyond ASCII is one that an address
// may hold: assigned (so no noncharacter), not for private use, no control, blank or line end, no
// bidirectional control and no tag. What ASCII characters it holds does not matter.
bool HoldsAddressCharacters(std::string_view text);

// Whether `text` (well-formed UTF-8) has a default-ignorable character, which folding drops.
bool HoldsIgnorable(std::string_view text);

}  // namespace trabex
