// Where in the files a load finds what it reads.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"

namespace trabex {

// Sees what a load finds, each with the piece of a file's text that it is about. A piece points into the text
// as it was handed to the reader, so that its place can be told as long as that lives; what comes from a
// default points elsewhere. Only a check of the settings has one: where each entry stands is kept for it alone.
class LoadObserver {
 public:
  virtual ~LoadObserver() = default;

  // A line that the reader cannot take; `section` and `key` are those that it stands in, as far as there are
  // any.
  virtual void BadLine(std::string_view section, std::string_view key, std::string_view where,
                       const Error& error) = 0;
  // `where` is the value, or the entry of it, that is wrong; without data when there is none in the file.
  virtual void BadValue(std::string_view section, std::string_view key, std::string_view where, int number,
                        std::string_view description) = 0;
  // Where the entries of a list stand that was read: in the order of the list, that of Ranges() for ranges,
  // that of the rules in ResponseChanges.
  virtual void ListRead(std::string_view section, std::string_view key,
                        std::vector<std::string_view> places) = 0;
  // A list file, by its name as it is written, and its text, which pieces may point into as long as the
  // observer keeps it.
  virtual void ListFileRead(std::string_view name, std::shared_ptr<const std::string> text) = 0;
};

}  // namespace trabex
