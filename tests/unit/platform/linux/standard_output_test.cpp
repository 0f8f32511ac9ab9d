#include "platform/standard_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "support/child_process.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

// A mebibyte: more than a pipe or a socket of the system's usual size holds.
const std::string kMuch(std::size_t{1} << 20, 'x');

// Checked in a child, so that the output of the tests stays theirs: writes a line, then more than fits.
int WriteUntilFull(int reader, int writer) {
  if (dup2(writer, STDOUT_FILENO) < 0) return 1;
  if (WriteStandardOutput("line\n") != 5) return 2;
  const std::size_t taken = WriteStandardOutput(kMuch);
  if (taken == 0 || taken >= kMuch.size()) return 3;
  if (WriteStandardOutput(kMuch) != 0) return 4;
  // What was taken is there, and makes room for more.
  std::string there(5 + taken, '\0');
  for (std::size_t size = 0; size < there.size();) {
    const ssize_t got = read(reader, there.data() + size, there.size() - size);
    if (got <= 0) return 5;
    size += static_cast<std::size_t>(got);
  }
  if (there != "line\n" + kMuch.substr(0, taken)) return 6;
  if (WriteStandardOutput("again\n") != 6) return 7;
  close(reader);
  signal(SIGPIPE, SIG_IGN);
  return WriteStandardOutput("nobody\n") == 0 ? 0 : 8;
}

TEST(StandardOutput, NeverWaitsForTheReaderOfAPipe) {
  ChildProcess child([] {
    int ends[2];
    return pipe(ends) == 0 ? WriteUntilFull(ends[0], ends[1]) : 100;
  });
  EXPECT_EQ(child.Wait(), 0);
}

TEST(StandardOutput, NeverWaitsForTheReaderOfASocket) {
  ChildProcess child([] {
    int ends[2];
    return socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0 ? WriteUntilFull(ends[0], ends[1]) : 100;
  });
  EXPECT_EQ(child.Wait(), 0);
}

TEST(StandardOutput, AFileTakesAll) {
  const TempFolder folder;
  const std::string path = folder / "output";
  ChildProcess child([&] {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    return dup2(file, STDOUT_FILENO) >= 0 && WriteStandardOutput(kMuch) == kMuch.size() ? 0 : 1;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(ReadFile(path), kMuch);
}

TEST(StandardOutput, WhatIsClosedTakesNothing) {
  ChildProcess child([] {
    close(STDOUT_FILENO);
    return WriteStandardOutput("x") == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
}  // namespace trabex
