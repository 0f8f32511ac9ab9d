#include "app/explain_arguments.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "base/error.h"
#include "base/text.h"
#include "base/visible_text.h"
#include "net/peer_name.h"
#include "proxy/dialogue/mailbox.h"

namespace trabex {

namespace {

[[noreturn]] void Refuse(std::string description) {
  throw Error(error_number::kBadValue, "ReadExplainArguments", std::move(description));
}

// What a line of a session holds as it is.
bool IsOneLine(std::string_view text) {
  return !HoldsControl(text) && text.find('\t') == std::string_view::npos;
}

IPAddress ReadClient(const std::string& text) {
  const auto address = ParseIPAddress(text);
  if (!address) Refuse(Quoted(text) + " is no IP address.");
  return *address;
}

void ReadName(const std::string& text, ExplainedClient& client) {
  using Name = ExplainedClient::Name;
  client.name_is = text == "none" ? Name::kNone : text == "dnsfail" ? Name::kFailed : Name::kGiven;
  if (client.name_is != Name::kGiven) return;
  if (!IsPlainHostName(text)) Refuse(Quoted(text) + " is no name of a host.");
  client.name = text;
}

std::string ReadHelo(const std::string& text) {
  if (!IsOneLine(text) || text.find(' ') != std::string::npos) Refuse(Quoted(text) + " is no name for EHLO.");
  return text;
}

// An address as a session would read it, with or without angle brackets. One that is routed on is an address as
// long as it is refused for that.
std::string ReadAddress(std::string_view text, bool may_have_route) {
  std::string_view address = text;
  if (address.size() >= 2 && address.starts_with('<') && address.ends_with('>')) {
    address = address.substr(1, address.size() - 2);
  }
  const bool is_path = IsOneLine(address) && address.find_first_of("<>") == std::string_view::npos;
  if (!is_path || !(NormalizeMailbox(address) || (may_have_route && HasRouteInLocalPart(address)))) {
    Refuse(Quoted(text) + " is no mail address.");
  }
  return std::string(address);
}

std::string ReadRecipient(const std::string& text) {
  std::string address = ReadAddress(text, true);
  if (address.empty()) Refuse("A recipient cannot be empty.");
  return address;
}

std::string ReadSender(const std::string& text) {
  // A shell's variable that is not set is no sender.
  if (text.empty()) Refuse("The empty sender is written \"<>\".");
  return ReadAddress(text, false);
}

// As far as a session takes a size.
constexpr std::int64_t kMaxSize = 922337203685476;
// A hundred years.
constexpr std::int64_t kMaxMinutes = 52'560'000;

std::int64_t ReadNumber(const std::string& text, std::string_view name, std::int64_t max) {
  std::int64_t number = 0;
  const bool is_number =
      !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return IsDigit(c); });
  if (is_number) {
    for (const char digit : text) number = std::min(number * 10 + (digit - '0'), max + 1);
  }
  if (!is_number || number > max) {
    Refuse(std::string(name) + ": " + Quoted(text) + " is no whole number from 0 to " + std::to_string(max) +
           ".");
  }
  return number;
}

std::string ReadExtension(const std::string& text) {
  if (text.empty() || text.starts_with(' ') || !IsOneLine(text))
    Refuse(Quoted(text) + " is no extension line.");
  return text;
}

class Reader {
 public:
  ExplainArguments Read(const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments) Take(argument);
    if (list_ || value_) {
      if (!others_.empty()) Refuse("\"" + others_ + "=\" does not go with \"list=\".");
      if (!list_ || !value_) Refuse("\"list=\" and \"value=\" go together.");
      read_.list = {*list_, *value_};
    } else {
      if (!has_client_) Refuse("\"client=\" is missing.");
      read_.client = std::move(client_);
    }
    return std::move(read_);
  }

 private:
  void Take(const std::string& argument) {
    if (EqualNoCase(argument, "--json")) {
      read_.json = true;
      return;
    }
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos) Refuse(Quoted(argument) + " is not known.");
    const std::string name = ToLower(argument.substr(0, equals));
    const std::string value = argument.substr(equals + 1);
    if (name == "to") {
      client_.to.push_back(ReadRecipient(value));
    } else if (name == "ext") {
      client_.server_offers.push_back(ReadExtension(value));
    } else {
      if (std::find(given_.begin(), given_.end(), name) != given_.end())
        Refuse("\"" + name + "=\" is given twice.");
      given_.push_back(name);
      TakeSingle(name, value);
    }
    if (name != "list" && name != "value") others_ = name;
  }

  void TakeSingle(const std::string& name, const std::string& value) {
    if (name == "client") {
      client_.address = ReadClient(value);
      has_client_ = true;
    } else if (name == "name") {
      ReadName(value, client_);
    } else if (name == "helo") {
      client_.helo = ReadHelo(value);
    } else if (name == "from") {
      client_.from = ReadSender(value);
    } else if (name == "size") {
      client_.size = ReadNumber(value, name, kMaxSize);
    } else if (name == "seen") {
      client_.seen = ReadNumber(value, name, kMaxMinutes);
    } else if (name == "list") {
      list_ = value;
    } else if (name == "value") {
      value_ = value;
    } else {
      Refuse("\"" + name + "=\" is not known.");
    }
  }

  ExplainArguments read_;
  ExplainedClient client_;
  bool has_client_ = false;
  std::optional<std::string> list_;
  std::optional<std::string> value_;
  std::vector<std::string> given_;
  std::string others_;  // one that is about a client
};

}  // namespace

ExplainArguments ReadExplainArguments(const std::vector<std::string>& arguments) {
  return Reader().Read(arguments);
}

}  // namespace trabex
