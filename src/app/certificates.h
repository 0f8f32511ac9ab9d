// Certificates and authorities from their files: loaded at the start, when the settings have changed, and when
// the files have.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "app/certificate_watch.h"
#include "app/disk_probe.h"
#include "base/date_time.h"
#include "base/log.h"
#include "config/configuration.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "proxy/tls_contexts.h"
#include "tls/tls_options.h"

namespace trabex {

// Every file that is read with these settings, as a native path.
std::vector<std::string> FilesOf(const TLSSettings& tls);

// Fills the contexts of the sessions. Nothing here ends the program: what cannot be loaded is logged, and what
// was in force for the same files stays.
class Certificates {
 public:
  // How often the files are looked at.
  static constexpr Milliseconds kBetweenLooks{60000};
  // So many days before a certificate expires the log begins to say so, once a day.
  static constexpr int kNoticeDays = 14;

  // All outlive this object. Nothing is loaded before the first Follow.
  Certificates(const Configuration& configuration, Log& log, const Clock& clock, EventLoop& loop,
               TlsContexts& contexts);
  Certificates(const Certificates&) = delete;
  Certificates& operator=(const Certificates&) = delete;

  // Loads everything anew when the settings are others than at the last call; the first one always loads.
  void Follow();

 private:
  // The settings that the contexts depend on.
  struct Wanted {
    TLSSettings tls;
    std::string server_name;
    friend bool operator==(const Wanted&, const Wanted&) = default;
  };
  // A certificate in use that the log has named.
  struct Known {
    TlsLoadReport::Certificate certificate;
    std::optional<DateTime> last_notice;  // that it expires; universal
  };

  void tmrLook_Timer();
  void Look();
  // False when something could not be loaded; the reason is logged.
  bool Load();
  void LogFailure(const TlsLoadReport::Failure& failure);
  // Logs what is new in `certificates`, which are those in use.
  void TakeCertificates(const std::vector<TlsLoadReport::Certificate>& certificates);
  void LogThoseThatExpire();
  std::string LocalDate(std::chrono::sys_seconds time) const;

  const Configuration& configuration_;
  Log& log_;
  const Clock& clock_;
  TlsContexts& contexts_;
  std::optional<Wanted> wanted_;  // as of the last load
  std::vector<Known> known_;
  CertificateWatch watch_;
  DiskProbe probe_;
  Timer tmrLook;
};

}  // namespace trabex
