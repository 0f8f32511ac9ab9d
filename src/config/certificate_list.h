// The setting Certificate: files with commas between them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "config/ini_errors.h"
#include "config/section_store.h"
#include "config/tls_settings.h"

namespace trabex::mCommon {

// The entries of all lines of `key`, their paths resolved (ResolveFilePath), in their order; none for an
// absent key. An entry is one file, or the files of the chain and of the key with blanks between them. A name
// with a blank or comma is written in double quotes, which no name can hold. Reported are unbalanced quotes
// (321; the line does not count), an entry that is not one or two names (380, "Invalid certificate entry")
// and one that is given twice (457).
std::vector<CertificateFiles> GetCertificateList(const IniErrors& errors, const SectionTable& section,
                                                 std::string_view key, std::string_view program_directory);

// The lines of `key` that hold more than blanks and commas.
std::vector<std::string> CertificateLines(const SectionTable& section, std::string_view key);

// The entry that reads back as these files.
std::string FormatCertificateEntry(const CertificateFiles& files);

}  // namespace trabex::mCommon
