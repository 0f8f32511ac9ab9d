#include "app/greylist_import.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "app/greylist_text.h"
#include "base/error.h"
#include "platform/file_stream.h"
#include "platform/files.h"

namespace trabex {

namespace {

// What one slice does at most: some milliseconds.
constexpr std::size_t kBytesInSlice = std::size_t{256} * 1024;
constexpr std::size_t kRecordsInSlice = 4000;
constexpr std::size_t kThousandsInSlice = 50;
// The longest key, with all of its bytes escaped and in hexadecimal, has half of it.
constexpr std::size_t kMaxLineBytes = std::size_t{1024} * 1024;
constexpr const char* kSource = "GreyListImport.Read";

// Of two records of one key.
cGreyListingData Better(const cGreyListingData& a, const cGreyListingData& b) {
  if (a.Pending() != b.Pending()) return a.Pending() ? b : a;
  if (!a.Pending()) return a.ExpireAt() >= b.ExpireAt() ? a : b;
  cGreyListingData better = a.DelayedUntil() <= b.DelayedUntil() ? a : b;
  better.SetCount(std::min(a.Count(), b.Count()));  // of those that wait the counts are negative
  return better;
}

// Exported times are whole seconds, the nearest ones.
bool SameSecond(DateTime a, DateTime b) {
  constexpr double kHalfASecond = 0.501 / kSecondsPerDay;
  return std::abs(a - b) < kHalfASecond;
}

bool Equal(const cGreyListingData& a, const cGreyListingData& b) {
  return SameSecond(a.ExpireAt(), b.ExpireAt()) && SameSecond(a.DelayedUntil(), b.DelayedUntil()) &&
         a.Count() == b.Count();
}

InputFile Open(NativeFile attached, const std::string& path) {
  if (attached.IsOpen()) return InputFile(std::move(attached), kSource);
  return InputFile(NativePath(path), kSource);
}

class Import {
 public:
  Import(const GreyListToolInputs& inputs, const std::string& path, bool replace)
      : inputs_(inputs), replace_(replace), loads_(inputs.loads()), file_(Open(inputs.attached(), path)) {}
  // What was begun is completed, so that it is never a part of the file that is in force.
  ~Import() { Complete(); }
  Import(const Import&) = delete;
  Import& operator=(const Import&) = delete;

  // Whether there is more to do.
  bool Step(ControlAnswer& slice) {
    switch (phase_) {
      case Phase::kReading:
        ReadOrFail();
        return true;
      case Phase::kWaiting:
        BeginChange();
        return true;
      case Phase::kRemoving:
      case Phase::kSetting:
        Change();
        return true;
      case Phase::kFreeing:
        if (staged_.FreeSome(kThousandsInSlice)) return true;
        break;
    }
    if (failure_) throw Error(*failure_);
    slice.text = std::to_string(lines_) + " read, " + std::to_string(added_) + " added, " +
                 std::to_string(changed_) + " changed, " + std::to_string(removed_) + " deleted\n";
    return false;
  }

 private:
  enum class Phase {
    kReading,
    kWaiting,   // for another import, which is changing the records
    kRemoving,  // those that are not in the file
    kSetting,
    kFreeing,  // the memory of what was read
  };

  void ReadOrFail() {
    try {
      if (inputs_.loads() != loads_) RaiseLoadedAnew(kSource);
      Read();
    } catch (const Error& error) {
      failure_ = error;
      phase_ = Phase::kFreeing;
    }
  }

  void Read() {
    std::array<char, kBytesInSlice> buffer;
    const std::size_t count = file_.Read(buffer.data(), buffer.size());
    rest_.append(buffer.data(), count);
    std::string_view text = rest_;
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
      TakeLine(text.substr(0, end));
      text.remove_prefix(end + 1);
    }
    rest_ = std::string(text);
    if (rest_.size() > kMaxLineBytes)
      RaiseInLine(lines_ + 1, error_number::kBadFileContent, "It is too long.");
    if (count > 0) return;
    if (!rest_.empty()) TakeLine(rest_);
    phase_ = Phase::kWaiting;
  }

  void TakeLine(std::string_view line) {
    ++lines_;
    try {
      staged_.Add(ParseExported(line));
    } catch (const Error& error) {
      RaiseInLine(lines_, error.Number(), error.Description());
    }
  }

  [[noreturn]] static void RaiseInLine(std::size_t line, int number, const std::string& description) {
    throw Error(number, kSource, "Line " + std::to_string(line) + ": " + description);
  }

  void BeginChange() {
    if (inputs_.loads() != loads_) return ReadOrFail();
    if (!inputs_.hold_saves([this] { Complete(); })) return;
    // First those go that are not in the file, so that no record is missing for a moment that is in both.
    if (replace_) removing_.emplace(inputs_.database);
    if (!replace_) setting_.emplace(staged_);
    phase_ = replace_ ? Phase::kRemoving : Phase::kSetting;
  }

  void Complete() {
    while (phase_ == Phase::kRemoving || phase_ == Phase::kSetting) Change();
  }

  void Change() {
    for (std::size_t i = 0; i < kRecordsInSlice; ++i) {
      const bool goes_on = phase_ == Phase::kRemoving ? RemoveOne() : SetOne();
      if (!goes_on) return;
    }
  }

  bool RemoveOne() {
    const cGreyListingData* const record = removing_->Next();
    if (record == nullptr) {
      removing_.reset();
      setting_.emplace(staged_);
      phase_ = Phase::kSetting;
    } else if (staged_.Find(record->Key()) == nullptr) {
      inputs_.database.Remove(std::string(record->Key()));
      ++removed_;
    }
    return true;
  }

  bool SetOne() {
    const cGreyListingData* const record = setting_->Next();
    if (record == nullptr) {
      setting_.reset();
      phase_ = Phase::kFreeing;
      inputs_.database.SetChanged(true);
      inputs_.release_saves();
      return false;
    }
    Take(*record);
    staged_.Remove(std::string(record->Key()));  // all at the end would take too long for one slice
    return true;
  }

  void Take(const cGreyListingData& record) {
    const cGreyListingData* const known = inputs_.database.Find(record.Key());
    if (known == nullptr) {
      ++added_;
      return SetRecord(inputs_, record);
    }
    cGreyListingData wanted = replace_ ? record : Better(*known, record);
    if (Equal(*known, wanted)) return;
    ++changed_;
    SetRecord(inputs_, std::move(wanted));
  }

  GreyListToolInputs inputs_;
  bool replace_;
  std::uint64_t loads_;  // as of the beginning
  InputFile file_;
  Phase phase_ = Phase::kReading;
  std::string rest_;  // of a line that is not complete
  std::optional<Error> failure_;
  GreyListingDatabase staged_;
  std::optional<GreyListingDatabase::Cursor> removing_;
  std::optional<GreyListingDatabase::Cursor> setting_;
  std::size_t lines_ = 0;
  std::size_t added_ = 0;
  std::size_t changed_ = 0;
  std::size_t removed_ = 0;
};

}  // namespace

void RaiseLoadedAnew(const char* source) {
  throw Error(error_number::kBadFileContent, source, "A reload has changed the database meanwhile.");
}

void SetRecord(const GreyListToolInputs& inputs, cGreyListingData record) {
  GreyListingDatabase& database = inputs.database;
  database.SetChanged(true);
  cGreyListingData* const known = database.Find(record.Key());
  if (known == nullptr || (record.Pending() && !known->Pending())) {
    if (known != nullptr) database.Remove(record.Key());
    database.SetLimits(PendingLimitsOf(inputs.settings));
    database.Add(std::move(record));
    return;
  }
  const bool was_pending = known->Pending();
  known->SetExpireAt(record.ExpireAt());
  known->SetDelayedUntil(record.DelayedUntil());
  known->SetCount(record.Count());
  if (was_pending && !known->Pending()) database.Accepted(*known);
}

ControlReply ImportRecords(const GreyListToolInputs& inputs, const std::string& path, bool replace) {
  // What cannot be read, and a line that is wrong, leave the records as they are: errors end an answer.
  std::shared_ptr<Import> import;
  try {
    import = std::make_shared<Import>(inputs, path, replace);
  } catch (const Error& error) {
    throw Error(error.Number(), error.Source(), Quoted(path) + ": " + error.Description());
  }
  return ControlSlices([import](ControlAnswer& slice) { return import->Step(slice); });
}

}  // namespace trabex
