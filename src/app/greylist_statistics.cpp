#include "app/greylist_statistics.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/greylist_text.h"
#include "app/printable.h"
#include "base/text_counts.h"
#include "greylist/keyed_hash.h"
#include "greylist/triple_key.h"

namespace trabex {

namespace {

// What one slice does at most.
constexpr std::size_t kRecordsInSlice = 4000;
constexpr std::size_t kNamesInSlice = 20000;
constexpr std::size_t kTop = 10;

// How often each name came, and which came most.
class Ranking {
 public:
  void Count(std::string_view name) { ++names_.Of(KeyedHash(secret_, name), name); }
  // Ranks some of them; whether there are more. Nothing is counted any more then.
  bool RankSome() {
    const std::size_t end = std::min(names_.Size(), next_ + kNamesInSlice);
    for (; next_ < end; ++next_) {
      const std::pair<std::uint64_t, std::string_view> entry{names_.Count(next_), names_.Text(next_)};
      const auto place = std::find_if(top_.begin(), top_.end(), [&](const auto& other) {
        return other.first < entry.first || (other.first == entry.first && other.second > entry.second);
      });
      if (place == top_.end() && top_.size() == kTop) continue;
      top_.insert(place, entry);
      if (top_.size() > kTop) top_.pop_back();
    }
    return next_ < names_.Size();
  }
  void Append(std::string_view title, std::string& out) const {
    for (const auto& [count, name] : top_) {
      out.append(title)
          .append(" ")
          .append(Printable(name))
          .append("\t")
          .append(std::to_string(count))
          .append("\n");
    }
  }

 private:
  // Senders choose the names.
  HashSecret secret_ = HashSecret::Random();
  TextCounts names_;
  std::size_t next_ = 0;  // that is ranked
  std::vector<std::pair<std::uint64_t, std::string_view>> top_;
};

struct AgeGroup {
  std::string_view name;
  double below;  // days
};
constexpr std::array kAges = {AgeGroup{"an hour", 1.0 / 24}, AgeGroup{"a day", 1.0}, AgeGroup{"a week", 7.0},
                              AgeGroup{"a month", 30.0}, AgeGroup{"a year", 365.0}};

class Statistics {
 public:
  explicit Statistics(const GreyListToolInputs& inputs)
      : cursor_(inputs.database), delay_(inputs.settings.Delay), now_(inputs.clock.UniversalNow()) {}

  bool Step(ControlAnswer& slice) {
    if (counting_) return CountSome();
    if (networks_.RankSome() || recipients_.RankSome()) return true;
    Append(slice.text);
    return false;
  }

 private:
  bool CountSome() {
    for (std::size_t i = 0; i < kRecordsInSlice; ++i) {
      const cGreyListingData* const record = cursor_.Next();
      if (record == nullptr) {
        counting_ = false;
        return true;
      }
      ++states_[static_cast<std::size_t>(StateOf(*record, now_))];
      const double age = now_ - (record->DelayedUntil() - delay_);
      const auto group =
          std::find_if(kAges.begin(), kAges.end(), [&](const AgeGroup& one) { return age < one.below; });
      ++ages_[static_cast<std::size_t>(group - kAges.begin())];
      const TripleParts parts = PartsOf(record->Key());
      networks_.Count(parts.network);
      recipients_.Count(parts.recipient);
    }
    return true;
  }

  void Append(std::string& out) const {
    const auto line = [&out](std::string_view name, std::uint64_t count) {
      out.append(name).append("\t").append(std::to_string(count)).append("\n");
    };
    line("records", states_[0] + states_[1] + states_[2]);
    for (std::size_t i = 0; i < states_.size(); ++i)
      line(StateText(static_cast<GreyListState>(i)), states_[i]);
    for (std::size_t i = 0; i < kAges.size(); ++i)
      line("younger than " + std::string(kAges[i].name), ages_[i]);
    line("older", ages_.back());
    networks_.Append("network", out);
    recipients_.Append("recipient", out);
  }

  GreyListingDatabase::Cursor cursor_;
  double delay_;
  DateTime now_;
  bool counting_ = true;
  std::array<std::uint64_t, 3> states_{};
  std::array<std::uint64_t, kAges.size() + 1> ages_{};
  Ranking networks_;
  Ranking recipients_;
};

}  // namespace

ControlReply RecordStatistics(const GreyListToolInputs& inputs) {
  auto statistics = std::make_shared<Statistics>(inputs);
  return ControlSlices([statistics](ControlAnswer& slice) { return statistics->Step(slice); });
}

}  // namespace trabex
