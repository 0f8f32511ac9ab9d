// docs/troubleshooting.md has every message of the program, and none that there is not.
//
// Messages are put together in many places, so both sides are compared by their fixed parts: the literals of the
// sources, and what stands between the values ("<file>") in the texts of the page.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <regex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "net/socket_errors.h"
#include "proxy/dialogue/policy_replies.h"
#include "support/names_as_values.h"
#include "support/source_documents.h"
#include "support/source_literals.h"

namespace trabex {
namespace {

constexpr const char* kPage = "docs/troubleshooting.md";

// Texts that look like messages and are none. A file alone stands for all of its texts.
struct NoMessage {
  std::string_view file;
  std::string_view text;
  std::string_view why;
};
constexpr NoMessage kNoMessages[] = {
    {"src/app/command_line.cpp", "Command line switches:", "what --help shows"},
    {"src/app/explain_grounds.cpp", "", "words of --explain, see docs/explain.md"},
    {"src/app/explain_session.cpp", "", "the same"},
    {"src/app/explanation.cpp", "", "the same"},
    {"src/app/explain_list.cpp", "consulted", "the same"},
    {"src/app/explain_list.cpp", "not consulted", "the same"},
    {"src/app/explain_list.cpp", ": no entry matches", "the same"},
    {"src/app/greylist_statistics.cpp", "", "words of /GREYLIST stats"},
    {"src/app/greylist_tool.cpp", "would be deleted", "an answer of /GREYLIST"},
    {"src/app/greylist_tool.cpp", "accepted, the client is in IPWhiteList", "the same"},
    {"src/app/greylist_tool.cpp", "delayed before", "the same"},
    {"src/app/greylist_tool.cpp", ", accepted from then on", "the same"},
    {"src/app/greylist_tool.cpp", "delayed; attempt", "the same"},
    {"src/app/greylist_tool.cpp", "from now on is accepted, not before", "the same"},
    {"src/app/greylist_tool.cpp", "next attempt:", "the same"},
    {"src/console/windows/connection_list.cpp", "Courier New", "a font"},
    {"src/net/socket_progress.cpp", "CSocketMaster.", "the beginning of a source"},
    {"src/net/modSocketMaster.cpp", "a socket object outlives its module", "an assertion"},
    {"src/platform/common/call_handler.h", "", "an assertion"},
    {"src/platform/linux/loop/event_loop.cpp", "the loop was run from inside one of its calls",
     "an assertion"},
    {"src/platform/windows/process/message_box.cpp", "(There is more.",
     "the end of an answer that is too long for a box"},
    {"src/platform/windows/process/system_requests.cpp", "Trabex is saving its data.",
     "what Windows shows while it ends the session"},
    {"src/proxy/dialogue/client_command_filter.cpp", "RCPT TO:<", "what the server is sent"},
    {"src/proxy/dialogue/received_header.cpp", "", "what the server is sent"},
    {"src/report/http_request.cpp", "", "heads of HTTP"},
    {"src/report/status_http.cpp", "Allow: GET", "a head of HTTP"},
    {"src/report/status_text.cpp", "", "the help of the counters, see docs/monitoring.md"},
    {"src/view/connection_row.h", "", "the head of the table"},
    {"src/view/minute_graph.cpp", "", "what the view shows, see docs/view.md"},
    {"src/view/panes.cpp", "", "the same"},
    {"src/view/screen_model.cpp", "", "the same"},
    {"src/view/session_order.cpp", "", "the same"},
    {"src/view/session_row.cpp", "", "the same"},
    {"src/view/totals_line.cpp", "", "the same"},
    {"src/tls/certificate_files.cpp", "PRIVATE KEY-----", "what a file is searched for"},
};

bool IsLetter(char c) {
  return std::isalpha(static_cast<unsigned char>(c)) != 0;
}

bool IsNoMessage(const SourceLiteral& literal) {
  const std::string_view text = Trim(literal.text);
  return std::any_of(std::begin(kNoMessages), std::end(kNoMessages), [&](const NoMessage& one) {
    return one.file == literal.file && text.starts_with(one.text);
  });
}

// Words with blanks between them, or one with a point behind it.
bool LooksLikeMessage(std::string_view text) {
  if (std::count_if(text.begin(), text.end(), IsLetter) < 4) return false;
  for (std::size_t blank = text.find(' '); blank != std::string_view::npos;
       blank = text.find(' ', blank + 1)) {
    if (blank == 0 || blank + 1 == text.size()) continue;
    const char before = text[blank - 1];
    const char behind = text[blank + 1];
    if ((IsLetter(before) || std::string_view(",.:;\"").find(before) != std::string_view::npos) &&
        (IsLetter(behind) || behind == '"' || behind == '<' || behind == '(')) {
      return true;
    }
  }
  const std::string_view word = Trim(text);
  return word.size() > 4 && word.back() == '.' && word.find('.') == word.size() - 1 &&
         std::all_of(word.begin(), word.end() - 1, IsLetter);
}

// The fixed parts of a text: what stands between its values. Quotes do not count, since some are added by
// functions.
std::vector<std::string> FixedParts(std::string_view text) {
  std::vector<std::string> parts(1);
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::size_t end = text[at] == '<' ? text.find_first_of("<>", at + 1) : std::string_view::npos;
    // A value is named by a word; "MAIL FROM:<" and "<>" are no values.
    const bool is_value = end != std::string_view::npos && text[end] == '>' && end > at + 1;
    if (is_value) {
      parts.emplace_back();
      at = end;
    } else if (text[at] != '"') {
      parts.back() += text[at];
    }
  }
  std::erase_if(parts,
                [](const std::string& part) { return std::none_of(part.begin(), part.end(), IsLetter); });
  return parts;
}

// Whether `text` has all of `parts` in their order.
bool HasInOrder(std::string_view text, const std::vector<std::string>& parts) {
  std::size_t from = 0;
  for (const std::string& part : parts) {
    const std::size_t at = text.find(Trim(part), from);
    if (at == std::string_view::npos) return false;
    from = at + Trim(part).size();
  }
  return true;
}

struct Row {
  std::vector<std::string> texts;  // in backticks, of the first cell
  std::vector<std::string> cells;
};

// The rows of the tables of the page whose head begins with `first`, and has as many cells.
std::vector<Row> Rows(std::string_view first) {
  std::vector<Row> rows;
  bool is_wanted = false;
  const std::string page = SourceFile(kPage);
  for (const std::string_view line : Split(page, '\n')) {
    if (!line.starts_with("| ")) {
      is_wanted = is_wanted && line.starts_with("|--");
      continue;
    }
    const auto cells = Cells(line);
    if (cells.front() == first) is_wanted = true;
    if (!is_wanted || cells.front() == first) continue;
    Row row{.texts = {}, .cells = cells};
    const auto pieces = Split(cells.front(), '`');
    for (std::size_t i = 1; i < pieces.size(); i += 2) row.texts.emplace_back(pieces[i]);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<std::string> AllEntries() {
  std::vector<std::string> entries;
  for (const Row& row : Rows("message")) entries.insert(entries.end(), row.texts.begin(), row.texts.end());
  for (const Row& row : Rows("number")) {
    const auto pieces = Split(row.cells.at(1), '`');
    for (std::size_t i = 1; i < pieces.size(); i += 2) entries.emplace_back(pieces[i]);
  }
  return entries;
}

TEST(TroubleshootingPage, HasEveryMessageOfTheProgram) {
  std::vector<std::string> entries;
  for (const std::string& entry : AllEntries()) {
    std::string fixed;
    for (const std::string& part : FixedParts(entry)) fixed += part + "\n";
    entries.push_back(std::move(fixed));
  }
  int messages = 0;
  for (const SourceLiteral& literal : SourceLiterals()) {
    if (!LooksLikeMessage(literal.text) || IsNoMessage(literal)) continue;
    ++messages;
    const auto parts = FixedParts(literal.text);
    const bool is_there = std::any_of(entries.begin(), entries.end(),
                                      [&](const std::string& entry) { return HasInOrder(entry, parts); });
    EXPECT_TRUE(is_there) << literal.file << ": \"" << literal.text << "\" has no row in " << kPage
                          << "; what is no message stands in this test's kNoMessages";
  }
  EXPECT_GT(messages, 300);
}

// The texts of the sources, to look pieces of messages up in.
class KnownTexts {
 public:
  KnownTexts() {
    for (const SourceLiteral& literal : SourceLiterals()) {
      std::string text = ReplaceAll(literal.text, "\"", "");
      whole_.emplace(Trim(text));
      for (const std::string& part : FixedParts(literal.text)) whole_.emplace(Trim(part));
      all_ += text + "\n";
      whole_.insert(std::move(text));
    }
    whole_.erase("");
  }

  // Whether `part` is made of such texts: of whole ones, or of long pieces.
  bool Make(std::string_view part) const {
    std::vector<bool> reached(part.size() + 1);
    reached[0] = true;
    for (std::size_t at = 0; at < part.size(); ++at) {
      if (!reached[at]) continue;
      const std::string_view rest = part.substr(at);
      if (std::ispunct(static_cast<unsigned char>(rest.front())) != 0 || rest.front() == ' ')
        reached[at + 1] = true;
      for (std::size_t size = 1; size <= rest.size(); ++size) {
        if (whole_.contains(rest.substr(0, size))) reached[at + size] = true;
      }
      if (const std::size_t size = LongestPiece(rest); size > 0) reached[at + size] = true;
    }
    return reached.back();
  }

 private:
  // The size of the longest piece that some text has and `rest` begins with; 0 for none that is long.
  std::size_t LongestPiece(std::string_view rest) const {
    constexpr std::size_t kLong = 8;
    std::size_t longest = 0;
    const std::string_view begin = rest.substr(0, kLong);
    if (begin.size() < kLong) return 0;
    for (std::size_t at = all_.find(begin); at != std::string::npos; at = all_.find(begin, at + 1)) {
      const auto [end, unused] =
          std::mismatch(rest.begin(), rest.end(), all_.begin() + std::ptrdiff_t(at), all_.end());
      longest = std::max(longest, static_cast<std::size_t>(end - rest.begin()));
    }
    return longest;
  }

  std::set<std::string, std::less<>> whole_;
  std::string all_;
};

TEST(TroubleshootingPage, HasNoMessageThatThereIsNot) {
  const KnownTexts texts;
  for (const std::string& entry : AllEntries()) {
    for (const std::string& part : FixedParts(entry)) {
      EXPECT_TRUE(texts.Make(Trim(part))) << kPage << ": the program never says \"" << entry << "\"";
    }
  }
  EXPECT_TRUE(texts.Make("Unknown key."));
  EXPECT_FALSE(texts.Make("Unknown kee."));
  EXPECT_FALSE(texts.Make("The log is full of snow."));
}

// The replies of the proxy's own are there as they are sent.
TEST(TroubleshootingPage, HasTheRepliesAsTheyAreSent) {
  std::set<std::string> documented;
  for (const Row& row : Rows("message")) {
    for (const std::string& text : row.texts) {
      const bool is_reply = text.size() > 4 && text[3] == ' ' && text.find_first_not_of("0123456789") == 3;
      if (is_reply && text.find(" Request") == std::string::npos) documented.insert(text);
    }
  }
  for (const char* of_http : {"404 Not Found", "405 Method Not Allowed", "503 Service Unavailable"}) {
    documented.erase(of_http);
  }
  documented.erase("431 Request Header Fields Too Large");
  std::set<std::string> replies;
  for (int kind = 0; kind < kReplyKinds; ++kind) {
    replies.insert(BuildPolicyReply(static_cast<ReplyKind>(kind), NamesAsValues(), true));
  }
  EXPECT_EQ(documented, replies);
}

TEST(TroubleshootingPage, SaysWhatEachMessageMeans) {
  for (const Row& row : Rows("message")) {
    ASSERT_EQ(row.cells.size(), 3U) << row.cells.front();
    EXPECT_FALSE(row.texts.empty()) << row.cells.front();
    EXPECT_FALSE(row.cells[1].empty() || row.cells[2].empty()) << row.cells.front();
  }
  for (const Row& row : Rows("number")) EXPECT_FALSE(row.cells.at(2).empty()) << row.cells.front();
}

// What trabex-convert says of lines that have no equal here.
TEST(TroubleshootingPage, HasEveryReasonOfTheConverter) {
  std::set<std::string> documented;
  const auto fixed = [](std::string_view text) {
    std::string joined;
    for (const std::string& part : FixedParts(text)) joined += part + "<>";
    return joined;
  };
  for (const Row& row : Rows("reason")) {
    EXPECT_FALSE(row.cells.at(1).empty());
    for (const std::string& text : row.texts) documented.insert(fixed(text));
  }
  std::set<std::string> reasons;
  const std::string source = SourceFile("tools/trabex-convert");
  const std::regex expression(R"re(raise NoEqual\(f?"([^"]*)")re");
  const std::regex value(R"(\{[^}]*\})");
  for (std::sregex_iterator found(source.begin(), source.end(), expression), end; found != end; ++found) {
    reasons.insert(fixed(std::regex_replace((*found)[1].str(), value, "<value>")));
  }
  EXPECT_EQ(documented, reasons);
}

// The numbers that the sources define or raise, and all that have a text.
std::set<int> ErrorNumbers() {
  std::set<int> numbers;
  for (int number = 10000; number < 50000; ++number) {
    if (SocketErrorText(number) != "Unknown error.") numbers.insert(number);
  }
  const struct {
    const char* file;
    const char* expression;
  } places[] = {{"src/base/error.h", R"(constexpr int k\w+ = (\d+);)"},
                {"src/net/socket_errors.h", R"(constexpr int k\w+ = (\d+);)"},
                {"src/net/socket_errors.cpp", R"(throw Error\((\d+),)"}};
  for (const auto& place : places) {
    const std::string source = SourceFile(place.file);
    const std::regex expression(place.expression);
    for (std::sregex_iterator found(source.begin(), source.end(), expression), end; found != end; ++found) {
      numbers.insert(std::stoi((*found)[1]));
    }
  }
  return numbers;
}

TEST(TroubleshootingPage, HasEveryErrorNumberWithItsText) {
  std::set<int> documented;
  for (const Row& row : Rows("number")) {
    const int number = std::stoi(row.cells.at(0));
    EXPECT_TRUE(documented.insert(number).second) << number;
    const std::string_view text = SocketErrorText(number);
    if (text != "Unknown error.") {
      EXPECT_EQ(row.cells.at(1), "`" + std::string(text) + "`") << number;
    }
  }
  EXPECT_EQ(documented, ErrorNumbers());
}

TEST(TroubleshootingPage, HasEveryExitStatus) {
  std::set<std::string> documented;
  for (const Row& row : Rows("status")) documented.insert(row.cells.front());
  std::set<std::string> statuses;
  for (const char* file : {"src/app/exit_status.h", "src/app/explanation.h"}) {
    const std::string source = SourceFile(file);
    const std::size_t begin = source.find("namespace exit_status");
    ASSERT_NE(begin, std::string::npos) << file;
    const std::string part = source.substr(begin, source.find("}  // namespace", begin) - begin);
    const std::regex expression(R"(= (\d+);)");
    for (std::sregex_iterator found(part.begin(), part.end(), expression), end; found != end; ++found) {
      statuses.insert((*found)[1]);
    }
  }
  EXPECT_EQ(documented, statuses);
}

// What stands in front of the point in "cProxy.Init", of all sources of errors.
TEST(TroubleshootingPage, HasEverySourceOfErrors) {
  std::set<std::string> documented;
  for (const Row& row : Rows("source")) documented.insert(row.texts.begin(), row.texts.end());
  const std::regex expression(
      R"(^(m[A-Z]\w*|mod\w+|c[A-Z]\w*|C[A-Z]\w*|frm\w+|[A-Z][a-z]+[A-Z]\w*)\.[A-Z]\w+$)");
  const std::set<std::string> no_sources = {"BadSeq", "RecipientReplacements", "SenderReplacements",
                                            "GreyListing"};
  std::set<std::string> sources;
  for (const SourceLiteral& literal : SourceLiterals()) {
    std::smatch found;
    if (std::regex_match(literal.text, found, expression) && !no_sources.contains(found[1])) {
      sources.insert(found[1]);
    }
  }
  EXPECT_EQ(documented, sources);
}

}  // namespace
}  // namespace trabex
