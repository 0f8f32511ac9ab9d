#include "config/list_readers.h"

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base/delimited_text.h"
#include "base/error.h"
#include "base/text.h"
#include "config/ini_lines.h"
#include "config/list_files.h"

namespace trabex::mCommon {

namespace {

// Reports bad entries of one list, each with the file that it stands in.
class EntryReporter {
 public:
  EntryReporter(const IniErrors& errors, const SectionTable& section, std::string_view key,
                const ListFileEntries* file)
      : errors_(errors), section_(section), key_(key), file_(file) {}

  // Whether somebody asks where the entries stand.
  bool NeedsPlaces() const { return errors_.observer != nullptr || file_ != nullptr; }
  bool IsInFile(std::string_view where) const {
    const std::less_equal<const char*> not_behind;
    return file_ != nullptr && where.data() != nullptr && not_behind(file_->text.data(), where.data()) &&
           not_behind(where.data(), file_->text.data() + file_->text.size());
  }

  void Report(const Error& error, std::string_view where) {
    Report(error.Number(), error.Description(), where);
  }
  void Report(int number, std::string_view description, std::string_view where) {
    if (IsInFile(where)) {
      ReportListFileError(errors_, section_.Name(), key_, file_->path, LineOf(where), number, description,
                          where);
    } else {
      ReportConfigError(errors_, section_.Name(), key_, number, description, kEntryLeftOut, where);
    }
  }
  void TellPlaces(std::vector<std::string_view> places) const {
    if (errors_.observer != nullptr) errors_.observer->ListRead(section_.Name(), key_, std::move(places));
  }

 private:
  // Goes on from the place before, since each is behind it: a file may be all errors.
  std::size_t LineOf(std::string_view where) {
    const std::string_view text = file_->text;
    const auto offset = static_cast<std::size_t>(where.data() - text.data());
    if (offset < counted_) {
      counted_ = 0;
      line_ = 1;
    }
    for (; counted_ < offset; ++counted_) {
      const char c = text[counted_];
      if (c == '\n' || (c == '\r' && text.substr(counted_ + 1, 1) != "\n")) ++line_;
    }
    return line_;
  }

  const IniErrors& errors_;
  const SectionTable& section_;
  std::string_view key_;
  const ListFileEntries* file_;
  std::size_t counted_ = 0;  // bytes of the file
  std::size_t line_ = 1;     // of the byte behind them
};

// Makes one expression list out of raw values.
class ListMaker {
 public:
  ListMaker(EntryReporter& reporter, const ListForm& form) : reporter_(reporter), form_(form) {
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
      reporter_.Report(error, value);
      return;
    }
    for (std::string_view piece : pieces) TakePiece(Trim(piece));
  }

  void TakeFile(std::string_view text) {
    IniLines lines(text);
    for (std::string_view line; lines.Next(line);) TakeValue(ListFileEntry(line));
  }

  std::size_t Count() const { return list_.Count(); }

  ExpressionList TakeList() { return std::move(list_); }
  // Where the entries stand; kept only where somebody asks.
  std::vector<std::string_view> TakePlaces() { return std::move(places_); }

 private:
  bool HasDelimiter(std::string_view text) const {
    return !form_.open_delimiter.empty() && text.find(form_.open_delimiter) != std::string_view::npos;
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
      reporter_.Report(error, piece);
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
      if (reporter_.NeedsPlaces()) places_.push_back(where);
    } catch (const Error& error) {
      if (error.Number() != error_number::kDuplicateKey) {
        reporter_.Report(error, where);
        return;
      }
      reporter_.Report(error.Number(), "Expression \"" + std::string(text) + "\" specified more than once.",
                       where);
    }
  }

  EntryReporter& reporter_;
  ListForm form_;
  ExpressionList list_;
  std::vector<std::string_view> places_;
};

// A list, and where its entries stand if somebody asks.
struct PlacedList {
  ExpressionList list;
  std::vector<std::string_view> places;

  std::string_view PlaceOf(std::size_t index) const {
    return index < places.size() ? places[index] : std::string_view();
  }
};

PlacedList ReadList(EntryReporter& reporter, const SectionTable::Entry* entry, std::string_view default_text,
                    const ListForm& form, ListFileEntries* file) {
  ListMaker maker(reporter, form);
  if (entry != nullptr) {
    maker.TakeValue(entry->first_value);
    for (std::string_view value : entry->further_values) maker.TakeValue(value);
  } else if (file == nullptr) {
    maker.TakeValue(default_text);
  }
  if (file != nullptr) {
    file->own_entries = maker.Count();
    maker.TakeFile(file->text);
  }
  return {maker.TakeList(), maker.TakePlaces()};
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
                       std::string_view default_text, ListFileEntries* file,
                       IPRange (*read)(std::string_view)) {
  EntryReporter reporter(errors, section, key, file);
  const PlacedList placed = ReadList(reporter, section.Find(key), default_text, kRangeListForm, file);
  std::vector<IPRange> ranges;
  ranges.reserve(placed.list.Count());
  std::vector<std::string_view> places;
  std::vector<std::string_view> ipv6_places;
  for (std::size_t index = 0; index < placed.list.Count(); ++index) {
    const std::string_view place = placed.PlaceOf(index);
    try {
      ranges.push_back(read(Expression(placed.list, index)));
      if (reporter.NeedsPlaces()) (ranges.back().low.IsIPv6() ? ipv6_places : places).push_back(place);
    } catch (const Error& error) {
      reporter.Report(error, place);
    }
  }
  if (file != nullptr) {
    const auto own = [&](const std::vector<std::string_view>& all) {
      return static_cast<std::size_t>(std::count_if(
          all.begin(), all.end(), [&](std::string_view place) { return !reporter.IsInFile(place); }));
    };
    file->own_ipv6_ranges = own(ipv6_places);
    file->own_entries = own(places) + file->own_ipv6_ranges;
  }
  places.insert(places.end(), ipv6_places.begin(), ipv6_places.end());
  reporter.TellPlaces(std::move(places));
  return IPRangeList(ranges);
}

}  // namespace

ExpressionList GetList(const IniErrors& errors, std::string_view key, const SectionTable& section,
                       std::string_view default_text, const ListForm& form, ListFileEntries* file) {
  EntryReporter reporter(errors, section, key, file);
  PlacedList placed = ReadList(reporter, section.Find(key), default_text, form, file);
  reporter.TellPlaces(std::move(placed.places));
  return std::move(placed.list);
}

IPRangeList GetIPRangeList(const IniErrors& errors, std::string_view key, const SectionTable& section,
                           std::string_view default_text, ListFileEntries* file) {
  return ReadRanges(errors, key, section, default_text, file, InitIPRange);
}

IPRangeList GetPartialIPRangeList(const IniErrors& errors, std::string_view key, const SectionTable& section,
                                  std::string_view default_text, ListFileEntries* file) {
  return ReadRanges(errors, key, section, default_text, file, PartialRange);
}

ResponseChangeTable GetResponseChanges(const IniErrors& errors, const SectionTable& section) {
  ResponseChangeTable table;
  for (const SectionTable::Entry& entry : section.Entries()) {
    EntryReporter reporter(errors, section, entry.key, nullptr);
    const PlacedList records = ReadList(reporter, &entry, {}, kReplaceRecordForm, nullptr);
    cReplaces replaces;
    std::vector<std::string_view> places;
    for (std::size_t index = 0; index < records.list.Count(); ++index) {
      const std::string_view place = records.PlaceOf(index);
      try {
        AddReplaceRecord(replaces, Expression(records.list, index));
        if (errors.observer != nullptr) places.push_back(place);
      } catch (const Error& error) {
        reporter.Report(error, place);
      }
    }
    reporter.TellPlaces(std::move(places));
    replaces.SetName(std::string(entry.key));
    if (replaces.Count() > 0) table.Add(std::move(replaces));
  }
  return table;
}

}  // namespace trabex::mCommon
