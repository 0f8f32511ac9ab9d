// The one error type of the program.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace trabex {

// A failure of the environment: peer, network, disk, configuration. It is thrown where it is found and caught
// at the border of an event handler or of a reader, logged there, and the program goes on. A broken invariant
// of our own is an assert, never an Error.
class Error : public std::exception {
 public:
  // `source` names module or class and procedure with a point: "mCommon.ReadIniFile".
  Error(int number, std::string source, std::string description)
      : number_(number), source_(std::move(source)), description_(std::move(description)) {}

  int Number() const noexcept { return number_; }
  const std::string& Source() const noexcept { return source_; }
  const std::string& Description() const noexcept { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

 private:
  int number_;
  std::string source_;
  std::string description_;
};

// Error numbers that more than one library uses. Those of the socket layer are in net/.
namespace error_number {
inline constexpr int kOutOfMemory = 7;
inline constexpr int kFileNotFound = 53;
inline constexpr int kDeviceIo = 57;
inline constexpr int kDiskFull = 61;
inline constexpr int kPermissionDenied = 70;
inline constexpr int kPathFileAccess = 75;
inline constexpr int kPathNotFound = 76;
inline constexpr int kBadPattern = 93;
inline constexpr int kBadFileContent = 321;
inline constexpr int kBadValue = 380;
inline constexpr int kDuplicateKey = 457;
}  // namespace error_number

}  // namespace trabex
