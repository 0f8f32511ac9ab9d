#include "script/hostile_files.h"

#include <algorithm>

namespace trabex::script {

namespace {

HostileFile ReadHostileFile(const std::filesystem::path& folder, const std::filesystem::path& path) {
  HostileFile file{path.lexically_relative(folder).replace_extension().generic_string(),
                   ReadScriptFile(path)};
  const Head& head = file.script.head;
  if (head.comment.empty() || !head.after || !head.direct || file.script.steps.empty()) {
    throw ScriptError(path.string() + ": lacks its comment, its steps, after: or direct:");
  }
  file.script.steps = JoinSendings(std::move(file.script.steps));
  return file;
}

}  // namespace

std::vector<HostileFile> ReadHostileFiles(const std::filesystem::path& folder) {
  std::vector<HostileFile> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.path().extension() == ".session") files.push_back(ReadHostileFile(folder, entry.path()));
  }
  if (files.empty()) throw ScriptError(folder.string() + ": no *.session");
  std::sort(files.begin(), files.end(),
            [](const HostileFile& a, const HostileFile& b) { return a.name < b.name; });
  return files;
}

std::vector<std::pair<std::string, std::string>> OpeningOf(const HostileFile& file) {
  static const std::vector<std::pair<std::string, std::vector<std::string>>> kStages = {
      {"nothing", {"", "220"}},
      {"ehlo", {"EHLO client-nnn.test", "250"}},
      {"mail", {"MAIL FROM:<good@local.test>", "250"}},
      {"rcpt", {"RCPT TO:<good@local.test>", "250"}},
      {"data", {"DATA", "354"}}};
  std::vector<std::pair<std::string, std::string>> opening;
  if (file.script.head.after == "nothing") return opening;
  for (const auto& [stage, exchange] : kStages) {
    opening.emplace_back(exchange[0], exchange[1]);
    if (file.script.head.after == stage) break;
  }
  return opening;
}

}  // namespace trabex::script
