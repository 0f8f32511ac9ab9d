#include "app/status_service.h"

#include "app/frmMain.h"
#include "app/program.h"
#include "app/version.h"
#include "platform/descriptors.h"
#include "report/status_text.h"
#include "report/totals.h"

namespace trabex {

StatusService::StatusService(Program& program, frmMain& window)
    : program_(program),
      window_(window),
      start_time_(program.dependencies.clock.UnixMilliseconds() / 1000),
      http_(program.socket_module, program.loop,
            {.metrics = [this] { return Text(); },
             .why_not_healthy = [this] { return WhyNotHealthy(); },
             .failed = [this](const std::string& description) { ReportFailure(description); }}) {
  program.requests.Add("STATUS", [this](const auto& arguments) { return Answer(arguments); });
}

void StatusService::Follow() {
  const Endpoint& endpoint = program_.configuration.Service.status_endpoint;
  if (endpoint.port == 0) return http_.Close();
  if (const auto failure = http_.Listen(endpoint)) {
    ReportFailure("Error " + std::to_string(failure->Number()) + ". " + failure->Description());
  }
}

void StatusService::ReportFailure(const std::string& description) {
  program_.log.LogProblem("Status cannot be asked for at " + program_.configuration.Service.StatusHTTP +
                          ". " + description);
}

std::string StatusService::WhyNotHealthy() const {
  if (!window_.Listening()) return "Trabex does not listen.";
  return program_.session_report.ServerFailure();
}

std::string StatusService::Text() const {
  const std::string version = VersionText();
  const DescriptorUse descriptors = FindDescriptorUse();
  SessionCollection& sessions = window_.Sessions();
  return StatusText(program_.counters,
                    {.version = version,
                     .start_time = start_time_,
                     .sessions_open = sessions.Count(),
                     .bytes_open = OpenBytes(sessions),
                     .greylisting_records = program_.greylisting.Count(),
                     .log_lines_lost = {program_.log.LostLines(), program_.json_log.LostLines()},
                     .descriptors_open = descriptors.open,
                     .descriptors_limit = descriptors.limit});
}

ControlAnswer StatusService::Answer(const std::vector<std::string>& arguments) const {
  ControlAnswer answer;
  if (arguments.empty()) {
    answer.text = Text();
    return answer;
  }
  const auto value = arguments.size() == 1 ? StatusValue(Text(), arguments.front()) : std::nullopt;
  if (value) {
    answer.text = *value + "\n";
  } else {
    answer.status = exit_status::kFailed;
    answer.error = "There is no value \"" + arguments.front() + "\".";
    if (arguments.size() > 1) answer.error = "STATUS takes the name of one value.";
  }
  return answer;
}

}  // namespace trabex
