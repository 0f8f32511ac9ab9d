#include "app/version.h"

#include "base/text.h"
#include "version_numbers.h"

namespace trabex {

std::string VersionText() {
  return std::to_string(kVersionMajor) + "." + ZeroPadded(kVersionMinor, 2) + "." +
         ZeroPadded(kVersionRevision, 3);
}

std::string TitleAndVersion() {
  return std::string(kApplicationTitle) + " " + VersionText();
}

}  // namespace trabex
