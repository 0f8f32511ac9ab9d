// What the running program says of itself when it is asked: the request STATUS, and HTTP where StatusHTTP is
// set.
#pragma once

#include <string>
#include <vector>

#include "app/control_requests.h"
#include "report/status_http.h"

namespace trabex {

class frmMain;
struct Program;

class StatusService {
 public:
  // Both outlive it. Adds the request.
  StatusService(Program& program, frmMain& window);

  // Listens for HTTP as the settings in force say. A failure is logged, and the program goes on without.
  void Follow();
  // The end of HTTP.
  void Close() { http_.Close(); }
  // The counters as text.
  std::string Text() const;

 private:
  ControlAnswer Answer(const std::vector<std::string>& arguments) const;
  std::string WhyNotHealthy() const;
  void ReportFailure(const std::string& description);

  Program& program_;
  frmMain& window_;
  std::int64_t start_time_;  // seconds since 1970
  StatusHttp http_;
};

}  // namespace trabex
