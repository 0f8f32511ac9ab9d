// What carries the bytes of a connection between a socket object and the system's socket: as they are, or
// encrypted. The object, and the orderly end that follows it, send, receive and end the sending through a
// stream alone, so their owner need not know which one it is.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "platform/sockets.h"
#include "platform/splice_pipe.h"
#include "tls/tls_facts.h"

namespace trabex {

// Each call is for one and the same connected TCP socket in a stream's life, unless the stream holds no state
// (PlainStream). Results are 0 or a socket error number; 10035: nothing can be done now, and the socket's
// FD_READ (Read) or FD_WRITE (the others) follows when it can go on.
class Stream {
 public:
  virtual ~Stream() = default;

  // `received` 0 with result 0 is the end of what the peer says (`space` is not empty).
  virtual int Read(SocketHandle socket, std::span<char> space, std::size_t& received) = 0;
  // `sent` is how much of `data` (not empty) was taken. Less than all, with result 0, counts as 10035 for the
  // rest. What was not taken is given again with the next call, which may have more after it and lie
  // at another address.
  virtual int Write(SocketHandle socket, std::string_view data, std::size_t& sent, bool more_follows) = 0;
  // Whether bytes may go from and to the socket through a pipe of the system, so that the stream does not see
  // them. Only then are the next two called; they are as Sockets says.
  virtual bool PassesUnseen() const { return false; }
  virtual int ReadInto(SocketHandle /*socket*/, SplicePipe& /*pipe*/, std::size_t /*limit*/,
                       std::size_t& moved) {
    moved = 0;
    return 0;
  }
  virtual int WriteFrom(SocketHandle /*socket*/, SplicePipe& /*pipe*/, std::size_t& sent) {
    sent = 0;
    return socket_error::kWouldBlock;
  }
  // Ends sending; receiving goes on.
  virtual int ShutDownWrite(SocketHandle socket) = 0;
  // How many bytes Read would give now, at most.
  virtual std::size_t Pending(SocketHandle socket) = 0;

  // Whether Read may give more although the socket announces nothing: the stream has received more than it
  // has given, and did not find the socket empty since.
  virtual bool HoldsInput() const { return false; }

  // A stream may begin with a handshake. Until it is done Read and Write give 10035 and touch nothing.
  virtual bool Established() const { return true; }
  // A step of it; 10035: the next one can be made at FD_READ or FD_WRITE. With 0 it is done, or the peer has
  // ended instead: Established says which.
  virtual int Establish(SocketHandle /*socket*/) { return 0; }
  // What the handshake agreed on; nullptr: it is not done, or there is none.
  virtual const TlsFacts* Facts() const { return nullptr; }
  // The text of an error number that this stream gave.
  virtual std::string ErrorText(int number) const;
};

// The bytes as they are. One serves all sockets.
class PlainStream final : public Stream {
 public:
  // `sockets` outlives the stream.
  explicit PlainStream(Sockets& sockets) : sockets_(sockets) {}

  int Read(SocketHandle socket, std::span<char> space, std::size_t& received) override {
    return sockets_.Receive(socket, space, received);
  }
  int Write(SocketHandle socket, std::string_view data, std::size_t& sent, bool more_follows) override {
    return sockets_.Send(socket, data, sent, more_follows);
  }
  bool PassesUnseen() const override { return true; }
  int ReadInto(SocketHandle socket, SplicePipe& pipe, std::size_t limit, std::size_t& moved) override {
    return sockets_.ReceiveInto(socket, pipe, limit, moved);
  }
  int WriteFrom(SocketHandle socket, SplicePipe& pipe, std::size_t& sent) override {
    return sockets_.SendFrom(socket, pipe, sent);
  }
  int ShutDownWrite(SocketHandle socket) override { return sockets_.ShutDownSending(socket); }
  std::size_t Pending(SocketHandle socket) override;

 private:
  Sockets& sockets_;
};

}  // namespace trabex
