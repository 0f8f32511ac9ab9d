#include "config/list_readers.h"

#include <string>
#include <utility>
#include <vector>

#include "base/delimited_text.h"
#include "base/error.h"
#include "base/text.h"

namespace trabex::mCommon {

namespace {

// Makes one expression list out of raw values.
class ListMaker {
 public:
  ListMaker(const IniErrors& errors, const SectionTable& section, std::string_view key, const ListForm& form)
      : errors_(errors), section_(section), key_(key), form_(form) {
    if (form_.close_delimiter.empty()) form_.close_delimiter = form_.open_delimiter;
  }

  void TakeValue(std::string_view value) {
    if (!HasDelimiter(value)) {
      // Nearly every value; it needs no list of its pieces.
      std::size_t from = 0;
      for (std::size_t at = value.find(','); at != std::string_view::npos; at = value.find(',', from)) {
        TakePiece(Trim(value.substr(from, at - from)));
        from = at + 1;
      }
      TakePiece(Trim(value.substr(from)));
      return;
    }
    std::vector<std::string_view> pieces;
    try {
      pieces = SplitOutside(value, ",", form_.open_delimiter, form_.close_delimiter);
    } catch (const Error& error) {
      Report(error, value);
      return;
    }
    for (std::string_view piece : pieces) TakePiece(Trim(piece));
  }

  ExpressionList TakeList() { return std::move(list_); }
  // Where the entries stand; kept only for an observer.
  std::vector<std::string_view> TakePlaces() { return std::move(places_); }

 private:
  bool HasDelimiter(std::string_view text) const {
    return !form_.open_delimiter.empty() && text.find(form_.open_delimiter) != std::string_view::npos;
  }

  void Report(const Error& error, std::string_view where) {
    ReportConfigError(errors_, section_.Name(), key_, error.Number(), error.Description(), kEntryLeftOut,
                      where);
  }

  void TakePiece(std::string_view piece) {
    if (piece.empty() && form_.skip_empty) return;
    ListEntry entry;
    std::string_view text = piece;
    try {
      if (form_.split_on_blanks && piece.find(' ') != std::string_view::npos) {
        for (std::string_view word : Words(piece)) entry.patterns.emplace_back(Normalised(word));
      }
      entry.is_group = entry.patterns.size() > 1;
      if (!entry.is_group) {
        text = Normalised(piece);
        entry.patterns.assign(1, std::string(text));
      }
    } catch (const Error& error) {
      Report(error, piece);
      return;
    }
    Add(text, std::move(entry), piece);
  }

  std::vector<std::string_view> Words(std::string_view piece) const {
    // Without a delimiter every blank separates, and two in a row have an empty word between them.
    if (form_.open_delimiter.empty()) return Split(piece, ' ');
    return SplitOutside(piece, " ", form_.open_delimiter, form_.close_delimiter, {.skipEmpty = true});
  }

  std::string_view Normalised(std::string_view expression) const {
    if (form_.undelimit && !form_.open_delimiter.empty() &&
        (form_.require_delimiters || expression.starts_with(form_.open_delimiter))) {
      expression = Undelimit(expression, form_.open_delimiter, form_.close_delimiter);
    }
    if (form_.validate_pattern && mText::IsInvalidPattern(expression)) {
      throw Error(error_number::kBadPattern, "mCommon.GetList",
                  "Invalid Regular Expression in string: \"" + std::string(expression) + "\".");
    }
    return expression;
  }

  std::string_view StorageKey(std::string_view text) const {
    if (!form_.key_by_first_word) return text;
    if (text.ends_with(kCrLf)) text.remove_suffix(kCrLf.size());
    return FirstWord(text);
  }

  void Add(std::string_view text, ListEntry entry, std::string_view where) {
    try {
      list_.Add(StorageKey(text), std::move(entry));
      if (errors_.observer != nullptr) places_.push_back(where);
    } catch (const Error& error) {
      if (error.Number() != error_number::kDuplicateKey) {
        Report(error, where);
        return;
      }
      ReportConfigError(errors_, section_.Name(), key_, error.Number(),
                        "Expression \"" + std::string(text) + "\" specified more than once.", kEntryLeftOut,
                        where);
    }
  }

  const IniErrors& errors_;
  const SectionTable& section_;
  std::string_view key_;
  ListForm form_;
  ExpressionList list_;
  std::vector<std::string_view> places_;
};

// A list, and where its entries stand if there is an observer.
struct PlacedList {
  ExpressionList list;
  std::vector<std::string_view> places;

  std::string_view PlaceOf(std::size_t index) const {
    return index < places.size() ? places[index] : std::string_view();
  }
};

PlacedList ReadList(const IniErrors& errors, std::string_view key, const SectionTable& section,
                    std::string_view default_text, const ListForm& form) {
  ListMaker maker(errors, section, key, form);
  const SectionTable::Entry* const entry = section.Find(key);
  if (entry == nullptr) {
    maker.TakeValue(default_text);
  } else {
    maker.TakeValue(entry->first_value);
    for (std::string_view value : entry->further_values) maker.TakeValue(value);
  }
  return {maker.TakeList(), maker.TakePlaces()};
}

void TellPlaces(const IniErrors& errors, const SectionTable& section, std::string_view key,
                std::vector<std::string_view> places) {
  if (errors.observer != nullptr) errors.observer->ListRead(section.Name(), key, std::move(places));
}

// The text between "<" and ">".
std::string Bracketed(std::string_view part) {
  return std::string(Undelimit(part, "<", ">"));
}

// Adds the rule "<text>", "<search>=<text>" (any case) or "<search>==<text>". Raises 321 for anything else.
void AddReplaceRecord(cReplaces& replaces, const std::string& record) {
  try {
    std::vector<std::string_view> parts = SplitOutside(record, "=", "<", ">");
    for (std::string_view& part : parts) part = Trim(part);
    if (parts.size() == 1) {
      replaces.Add("", Bracketed(parts[0]), true);
      return;
    }
    if (parts.size() == 2) {
      replaces.Add(Bracketed(parts[0]), Bracketed(parts[1]), false);
      return;
    }
    if (parts.size() == 3 && parts[1].empty()) {
      replaces.Add(Bracketed(parts[0]), Bracketed(parts[2]), true);
      return;
    }
  } catch (const Error&) {
    // A part without its brackets: the record as a whole is reported.
  }
  throw Error(error_number::kBadFileContent, "mCommon.GetResponseChanges",
              "Invalid replace record \"" + record + "\".");
}

// The one expression of entry `index` of a list whose form has no groups.
std::string Expression(const ExpressionList& list, std::size_t index) {
  return std::move(list.Entry(index).patterns.front());
}

IPRange PartialRange(std::string_view text) {
  const IPRange range = InitIPRange(text);
  if (IsWholeFamily(range)) {
    throw Error(error_number::kBadValue, "mCommon.GetPartialIPRangeList",
                "Invalid IP address range: \"" + std::string(text) + "\".");
  }
  return range;
}

// Ranges as `read` reads them.
IPRangeList ReadRanges(const IniErrors& errors, std::string_view key, const SectionTable& section,
                       std::string_view default_text, IPRange (*read)(std::string_view)) {
  const PlacedList placed = ReadList(errors, key, section, default_text, kRangeListForm);
  std::vector<IPRange> ranges;
  ranges.reserve(placed.list.Count());
  std::vector<std::string_view> places;
  std::vector<std::string_view> ipv6_places;
  for (std::size_t index = 0; index < placed.list.Count(); ++index) {
    const std::string_view place = placed.PlaceOf(index);
    try {
      ranges.push_back(read(Expression(placed.list, index)));
      if (errors.observer != nullptr) (ranges.back().low.IsIPv6() ? ipv6_places : places).push_back(place);
    } catch (const Error& error) {
      ReportConfigError(errors, section.Name(), key, error.Number(), error.Description(), kEntryLeftOut,
                        place);
    }
  }
  places.insert(places.end(), ipv6_places.begin(), ipv6_places.end());
  TellPlaces(errors, section, key, std::move(places));
  return IPRangeList(ranges);
}

}  // namespace

ExpressionList GetList(const IniErrors& errors, std::string_view key, const SectionTable& section,
                       std::string_view default_text, const ListForm& form) {
  PlacedList placed = ReadList(errors, key, section, default_text, form);
  TellPlaces(errors, section, key, std::move(placed.places));
  return std::move(placed.list);
}

IPRangeList GetIPRangeList(const IniErrors& errors, std::string_view key, const SectionTable& section,
                           std::string_view default_text) {
  return ReadRanges(errors, key, section, default_text, InitIPRange);
}

IPRangeList GetPartialIPRangeList(const IniErrors& errors, std::string_view key, const SectionTable& section,
                                  std::string_view default_text) {
  return ReadRanges(errors, key, section, default_text, PartialRange);
}

ResponseChangeTable GetResponseChanges(const IniErrors& errors, const SectionTable& section) {
  ResponseChangeTable table;
  for (const SectionTable::Entry& entry : section.Entries()) {
    const PlacedList records = ReadList(errors, entry.key, section, {}, kReplaceRecordForm);
    cReplaces replaces;
    std::vector<std::string_view> places;
    for (std::size_t index = 0; index < records.list.Count(); ++index) {
      const std::string_view place = records.PlaceOf(index);
      try {
        AddReplaceRecord(replaces, Expression(records.list, index));
        if (errors.observer != nullptr) places.push_back(place);
      } catch (const Error& error) {
        ReportConfigError(errors, section.Name(), entry.key, error.Number(), error.Description(),
                          kEntryLeftOut, place);
      }
    }
    TellPlaces(errors, section, entry.key, std::move(places));
    replaces.SetName(std::string(entry.key));
    if (replaces.Count() > 0) table.Add(std::move(replaces));
  }
  return table;
}

}  // namespace trabex::mCommon
