#include "proxy/dialogue/session_state.h"

namespace trabex {

void SessionState::BeginTransaction(std::string_view sender, bool smtp_utf8) {
  Sender = sender;
  SmtpUtf8 = smtp_utf8;
  Recipient.clear();
  RecipientCount = 0;
  Greylisted = false;
}

void SessionState::ResetTransaction() {
  TransactionOpen = false;
  Sender.clear();
  SmtpUtf8 = false;
  Recipient.clear();
  RecipientCount = 0;
  Greylisted = false;
  ChunkSequence = false;
  LastChunk = false;
}

void SessionState::EndTransaction() {
  TransactionOpen = false;
  LastChunk = false;
}

void SessionState::Forward(std::string_view verb, Command command) {
  ForwardedVerb = verb;
  Forwarded = command;
  Expected = ReplyExpected::kCommand;
}

}  // namespace trabex
