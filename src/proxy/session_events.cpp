// What a session tells its observer.
#include "proxy/cProxy.h"

namespace trabex {

void cProxy::OnCommand() {
  if (dependencies_.observer != nullptr) dependencies_.observer->OnCommand(*this);
}

void cProxy::OnOwnReply(const OwnReply& reply) {
  if (reply.ends || !reply.sent) {
    switch (reply.kind) {
      case ReplyKind::kQuitBadIP:
        EndsBy(SessionEnd::kQuit);
        break;
      case ReplyKind::kServerError:
        EndsBy(SessionEnd::kServer);
        break;
      case ReplyKind::kShutdown:
        EndsBy(SessionEnd::kShutdown);
        break;
      default:
        EndsBy(SessionEnd::kRefused);
    }
  }
  if (dependencies_.observer != nullptr) dependencies_.observer->OnOwnReply(*this, reply);
}

void cProxy::OnGreylisting(const GreylistVerdict& verdict, bool callback, const RequestedState& requested) {
  greylisting_ = ResultOf(verdict, callback);
  if (dependencies_.observer != nullptr) {
    dependencies_.observer->OnGreylisting(*this, verdict, callback, requested);
  }
}

void cProxy::OnServerReply(Command command, std::string_view reply) {
  if (dependencies_.observer != nullptr) dependencies_.observer->OnServerReply(*this, command, reply);
}

void cProxy::OnTransaction(const RequestedState& requested) {
  DropRecipients();
  greylisting_.reset();
  if (dependencies_.observer != nullptr) dependencies_.observer->OnTransaction(*this, requested);
}

void cProxy::OnRecipient(RecipientResult result, std::string_view mailbox) {
  if (result == RecipientResult::kAccepted) {
    if (!recipients_) recipients_ = dependencies_.spare_recipients.Take();
    recipients_->Add(mailbox);
  }
  if (dependencies_.observer != nullptr) dependencies_.observer->OnRecipient(*this, result, mailbox);
}

void cProxy::OnContent(std::size_t octets) {
  if (dependencies_.observer != nullptr) dependencies_.observer->OnContent(*this, octets);
}

void cProxy::OnMessage(std::string_view reply) {
  if (dependencies_.observer != nullptr) dependencies_.observer->OnMessage(*this, reply);
}

void cProxy::OnSideFailure(const SessionSide& side, int error, std::string_view description) {
  if (dependencies_.observer == nullptr || stage_ == Stage::kClosed) return;
  TellBegin();
  if (side.WasConnected()) {
    dependencies_.observer->OnFailure(*this, &side == &Receiver, error, description);
  } else {
    dependencies_.observer->OnServerNotReached(*this, error, description);
  }
}

void cProxy::TellBegin() {
  if (dependencies_.observer == nullptr || begin_told_) return;
  begin_told_ = true;
  dependencies_.observer->OnBegin(*this);
}

void cProxy::TellServerLeaves() {
  if (dependencies_.observer == nullptr || Sender.Socket().State() == SocketState::sckClosed) return;
  Sender.SendHeld();
  dependencies_.observer->OnServerLeft(*this, ServerBytes());
}

void cProxy::TellEnd() {
  // A client that went before it could be accepted has not begun a session.
  if (dependencies_.observer == nullptr || Receiver.Socket().State() == SocketState::sckClosed) return;
  TellBegin();
  TellServerLeaves();
  const SessionEnd unsaid = Admitted() ? SessionEnd::kServer : SessionEnd::kRefused;
  dependencies_.observer->OnEnd(*this, ends_by_.value_or(unsaid), ClientBytes());
}

}  // namespace trabex
