#include "report/program_events.h"

namespace trabex {

void WriteStart(JsonLog& json, std::string_view version, const std::vector<std::string>& errors) {
  if (!json.Wants("start")) return;
  JsonLine& line = json.Begin("start");
  line.Text("version", version);
  line.Texts("errors", errors);
  json.End();
}

void WriteStop(JsonLog& json, std::string_view version) {
  if (!json.Wants("stop")) return;
  json.Begin("stop").Text("version", version);
  json.End();
}

void WriteReload(JsonLog& json, bool succeeded, const std::vector<std::string>& errors) {
  if (!json.Wants("reload")) return;
  JsonLine& line = json.Begin("reload");
  line.Text("result", succeeded ? "ok" : "error");
  line.Texts("errors", errors);
  json.End();
}

void WriteError(JsonLog& json, int number, std::string_view text) {
  if (!json.Wants("error")) return;
  JsonLine& line = json.Begin("error");
  line.Number("number", number);
  line.Text("text", text);
  json.End();
}

}  // namespace trabex
