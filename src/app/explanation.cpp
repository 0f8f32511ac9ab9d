#include "app/explanation.h"

#include <array>
#include <cstdint>
#include <string_view>

#include "app/exit_status.h"
#include "app/greylist_text.h"
#include "app/printable.h"
#include "base/text.h"
#include "config/section_store.h"
#include "report/json_line.h"

namespace trabex {

namespace {

using Result = ExplainedStep::Result;
using Outcome = GreylistVerdict::Outcome;

std::string_view ResultText(Result result) {
  constexpr std::array<std::string_view, 5> kTexts = {"taken", "refused", "passed without checks",
                                                      "not judged", "not reached"};
  return kTexts[static_cast<std::size_t>(result)];
}

std::string_view OutcomeText(const ExplainedStep::Greylisting& greylisting) {
  if (greylisting.callback) return "callback";
  switch (greylisting.verdict.outcome) {
    case Outcome::kWhitelisted:
      return "whitelisted";
    case Outcome::kAccepted:
      return "accepted";
    case Outcome::kNew:
      return "new";
    case Outcome::kDelayed:
      break;
  }
  return "delayed";
}

std::string FormatGreylisting(const ExplainedStep::Greylisting& greylisting) {
  const GreylistVerdict& verdict = greylisting.verdict;
  std::string text = "greylisting: ";
  text.append(OutcomeText(greylisting));
  if (greylisting.callback && greylisting.callback_by)
    text += " by " + FormatGround(*greylisting.callback_by);
  if (verdict.blacklisted) text += ", blacklisted";
  if (greylisting.list) text += " by " + FormatGround(*greylisting.list);
  if (verdict.attempts == 0) return text;
  text += greylisting.was_known ? ", known" : ", not known before";
  text += ", attempt " + std::to_string(verdict.attempts);
  if (verdict.deferred) text += ", delayed until " + FormatISODate(verdict.delayed_until);
  return text + ", expires " + FormatISODate(verdict.expires);
}

std::string FormatStep(const ExplainedStep& step) {
  std::string line = step.name;
  if (!step.value.empty()) line += " " + step.value;
  line.append(": ").append(ResultText(step.result));
  if (step.decided) {
    line += (step.result == Result::kNotJudged ? ", " : " by ") + FormatGround(*step.decided);
  } else if (!step.reason.empty()) {
    line += ", " + step.reason;
  }
  if (step.result == Result::kTaken && !step.decided) {
    for (const Ground& ground : step.asked) line += "; " + FormatGround(ground);
  }
  if (step.rewritten) {
    line += "; sent on as <" + *step.rewritten + ">";
    if (step.rewritten_by) line += " by " + FormatGround(*step.rewritten_by);
  }
  if (step.greylisting) line += "; " + FormatGreylisting(*step.greylisting);
  for (const std::string& note : step.notes) line += "; " + note;
  return line;
}

// "550 5.7.1 No. (RCPT.Private, changed by ...)"
std::string FormatReply(const ExplainedStep::Reply& reply) {
  std::string line = reply.text.empty() ? "The connection is closed without a reply." : reply.text;
  line += " (" + reply.key;
  for (const Ground& rule : reply.changed) line += "; changed by " + FormatGround(rule);
  return line + ")";
}

// --- JSON

void WriteGroundMembers(JsonLine& json, const Ground& ground) {
  json.Text("section", ground.section);
  json.Text("key", ground.key);
  if (ground.matches) json.Text("entry", ground.entry);
  json.Truth("matches", ground.matches);
  if (ground.place.line == 0) return;
  json.Text("file", ground.place.file);
  json.Number("line", static_cast<std::int64_t>(ground.place.line));
}

void WriteGround(JsonLine& json, std::string_view name, const std::optional<Ground>& ground) {
  if (!ground) return;
  json.OpenObject(name);
  WriteGroundMembers(json, *ground);
  json.CloseObject();
}

void WriteGrounds(JsonLine& json, std::string_view name, const std::vector<Ground>& grounds) {
  json.OpenList(name);
  for (const Ground& ground : grounds) {
    json.OpenElement();
    WriteGroundMembers(json, ground);
    json.CloseObject();
  }
  json.CloseList();
}

void WriteReply(JsonLine& json, const ExplainedStep::Reply& reply) {
  json.OpenObject("reply");
  json.Truth("sent", !reply.text.empty());
  json.Text("text", reply.text);
  json.Text("key", reply.key);
  json.Truth("own", reply.own);
  WriteGrounds(json, "changed", reply.changed);
  json.CloseObject();
}

void WriteGreylisting(JsonLine& json, const ExplainedStep::Greylisting& greylisting) {
  const GreylistVerdict& verdict = greylisting.verdict;
  json.OpenObject("greylisting");
  json.Text("outcome", OutcomeText(greylisting));
  json.Truth("blacklisted", verdict.blacklisted);
  WriteGround(json, "list", greylisting.list);
  WriteGround(json, "callback_by", greylisting.callback_by);
  if (verdict.attempts > 0) {
    json.Truth("known", greylisting.was_known);
    json.Number("attempts", verdict.attempts);
    if (verdict.deferred) json.Text("delayed_until", FormatISODate(verdict.delayed_until));
    json.Text("expires", FormatISODate(verdict.expires));
  }
  json.CloseObject();
}

void WriteStep(JsonLine& json, const ExplainedStep& step) {
  json.OpenElement();
  json.Text("step", step.name);
  json.Text("value", step.value);
  json.Text("result", ResultText(step.result));
  if (!step.reason.empty()) json.Text("reason", step.reason);
  WriteGround(json, "decided", step.decided);
  WriteGrounds(json, "asked", step.asked);
  if (step.rewritten) json.Text("rewritten", *step.rewritten);
  WriteGround(json, "rewritten_by", step.rewritten_by);
  if (step.greylisting) WriteGreylisting(json, *step.greylisting);
  json.Texts("notes", step.notes);
  if (step.reply) WriteReply(json, *step.reply);
  json.CloseObject();
}

}  // namespace

int StatusOf(const Explanation& explanation) {
  const auto& reply = explanation.steps[explanation.last].reply;
  if (!reply) return exit_status::kDone;
  if (reply->text.starts_with('5')) return exit_status::kRefusedForGood;
  // A connection that is closed without a word is tried again.
  return reply->text.starts_with('4') || reply->text.empty() ? exit_status::kRefusedForNow
                                                             : exit_status::kDone;
}

std::string FormatExplanation(const Explanation& explanation) {
  std::string text;
  for (const ExplainedStep& step : explanation.steps) text += Printable(FormatStep(step)) + "\n";
  const auto& reply = explanation.steps[explanation.last].reply;
  return reply ? text + Printable(FormatReply(*reply)) + "\n" : text;
}

std::string FormatExplanationJson(const Explanation& explanation) {
  std::string text;
  JsonLine json(text);
  json.Begin();
  json.Text("client", explanation.client);
  json.Text("origin", explanation.is_local ? "local" : "remote");
  json.OpenList("steps");
  for (const ExplainedStep& step : explanation.steps) WriteStep(json, step);
  json.CloseList();
  if (const auto& reply = explanation.steps[explanation.last].reply) WriteReply(json, *reply);
  json.Number("status", StatusOf(explanation));
  json.End();
  return text;
}

}  // namespace trabex
