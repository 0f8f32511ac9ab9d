// Text patterns and lists of them. The case of ASCII letters does not count; a text or pattern with bytes
// from 80 on is folded first, and so is the other (see base/unicode_fold.h). `?` and `[...]` take one byte,
// of the folded text.
//
//   ?                one byte, any          *  any run of bytes, also none     #  one digit
//   [list] [!list]   one byte that is, or is not, in the list; low-high is an ascending range, a "-" that is
//                    first or last means itself
//   []               the empty text
//   []pattern        (three bytes and more) the opposite of matching pattern
//
// The finer points of lists are in match/pattern.h.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trabex {

// One entry of an expression list: one pattern, or several that must all match (an AND-group). An entry
// without any pattern that is no group is empty and matches by the caller's default.
struct ListEntry {
  std::vector<std::string> patterns;
  bool is_group = false;
  friend bool operator==(const ListEntry&, const ListEntry&) = default;
};

// An ordered list of entries, made for lists of any length: texts are kept once, adding takes constant time,
// and entries without wildcards and those of the form `*` + plain text are found by hash, the others are
// parsed once. Results are those of the scan from the first entry to the last. What is found by hash is made
// at the first Contains; copies share it, and all of the list, until one of them grows.
class ExpressionList {
 public:
  ExpressionList();
  ~ExpressionList();
  ExpressionList(const ExpressionList&);
  ExpressionList& operator=(const ExpressionList&);
  ExpressionList(ExpressionList&&) noexcept;  // leaves an empty list
  ExpressionList& operator=(ExpressionList&&) noexcept;

  // Appends an entry under `key` (compared without regard to case). Raises 457 "This key is already
  // associated with an element of this collection" (source "mText.ExpressionList") when the key is there
  // already, and 7 "Out of memory" when the texts of the list reach 4 GB; the list is unchanged then.
  void Add(std::string_view key, ListEntry entry);

  // The entry at `index` (from 0, below Count()).
  ListEntry Entry(std::size_t index) const;
  // Appends its text to `out`, as the settings have it: an AND-group stands in parentheses.
  void AppendEntryText(std::size_t index, std::string& out) const;
  // All entries; valid until the list changes or ends. They are unpacked at the first call and stay so, which
  // takes several times the memory of the list: a pass over a long list takes Entry.
  const std::vector<ListEntry>& Entries() const;
  std::size_t Count() const;
  // MatchList. Raises what LikeText raises when the scan comes to a malformed pattern before an entry that
  // matches.
  bool Contains(std::string_view text) const;
  // The index of the first entry that matches. Raises likewise.
  std::optional<std::size_t> Find(std::string_view text) const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // nullptr: empty
};

namespace mText {

// Whether `text` as a whole matches `pattern`, negation prefix included. Raises 93 (source "mText.LikeText")
// "Invalid Regular Expression in string: \"<pattern>\"." when the pattern is malformed anywhere.
bool LikeText(std::string_view text, std::string_view pattern);

// The plain wildcard match: no negation prefix, case-sensitive, nothing folded. Raises 93 likewise, source
// "mText.PlainLike".
bool PlainLike(std::string_view text, std::string_view pattern);

// Whether `pattern` is malformed: an unclosed "[" or a descending range, anywhere in it.
bool IsInvalidPattern(std::string_view pattern);

// An empty entry gives `default_result`; a group without members false.
bool MatchEntry(std::string_view text, const ListEntry& entry, bool default_result);
// Whether any entry matches; false for an empty list.
bool MatchList(std::string_view text, const ExpressionList& list);

// How LikeTextComplex takes a pattern list apart.
struct ComplexForm {
  bool split_commas = false;
  bool split_blanks = false;
  std::string_view open_delimiter;
  std::string_view close_delimiter;  // empty: the open one
  bool undelimit = false;
};
// Matches against a pattern list given as one text, parsed on each call. An alternative without any part
// matches nothing. Raises 93 or 321 with source "mText.LikeTextComplex".
bool LikeTextComplex(std::string_view text, std::string_view patterns, const ComplexForm& form);

}  // namespace mText
}  // namespace trabex
