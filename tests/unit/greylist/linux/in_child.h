// Code that runs in a process of its own.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <exception>
#include <functional>
#include <string>

namespace trabex {

// What `work` returns when it runs in a forked process, for tests that change something for the whole
// process: user, mounts, permitted system calls.
inline std::string InChild(const std::function<std::string()>& work) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return "no pipe";
  const pid_t child = fork();
  if (child < 0) return "no process";
  if (child == 0) {
    close(ends[0]);
    std::string text;
    try {
      text = work();
    } catch (const std::exception& error) {
      text = std::string("exception: ") + error.what();
    }
    const bool all = write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(all ? 0 : 1);
  }
  close(ends[1]);
  std::string text;
  std::array<char, 4096> buffer;
  for (ssize_t got = 0; (got = read(ends[0], buffer.data(), buffer.size())) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    text += " (died, status " + std::to_string(status) + ")";
  return text;
}

}  // namespace trabex
