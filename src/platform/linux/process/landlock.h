// Landlock: the kernel's list of folders that a process may use.
#pragma once

#include <cstdint>
#include <string>

#include "platform/linux/descriptor.h"

namespace trabex {

// The version of Landlock that the running kernel has; 0: none.
int LandlockVersion();

// The first one that renames between folders can be allowed with.
inline constexpr int kMinLandlockVersion = 2;

// What a process may use from Restrict on; all the rest of the file system it may not open. A rule holds for a file or
// folder itself, whatever its name is later, and for everything below.
class LandlockRules {
 public:
  // What else is allowed towards other processes, from version 6 on; before it is in any case.
  struct Others {
    bool abstract_sockets = false;  // to connect to their sockets with abstract names
    bool signals = false;           // to send them signals
  };
  explicit LandlockRules(Others others);
  bool Valid() const { return static_cast<bool>(rules_); }

  // What is not there is passed over.
  void AllowReading(const std::string& path);
  void AllowWriting(const std::string& folder);
  // The same, and to make folders.
  void AllowMakingFolders(const std::string& folder);
  // A device or an open file of this process, reading and writing.
  void AllowUsing(const std::string& file);
  void AllowUsing(int descriptor);

  // False when the kernel refuses. The process has "no new privileges" already.
  bool Restrict() const;

 private:
  void Allow(const std::string& path, std::uint64_t access);
  void Allow(int descriptor, std::uint64_t access);

  std::uint64_t known_ = 0;  // what this kernel can rule
  Descriptor rules_;
};

}  // namespace trabex
