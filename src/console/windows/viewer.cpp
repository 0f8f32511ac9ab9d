#include "console/viewer.h"

namespace trabex {

std::variant<ViewerEnd, NoView> ShowViewOf(std::intptr_t /*connection*/, std::string_view /*received*/) {
  return NoView{NoView::Kind::kUnusable, "On Windows an instance is looked at in its own window."};
}

}  // namespace trabex
