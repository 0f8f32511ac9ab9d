// Before a reload: whether all that it will read and look at answers.
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

  // Calls `then` when the initialization file, and the files and folders that it names, have answered: from the loop,
  // or in this call where no disk may hang. None may be running (asserted).
  void Run(std::function<void()> then);
  bool Running() const { return probe_.Running(); }
  void Cancel() { probe_.Cancel(); }

 private:
  Program& program_;
  DiskProbe probe_;
};

}  // namespace trabex
