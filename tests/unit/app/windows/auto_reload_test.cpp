// Changes of files that only Windows has.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/windows/win.h"
#include "support/windows/held_file.h"
#include "unit/app/reload_fixture.h"

namespace trabex {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(AutoReloadTest, AFileThatSomebodyHoldsIsReportedOnceAndReadWhenItCan) {
  Start();
  Pass(20);
  WriteIni("Timeout=200\n");
  {
    const HeldFile held(ini_);
    for (int i = 0; i < 10; ++i) {
      Pass(20);
      Write(folder_ / "Trabex-25.log", "a line more\n");
    }
    EXPECT_THAT(log_, ElementsAre(HasSubstr("Error reading initialization file \"" + ini_ +
                                            "\". Error number: 70, Description: Permission denied")));
    EXPECT_EQ(Settings().Timeout, 100);
    EXPECT_FALSE(Window().Unloaded());
  }
  Write(folder_ / "Trabex-25.log", "a line more\n");
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 200);
}

// The test writes it by its wide name, which is not in the system's code page.
TEST_F(AutoReloadTest, AFileOfAnyNameIsWatched) {
  const fs::path file = Wide(folder_ / "gr\u00F6\u00DFe \u65E5\u672C.ini");
  const fs::path beside = Wide(folder_ / "new");
  program_->ini_file.path = folder_ / "gr\u00F6\u00DFe \u65E5\u672C.ini";
  const auto write = [&](const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
    fs::last_write_time(path, next_date_ += std::chrono::seconds(10));
  };
  write(file, Ini("Timeout=150\n"));
  Start();
  EXPECT_EQ(Settings().Timeout, 150);
  Pass(20);
  write(file, Ini("Timeout=200\n"));
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 200) << "in place";
  write(beside, Ini("Timeout=250\n"));
  fs::rename(beside, file);
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 250) << "replaced";
  EXPECT_EQ(Reloads(), 2);
}

}  // namespace
}  // namespace trabex
