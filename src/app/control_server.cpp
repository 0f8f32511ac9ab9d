#include "app/control_server.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string>
#include <utility>
#include <variant>

#include "app/control_protocol.h"
#include "base/error.h"

namespace trabex {

namespace {

constexpr std::size_t kMaxReadBytes = std::size_t{16} * 1024;

ControlAnswer Failure(int status, std::string error) {
  return {.status = status, .text = {}, .error = std::move(error)};
}

}  // namespace

// One who called, from then until it is hung up on. What of it may still be on the stack is destroyed at the end
// of the turn.
class ControlServer::Caller final : public DeferredDeletable {
 public:
  Caller(ControlServer& server, std::unique_ptr<ControlCaller> connection)
      : server_(server),
        connection_(std::move(connection)),
        silence_(std::make_unique<Timer>(server.loop_, kMaxSilence, [this] { HangUp(); })) {}
  ~Caller() override { Detach(); }

  void Begin() { Await({.readable = true}); }

  // Also when it is not due yet; says what can be said at once.
  void HangUp() {
    if (!connection_) return;
    Detach();
    server_.Remove(*this);  // destroyed at the end of the turn
  }
  void SayWhatIsDue() {
    if (connection_) SendSome();
  }

  // The next slice of the answer. Only when it was asked for.
  void MakeSlice() {
    ControlSlices slices = std::exchange(slices_, nullptr);  // the caller may be hung up on in the call
    ControlAnswer slice;
    bool more_follow = false;
    try {
      more_follow = slices(slice);
    } catch (const std::exception& error) {
      slice = Failure(exit_status::kFailed, error.what());
    }
    if (!connection_) return;
    AppendAnswer(slice, !more_follow, out_);
    if (more_follow) slices_ = std::move(slices);
    Flush();
  }

 private:
  // Nothing of the loop is held any more, and no answer is awaited.
  void Detach() {
    if (pending_) pending_->Await(nullptr);
    pending_.reset();
    slices_ = nullptr;
    silence_.reset();
    connection_.reset();
  }

  // Waits for the caller, and for no longer than it may be silent.
  void Await(FdReadiness interest) {
    try {
      connection_->Watch(interest, [this] { OnReady(); });
    } catch (const Error&) {
      return HangUp();
    }
    if (interest.readable || interest.writable) {
      silence_->Enable();
    } else {
      silence_->Disable();
    }
  }

  void OnReady() { request_is_taken_ ? Flush() : Read(); }

  void Read() {
    std::array<char, kMaxReadBytes> buffer;
    std::size_t received = 0;
    switch (connection_->Receive(buffer, received)) {
      case ChannelResult::kWouldBlock:
        return;
      case ChannelResult::kClosed:
        return HangUp();
      case ChannelResult::kDone:
        break;
    }
    const std::string_view bytes(buffer.data(), received);
    const std::size_t end = bytes.find('\n');
    line_.append(bytes.substr(0, end));
    const bool too_long = line_.size() >= kMaxRequestBytes;
    if (end == std::string_view::npos && !too_long) return silence_->Enable();
    request_is_taken_ = true;
    Await({});
    if (!connection_) return;
    const auto request = too_long ? std::nullopt : ParseRequest(line_);
    line_ = {};
    if (!request) return Deliver(Failure(exit_status::kBadCommandLine, "This is no request."));
    Answer(*request);
  }

  void Answer(const std::vector<std::string>& request) {
    ControlReply reply;
    try {
      reply = server_.requests_.Answer(request, connection_->TakeFile());
    } catch (const std::exception& error) {
      reply = Failure(exit_status::kFailed, error.what());
    }
    if (!connection_) return;
    if (auto* const answer = std::get_if<ControlAnswer>(&reply)) return Deliver(std::move(*answer));
    if (auto* const slices = std::get_if<ControlSlices>(&reply)) {
      slices_ = std::move(*slices);
      return server_.Enqueue(*this);
    }
    if (auto* const stream = std::get_if<ControlStream>(&reply)) return HandOver(std::move(*stream));
    const auto pending = std::get<std::shared_ptr<PendingAnswer>>(reply);  // it may be given in the call
    pending_ = pending;
    pending->Await([this](ControlAnswer answer) { Deliver(std::move(answer)); });
  }

  // The caller is no business of this server any more.
  void HandOver(ControlStream stream) {
    AppendStreamBegin(out_);
    SendSome();
    if (sent_ < out_.size()) return HangUp();
    std::unique_ptr<ControlCaller> connection = std::move(connection_);
    Detach();
    server_.Remove(*this);  // destroyed at the end of the turn
    stream.take(std::move(connection));
  }

  // The whole of an answer.
  void Deliver(ControlAnswer answer) {
    pending_.reset();
    AppendAnswer(answer, true, out_);
    Flush();
  }

  // Sends what is due. With all of it sent, goes on to the next slice, or hangs up.
  void Flush() {
    const std::size_t before = sent_;
    const ChannelResult result = SendSome();
    if (result == ChannelResult::kClosed) return HangUp();
    if (sent_ < out_.size()) {
      if (sent_ == before && silence_->Enabled()) return;
      return Await({.readable = false, .writable = true});
    }
    out_.clear();
    sent_ = 0;
    if (!slices_) return HangUp();
    Await({});
    if (connection_) server_.Enqueue(*this);
  }

  ChannelResult SendSome() {
    ChannelResult result = ChannelResult::kDone;
    while (sent_ < out_.size() && result == ChannelResult::kDone) {
      std::size_t sent = 0;
      result = connection_->Send(std::string_view(out_).substr(sent_), sent);
      sent_ += sent;
    }
    return result;
  }

  ControlServer& server_;
  std::unique_ptr<ControlCaller> connection_;  // none: hung up on
  std::unique_ptr<Timer> silence_;             // enabled while the caller is waited for
  std::string line_;                           // of the request, as far as it has come
  bool request_is_taken_ = false;
  std::string out_;       // what is being sent
  std::size_t sent_ = 0;  // of it
  ControlSlices slices_;  // what follows
  std::shared_ptr<PendingAnswer> pending_;
};

ControlServer::ControlServer(EventLoop& loop, const ControlRequests& requests)
    : loop_(loop), requests_(requests) {}

ControlServer::~ControlServer() {
  Close();
}

bool ControlServer::Open(std::string_view name) {
  channel_.reset();
  channel_ = OpenControlChannel(
      loop_, name, [this](std::unique_ptr<ControlCaller> connection) { Take(std::move(connection)); });
  LetInWhileThereIsRoom();
  return channel_ != nullptr;
}

void ControlServer::Begin() {
  begun_ = true;
  LetInWhileThereIsRoom();
}

void ControlServer::Close() {
  channel_.reset();
  begun_ = false;
  while (!callers_.empty()) {
    callers_.back()->SayWhatIsDue();
    callers_.back()->HangUp();
  }
}

void ControlServer::Take(std::unique_ptr<ControlCaller> connection) {
  callers_.push_back(std::make_unique<Caller>(*this, std::move(connection)));
  Caller& caller = *callers_.back();
  LetInWhileThereIsRoom();
  caller.Begin();
}

void ControlServer::Remove(Caller& caller) {
  std::erase(waiting_for_slices_, &caller);
  const auto found = std::find_if(callers_.begin(), callers_.end(),
                                  [&](const std::unique_ptr<Caller>& one) { return one.get() == &caller; });
  loop_.DeferredDelete(std::move(*found));
  callers_.erase(found);
  LetInWhileThereIsRoom();
}

void ControlServer::LetInWhileThereIsRoom() {
  if (!channel_) return;
  try {
    channel_->LetIn(begun_ && callers_.size() < kMaxCallers);
  } catch (const Error&) {
    channel_.reset();
  }
}

void ControlServer::Enqueue(Caller& caller) {
  waiting_for_slices_.push_back(&caller);
  PostSlice();
}

void ControlServer::PostSlice() {
  if (waiting_for_slices_.empty() || std::exchange(slice_is_due_, true)) return;
  loop_.Post([this, still_here = std::weak_ptr<char>(here_)] {
    if (!still_here.expired()) MakeSlice();
  });
}

void ControlServer::MakeSlice() {
  slice_is_due_ = false;
  if (waiting_for_slices_.empty()) return;
  Caller& caller = *waiting_for_slices_.front();
  waiting_for_slices_.pop_front();
  caller.MakeSlice();
  PostSlice();
}

}  // namespace trabex
