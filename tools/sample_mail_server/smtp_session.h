// One SMTP session of the sample mail server, without a socket: bytes of the client go in, bytes for the
// client come out. It takes every message that keeps to RFC 5321 with the extensions 8BITMIME (RFC 6152),
// SIZE (RFC 1870), PIPELINING (RFC 2920) and CHUNKING (RFC 3030); it delivers nothing anywhere.
//
// The session consumes all input at once, so what it keeps is bounded: at most one command line, and the
// envelope.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mail_folder.h"

namespace sample {

struct SessionOptions {
  std::size_t max_size_bytes = 200u << 20;
  std::vector<std::string> without;  // keywords of extensions that are not announced, upper case
};

class SmtpSession {
 public:
  // `folder` and `options` outlive the session. `client` is the client's address for the envelope.
  SmtpSession(MailFolder& folder, const SessionOptions& options, std::string client);

  static std::string_view Greeting() { return "220 sample.example ESMTP Sample mail server\r\n"; }

  // Takes the client's next bytes and appends the replies to `output`.
  void Take(std::string_view input, std::string& output);
  // After QUIT: the connection is to be closed once everything has been sent; further input is ignored.
  bool Ended() const { return phase_ == Phase::kEnded; }

 private:
  enum class Phase { kCommand, kTooLongLine, kData, kBdat, kEnded };
  // The position of the next byte in a line of the content after DATA.
  enum class DataState { kLineStart, kDot, kDotCr, kInLine, kCr };

  std::string_view TakeCommandBytes(std::string_view input, std::string& output);
  std::string_view TakeDataBytes(std::string_view input, std::string& output);
  std::string_view TakeBdatBytes(std::string_view input, std::string& output);
  void AppendContent(std::string_view bytes);

  void Command(std::string_view line, std::string& output);
  void Hello(bool extended, std::string_view domain, std::string& output);
  void Mail(std::string_view rest, std::string& output);
  void Rcpt(std::string_view rest, std::string& output);
  void Data(std::string& output);
  void Bdat(std::string_view rest, std::string& output);
  void ContentComplete(std::string& output);
  void ResetTransaction();
  bool Announces(std::string_view keyword) const;
  // Checks the ESMTP parameters of MAIL; the reply that refuses them, or an empty text.
  std::string_view RefusedParameter(std::string_view parameters) const;

  MailFolder& folder_;
  const SessionOptions& options_;
  Phase phase_ = Phase::kCommand;
  std::string line_;  // the beginning of a command line that is not complete yet

  bool greeted_ = false;
  bool extended_ = false;
  bool in_transaction_ = false;
  Envelope envelope_;
  std::unique_ptr<ArrivingMail> mail_;
  DataState data_state_ = DataState::kLineStart;
  std::size_t bdat_left_ = 0;
  bool bdat_last_ = false;
  bool bdat_refused_ = false;  // the octets are read and dropped
};

}  // namespace sample
