#include "platform/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/linux/default_hang_up.h"

namespace trabex {
namespace {

bool IsOpen(int descriptor) {
  return fcntl(descriptor, F_GETFD) >= 0;
}

TEST(Process, TokensAreTheArgumentsAsTheShellSplitThem) {
  std::string program = "Trabex";
  std::string quoted = " \"a b\"";
  std::string empty;
  char* const argv[] = {program.data(), quoted.data(), empty.data(), nullptr};
  EXPECT_EQ(CommandLineTokens(3, argv), (std::vector<std::string>{" \"a b\"", ""}));
  EXPECT_TRUE(CommandLineTokens(1, argv).empty());
  EXPECT_TRUE(CommandLineTokens(0, argv).empty());
  EXPECT_FALSE(kTokensKeepQuotes);
}

TEST(Process, ClosedStandardStreamsAreOpenedOnNothing) {
  for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    ChildProcess child([number] {
      close(number);
      const int before = open("/dev/null", O_RDONLY);  // takes the free number
      close(before);
      PrepareStreamsAndRequests();
      const int next = open("/dev/null", O_RDONLY);
      return before == number && IsOpen(number) && next > STDERR_FILENO ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0) << number;
  }
}

TEST(Process, OpenStandardStreamsStayAsTheyAre) {
  ChildProcess child([] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) return 1;
    const int next = dup(ends[0]);
    close(next);
    PrepareStreamsAndRequests();
    char byte = 0;
    const bool same = write(STDOUT_FILENO, "x", 1) == 1 && read(ends[0], &byte, 1) == 1 && byte == 'x';
    return same && dup(ends[0]) == next ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
}

TEST(Process, SignalsThatAskForSomethingWait) {
  const DefaultHangUp hang_up;
  for (const int number : {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGUSR1}) {
    ChildProcess child([number] {
      PrepareStreamsAndRequests();
      raise(number);
      sigset_t waiting;
      sigpending(&waiting);
      return sigismember(&waiting, number) == 1 ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0) << number;
  }
}

TEST(Process, SignalsWithoutMeaningDoNothing) {
  for (const int number : {SIGUSR2, SIGALRM, SIGVTALRM, SIGIO, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU}) {
    ChildProcess child([number] {
      PrepareStreamsAndRequests();
      raise(number);
      sigset_t waiting;
      sigpending(&waiting);
      return sigismember(&waiting, number) == 0 ? 7 : 1;
    });
    EXPECT_EQ(child.Wait(), 7) << number;
  }
}

}  // namespace
}  // namespace trabex
