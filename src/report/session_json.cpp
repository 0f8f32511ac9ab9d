#include "report/session_json.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/visible_text.h"
#include "report/json_line.h"

namespace trabex {

namespace {

void WriteIfAny(JsonLine& line, std::string_view name, std::string_view value) {
  if (!value.empty()) line.Text(name, value);
}

void AppendUnit(std::string& out, std::uint32_t unit) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  out += "\\u";
  for (int shift = 12; shift >= 0; shift -= 4) out += kDigits[unit >> shift & 15];
}

// As RFC 8259 has it, 7: beyond the first 65,536 characters as two units of UTF-16.
void AppendEscaped(std::string& out, char32_t code) {
  const auto number = static_cast<std::uint32_t>(code);
  if (number < 0x10000) return AppendUnit(out, number);
  AppendUnit(out, 0xD800 + ((number - 0x10000) >> 10));
  AppendUnit(out, 0xDC00 + ((number - 0x10000) & 0x3FF));
}

// Escapes what is not visible from `begin` on. In JSON only texts have characters beyond ASCII.
void EscapeInvisible(std::string& out, std::size_t begin) {
  const auto is_ascii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
  if (std::all_of(out.begin() + static_cast<std::ptrdiff_t>(begin), out.end(), is_ascii)) return;
  const std::string line = out.substr(begin);
  out.resize(begin);
  for (std::string_view rest = line; !rest.empty();) {
    const TextPiece piece = FirstPiece(rest);
    if (is_ascii(rest.front()) || piece.visible) {
      out.append(rest.substr(0, piece.size));
    } else {
      AppendEscaped(out, piece.code);
    }
    rest.remove_prefix(piece.size);
  }
}

void WriteTransaction(JsonLine& line, const SessionSnapshot& session) {
  line.Text("from", session.sender);
  WriteIfAny(line, "to", session.recipient);
  line.Number("rcpt_commands", session.rcpt_commands);
  line.Number("recipients_count", session.recipients != nullptr ? session.recipients->count : 0);
  if (session.recipients != nullptr) line.Texts("recipients", session.recipients->first);
  if (session.greylisting) line.Text("greylisting", GreylistingResultName(*session.greylisting));
}

}  // namespace

void AppendSessionJson(const SessionSnapshot& session, std::string& out) {
  const std::size_t begin = out.size();
  JsonLine line(out);
  line.Begin();
  const auto digits = SessionIdDigits(session.id);
  line.Text("session", {digits.data(), digits.size()});
  line.Text("client", FormatIPAddress(session.client));
  line.Text("origin", session.is_local ? "local" : "remote");
  line.Number("client_handle", session.client_handle);
  if (session.server_handle >= 0) line.Number("server_handle", session.server_handle);
  line.Truth("client_tls", session.client_tls);
  line.Truth("server_tls", session.server_tls);
  WriteIfAny(line, "name", session.name);
  WriteIfAny(line, "helo", session.helo);
  line.Text("state", SessionStateName(session.state));
  line.Thousandths("state_seconds", session.time_in_state.count());
  line.Thousandths("duration", session.age.count());
  WriteIfAny(line, "command", session.last_command);
  WriteIfAny(line, "reply", session.last_reply);
  line.Number("mail_commands", session.mail_commands);
  if (session.in_transaction) WriteTransaction(line, session);
  line.Number("client_bytes_in", session.client_bytes.in);
  line.Number("client_bytes_out", session.client_bytes.out);
  line.Number("server_bytes_in", session.server_bytes.in);
  line.Number("server_bytes_out", session.server_bytes.out);
  line.End();
  EscapeInvisible(out, begin);
}

}  // namespace trabex
