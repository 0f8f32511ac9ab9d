#include "app/greylist_tool.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "app/greylist_import.h"
#include "app/greylist_statistics.h"
#include "app/greylist_text.h"
#include "app/printable.h"
#include "base/error.h"
#include "base/text.h"
#include "greylist/mGreyListing.h"
#include "greylist/triple_key.h"
#include "match/ip_range.h"
#include "match/mText.h"

namespace trabex {

namespace {

// What one slice does at most: well below 10 milliseconds.
constexpr std::size_t kRecordsInSlice = 4000;
constexpr std::size_t kBytesInSlice = std::size_t{128} * 1024;

ControlAnswer Failure(int status, std::string error) {
  return {.status = status, .text = {}, .error = std::move(error)};
}

// The arguments behind the command: options, which begin with "--", and the others in their order.
struct Arguments {
  std::vector<std::string> options;
  std::vector<std::string> values;

  bool Has(std::string_view option) const {
    return std::find(options.begin(), options.end(), option) != options.end();
  }
};

Arguments ReadArguments(const std::vector<std::string>& arguments) {
  Arguments read;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    (arguments[i].starts_with("--") ? read.options : read.values).push_back(arguments[i]);
  }
  return read;
}

bool MatchesAny(const std::vector<std::string>& patterns, const std::string& key) {
  return patterns.empty() || std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
           return mText::LikeText(key, pattern);
         });
}

// CLIENT FROM TO of a command, as the session would look for them.
std::optional<std::string> KeyOf(const GreyListToolInputs& inputs, const Arguments& arguments) {
  const auto client = ParseIPAddress(arguments.values[0]);
  if (!client) return std::nullopt;
  const auto address = [](const std::string& text) { return text == "<>" ? std::string() : text; };
  return TripleKey(NetworkOf(*client, inputs.settings.IPv6Prefix), address(arguments.values[1]),
                   address(arguments.values[2]));
}

ControlSlices List(const GreyListToolInputs& inputs, const Arguments& arguments) {
  std::array<bool, 3> wanted = {arguments.Has("--accepted"), arguments.Has("--waiting"),
                                arguments.Has("--expired")};
  if (wanted == std::array<bool, 3>{}) wanted = {true, true, true};
  auto cursor = std::make_shared<GreyListingDatabase::Cursor>(inputs.database);
  return [cursor, wanted, now = inputs.clock.UniversalNow(), json = arguments.Has("--json"),
          patterns = arguments.values](ControlAnswer& slice) {
    for (std::size_t i = 0; i < kRecordsInSlice && slice.text.size() < kBytesInSlice; ++i) {
      const cGreyListingData* const record = cursor->Next();
      if (record == nullptr) return false;
      if (!wanted[static_cast<std::size_t>(StateOf(*record, now))] || !MatchesAny(patterns, record->Key()))
        continue;
      json ? AppendListed(*record, now, slice.text) : AppendRow(*record, now, slice.text);
    }
    return true;
  };
}

ControlSlices Export(const GreyListToolInputs& inputs) {
  auto cursor = std::make_shared<GreyListingDatabase::Cursor>(inputs.database);
  return [cursor](ControlAnswer& slice) {
    for (std::size_t i = 0; i < kRecordsInSlice && slice.text.size() < kBytesInSlice; ++i) {
      const cGreyListingData* const record = cursor->Next();
      if (record == nullptr) return false;
      AppendExported(*record, slice.text);
    }
    return true;
  };
}

ControlSlices Delete(const GreyListToolInputs& inputs, const Arguments& arguments) {
  auto cursor = std::make_shared<GreyListingDatabase::Cursor>(inputs.database);
  return [cursor, &database = inputs.database, dry_run = arguments.Has("--dry-run"),
          patterns = arguments.values, count = std::size_t{0}](ControlAnswer& slice) mutable {
    for (std::size_t i = 0; i < kRecordsInSlice; ++i) {
      const cGreyListingData* const record = cursor->Next();
      if (record == nullptr) {
        slice.text = std::to_string(count) + (dry_run ? " would be deleted\n" : " deleted\n");
        return false;
      }
      if (!MatchesAny(patterns, record->Key())) continue;
      ++count;
      if (dry_run) continue;
      database.Remove(std::string(record->Key()));
      database.SetChanged(true);
    }
    return true;
  };
}

// That of a client whose name is on no list.
mGreyListing::DelayPolicy PolicyOf(const GreyListingSettings& settings, const IPAddress& client) {
  if (mCommon::IPInRangeList(client, settings.IPBlackList)) {
    return {true, settings.BlackListDelay, settings.BlackListMinCount};
  }
  return {false, settings.Delay, settings.MinCount};
}

// What the decision itself says of further attempts, made on a copy of the record.
std::string NextText(const GreyListToolInputs& inputs, const cGreyListingData& record,
                     const IPAddress& client, DateTime now) {
  constexpr int kMaxAttempts = 10000;
  const GreyListingSettings& settings = inputs.settings;
  if (mCommon::IPInRangeList(client, settings.IPWhiteList)) return "accepted, the client is in IPWhiteList";
  const mGreyListing::DelayPolicy policy = PolicyOf(settings, client);
  cGreyListingData copy = record;
  if (!IsDelayed(mGreyListing::Attempt(copy, settings, policy, now))) return "accepted";
  copy = record;
  const DateTime from = std::max(now, record.DelayedUntil());
  for (int attempts = 1; attempts <= kMaxAttempts; ++attempts) {
    if (IsDelayed(mGreyListing::Attempt(copy, settings, policy, from))) continue;
    if (attempts == 1) return "delayed before " + FormatISODate(from) + ", accepted from then on";
    return "delayed; attempt " + std::to_string(attempts) + " from now on is accepted, not before " +
           FormatISODate(from);
  }
  return "delayed";
}

ControlAnswer Show(const GreyListToolInputs& inputs, const Arguments& arguments) {
  const auto key = KeyOf(inputs, arguments);
  if (!key) return Failure(exit_status::kBadCommandLine, "\"" + arguments.values[0] + "\" is no IP address.");
  const cGreyListingData* const record = inputs.database.Find(*key);
  if (record == nullptr) return Failure(exit_status::kFailed, std::string(kNoRecord) + Quoted(*key) + ".");
  const DateTime now = inputs.clock.UniversalNow();
  ControlAnswer answer;
  if (arguments.Has("--json")) {
    AppendExported(*record, answer.text);
    return answer;
  }
  AppendRow(*record, now, answer.text);
  answer.text +=
      "next attempt: " + NextText(inputs, *record, *ParseIPAddress(arguments.values[0]), now) + "\n";
  return answer;
}

ControlAnswer Add(const GreyListToolInputs& inputs, const Arguments& arguments) {
  const auto key = KeyOf(inputs, arguments);
  if (!key) return Failure(exit_status::kBadCommandLine, "\"" + arguments.values[0] + "\" is no IP address.");
  const bool accepted = arguments.Has("--accepted");
  const GreyListingSettings& settings = inputs.settings;
  const DateTime now = inputs.clock.UniversalNow();
  const cGreyListingData* const known = inputs.database.Find(*key);
  if (known != nullptr) {
    if (!accepted) return Failure(exit_status::kFailed, "There is a record of \"" + *key + "\" already.");
    SetRecord(inputs,
              {*key, now + settings.TTL, known->DelayedUntil(),
               static_cast<std::int32_t>(std::clamp<std::int64_t>(known->Attempts(), 1, 1'000'000'000))});
    return {};
  }
  const double delay = PolicyOf(settings, *ParseIPAddress(arguments.values[0])).delay;
  SetRecord(inputs, accepted ? cGreyListingData(*key, now + settings.TTL, now, 1)
                             : cGreyListingData(*key, now + settings.ShortTTL, now + delay, -1));
  return {};
}

struct Command {
  std::string_view name;
  std::size_t min_values;
  std::size_t max_values;
  std::vector<std::string_view> options;
  std::function<ControlReply(const GreyListToolInputs&, const Arguments&)> answer;
};

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"list", 0, std::string::npos, {"--accepted", "--waiting", "--expired", "--json"}, List},
      {"show", 3, 3, {"--json"}, Show},
      {"delete", 1, std::string::npos, {"--dry-run"}, Delete},
      {"add", 3, 3, {"--accepted"}, Add},
      {"export", 0, 0, {}, [](const auto& inputs, const Arguments&) { return Export(inputs); }},
      {"import",
       1,
       1,
       {"--merge", "--replace"},
       [](const auto& inputs, const Arguments& arguments) {
         return ImportRecords(inputs, arguments.values[0], arguments.Has("--replace"));
       }},
      {"stats", 0, 0, {}, [](const auto& inputs, const Arguments&) { return RecordStatistics(inputs); }},
  };
  return commands;
}

// What is wrong with the arguments, or "".
std::string Complaint(const Command& command, const Arguments& arguments) {
  for (const std::string& option : arguments.options) {
    if (std::find(command.options.begin(), command.options.end(), option) == command.options.end()) {
      return "\"" + option + "\" is no option of \"" + std::string(command.name) + "\".";
    }
  }
  if (arguments.Has("--merge") && arguments.Has("--replace"))
    return "Only one of --merge and --replace is possible.";
  if (arguments.values.size() < command.min_values || arguments.values.size() > command.max_values) {
    return "\"" + std::string(command.name) + "\" takes other arguments.";
  }
  // The patterns, which a malformed one ends here and not in the middle of an answer.
  if (command.max_values == std::string::npos) {
    try {
      for (const std::string& pattern : arguments.values) static_cast<void>(mText::LikeText("", pattern));
    } catch (const Error& error) {
      return error.Description();
    }
  }
  return {};
}

}  // namespace

ControlReply AnswerGreyList(const GreyListToolInputs& inputs, const std::vector<std::string>& arguments) {
  const std::string name = arguments.empty() ? std::string() : arguments.front();
  for (const Command& command : Commands()) {
    if (command.name != name) continue;
    const Arguments read = ReadArguments(arguments);
    if (std::string complaint = Complaint(command, read); !complaint.empty()) {
      return Failure(exit_status::kBadCommandLine, std::move(complaint));
    }
    ControlReply reply = command.answer(inputs, read);
    auto* const slices = std::get_if<ControlSlices>(&reply);
    // An import may have been made complete before.
    if (slices == nullptr || name == "import") return reply;
    return ControlSlices(
        [slices = std::move(*slices), loads = inputs.loads, before = inputs.loads()](ControlAnswer& slice) {
          if (loads() != before) RaiseLoadedAnew("AnswerGreyList");
          return slices(slice);
        });
  }
  return Failure(exit_status::kBadCommandLine,
                 "\"" + name + "\" is none of list, show, delete, add, export, import and stats.");
}

std::vector<GreyListCommandForm> GreyListCommandForms() {
  std::vector<GreyListCommandForm> forms;
  for (const Command& command : Commands()) forms.push_back({command.name, command.options});
  return forms;
}

}  // namespace trabex
