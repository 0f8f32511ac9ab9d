// A mail server that a script tells what to say. It is strict: a line ends in CR LF, content in the line with
// the single dot, and octets are those that were announced. No sockets; who plays it brings the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "script/script.h"

namespace trabex {

class ScriptedServer {
 public:
  enum class PieceKind { kCommand, kContent, kOctets, kSecret };
  // One command line, one message, one chunk, one line after a 334, each with its end.
  struct Piece {
    PieceKind kind;
    std::string bytes;
  };

  // `replies` as in the head of a script; to what is not in it an ordinary server's replies are given. The
  // greeting is said at once.
  explicit ScriptedServer(const std::map<std::string, std::vector<script::Sending>>& replies = {});

  // Takes bytes that have come.
  void Take(std::string_view bytes);
  // Nothing more comes; what had no end yet becomes the last piece.
  void TakeEnd();

  // The next segment to be sent; "" when there is none.
  std::string NextSegment();
  // Whether it closes its connection when all is sent.
  bool HasHungUp() const { return hung_up_; }

  const std::vector<Piece>& Pieces() const { return pieces_; }
  // What a less strict server finds in the pieces and must not, in words: addresses that begin with
  // "evil-nnn" or "black-nnn", commands that are never forwarded, counts and dots that may be read in several
  // ways.
  std::vector<std::string> Violations() const;

 private:
  bool TakePiece();
  void TakeCommand(const std::string& line);
  // Returns the code of the last line said.
  std::string Say(const std::string& command, std::string_view otherwise);

  std::map<std::string, std::deque<script::Sending>> replies_;
  bool answers_chunks_at_once_;
  PieceKind next_ = PieceKind::kCommand;
  std::uint64_t octets_ = 0;
  std::string octets_reply_;  // the command whose reply follows the octets; "" for none
  std::string waiting_;
  std::deque<std::string> segments_;
  std::vector<Piece> pieces_;
  bool hung_up_ = false;
};

}  // namespace trabex
