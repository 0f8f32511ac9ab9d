// A folder of its own for one test, removed with all that is in it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <system_error>

namespace trabex {

class TempFolder {
 public:
  TempFolder() {
    constexpr int kMaxTries = 100;
    std::random_device random;
    std::error_code error;
    for (int i = 0; i < kMaxTries; ++i) {
      path_ = testing::TempDir() + "trabex-" + std::to_string(random());
      if (std::filesystem::create_directory(path_, error)) return;
    }
    ADD_FAILURE() << "no temporary folder: " << error.message();
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& Path() const { return path_; }
  // The path of `name` in it.
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

// Writes the whole file, in place.
inline void WriteFile(const std::string& path, std::string_view content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.close();
  EXPECT_TRUE(file) << path;
}

// The whole file; a failure of the test when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace trabex
