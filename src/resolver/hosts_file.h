// The hosts file: lines of an address and the names that it has, "#" begins a comment.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/ip_address.h"
#include "base/text.h"
#include "platform/clock.h"
#include "resolver/file_change.h"

namespace trabex {

// The addresses and names of a hosts file. Names are compared without regard to case and to a dot at
// their end. A line that makes no sense is passed over.
class HostsTable {
 public:
  HostsTable() = default;
  explicit HostsTable(std::string_view text);

  // All addresses of `name`, of both families, in the order of the file; empty when it has none.
  const std::vector<IPAddress>& Addresses(std::string_view name) const;
  // The first name of the first line with `address`; empty when there is none.
  const std::string& Name(const IPAddress& address) const;

 private:
  std::unordered_map<std::string, std::vector<IPAddress>, HashNoCase, SameNoCase> addresses_;
  std::unordered_map<IPAddress, std::string> names_;
};

// The full form of the host name `host` in the hosts file `text`: a name of the form `host`.rest on the same
// line, whatever the line's address; empty when there is none or `host` has a dot itself.
std::string FullNameInHosts(std::string_view text, std::string_view host);

// A hosts file that may change while the program runs. c-ares 1.18 could look into the file too, but reads it
// anew for each look-up.
class HostsFile {
 public:
  explicit HostsFile(std::string path) : change_(std::move(path)) {}

  // What the file holds; a change is seen within a second. A missing file holds nothing, one that cannot be
  // read what it held before. The reference is good until the next call.
  const HostsTable& Table(MonotonicTime now);
  // Its bytes as they are now, none when it cannot be read.
  std::string Text() const;

 private:
  std::string Read() const;

  FileChange change_;
  HostsTable table_;
};

}  // namespace trabex
