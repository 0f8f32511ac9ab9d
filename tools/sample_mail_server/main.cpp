// The sample mail server: takes mail on a loopback port and stores each message in a folder. For first steps
// with Trabex (./run puts Trabex in front of it) and for tests that compare byte for byte what was sent with
// what arrives.
#include <sys/signalfd.h>

#include <charconv>
#include <csignal>
#include <cstdint>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "base/text.h"
#include "mail_folder.h"
#include "server.h"
#include "smtp_session.h"

namespace {

constexpr std::string_view kHelp =
    "sample_mail_server [--address A] [--port N] [--folder DIR] [--max-size BYTES] [--without KEYWORD]...\n"
    "Takes mail on loopback and stores each message as <n>.eml in the folder.\n"
    "  --address   127.0.0.1, the default, or ::1\n"
    "  --port      port to listen on; 0, the default, takes a free one\n"
    "  --folder    where the mail goes (default: mail)\n"
    "  --max-size  largest message in bytes\n"
    "  --without   an extension that is not to be offered: 8BITMIME, CHUNKING, PIPELINING or SIZE\n";

constexpr std::string_view kIPv4Address = "127.0.0.1";
constexpr std::string_view kIPv6Address = "::1";

struct CommandLine {
  sample::Loopback loopback = sample::Loopback::kIPv4;
  std::uint16_t port = 0;
  std::string folder = "mail";
  sample::SessionOptions session;
  bool help = false;
};

template <class Integer>
Integer ToNumber(std::string_view text, std::string_view what) {
  Integer number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size()) {
    throw std::invalid_argument("invalid " + std::string(what) + ": " + std::string(text));
  }
  return number;
}

CommandLine ReadCommandLine(int count, char** arguments) {
  CommandLine line;
  for (int i = 1; i < count; ++i) {
    const std::string_view name = arguments[i];
    if (name == "--help" || name == "-h") {
      line.help = true;
      return line;
    }
    if (++i == count) throw std::invalid_argument("no value after " + std::string(name));
    const std::string_view value = arguments[i];
    if (name == "--address") {
      if (value != kIPv4Address && value != kIPv6Address) {
        throw std::invalid_argument("invalid address: " + std::string(value));
      }
      line.loopback = value == kIPv6Address ? sample::Loopback::kIPv6 : sample::Loopback::kIPv4;
    } else if (name == "--port") {
      line.port = ToNumber<std::uint16_t>(value, "port");
    } else if (name == "--folder") {
      line.folder = value;
    } else if (name == "--max-size") {
      line.session.max_size_bytes = ToNumber<std::size_t>(value, "size");
    } else if (name == "--without") {
      line.session.without.push_back(trabex::ToUpper(value));
    } else {
      throw std::invalid_argument("unknown option " + std::string(name));
    }
  }
  return line;
}

// SIGTERM, SIGINT and SIGHUP as something that can be polled.
int EndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  const int descriptor = signalfd(-1, &signals, SFD_CLOEXEC);
  if (descriptor < 0) throw std::runtime_error("no signal descriptor");
  return descriptor;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const CommandLine line = ReadCommandLine(argc, argv);
    if (line.help) {
      std::cout << kHelp;
      return 0;
    }
    const sample::Descriptor end_signals(EndSignals());
    sample::MailFolder folder(line.folder);
    sample::Server server(line.loopback, line.port, folder, line.session);
    const std::string address = line.loopback == sample::Loopback::kIPv6
                                    ? "[" + std::string(kIPv6Address) + "]"
                                    : std::string(kIPv4Address);
    std::cout << "Listening on " << address << ":" << server.Port() << "; mail is stored in " << folder.Path()
              << std::endl;
    server.Run(end_signals.Number());
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "sample_mail_server: " << error.what() << '\n';
    return 1;
  }
}
