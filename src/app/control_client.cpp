#include "app/control_client.h"

#include <array>
#include <chrono>
#include <optional>
#include <string_view>
#include <variant>

#include "app/control_protocol.h"
#include "app/exit_status.h"
#include "app/instance_name.h"
#include "app/printable.h"
#include "app/version.h"
#include "platform/control_channel.h"
#include "platform/instance_lock.h"
#include "platform/process.h"

namespace trabex {

namespace {

constexpr std::chrono::seconds kPatience{60};
constexpr std::size_t kMaxReadBytes = std::size_t{64} * 1024;

// What `err` is told about an instance, and with which status.
struct Complaint {
  int status;
  std::string_view before;  // the port
  std::string_view behind;
};

int Complain(std::ostream& err, std::int32_t port, const Complaint& complaint) {
  err << kApplicationTitle << ": " << complaint.before << port << complaint.behind << '\n';
  return complaint.status;
}

constexpr Complaint kNoInstance{exit_status::kNoInstance, "There is no instance on port ", "."};
constexpr Complaint kOtherUser{exit_status::kOtherUser, "The instance on port ", " belongs to another user."};
constexpr Complaint kNoChannel{exit_status::kFailed, "The instance on port ", " takes no requests."};
constexpr Complaint kForeignChannel{exit_status::kFailed, "The requests to the instance on port ",
                                    " would go to a process of another user, which has taken their name."};
constexpr Complaint kSilent{exit_status::kFailed, "The instance on port ", " does not answer."};
constexpr Complaint kCutOff{exit_status::kFailed, "The instance on port ",
                            " ended the connection before its answer was complete."};
constexpr Complaint kBroken{exit_status::kFailed, "The instance on port ",
                            " gave an answer that cannot be understood."};
constexpr Complaint kNotWritten{exit_status::kFailed, "The answer of the instance on port ",
                                " could not be written."};

const Complaint& ComplaintAbout(CallFailure failure) {
  switch (failure) {
    case CallFailure::kNoInstance:
      return kNoInstance;
    case CallFailure::kOtherUser:
      return kOtherUser;
    case CallFailure::kForeignChannel:
      return kForeignChannel;
    case CallFailure::kNoChannel:
      break;
  }
  return kNoChannel;
}

}  // namespace

int AskInstance(std::int32_t port, const std::vector<std::string>& request, std::ostream& out,
                std::ostream& err) {
  const std::optional<std::string> line = FormatRequest(request);
  if (!line) {
    err << kApplicationTitle << ": The arguments are no UTF-8, or longer than " << kMaxRequestBytes
        << " bytes.\n";
    return exit_status::kBadCommandLine;
  }
  LetRequestsEndProcess();
  auto called = CallInstance(InstanceName(port), kPatience);
  if (const auto* failure = std::get_if<CallFailure>(&called)) {
    return Complain(err, port, ComplaintAbout(*failure));
  }
  ControlCall& call = *std::get<std::unique_ptr<ControlCall>>(called);
  if (call.Send(*line) == ChannelResult::kWouldBlock) return Complain(err, port, kSilent);
  // One that has hung up may have said why.
  std::string error;
  AnswerReader answer({.text = [&](std::string_view text) { out << text; },
                       .error = [&](std::string_view text) { error += text; }});
  std::array<char, kMaxReadBytes> buffer;
  for (AnswerReader::State state{}; state != AnswerReader::State::kComplete;) {
    std::size_t received = 0;
    const ChannelResult result = call.Receive(buffer, received);
    if (result == ChannelResult::kWouldBlock) return Complain(err, port, kSilent);
    if (result == ChannelResult::kClosed) return Complain(err, port, kCutOff);
    state = answer.Take({buffer.data(), received});
    if (state == AnswerReader::State::kBroken) return Complain(err, port, kBroken);
    if (!out) return Complain(err, port, kNotWritten);
  }
  if (!out.flush()) return Complain(err, port, kNotWritten);
  if (!error.empty()) err << kApplicationTitle << ": " << Printable(error) << '\n';
  return answer.Status();
}

int AskForExit(std::int32_t port, std::ostream& err) {
  switch (RequestExit(InstanceName(port))) {
    case ExitRequest::kOtherUser:
      return Complain(err, port, kOtherUser);
    case ExitRequest::kFailed:
      return Complain(err, port, kSilent);
    case ExitRequest::kMade:
    case ExitRequest::kNoInstance:
      break;
  }
  return exit_status::kDone;
}

}  // namespace trabex
