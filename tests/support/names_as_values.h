// Values of macros for tests that compare replies with the documents.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "match/cReplaces.h"

namespace trabex {

// Every value is its own name in the documents, so that the replies made of them read as they stand there.
class NamesAsValues final : public MacroSource {
 public:
  std::optional<std::string> Value(std::string_view macro) const override {
    static const std::map<std::string_view, std::string> kNames = {
        {"localhostname", "<LocalHostName>"},
        {"remotehostname", "<host>"},
        {"remotehostip", "<ip>"},
        {"helodomain", "<helo>"},
        {"maxsize", "<max>"},
    };
    const auto name = kNames.find(macro);
    return name == kNames.end() ? "<" + std::string(macro) + ">" : name->second;
  }
};

}  // namespace trabex
