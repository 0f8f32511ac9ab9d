#include "app/certificate_watch.h"

#include <utility>

namespace trabex {

void CertificateWatch::Begin(std::vector<std::string> files) {
  files_ = std::move(files);
  known_ = seen_ = Now();
}

bool CertificateWatch::Look() {
  State now = Now();
  const bool has_settled = now == seen_;
  seen_ = now;
  if (!has_settled || now == known_) return false;
  known_ = std::move(now);
  return true;
}

CertificateWatch::State CertificateWatch::Now() const {
  State state;
  state.reserve(files_.size());
  for (const std::string& file : files_) state.push_back(FindFileIdentity(file));
  return state;
}

}  // namespace trabex
