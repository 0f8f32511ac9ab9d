// Runs code in a process of its own and stops it at every system call, to end it there or to let that call
// fail.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

namespace trabex {

// What is to happen to the traced process at a stop. Each call stops twice: before and after it is made.
struct TraceAction {
  bool kill = false;
  int fail = 0;  // before a call: it is not made and fails with this error
};

struct TraceStop {
  long call = 0;  // its number, SYS_...
  bool before = true;
};

struct TraceResult {
  bool permitted = true;  // false: this system forbids tracing
  bool killed = false;
  int exit_status = -1;
};

// Forks, runs `body` there (its result is the exit status) and asks `decide` at every stop. `body` allocates
// its needs beforehand where the calls that memory costs would disturb.
inline TraceResult RunTraced(const std::function<int()>& body,
                             const std::function<TraceAction(const TraceStop&)>& decide) {
  TraceResult result;
  constexpr int kNotPermitted = 99;
  const pid_t child = fork();
  if (child < 0) {
    ADD_FAILURE() << "no process";
    return result;
  }
  if (child == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(kNotPermitted);
    raise(SIGSTOP);
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status)) {
    result.permitted = WEXITSTATUS(status) != kNotPermitted;
    return result;
  }
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  bool before = true;
  int failing = 0;  // the error that the call under way gets
  int signal_to_pass = 0;
  for (;;) {
    ptrace(PTRACE_SYSCALL, child, nullptr, signal_to_pass);
    signal_to_pass = 0;
    if (waitpid(child, &status, 0) < 0) break;
    if (WIFEXITED(status)) {
      result.exit_status = WEXITSTATUS(status);
      break;
    }
    if (WIFSIGNALED(status)) {
      result.killed = true;
      break;
    }
    if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
      signal_to_pass = WSTOPSIG(status);
      continue;
    }
    user_regs_struct registers{};
    ptrace(PTRACE_GETREGS, child, nullptr, &registers);
    if (!before && failing != 0) {
      registers.rax = static_cast<unsigned long long>(-static_cast<long long>(failing));
      ptrace(PTRACE_SETREGS, child, nullptr, &registers);
      failing = 0;
    }
    const TraceAction action = decide({static_cast<long>(registers.orig_rax), before});
    if (action.kill) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      result.killed = true;
      break;
    }
    if (before && action.fail != 0) {
      registers.orig_rax = static_cast<unsigned long long>(-1);
      ptrace(PTRACE_SETREGS, child, nullptr, &registers);
      failing = action.fail;
    }
    before = !before;
  }
  return result;
}

}  // namespace trabex
