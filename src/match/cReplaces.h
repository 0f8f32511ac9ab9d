// Rules that rewrite the text of a reply, and the macros in it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/text.h"

namespace trabex {

// The values of the macros, but for those that mean the same everywhere: {%original%} and {%crlf%}.
class MacroSource {
 public:
  virtual ~MacroSource() = default;
  // The value of the macro {%name%}, or nothing when there is no such macro. `name` is written in any case.
  // It is asked for only when the macro occurs, and once by each rule. Raises what the value's owner raises.
  virtual std::optional<std::string> Value(std::string_view name) const = 0;
};

// One search-and-replace rule.
class cReplace {
 public:
  cReplace(std::string search, std::string replacement, bool case_sensitive);

  const std::string& Search() const { return search_; }
  const std::string& Replacement() const { return replacement_; }
  bool CaseSensitive() const { return case_sensitive_; }

  // Replaces every occurrence; an empty search text replaces the whole text.
  void ApplyRule(std::string& text) const;
  // The same with the values of the macros in the replacement, {%original%} being `original`. Only the rule's
  // own words are looked through for macros: a value is text, and so is what the client or the server wrote.
  // A value is put in as one line, so {%crlf%} alone ends one; only an original that is one reply in several
  // lines keeps them where it begins a line of the new text. A replacement whose values would make the text
  // more than 64 KB longer than `original` is put in as it is written.
  void ApplyRule(std::string& text, const std::string& original, const MacroSource& macros) const;
  // The rule as a list entry of the initialization file: "<text>", "<search>=<text>" or "<search>==<text>".
  std::string Format() const;

 private:
  std::size_t CountIn(std::string_view text) const;
  void Replace(std::string& text, std::string_view replacement) const;

  std::string search_;
  std::string match_;  // search_ with every "¶" (UTF-8, or the single byte B6) as CR LF
  std::string replacement_;
  bool case_sensitive_;
};

// The rules of one reply name, in the order of the entries.
class cReplaces {
 public:
  const cReplace& Add(std::string search, std::string replacement, bool case_sensitive);
  const std::string& Name() const { return name_; }
  void SetName(std::string name) { name_ = std::move(name); }
  std::size_t Count() const { return rules_.size(); }
  // The formatted rule, `index` from 0.
  std::string Item(std::size_t index) const { return rules_[index].Format(); }
  const std::vector<cReplace>& Rules() const { return rules_; }

  // Rewrites `text`: each rule on the result of the one before it, {%original%} being `text` before the
  // first. Failures carry the source "cReplaces.Apply" and leave `text` unchanged.
  // `changed`, unless it is nullptr, gets the indexes of the rules that have changed something.
  void Apply(std::string& text, const MacroSource& macros, std::vector<std::size_t>* changed = nullptr) const;

 private:
  std::string name_;
  std::vector<cReplace> rules_;
};

// The lists by reply name (any case), in the order of the file; only lists with rules are kept. A name may
// hold an address, so names are found as addresses are compared (see base/unicode_fold.h), and the first of
// several that fold to the same text is found.
class ResponseChangeTable {
 public:
  // Raises 457 when the name is there already (source "ResponseChangeTable.Add"). A list without rules is
  // left out.
  void Add(cReplaces replaces);
  // nullptr when there is none; valid until the table changes.
  const cReplaces* Find(std::string_view name) const;
  const std::vector<cReplaces>& Lists() const { return lists_; }

 private:
  std::vector<cReplaces> lists_;
  std::unordered_map<std::string, std::size_t, HashNoCase, SameNoCase> index_;
  std::unordered_map<std::string, std::size_t> folded_index_;
  bool has_names_beyond_ascii_ = false;
};

}  // namespace trabex
