// What many scripts begin with (script/README.md): pieces, each of which ends in a line end.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace trabex {

// The server's side of a reply to EHLO, with `mark` in front of each line.
inline std::string EhloReply(std::string_view mark, std::initializer_list<std::string_view> extensions) {
  std::string text;
  const auto add = [&](std::string_view line, bool is_last) {
    text.append(mark).append(is_last ? " 250 " : " 250-").append(line).append("\n");
  };
  add("server", extensions.size() == 0);
  for (const std::string_view& line : extensions) add(line, &line + 1 == extensions.end());
  return text;
}

// The server greets the client.
inline std::string Greeting() {
  return "S: 220 server ready\n<- 220 server ready\n";
}

// The client says EHLO, and is offered what the server offers.
inline std::string Ehlo(std::initializer_list<std::string_view> extensions = {}) {
  return "C: EHLO client.test\n-> EHLO client.test\n" + EhloReply("S:", extensions) +
         EhloReply("<-", extensions);
}

// The client sends the command, the server gets it as it is and accepts it.
inline std::string Accepted(std::string_view command) {
  std::string text = "C: ";
  return text.append(command).append("\n-> ").append(command).append("\nS: 250 ok\n<- 250 ok\n");
}

inline std::string Mail(std::string_view sender = "a@b.test") {
  return Accepted("MAIL FROM:<" + std::string(sender) + ">");
}

inline std::string Rcpt(std::string_view recipient = "u@local.test") {
  return Accepted("RCPT TO:<" + std::string(recipient) + ">");
}

inline std::string MailAndRcpt(std::string_view sender = "a@b.test") {
  return Mail(sender) + Rcpt();
}

// The client may begin with the content.
inline std::string Data() {
  return "C: DATA\n-> DATA\nS: 354 go on\n<- 354 go on\n";
}

// The client is offered STARTTLS by us, and has asked for it.
inline std::string AskedForTls() {
  return Greeting() + "C: EHLO client.test\n-> EHLO client.test\nS: 250 server\n" +
         EhloReply("<-", {"STARTTLS"}) + "C: STARTTLS\n<- 220 2.0.0 Ready to start TLS.\n";
}

// The server greets, and is asked what it offers before the client hears of it.
inline std::string Asked(std::initializer_list<std::string_view> extensions = {}) {
  return "S: 220 server ready\n-> EHLO proxy.test\n" + EhloReply("S:", extensions);
}

}  // namespace trabex
