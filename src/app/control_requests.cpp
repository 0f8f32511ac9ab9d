#include "app/control_requests.h"

#include <utility>

namespace trabex {

void PendingAnswer::Give(ControlAnswer answer) {
  if (!taker_) {
    given_ = std::make_unique<ControlAnswer>(std::move(answer));
    return;
  }
  const auto taker = std::exchange(taker_, nullptr);
  taker(std::move(answer));
}

void PendingAnswer::Await(std::function<void(ControlAnswer)> taker) {
  taker_ = std::move(taker);
  if (taker_ && given_) Give(std::move(*std::exchange(given_, nullptr)));
}

void ControlRequests::Add(std::string name, ControlHandler handler) {
  handlers_.insert_or_assign(std::move(name), std::move(handler));
}

ControlReply ControlRequests::Answer(const std::vector<std::string>& request, NativeFile attached) const {
  const auto found = request.empty() ? handlers_.end() : handlers_.find(request.front());
  if (found == handlers_.end()) {
    return ControlAnswer{.status = exit_status::kFailed,
                         .text = {},
                         .error = "This instance does not know the request \"" +
                                  (request.empty() ? std::string() : request.front()) + "\"."};
  }
  attached_ = std::move(attached);
  const std::unique_ptr<NativeFile, void (*)(NativeFile*)> not_taken(&attached_,
                                                                     [](NativeFile* file) { file->Close(); });
  return found->second({request.begin() + 1, request.end()});
}

}  // namespace trabex
