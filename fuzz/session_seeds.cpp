// session_seeds HOSTILE_FILES FOLDER: writes each hostile file, as its client and a scripted server play it
// on a dialogue, to a file of the folder, in the records that the target "session" reads.
#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "command_checks.h"
#include "config/configuration.h"
#include "script/hostile_files.h"
#include "support/dialogue_player.h"
#include "support/scripted_server.h"

namespace {

using namespace trabex;

constexpr char kRecordEnd = '\xFF';

// The file's dialogue; each side's words are a record.
std::string SeedOf(const script::HostileFile& file) {
  Configuration configuration = DefaultConfiguration();
  SetLists(configuration);
  ScriptedServer server(file.script.head.replies);
  FakeClock clock;
  DialoguePlayer player(configuration, clock, {.host_name = "mail.client.test", .is_local = false});
  std::string seed;
  player.Overhear([&](script::Side side, std::string_view bytes) {
    seed += kRecordEnd;
    seed += side == script::Side::kClient ? 'c' : 's';
    // The byte that ends a record cannot be in one.
    std::replace_copy(bytes.begin(), bytes.end(), std::back_inserter(seed), kRecordEnd, '\xFE');
  });
  player.Attend(server);
  for (const auto& [line, code] : script::OpeningOf(file)) {
    if (!line.empty()) player.ClientSends(line + "\r\n");
  }
  // What its client waits for does not matter here; with other settings it may get something else.
  for (const script::Step& step : file.script.steps) {
    if (step.kind == script::StepKind::kSend) player.ClientSends(step.sending.bytes);
  }
  return seed;
}

void WriteSeeds(const std::filesystem::path& files, const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  for (const script::HostileFile& file : script::ReadHostileFiles(files)) {
    std::string name = file.name;
    std::replace(name.begin(), name.end(), '/', '-');
    std::ofstream seed(folder / name, std::ios::binary | std::ios::trunc);
    seed << SeedOf(file);
    if (!seed.flush()) throw std::runtime_error(name + " cannot be written");
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 3) throw std::runtime_error("two arguments: the hostile files, and the folder to write to");
    WriteSeeds(argv[1], argv[2]);
  } catch (const std::exception& error) {
    std::cerr << "session_seeds: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
