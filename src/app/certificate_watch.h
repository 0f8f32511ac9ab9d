// Notices, by repeated checks, that the files of certificates, keys and authorities have changed.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/files.h"

namespace trabex {

// Only what lasts from one look to the next counts, so that a renewal that is under way (the new chain is
// there, its key is not) is over when the files are read. Looks are made by the owner; they read no file.
class CertificateWatch {
 public:
  // Begins with `files` as they are now.
  void Begin(std::vector<std::string> files);
  const std::vector<std::string>& Files() const { return files_; }
  bool HasFiles() const { return !files_.empty(); }
  // One look. True when a file is another than at the beginning, or than at the last look that was true, and
  // all of them are as they were at the look before this one. A file that is gone has changed.
  bool Look();

 private:
  using State = std::vector<std::optional<FileIdentity>>;
  State Now() const;

  std::vector<std::string> files_;
  State known_;
  State seen_;
};

}  // namespace trabex
