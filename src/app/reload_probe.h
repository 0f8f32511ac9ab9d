// Before a reload: whether all that it will read and look at answers. What it reads has to answer. The folders in which
// the program only writes, and the database that the records are moved away from, have some seconds for that; then the
// reload is made without them, so that a disk that is dead can be left.
#pragma once

#include <functional>

#include "app/disk_probe.h"

namespace trabex {

struct Program;

class ReloadProbe {
 public:
  // `program` outlives the object.
  explicit ReloadProbe(Program& program);
  ReloadProbe(const ReloadProbe&) = delete;
  ReloadProbe& operator=(const ReloadProbe&) = delete;

  // Calls `then` when the initialization file and what it names have answered, or had their time: from the loop, or in
  // this call where no disk may hang. Program::unanswered says then what has not. None may be running (asserted).
  void Run(std::function<void()> then);
  bool Running() const { return probe_.Running(); }
  // Whether it is running, and what is waited for was named by the initialization file, which may have changed since.
  bool AwaitsNamedFiles() const { return Running() && file_has_answered_; }
  void Cancel() { probe_.Cancel(); }

 private:
  void ReadPlaces(std::function<void()> then);

  Program& program_;
  DiskProbe probe_;
  bool file_has_answered_ = false;
};

}  // namespace trabex
