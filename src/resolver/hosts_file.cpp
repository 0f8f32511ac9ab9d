#include "resolver/hosts_file.h"

#include <algorithm>

#include "base/error.h"
#include "platform/files.h"

namespace trabex {

namespace {

// The words of a line, up to its comment.
std::vector<std::string_view> Words(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r\f\v";
  std::vector<std::string_view> words;
  line = line.substr(0, line.find('#'));
  for (;;) {
    const std::size_t begin = line.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return words;
    line.remove_prefix(begin);
    const std::size_t end = std::min(line.find_first_of(kBlanks), line.size());
    words.push_back(line.substr(0, end));
    line.remove_prefix(end);
  }
}

std::string_view WithoutFinalDot(std::string_view name) {
  if (name.ends_with('.')) name.remove_suffix(1);
  return name;
}

template <class Action>
void ForEachLine(std::string_view text, Action action) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    action(Words(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

}  // namespace

HostsTable::HostsTable(std::string_view text) {
  ForEachLine(text, [this](const std::vector<std::string_view>& words) {
    if (words.size() < 2) return;
    const auto address = ParseIPAddress(words[0]);
    if (!address) return;
    names_.emplace(*address, WithoutFinalDot(words[1]));
    for (std::size_t i = 1; i < words.size(); ++i) {
      auto& addresses = addresses_[std::string(WithoutFinalDot(words[i]))];
      if (std::find(addresses.begin(), addresses.end(), *address) == addresses.end()) {
        addresses.push_back(*address);
      }
    }
  });
}

const std::vector<IPAddress>& HostsTable::Addresses(std::string_view name) const {
  static const std::vector<IPAddress> none;
  const auto found = addresses_.find(WithoutFinalDot(name));
  return found == addresses_.end() ? none : found->second;
}

const std::string& HostsTable::Name(const IPAddress& address) const {
  static const std::string none;
  const auto found = names_.find(address);
  return found == names_.end() ? none : found->second;
}

std::string FullNameInHosts(std::string_view text, std::string_view host) {
  std::string full;
  if (host.empty() || host.find('.') != std::string_view::npos) return full;
  const std::string prefix = std::string(host) + ".";
  ForEachLine(text, [&](const std::vector<std::string_view>& words) {
    if (!full.empty() || words.size() < 2) return;
    const auto names = words.begin() + 1;
    const bool ours = std::any_of(
        names, words.end(), [&](std::string_view name) { return EqualNoCase(WithoutFinalDot(name), host); });
    if (!ours) return;
    const auto found = std::find_if(names, words.end(), [&](std::string_view name) {
      return WithoutFinalDot(name).size() > prefix.size() && StartsWithNoCase(name, prefix);
    });
    if (found != words.end()) full = WithoutFinalDot(*found);
  });
  return full;
}

const HostsTable& HostsFile::Table(MonotonicTime now) {
  if (!change_.Changed(now)) return table_;
  try {
    table_ = HostsTable(Read());
  } catch (const Error& error) {
    const bool missing =
        error.Number() == error_number::kFileNotFound || error.Number() == error_number::kPathNotFound;
    if (missing) {
      table_ = HostsTable();
    } else {
      change_.Forget();  // out of descriptors, perhaps: what was known stays so
    }
  }
  return table_;
}

std::string HostsFile::Text() const {
  try {
    return Read();
  } catch (const Error&) {
    return "";
  }
}

std::string HostsFile::Read() const {
  return ReadWholeFile(change_.Path(), "mNameLookup.HostsFile");
}

}  // namespace trabex
