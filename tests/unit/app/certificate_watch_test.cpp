#include "app/certificate_watch.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/temp_folder.h"

namespace trabex {
namespace {

// What happens to two files before each look, and whether that look finds a change to act on. A letter is a
// new content of a file, "-" takes it away, "." leaves it.
TEST(CertificateWatch, FindsWhatHasChangedAndStays) {
  struct Step {
    char first;
    char second;
    bool found;
  };
  const struct {
    const char* name;
    std::vector<Step> steps;
  } rows[] = {
      {"nothing", {{'.', '.', false}, {'.', '.', false}, {'.', '.', false}}},
      {"one", {{'b', '.', false}, {'.', '.', true}, {'.', '.', false}, {'.', '.', false}}},
      {"both at once", {{'b', 'b', false}, {'.', '.', true}, {'.', '.', false}}},
      {"one behind the other", {{'b', '.', false}, {'.', 'b', false}, {'.', '.', true}, {'.', '.', false}}},
      {"again and again",
       {{'b', '.', false}, {'c', '.', false}, {'d', '.', false}, {'.', '.', true}, {'.', '.', false}}},
      {"gone and back",
       {{'-', '.', false}, {'.', '.', true}, {'.', '.', false}, {'b', '.', false}, {'.', '.', true}}},
      {"gone for a moment", {{'-', '.', false}, {'b', '.', false}, {'.', '.', true}}},
      {"after a success", {{'b', '.', false}, {'.', '.', true}, {'.', 'b', false}, {'.', '.', true}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const TempFolder folder;
    const std::string files[] = {folder / "first", folder / "second"};
    auto date = std::filesystem::file_time_type::clock::now();
    const auto change = [&](const std::string& file, char what) {
      if (what == '.') return;
      if (what == '-') {
        std::filesystem::remove(file);
        return;
      }
      WriteFile(file, std::string(1, what));
      std::filesystem::last_write_time(file, date += std::chrono::seconds(1));
    };
    change(files[0], 'a');
    change(files[1], 'a');
    CertificateWatch watch;
    EXPECT_FALSE(watch.HasFiles());
    EXPECT_FALSE(watch.Look());
    watch.Begin({files[0], files[1]});
    EXPECT_TRUE(watch.HasFiles());
    int number = 0;
    for (const Step& step : row.steps) {
      change(files[0], step.first);
      change(files[1], step.second);
      EXPECT_EQ(watch.Look(), step.found) << "look " << ++number;
    }
  }
}

TEST(CertificateWatch, BeginsAnewWithOtherFiles) {
  const TempFolder folder;
  WriteFile(folder / "a", "a");
  WriteFile(folder / "b", "b");
  CertificateWatch watch;
  watch.Begin({folder / "a"});
  WriteFile(folder / "a", "changed");
  EXPECT_FALSE(watch.Look());
  watch.Begin({folder / "b"});
  EXPECT_FALSE(watch.Look());
  EXPECT_FALSE(watch.Look());
  watch.Begin({});
  EXPECT_FALSE(watch.HasFiles());
}

}  // namespace
}  // namespace trabex
