#include "smtp_session.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

#include "base/text.h"

namespace sample {
namespace {

using trabex::EqualNoCase;
using trabex::StartsWithNoCase;
using trabex::Trim;

// With CR LF. More than RFC 5321, 4.5.3.1.4 asks for (512) and RFC 1870 and others add.
constexpr std::size_t kMaxLineBytes = 4096;
constexpr std::size_t kMaxRecipients = 1000;

constexpr std::string_view kOutOfOrder = "503 5.5.1 Bad sequence of commands\r\n";

// The digits of `text` as a number; nothing when it is anything else or too large.
std::optional<std::size_t> Number(std::string_view text) {
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// What follows "FROM:" or "TO:".
struct PathAndParameters {
  std::string_view path;
  std::string_view parameters;
};

std::optional<PathAndParameters> SplitPath(std::string_view rest, std::string_view prefix) {
  if (!StartsWithNoCase(rest, prefix)) return std::nullopt;
  rest = Trim(rest.substr(prefix.size()));
  if (rest.empty() || rest.front() != '<') return std::nullopt;
  bool quoted = false;
  for (std::size_t i = 1; i < rest.size(); ++i) {
    if (rest[i] == '\\') {
      ++i;
    } else if (rest[i] == '"') {
      quoted = !quoted;
    } else if (rest[i] == '>' && !quoted) {
      return PathAndParameters{rest.substr(1, i - 1), Trim(rest.substr(i + 1))};
    }
  }
  return std::nullopt;
}

}  // namespace

SmtpSession::SmtpSession(MailFolder& folder, const SessionOptions& options, std::string client)
    : folder_(folder), options_(options) {
  envelope_.client = std::move(client);
}

void SmtpSession::Take(std::string_view input, std::string& output) {
  while (!input.empty()) {
    switch (phase_) {
      case Phase::kCommand:
      case Phase::kTooLongLine:
        input = TakeCommandBytes(input, output);
        break;
      case Phase::kData:
        input = TakeDataBytes(input, output);
        break;
      case Phase::kBdat:
        input = TakeBdatBytes(input, output);
        break;
      case Phase::kEnded:
        return;
    }
  }
}

// A line ends with CR LF and nothing else. Of a line that is too long only its end is awaited.
std::string_view SmtpSession::TakeCommandBytes(std::string_view input, std::string& output) {
  const std::size_t lf = input.find('\n');
  const std::string_view piece = input.substr(0, lf == std::string_view::npos ? lf : lf + 1);
  input.remove_prefix(piece.size());
  line_.append(piece);
  const bool complete = trabex::EndsWithNoCase(line_, trabex::kCrLf);
  if (line_.size() > kMaxLineBytes) phase_ = Phase::kTooLongLine;
  if (!complete) {
    // The last byte may be the CR of the end.
    if (phase_ == Phase::kTooLongLine) line_.erase(0, line_.size() - 1);
    return input;
  }
  if (phase_ == Phase::kTooLongLine) {
    phase_ = Phase::kCommand;
    output.append("500 5.5.6 Line too long\r\n");
  } else {
    const std::string line = std::exchange(line_, {});
    Command(std::string_view(line).substr(0, line.size() - 2), output);
  }
  line_.clear();
  return input;
}

// Removes the doubled dots (RFC 5321, 4.5.2); the end is CR LF, dot, CR LF and nothing else.
std::string_view SmtpSession::TakeDataBytes(std::string_view input, std::string& output) {
  while (!input.empty()) {
    const char c = input.front();
    switch (data_state_) {
      case DataState::kLineStart:
        data_state_ = c == '.' ? DataState::kDot : DataState::kInLine;
        if (c == '.') input.remove_prefix(1);
        break;
      case DataState::kDot:
        data_state_ = c == '\r' ? DataState::kDotCr : DataState::kInLine;
        if (c == '\r') {
          input.remove_prefix(1);
        } else if (c == '.') {
          AppendContent(".");
          input.remove_prefix(1);
        }
        break;
      case DataState::kDotCr:
        if (c == '\n') {
          ContentComplete(output);
          return input.substr(1);
        }
        AppendContent("\r");
        data_state_ = DataState::kCr;
        break;
      case DataState::kCr:
        AppendContent(input.substr(0, 1));
        input.remove_prefix(1);
        if (c != '\r') data_state_ = c == '\n' ? DataState::kLineStart : DataState::kInLine;
        break;
      case DataState::kInLine: {
        const std::size_t cr = input.find('\r');
        const std::string_view piece = input.substr(0, cr == std::string_view::npos ? cr : cr + 1);
        AppendContent(piece);
        input.remove_prefix(piece.size());
        if (cr != std::string_view::npos) data_state_ = DataState::kCr;
        break;
      }
    }
  }
  return input;
}

std::string_view SmtpSession::TakeBdatBytes(std::string_view input, std::string& output) {
  const std::string_view piece = input.substr(0, std::min(bdat_left_, input.size()));
  if (!bdat_refused_) AppendContent(piece);
  bdat_left_ -= piece.size();
  input.remove_prefix(piece.size());
  if (bdat_left_ != 0) return input;
  phase_ = Phase::kCommand;
  if (bdat_refused_) {
    output.append(kOutOfOrder);
  } else if (bdat_last_) {
    ContentComplete(output);
  } else {
    output.append("250 2.0.0 Chunk received\r\n");
  }
  return input;
}

void SmtpSession::AppendContent(std::string_view bytes) {
  // What is beyond the limit is only counted, so that it can be refused at its end.
  if (mail_->Size() <= options_.max_size_bytes) mail_->Append(bytes);
}

void SmtpSession::Command(std::string_view line, std::string& output) {
  const std::string_view verb = trabex::FirstWord(line);
  const std::string_view rest = Trim(line.substr(verb.size()));
  if (EqualNoCase(verb, "EHLO") || EqualNoCase(verb, "HELO")) {
    Hello(EqualNoCase(verb, "EHLO"), rest, output);
  } else if (EqualNoCase(verb, "MAIL")) {
    Mail(rest, output);
  } else if (EqualNoCase(verb, "RCPT")) {
    Rcpt(rest, output);
  } else if (EqualNoCase(verb, "DATA")) {
    Data(output);
  } else if (EqualNoCase(verb, "BDAT")) {
    Bdat(rest, output);
  } else if (EqualNoCase(verb, "RSET")) {
    ResetTransaction();
    output.append("250 2.0.0 Reset\r\n");
  } else if (EqualNoCase(verb, "NOOP")) {
    output.append("250 2.0.0 Ok\r\n");
  } else if (EqualNoCase(verb, "VRFY")) {
    output.append("252 2.1.5 Send some mail and try\r\n");
  } else if (EqualNoCase(verb, "QUIT")) {
    output.append("221 2.0.0 sample.example closing connection\r\n");
    phase_ = Phase::kEnded;
  } else {
    output.append("500 5.5.2 Command not recognized\r\n");
  }
}

void SmtpSession::Hello(bool extended, std::string_view domain, std::string& output) {
  if (domain.empty()) {
    output.append("501 5.5.4 Domain name missing\r\n");
    return;
  }
  ResetTransaction();
  greeted_ = true;
  extended_ = extended;
  envelope_.helo = domain;
  if (!extended) {
    output.append("250 sample.example\r\n");
    return;
  }
  std::vector<std::string> lines{"sample.example"};
  for (const std::string_view keyword : {"8BITMIME", "CHUNKING", "PIPELINING"}) {
    if (Announces(keyword)) lines.emplace_back(keyword);
  }
  if (Announces("SIZE")) lines.push_back("SIZE " + std::to_string(options_.max_size_bytes));
  for (std::size_t i = 0; i < lines.size(); ++i) {
    output.append(i + 1 < lines.size() ? "250-" : "250 ").append(lines[i]).append(trabex::kCrLf);
  }
}

void SmtpSession::Mail(std::string_view rest, std::string& output) {
  if (!greeted_ || in_transaction_) {
    output.append(kOutOfOrder);
    return;
  }
  const auto sender = SplitPath(rest, "FROM:");
  if (!sender) {
    output.append("501 5.1.7 Bad sender address syntax\r\n");
    return;
  }
  if (const std::string_view refusal = RefusedParameter(sender->parameters); !refusal.empty()) {
    output.append(refusal);
    return;
  }
  in_transaction_ = true;
  envelope_.sender = sender->path;
  output.append("250 2.1.0 Sender ok\r\n");
}

std::string_view SmtpSession::RefusedParameter(std::string_view parameters) const {
  for (const std::string_view parameter : trabex::Split(parameters, ' ')) {
    if (parameter.empty()) continue;
    if (StartsWithNoCase(parameter, "SIZE=") && Announces("SIZE")) {
      const auto size = Number(parameter.substr(5));
      if (!size) return "501 5.5.4 Bad SIZE parameter\r\n";
      if (*size > options_.max_size_bytes) return "552 5.3.4 Message too large\r\n";
    } else if (!Announces("8BITMIME") ||
               (!EqualNoCase(parameter, "BODY=8BITMIME") && !EqualNoCase(parameter, "BODY=7BIT"))) {
      return "555 5.5.4 Parameter not implemented\r\n";
    }
  }
  return {};
}

void SmtpSession::Rcpt(std::string_view rest, std::string& output) {
  if (!in_transaction_ || mail_) {
    output.append(kOutOfOrder);
    return;
  }
  const auto recipient = SplitPath(rest, "TO:");
  if (!recipient || recipient->path.empty()) {
    output.append("501 5.1.3 Bad recipient address syntax\r\n");
  } else if (!recipient->parameters.empty()) {
    output.append("555 5.5.4 Parameter not implemented\r\n");
  } else if (envelope_.recipients.size() >= kMaxRecipients) {
    output.append("452 4.5.3 Too many recipients\r\n");
  } else {
    envelope_.recipients.emplace_back(recipient->path);
    output.append("250 2.1.5 Recipient ok\r\n");
  }
}

void SmtpSession::Data(std::string& output) {
  if (envelope_.recipients.empty() || mail_) {
    output.append(kOutOfOrder);
    return;
  }
  mail_ = std::make_unique<ArrivingMail>(folder_);
  data_state_ = DataState::kLineStart;
  phase_ = Phase::kData;
  output.append("354 End with a single dot\r\n");
}

// The octets follow whatever the reply will be (RFC 3030, 2), so it comes when they are here.
void SmtpSession::Bdat(std::string_view rest, std::string& output) {
  const std::string_view size_text = trabex::FirstWord(rest);
  const std::string_view last = Trim(rest.substr(size_text.size()));
  const auto size = Number(size_text);
  if (!size || (!last.empty() && !EqualNoCase(last, "LAST"))) {
    output.append("501 5.5.4 Bad chunk size\r\n");
    return;
  }
  bdat_refused_ = envelope_.recipients.empty() || !Announces("CHUNKING");
  bdat_left_ = *size;
  bdat_last_ = !last.empty();
  if (!bdat_refused_ && !mail_) mail_ = std::make_unique<ArrivingMail>(folder_);
  phase_ = Phase::kBdat;
  // A chunk without octets is complete with its command.
  if (bdat_left_ == 0) TakeBdatBytes({}, output);
}

void SmtpSession::ContentComplete(std::string& output) {
  phase_ = Phase::kCommand;
  if (mail_->Size() > options_.max_size_bytes) {
    output.append("552 5.3.4 Message too large\r\n");
  } else if (const long number = mail_->Store(envelope_); number != 0) {
    output.append("250 2.0.0 Stored as ").append(std::to_string(number)).append(".eml\r\n");
  } else {
    output.append("452 4.3.1 Cannot store the message\r\n");
  }
  ResetTransaction();
}

void SmtpSession::ResetTransaction() {
  in_transaction_ = false;
  envelope_.sender.clear();
  envelope_.recipients.clear();
  mail_.reset();
}

bool SmtpSession::Announces(std::string_view keyword) const {
  return extended_ &&
         std::find(options_.without.begin(), options_.without.end(), keyword) == options_.without.end();
}

}  // namespace sample
