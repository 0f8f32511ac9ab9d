#include "tls/server_names.h"

#include "base/text.h"

namespace trabex {

namespace {

std::string Normalized(std::string_view name) {
  if (name.ends_with('.')) name.remove_suffix(1);
  return ToLower(name);
}

}  // namespace

void ServerNames::Add(std::string_view name, std::size_t value) {
  values_.try_emplace(Normalized(name), value);
}

std::optional<std::size_t> ServerNames::Find(std::string_view name) const {
  const std::string whole = Normalized(name);
  if (const auto found = values_.find(whole); found != values_.end()) return found->second;
  const std::size_t dot = whole.find('.');
  if (dot == 0 || dot == std::string::npos) return std::nullopt;
  const auto found = values_.find("*" + whole.substr(dot));
  return found != values_.end() ? std::optional(found->second) : std::nullopt;
}

}  // namespace trabex
