#include "app/control_client.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "app/attached_viewers.h"
#include "app/control_protocol.h"
#include "app/exit_status.h"
#include "app/instance_name.h"
#include "app/printable.h"
#include "app/version.h"
#include "console/viewer.h"
#include "platform/control_channel.h"
#include "platform/files.h"
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
constexpr Complaint kViewEnded{exit_status::kFailed, "The instance on port ", " has ended the view."};
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

namespace {

// What has become of a request.
struct Asked {
  std::optional<int> status = {};          // nothing: the answer goes on as a stream
  std::unique_ptr<ControlCall> call = {};  // of the stream
  std::string received = {};               // likewise, what has come of it
};

// The file that a request names for the instance to read: one to be imported.
std::string FileOf(const std::vector<std::string>& request) {
  if (request.size() < 3 || request[0] != "GREYLIST" || request[1] != "import") return {};
  const auto file = std::find_if(request.begin() + 2, request.end(),
                                 [](const std::string& argument) { return !argument.starts_with("--"); });
  return file == request.end() ? std::string() : NativePath(*file);
}

Asked Ask(std::int32_t port, const std::vector<std::string>& request, std::ostream& out, std::ostream& err) {
  const std::optional<std::string> line = FormatRequest(request);
  if (!line) {
    err << kApplicationTitle << ": The arguments are no UTF-8, or longer than " << kMaxRequestBytes
        << " bytes.\n";
    return {.status = exit_status::kBadCommandLine};
  }
  LetRequestsEndProcess();
  auto called = CallInstance(InstanceName(port), kPatience);
  if (const auto* failure = std::get_if<CallFailure>(&called)) {
    return {.status = Complain(err, port, ComplaintAbout(*failure))};
  }
  auto call = std::move(std::get<std::unique_ptr<ControlCall>>(called));
  if (const std::string file = FileOf(request); !file.empty()) call->Attach(file);
  if (call->Send(*line) == ChannelResult::kWouldBlock) return {.status = Complain(err, port, kSilent)};
  // One that has hung up may have said why.
  std::string error;
  AnswerReader answer({.text = [&](std::string_view text) { out << text; },
                       .error = [&](std::string_view text) { error += text; }});
  std::array<char, kMaxReadBytes> buffer;
  for (AnswerReader::State state{}; state != AnswerReader::State::kComplete;) {
    std::size_t received = 0;
    const ChannelResult result = call->Receive(buffer, received);
    if (result == ChannelResult::kWouldBlock) return {.status = Complain(err, port, kSilent)};
    if (result == ChannelResult::kClosed) return {.status = Complain(err, port, kCutOff)};
    state = answer.Take({buffer.data(), received});
    if (state == AnswerReader::State::kBroken) return {.status = Complain(err, port, kBroken)};
    if (state == AnswerReader::State::kStream) {
      return {.status = std::nullopt, .call = std::move(call), .received = answer.Stream()};
    }
    if (!out) return {.status = Complain(err, port, kNotWritten)};
  }
  if (!out.flush()) return {.status = Complain(err, port, kNotWritten)};
  if (!error.empty()) err << kApplicationTitle << ": " << Printable(error) << '\n';
  return {.status = answer.Status()};
}

int SayNoView(const NoView& why_not, std::ostream& err) {
  err << kApplicationTitle << ": No view can be shown. " << why_not.text << '\n';
  return exit_status::kFailed;
}

}  // namespace

int AskInstance(std::int32_t port, const std::vector<std::string>& request, std::ostream& out,
                std::ostream& err) {
  const Asked asked = Ask(port, request, out, err);
  // A stream is no answer to what is asked here.
  return asked.status ? *asked.status : Complain(err, port, kBroken);
}

int ViewInstance(std::int32_t port, std::ostream& out, std::ostream& err) {
  if (const std::optional<NoView> why_not = WhyNoView()) return SayNoView(*why_not, err);
  const Asked asked = Ask(port, {"VIEW", std::string(kViewProtocol)}, out, err);
  if (asked.status) return *asked.status;
  const auto shown = ShowViewOf(asked.call->NativeHandle(), asked.received);
  if (const auto* const why_not = std::get_if<NoView>(&shown)) return SayNoView(*why_not, err);
  switch (std::get<ViewerEnd>(shown)) {
    case ViewerEnd::kInstance:
      return Complain(err, port, kViewEnded);
    case ViewerEnd::kBroken:
      return Complain(err, port, kBroken);
    case ViewerEnd::kTerminal:
      return exit_status::kFailed;
    case ViewerEnd::kUser:
    case ViewerEnd::kSignal:
      break;
  }
  return exit_status::kDone;
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
