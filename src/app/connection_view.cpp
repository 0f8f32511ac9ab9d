#include "app/connection_view.h"

#include <utility>
#include <variant>

#include "view/screen_model.h"

namespace trabex {

std::optional<NoView> ConnectionView::Show(bool folded, MainViewEvents events) {
  auto opened = OpenView(loop_, *this, folded, std::move(events));
  if (auto* const why_not = std::get_if<NoView>(&opened)) return std::move(*why_not);
  view_ = std::move(std::get<std::unique_ptr<MainView>>(opened));
  return std::nullopt;
}

void ConnectionView::Refresh() {
  if (view_) view_->Refresh();
}

std::unique_ptr<ViewScreen> ConnectionView::MakeScreen(bool folded) const {
  return std::make_unique<ScreenModel>(source_, folded);
}

}  // namespace trabex
