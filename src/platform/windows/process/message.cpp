#include "platform/message.h"

#include <iostream>
#include <sstream>
#include <string>

#include "platform/windows/process/message_box.h"
#include "platform/windows/process/stream_writer.h"
#include "platform/windows/win.h"

namespace trabex {

void ShowMessage(std::string_view text) {
  if (IsFileOrPipe(STD_ERROR_HANDLE)) {
    StandardErrorWriter().Write(text);
  } else {
    ShowBoxBeside(text);
  }
}

bool MessagesGoToTerminal() {
  return false;
}

struct CommandStreams::State {
  // Used where the stream itself leads nowhere.
  std::ostringstream out;
  std::ostringstream err;
};

CommandStreams::CommandStreams() : state_(std::make_unique<State>()) {}

CommandStreams::~CommandStreams() = default;

std::ostream& CommandStreams::Out() {
  return IsFileOrPipe(STD_OUTPUT_HANDLE) ? static_cast<std::ostream&>(std::cout) : state_->out;
}

std::ostream& CommandStreams::Err() {
  return IsFileOrPipe(STD_ERROR_HANDLE) ? static_cast<std::ostream&>(std::cerr) : state_->err;
}

void CommandStreams::Show() {
  std::cout.flush();
  const std::string text = state_->out.str() + state_->err.str();
  if (!text.empty()) ShowBox(text);
}

}  // namespace trabex
