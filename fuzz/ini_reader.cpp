// Initialization files: the input is one. However broken, reading it ends and says what is wrong; what was
// loaded can be dumped, and the dump is a file without syntax errors that is loaded again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "config/configuration_dump.h"
#include "config/early_keys.h"
#include "config/ini_reader.h"
#include "config/read_settings.h"

namespace {

using namespace trabex;

void Require(bool condition) {
  if (!condition) std::abort();
}

class CountingLog final : public Log {
 public:
  void LogLine(std::string_view message) override {
    ++lines_;
    syntax_errors_ += message.starts_with("Error reading") ? 1 : 0;
  }
  int lines_ = 0;
  int syntax_errors_ = 0;
};

// Whether nothing was wrong, or errors are ignored.
bool Load(const std::string& text, bool ignore, Configuration& configuration, CountingLog& log) {
  const SettingContext context{.program_directory = "/p", .local_host_name = [] { return std::string("h"); }};
  const IniErrors errors{log, ignore};
  SectionStore store;
  if (!mCommon::ReadIniText("x.ini", text, store, errors)) return false;
  try {
    ReadSettings(store, errors, context, configuration);
  } catch (const Error&) {
    return false;
  }
  return true;
}

std::string Dump(const Configuration& configuration) {
  CountingLog log;
  std::string text;
  mCommon::LogConfiguration(configuration, "x.ini", log,
                            [&](std::string_view line) { text.append(line).append("\r\n"); });
  Require(log.lines_ == 0);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CountingLog log;
  Configuration configuration = DefaultConfiguration();
  Require(Load(text, true, configuration, log));

  // Errors that count end the load exactly when there was something to report.
  CountingLog strict_log;
  Configuration strict = DefaultConfiguration();
  Require(Load(text, false, strict, strict_log) == (log.lines_ == 0));
  Require(strict_log.lines_ == (log.lines_ == 0 ? 0 : 1));

  EarlyKeyInputs inputs;
  inputs.program_directory = "/p";
  CountingLog early_log;
  try {
    ReadEarlyKeysFromText(text, inputs, configuration, early_log);
    Require(early_log.lines_ == 0 || configuration.IgnoreIniErrors);
  } catch (const Error&) {
    Require(early_log.lines_ > 0);
  }
  Require(configuration.Log >= 0 && configuration.Log <= 2);
  Require(configuration.BindPort >= 0 && configuration.BindPort <= 65535);

  configuration.Log = 2;
  const std::string dump = Dump(configuration);
  CountingLog dump_log;
  Configuration again = DefaultConfiguration();
  Require(Load(dump, true, again, dump_log));
  Require(dump_log.syntax_errors_ == 0);
  return 0;
}
