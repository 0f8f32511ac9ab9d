// What "--explain" is asked.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/ip_address.h"

namespace trabex {

// A client, and what it would say. What is not given is not judged.
struct ExplainedClient {
  // How its name is known.
  enum class Name {
    kAsked,  // as a session asks for it
    kGiven,
    kNone,    // it has none
    kFailed,  // the look-up fails for now
  };

  IPAddress address;
  Name name_is = Name::kAsked;
  std::string name = {};  // of kGiven
  std::optional<std::string> helo = {};
  std::optional<std::string> from = {};  // "": the empty sender
  std::vector<std::string> to = {};
  std::optional<std::int64_t> size = {};        // bytes
  std::optional<std::int64_t> seen = {};        // how many minutes ago each recipient was tried first
  std::vector<std::string> server_offers = {};  // extension lines of the server's reply to EHLO
};

// A list, and what is looked for in it.
struct ExplainedList {
  std::string list;
  std::string value;
};

struct ExplainArguments {
  std::optional<ExplainedClient> client;
  std::optional<ExplainedList> list;  // one of both is given
  bool json = false;
};

// Reads
//   client=ADDRESS [name=HOST|none|dnsfail] [helo=NAME] [from=ADDRESS|<>] [to=ADDRESS]... [size=BYTES]
//   [seen=MINUTES] [ext=LINE]... [--json]
//   list=NAME value=TEXT [--json]
// in any order. Raises 380 with what is wrong.
ExplainArguments ReadExplainArguments(const std::vector<std::string>& arguments);

}  // namespace trabex
