#include "proxy/session_state.h"

namespace trabex {

void SessionState::BeginTransaction(std::string_view sender) {
  Sender = sender;
  Recipient.clear();
  RecipientCount = 0;
  Greylisted = false;
}

void SessionState::ResetTransaction() {
  TransactionOpen = false;
  Sender.clear();
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
