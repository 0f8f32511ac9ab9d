#include "config/certificate_list.h"

#include <algorithm>

#include "base/delimited_text.h"
#include "base/error.h"
#include "base/text.h"
#include "config/ini_paths.h"

namespace trabex::mCommon {

namespace {

constexpr std::string_view kQuote = "\"";

[[noreturn]] void RaiseBadEntry(std::string_view entry) {
  throw Error(error_number::kBadValue, "mCommon.GetCertificateList",
              "Invalid certificate entry " + Quoted(entry) + ".");
}

// The file that `part` of `entry` names, which may be in quotes.
std::string ReadName(std::string_view part, std::string_view entry, std::string_view program_directory) {
  if (part.size() >= 2 && part.starts_with(kQuote) && part.ends_with(kQuote)) {
    part = Undelimit(part, kQuote, kQuote);
  }
  if (part.empty() || part.find(kQuote) != std::string_view::npos) RaiseBadEntry(entry);
  return ResolveFilePath(part, program_directory);
}

CertificateFiles ReadEntry(std::string_view entry, std::string_view program_directory) {
  constexpr std::size_t kMaxParts = 2;
  const std::vector<std::string_view> parts = SplitOutside(entry, " ", kQuote, kQuote, {.skipEmpty = true});
  if (parts.size() > kMaxParts) RaiseBadEntry(entry);
  return {ReadName(parts.front(), entry, program_directory),
          ReadName(parts.back(), entry, program_directory)};
}

std::string QuotedIfNeeded(const std::string& name) {
  return name.find_first_of(" ,") == std::string::npos ? name : Quoted(name);
}

}  // namespace

std::vector<CertificateFiles> GetCertificateList(const IniErrors& errors, const SectionTable& section,
                                                 std::string_view key, std::string_view program_directory) {
  std::vector<CertificateFiles> list;
  const auto report = [&](const Error& error, std::string_view where) {
    ReportConfigError(errors, section.Name(), key, error.Number(), error.Description(), kEntryLeftOut, where);
  };
  const auto take = [&](std::string_view entry) {
    if (entry.empty()) return;
    CertificateFiles files;
    try {
      files = ReadEntry(entry, program_directory);
      if (std::find(list.begin(), list.end(), files) != list.end()) {
        throw Error(error_number::kDuplicateKey, "mCommon.GetCertificateList",
                    "Expression " + Quoted(entry) + " specified more than once.");
      }
    } catch (const Error& error) {
      return report(error, entry);
    }
    list.push_back(std::move(files));
  };
  const auto take_line = [&](std::string_view value) {
    std::vector<std::string_view> entries;
    try {
      entries = SplitOutside(value, ",", kQuote, kQuote);
    } catch (const Error& error) {
      return report(error, value);
    }
    for (std::string_view entry : entries) take(Trim(entry));
  };
  if (const SectionTable::Entry* const entry = section.Find(key)) {
    take_line(entry->first_value);
    for (std::string_view value : entry->further_values) take_line(value);
  }
  return list;
}

std::vector<std::string> CertificateLines(const SectionTable& section, std::string_view key) {
  std::vector<std::string> lines;
  const auto take = [&lines](std::string_view value) {
    if (value.find_first_not_of(" \t,") != value.npos) lines.emplace_back(value);
  };
  if (const SectionTable::Entry* const entry = section.Find(key)) {
    take(entry->first_value);
    for (std::string_view value : entry->further_values) take(value);
  }
  return lines;
}

std::string FormatCertificateEntry(const CertificateFiles& files) {
  const std::string chain = QuotedIfNeeded(files.chain);
  return files.key == files.chain ? chain : chain + " " + QuotedIfNeeded(files.key);
}

}  // namespace trabex::mCommon
