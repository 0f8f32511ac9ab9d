#include "report/status_text.h"

#include <charconv>
#include <cmath>
#include <initializer_list>
#include <span>
#include <type_traits>
#include <utility>

#include "base/text.h"

namespace trabex {

namespace {

constexpr std::string_view kPrefix = "trabex_";
constexpr std::array<std::string_view, 2> kOrigins = {"local", "remote"};
constexpr std::array<std::string_view, 2> kResults = {"ok", "error"};

using Label = std::pair<std::string_view, std::string_view>;

// None of the values of our labels holds anything that would have to be escaped.
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  void Family(std::string_view name, std::string_view type, std::string_view help) {
    name_ = name;
    out_.append("# HELP ").append(kPrefix).append(name).append(" ").append(help).append("\n# TYPE ");
    out_.append(kPrefix).append(name).append(" ").append(type).append("\n");
  }

  template <class Number>
  void Sample(Number value, std::initializer_list<Label> labels = {}, std::string_view suffix = {}) {
    out_.append(kPrefix).append(name_).append(suffix);
    char before = '{';
    for (const auto& [label, text] : labels) {
      out_.append(1, before).append(label).append("=\"").append(text).append("\"");
      before = ',';
    }
    if (labels.size() > 0) out_ += '}';
    out_ += ' ';
    AppendNumber(value);
    out_ += '\n';
  }

  // One series for each of `values`, whose label's value is in `texts`.
  void Samples(std::string_view label, std::span<const std::string_view> texts,
               std::span<const std::uint64_t> values) {
    for (std::size_t i = 0; i < values.size(); ++i) Sample(values[i], {{label, texts[i]}});
  }

  template <class Number>
  void Gauge(std::string_view name, std::string_view help, Number value) {
    Family(name, "gauge", help);
    Sample(value);
  }

  void Times(std::string_view name, std::string_view help, const Histogram& times) {
    Family(name, "histogram", help);
    for (std::size_t i = 0; i < Histogram::kBounds.size(); ++i) {
      Sample(times.UpTo(i), {{"le", NumberText(Histogram::kBounds[i])}}, "_bucket");
    }
    Sample(times.Count(), {{"le", "+Inf"}}, "_bucket");
    Sample(times.SumSeconds(), {}, "_sum");
    Sample(times.Count(), {}, "_count");
  }

 private:
  template <class Number>
  std::string_view NumberText(Number value) {
    char* const last = digits_.data() + digits_.size();
    char* end = nullptr;
    if constexpr (std::is_floating_point_v<Number>) {
      // As every other program writes the bounds of a histogram: 0.0005, not 5e-04.
      end = std::to_chars(digits_.data(), last, value, std::chars_format::fixed).ptr;
    } else {
      end = std::to_chars(digits_.data(), last, value).ptr;
    }
    return {digits_.data(), static_cast<std::size_t>(end - digits_.data())};
  }
  template <class Number>
  void AppendNumber(Number value) {
    out_.append(NumberText(value));
  }

  std::string& out_;
  std::string_view name_;
  std::array<char, 400> digits_{};
};

std::string_view VerbOf(std::size_t command) {
  for (const CommandRow& row : AllCommands()) {
    if (static_cast<std::size_t>(row.id) == command) return row.verb;
  }
  return "other";
}

void WriteProgram(Writer& text, const Counters& counters, const StatusNow& now) {
  text.Family("build_info", "gauge", "Always 1; the label holds the version of the program.");
  text.Sample(1, {{"version", now.version}});
  text.Gauge("start_time_seconds", "When the program started, in seconds since 1970.", now.start_time);
  text.Gauge("descriptors_open", "Files and sockets that the program has open.", now.descriptors_open);
  text.Gauge("descriptors_limit", "How many it may have open.", now.descriptors_limit);
  text.Times("turn_seconds", "Turns of the event loop, without the time that they waited.",
             counters.turn_time);
  text.Family("log_lines_lost_total", "counter", "Lines of a log that could not be written.");
  text.Samples("log", std::array<std::string_view, 2>{"text", "json"}, now.log_lines_lost);
  text.Family("reloads_total", "counter", "Reloads of the initialization file.");
  text.Samples("result", kResults, counters.reloads);
  text.Gauge("last_reload_success", "Whether the latest reload succeeded; 1 before the first one.",
             counters.last_reload_ok ? 1 : 0);
  text.Gauge("configuration_errors", "Errors in the initialization file as it was read last.",
             counters.configuration_errors);
}

void WriteSessions(Writer& text, const Counters& counters, const StatusNow& now) {
  text.Gauge("sessions_open", "Sessions that are open.", now.sessions_open);
  text.Gauge("sessions_peak", "The most sessions that were open at a time.", counters.sessions_peak);
  text.Family("sessions_total", "counter", "Sessions by where their client is.");
  text.Samples("origin", kOrigins, counters.sessions);
  text.Family("sessions_ended_total", "counter", "Sessions that have ended, by who or what ended them.");
  text.Samples("how",
               std::array<std::string_view, 8>{"quit", "client", "server", "timeout", "refused", "badseq",
                                               "closed", "shutdown"},
               counters.sessions_ended);
  text.Family("bytes_total", "counter", "Bytes of connections, without what TLS adds to them.");
  constexpr std::array<std::string_view, 2> kSides = {"client", "server"};
  constexpr std::array<std::string_view, 2> kDirections = {"in", "out"};
  for (std::size_t side = 0; side < kSides.size(); ++side) {
    for (std::size_t way = 0; way < kDirections.size(); ++way) {
      text.Sample(counters.bytes[side][way] + now.bytes_open[side][way],
                  {{"side", kSides[side]}, {"direction", kDirections[way]}});
    }
  }
}

void WriteMail(Writer& text, const Counters& counters) {
  text.Family("messages_total", "counter", "Messages that the server has taken.");
  text.Samples("origin", kOrigins, counters.messages);
  text.Family("recipients_total", "counter",
              "Answers to RCPT, of the proxy (refused, deferred) or the server.");
  constexpr std::array<std::string_view, 5> kRecipients = {"accepted", "refused", "deferred",
                                                           "server_refused", "server_deferred"};
  for (std::size_t origin = 0; origin < kOrigins.size(); ++origin) {
    for (std::size_t result = 0; result < kRecipients.size(); ++result) {
      text.Sample(counters.recipients[origin][result],
                  {{"origin", kOrigins[origin]}, {"result", kRecipients[result]}});
    }
  }
  text.Family("replies_total", "counter", "Replies that the proxy gave by itself, by their response key.");
  const std::vector<CountedReply>& replies = CountedReplies();
  for (std::size_t i = 0; i < replies.size(); ++i) {
    text.Sample(counters.replies[i], {{"key", replies[i].key}, {"code", replies[i].code}});
  }
  text.Family("server_replies_total", "counter", "Replies of the server, by the command that they answer.");
  constexpr std::array<std::string_view, 4> kClasses = {"2xx", "3xx", "4xx", "5xx"};
  for (std::size_t command = 0; command < Counters::kCommands; ++command) {
    for (std::size_t reply_class = 0; reply_class < kClasses.size(); ++reply_class) {
      text.Sample(counters.server_replies[command][reply_class],
                  {{"command", VerbOf(command)}, {"class", kClasses[reply_class]}});
    }
  }
}

void WriteGreylisting(Writer& text, const Counters& counters, const StatusNow& now) {
  text.Family("greylisting_total", "counter", "Recipients that greylisting has judged.");
  text.Samples("outcome",
               std::array<std::string_view, 7>{"whitelisted", "accepted", "new", "delayed", "blacklisted_new",
                                               "blacklisted_delayed", "callback"},
               counters.greylisting);
  text.Gauge("greylisting_records", "Records of the greylisting database in memory.",
             now.greylisting_records);
  text.Family("greylisting_saves_total", "counter", "Saves of the greylisting database.");
  text.Samples("result", kResults, counters.greylisting_saves);
  text.Gauge("greylisting_last_save_time_seconds",
             "When the greylisting database was saved last, in seconds since 1970; 0 before the first time.",
             counters.greylisting_last_save);
}

void WriteWaits(Writer& text, const Counters& counters) {
  text.Family("lookups_total", "counter",
              "Look-ups of the name of an address, or of the addresses of a name.");
  constexpr std::array<std::string_view, 2> kKinds = {"name", "address"};
  constexpr std::array<std::string_view, 4> kAnswers = {"found", "none", "failed", "timeout"};
  for (std::size_t kind = 0; kind < kKinds.size(); ++kind) {
    for (std::size_t result = 0; result < kAnswers.size(); ++result) {
      text.Sample(counters.lookups[kind][result], {{"kind", kKinds[kind]}, {"result", kAnswers[result]}});
    }
  }
  text.Times("lookup_seconds", "Look-ups, to their answer.", counters.lookup_time);
  text.Times("server_connect_seconds", "Connects to the server that succeeded.",
             counters.server_connect_time);
  text.Family("server_connect_failures_total", "counter", "Connects to the server that failed.");
  text.Sample(counters.server_connect_failures);
}

// Whether the sample's name as it begins `line` is `name`, apart from labels; or with them, when `name` has some.
bool IsSampleOf(std::string_view line, std::string_view name) {
  if (!line.starts_with(name)) return false;
  const char next = line.substr(name.size()).empty() ? '\0' : line[name.size()];
  return next == ' ' || next == '{';
}

}  // namespace

std::string StatusText(const Counters& counters, const StatusNow& now) {
  std::string out;
  out.reserve(std::size_t{32} * 1024);
  Writer text(out);
  WriteProgram(text, counters, now);
  WriteSessions(text, counters, now);
  WriteMail(text, counters);
  WriteGreylisting(text, counters, now);
  WriteWaits(text, counters);
  return out;
}

std::optional<std::string> StatusValue(std::string_view text, std::string_view name) {
  std::string full(name.starts_with(kPrefix) ? std::string_view() : kPrefix);
  full.append(name);
  std::optional<double> sum;
  std::string_view only;
  int samples = 0;
  for (std::string_view line : Split(text, '\n')) {
    if (!IsSampleOf(line, full)) continue;
    only = line.substr(line.rfind(' ') + 1);
    double value = 0;
    std::from_chars(only.data(), only.data() + only.size(), value);
    sum = sum.value_or(0) + value;
    ++samples;
  }
  if (samples == 0) return std::nullopt;
  if (samples == 1) return std::string(only);
  std::array<char, 40> digits{};
  const auto end =
      *sum == std::floor(*sum) && std::abs(*sum) < 9e15
          ? std::to_chars(digits.data(), digits.data() + digits.size(), static_cast<std::int64_t>(*sum))
          : std::to_chars(digits.data(), digits.data() + digits.size(), *sum);
  return std::string(digits.data(), end.ptr);
}

}  // namespace trabex
