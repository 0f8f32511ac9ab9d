// A child process of a test.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

namespace trabex {

// Runs `body()` in a forked child; what it returns is the child's exit status. A child that was not waited
// for is killed at the end.
class ChildProcess {
 public:
  template <class Body>
  explicit ChildProcess(Body body) : id_(fork()) {
    if (id_ == 0) _exit(body());
    if (id_ < 0) ADD_FAILURE() << "no child process";
  }
  ~ChildProcess() { Kill(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Waits for its end: the exit status, or -signal.
  int Wait() {
    int status = 0;
    if (id_ <= 0 || waitpid(std::exchange(id_, -1), &status, 0) < 0) return -1000;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  // Whether it has ended by now; does not wait.
  bool HasEnded() const {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(id_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == id_;
  }
  // Kills it and waits until it is gone.
  void Kill() {
    if (id_ <= 0) return;
    kill(id_, SIGKILL);
    Wait();
  }

 private:
  pid_t id_;
};

// A pipe over which a child notifies its parent that it got somewhere.
class Notice {
 public:
  Notice() {
    if (pipe(ends_) != 0) ADD_FAILURE() << "no pipe";
  }
  ~Notice() {
    close(ends_[0]);
    close(ends_[1]);
  }
  Notice(const Notice&) = delete;
  Notice& operator=(const Notice&) = delete;

  void Give() const { static_cast<void>(!write(ends_[1], "x", 1)); }
  void Await() const {
    char mark = 0;
    static_cast<void>(!read(ends_[0], &mark, 1));
  }

 private:
  int ends_[2]{};
};

}  // namespace trabex
