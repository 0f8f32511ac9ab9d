// The extension lines of a server's EHLO reply (RFC 5321, 4.1.1.1), in order, by keyword.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace trabex {

// Keywords compare without regard to case. A reply has few lines, so look-ups walk.
class ExtensionCollection {
 public:
  // Adds the extension of every line of `text` (lines end in CR LF) that begins with "250": its text from the
  // fifth byte on.
  void ParseLines(std::string_view text);
  // Appends `line` (keyword and parameters); an entry with the same keyword is removed first.
  void AddExtension(std::string_view line);
  void RemoveExtension(std::string_view keyword);
  // Without the extension AUTH (RFC 4954), also where it is written as older clients read it, "AUTH=LOGIN".
  void RemoveAuthentication();
  // Without those mechanisms of AUTH that take the client's connection for the server's: EXTERNAL, and each
  // that binds a login to TLS, SCRAM-SHA-1-PLUS, together with the same one that does not (RFC 5802, 6: a
  // client that could bind and is not offered it says so, and a server that offers it must refuse that). An
  // AUTH that has no mechanism left goes.
  void RemoveBoundAuthentication();
  // The whole line, "" when there is none. Valid until the collection changes.
  std::string_view GetExtension(std::string_view keyword) const;
  bool Has(std::string_view keyword) const { return !GetExtension(keyword).empty(); }

  void Clear() { text_.clear(); }
  std::vector<std::string> Lines() const;

 private:
  template <class Predicate>
  void RemoveIf(Predicate is_removed);

  // The lines, each with its CR LF: every session keeps them to its end, and so they take one block.
  std::string text_;
};

}  // namespace trabex
