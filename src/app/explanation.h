// What the settings would make of a client and its mail, step by step.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/explain_grounds.h"
#include "proxy/dialogue/greylist_check.h"

namespace trabex {

struct ExplainedStep {
  enum class Result {
    kTaken,
    kRefused,
    kUnchecked,   // passed without checks: what they need is not given
    kNotJudged,   // the settings do not ask for it
    kNotReached,  // the session does not come to it
  };
  struct Reply {
    std::string text;  // the client's, without its last line end; "": the connection is closed without one
    std::string key;   // its response key
    bool own = false;  // the proxy's
    std::vector<Ground> changed = {};  // the rules that changed it
  };
  struct Greylisting {
    GreylistVerdict verdict;
    bool callback = false;
    bool was_known = false;
    std::optional<Ground> list = {};  // of a client that is white- or black-listed
    std::optional<Ground> callback_by = {};
  };

  std::string name;   // client, name, EHLO, MAIL, RCPT, DATA
  std::string value;  // what it is about
  Result result = Result::kTaken;
  std::string reason = {};  // of the last three results, and where no key decides
  std::optional<Ground> decided = {};
  std::vector<Ground> asked = {};
  std::vector<std::string> notes = {};
  // The address as the server gets it, where it is another one.
  std::optional<std::string> rewritten = {};
  std::optional<Ground> rewritten_by = {};
  std::optional<Greylisting> greylisting = {};
  std::optional<Reply> reply = {};
};

struct Explanation {
  std::string client;
  bool is_local = false;
  std::vector<ExplainedStep> steps;
  std::size_t last = 0;  // the step whose reply counts: the first one refused, otherwise the last one
};

namespace exit_status {
inline constexpr int kRefusedForGood = 10;
inline constexpr int kRefusedForNow = 11;
}  // namespace exit_status

// 0, kRefusedForGood or kRefusedForNow.
int StatusOf(const Explanation& explanation);

// One line for each step, and last the reply that counts. Visible characters only.
std::string FormatExplanation(const Explanation& explanation);
// The same as one JSON object on a line.
std::string FormatExplanationJson(const Explanation& explanation);

}  // namespace trabex
