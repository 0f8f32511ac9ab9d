// kill_at_call: runs a program and kills it at one of its system calls, for the system tests.
//
//   kill_at_call [--from TEXT | --wait] [--at WHO:NUMBER:VICTIMS] [--without-links] -- COMMAND ARGUMENT...
//
// Stops are counted for each process by itself: the program is number 0, the copies that it forks are 1, 2 and so
// on. A call is two stops, one before the system has done anything of it ("entry") and one after all of it
// ("exit"). Waits for events are none: how many there are depends on the time.
//
//   --from TEXT   counts from the first call on one of whose paths ends in this
//   --wait        counts from SIGUSR1 on; until then the program runs as fast as without us
//   --at          kills VICTIMS ("program", "copies" or "all") by SIGKILL when process WHO comes to that stop; with
//                 "none" that process stays there until SIGUSR1. When none of them lives just then, it goes on as
//                 without a point
//   --without-links  the program finds itself on a file system without hard links
//
// SIGUSR2 ends the counting, SIGTERM kills everything. What the command prints goes to standard error; standard output
// has a line for each thing that happens:
//
//   started PID
//   counting
//   stop WHO NUMBER LIVING entry|exit CALL RESULT PATH...   LIVING processes; RESULT is - before the call
//   killed WHO NUMBER            at its stop before this line
//   held WHO NUMBER              the same for "none"
//   ended WHO STATUS             an exit status, or the negative number of a signal
//
// A path of a file that is open is that of its descriptor. Blanks in paths are told as "?".
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace trabex {
namespace {

// What is said of a call: its name, and of which kind its first arguments are: a path, a descriptor, or nothing
// that is told.
struct CallKind {
  std::uint64_t number;
  std::string_view name;
  std::string_view arguments;  // "p", "d" or "."
};

constexpr CallKind kCalls[] = {
    {SYS_accept4, "accept4", "d"},
    {SYS_access, "access", "p"},
    {SYS_bind, "bind", "d"},
    {SYS_brk, "brk", ""},
    {SYS_chmod, "chmod", "p"},
    {SYS_clone, "clone", ""},
    {SYS_close, "close", "d"},
    {SYS_close_range, "close_range", ""},
    {SYS_connect, "connect", "d"},
    {SYS_epoll_ctl, "epoll_ctl", ""},
    {SYS_exit_group, "exit_group", ""},
    {SYS_fchown, "fchown", "d"},
    {SYS_fcntl, "fcntl", "d"},
    {SYS_fdatasync, "fdatasync", "d"},
    {SYS_flock, "flock", "d"},
    {SYS_fstat, "fstat", "d"},
    {SYS_fsync, "fsync", "d"},
    {SYS_ftruncate, "ftruncate", "d"},
    {SYS_futex, "futex", ""},
    {SYS_geteuid, "geteuid", ""},
    {SYS_getpid, "getpid", ""},
    {SYS_getppid, "getppid", ""},
    {SYS_getpriority, "getpriority", ""},
    {SYS_getrandom, "getrandom", ""},
    {SYS_getsockname, "getsockname", "d"},
    {SYS_getsockopt, "getsockopt", "d"},
    {SYS_inotify_add_watch, "inotify_add_watch", ".p"},
    {SYS_inotify_rm_watch, "inotify_rm_watch", ""},
    {SYS_ioctl, "ioctl", "d"},
    {SYS_kill, "kill", ""},
    {SYS_link, "link", "pp"},
    {SYS_linkat, "linkat", ".p.p"},
    {SYS_listen, "listen", "d"},
    {SYS_lseek, "lseek", "d"},
    {SYS_lstat, "lstat", "p"},
    {SYS_madvise, "madvise", ""},
    {SYS_mkdir, "mkdir", "p"},
    {SYS_mkdirat, "mkdirat", ".p"},
    {SYS_mmap, "mmap", ""},
    {SYS_mprotect, "mprotect", ""},
    {SYS_munmap, "munmap", ""},
    {SYS_newfstatat, "newfstatat", "dp"},
    {SYS_open, "open", "p"},
    {SYS_openat, "openat", ".p"},
    {SYS_pipe2, "pipe2", ""},
    {SYS_prctl, "prctl", ""},
    {SYS_pread64, "pread64", "d"},
    {SYS_pwrite64, "pwrite64", "d"},
    {SYS_read, "read", "d"},
    {SYS_readlink, "readlink", "p"},
    {SYS_recvfrom, "recvfrom", "d"},
    {SYS_recvmsg, "recvmsg", "d"},
    {SYS_rename, "rename", "pp"},
    {SYS_renameat, "renameat", ".p.p"},
    {SYS_renameat2, "renameat2", ".p.p"},
    {SYS_rt_sigprocmask, "rt_sigprocmask", ""},
    {SYS_sendmsg, "sendmsg", "d"},
    {SYS_sendto, "sendto", "d"},
    {SYS_set_robust_list, "set_robust_list", ""},
    {SYS_setpriority, "setpriority", ""},
    {SYS_setsockopt, "setsockopt", "d"},
    {SYS_shutdown, "shutdown", "d"},
    {SYS_socket, "socket", ""},
    {SYS_stat, "stat", "p"},
    {SYS_sync_file_range, "sync_file_range", "d"},
    {SYS_timerfd_settime, "timerfd_settime", "d"},
    {SYS_truncate, "truncate", "p"},
    {SYS_unlink, "unlink", "p"},
    {SYS_unlinkat, "unlinkat", ".p"},
    {SYS_wait4, "wait4", ""},
    {SYS_write, "write", "d"},
    {SYS_writev, "writev", "d"},
};

constexpr std::uint64_t kWaits[] = {SYS_epoll_wait, SYS_epoll_pwait, SYS_restart_syscall};

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

enum class Victims { kProgram, kCopies, kAll, kNone };

struct Options {
  std::string from;
  bool wait = false;
  bool without_links = false;
  std::size_t who = 0;
  std::size_t number = 0;  // 0: none
  Victims victims = Victims::kAll;
  std::vector<char*> command;  // with the null at its end
};

Victims ParseVictims(std::string_view text) {
  if (text == "program") return Victims::kProgram;
  if (text == "copies") return Victims::kCopies;
  if (text == "all") return Victims::kAll;
  if (text == "none") return Victims::kNone;
  throw std::runtime_error("unknown victims");
}

Options ParseArguments(int argc, char** argv) {
  Options options;
  int at = 1;
  for (; at < argc && std::strcmp(argv[at], "--") != 0; ++at) {
    const std::string_view option = argv[at];
    const bool has_value = at + 1 < argc;
    if (option == "--wait") {
      options.wait = true;
    } else if (option == "--without-links") {
      options.without_links = true;
    } else if (option == "--from" && has_value) {
      options.from = argv[++at];
    } else if (option == "--at" && has_value) {
      const std::string value = argv[++at];
      const std::size_t first = value.find(':');
      const std::size_t second = value.find(':', first + 1);
      if (second == std::string::npos) throw std::runtime_error("--at takes WHO:NUMBER:VICTIMS");
      options.who = std::stoul(value.substr(0, first));
      options.number = std::stoul(value.substr(first + 1, second - first - 1));
      options.victims = ParseVictims(std::string_view(value).substr(second + 1));
    } else {
      throw std::runtime_error("unknown argument " + std::string(option));
    }
  }
  options.command.assign(argv + std::min(at + 1, argc), argv + argc);
  if (options.command.empty()) throw std::runtime_error("no command");
  options.command.push_back(nullptr);
  return options;
}

// Hard links are refused from here on, with the error of a file system that has none.
void RefuseLinks() {
  std::array<sock_filter, 5> filter{{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_link, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_linkat, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }};
  sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    Fail("seccomp");
  }
}

// Starts the command, which waits to be let go by a byte on the pipe.
pid_t Start(const Options& options, int reading) {
  const pid_t process = fork();
  if (process < 0) Fail("fork");
  if (process > 0) return process;
  try {
    char byte = 0;
    if (read(reading, &byte, 1) != 1) _exit(127);
    signal(SIGHUP, SIG_DFL);  // whoever runs the tests may ignore it, and the program asks
    if (options.without_links) RefuseLinks();
    if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) Fail("dup2");
    execvp(options.command.front(), options.command.data());
    Fail(options.command.front());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kill_at_call: %s\n", error.what());
  }
  _exit(127);
}

std::string ReadText(pid_t process, std::uint64_t address) {
  std::string text;
  std::array<char, 256> buffer;
  while (text.size() < PATH_MAX) {
    // No further than the page, behind which nothing may be.
    const std::size_t size = std::min<std::size_t>(buffer.size(), 4096 - address % 4096);
    const iovec here{buffer.data(), size};
    const iovec there{reinterpret_cast<void*>(address), size};
    const ssize_t got = process_vm_readv(process, &here, 1, &there, 1, 0);
    if (got <= 0) return text;
    const std::string_view part(buffer.data(), static_cast<std::size_t>(got));
    const std::size_t end = part.find('\0');
    text += part.substr(0, end);
    if (end != std::string_view::npos) return text;
    address += static_cast<std::uint64_t>(got);
  }
  return text;
}

std::string PathOfDescriptor(pid_t process, std::uint64_t descriptor) {
  if (descriptor > INT_MAX) return {};  // the current folder, say
  const std::string link =
      "/proc/" + std::to_string(process) + "/fd/" + std::to_string(static_cast<int>(descriptor));
  std::array<char, PATH_MAX> buffer;
  const ssize_t length = readlink(link.c_str(), buffer.data(), buffer.size());
  return length > 0 ? std::string(buffer.data(), static_cast<std::size_t>(length)) : std::string();
}

struct Call {
  std::uint64_t number = 0;
  std::string name;
  std::vector<std::string> paths;

  bool IsWait() const { return std::find(std::begin(kWaits), std::end(kWaits), number) != std::end(kWaits); }
};

Call ReadCall(pid_t process, std::uint64_t number, const std::uint64_t* arguments) {
  Call call;
  call.number = number;
  const auto* const kind = std::find_if(std::begin(kCalls), std::end(kCalls),
                                        [&](const CallKind& k) { return k.number == number; });
  if (kind == std::end(kCalls)) {
    call.name = "call" + std::to_string(number);
    return call;
  }
  call.name = kind->name;
  for (std::size_t i = 0; i < kind->arguments.size(); ++i) {
    std::string path;
    if (kind->arguments[i] == 'p') path = ReadText(process, arguments[i]);
    if (kind->arguments[i] == 'd') path = PathOfDescriptor(process, arguments[i]);
    std::replace(path.begin(), path.end(), ' ', '?');
    if (!path.empty()) call.paths.push_back(std::move(path));
  }
  return call;
}

struct Traced {
  std::size_t who = 0;
  std::size_t stops = 0;
  Call call;             // the one under way
  bool in_call = false;  // its entry was seen
};

class Tracer {
 public:
  explicit Tracer(Options options) : options_(std::move(options)) {}

  void Run() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) Fail("pipe2");
    program_ = Start(options_, ends[0]);
    // Only now, so that the program is started with none of them blocked.
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGCHLD, SIGUSR1, SIGUSR2, SIGTERM, SIGINT}) sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                         PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL;
    if (ptrace(PTRACE_SEIZE, program_, nullptr, options) != 0) Fail("PTRACE_SEIZE");
    Add(program_);
    if (!options_.wait) Interrupt();
    if (write(ends[1], "", 1) != 1) Fail("write");
    std::printf("started %d\n", static_cast<int>(program_));
    while (!traced_.empty()) Handle(signals);
  }

 private:
  void Handle(const sigset_t& signals) {
    siginfo_t signal{};
    if (sigwaitinfo(&signals, &signal) < 0) {
      if (errno == EINTR) return;
      Fail("sigwaitinfo");
    }
    switch (signal.si_signo) {
      case SIGUSR1:
        return held_ ? Continue(*std::exchange(held_, std::nullopt), 0) : Interrupt();
      case SIGUSR2:
        stepping_ = false;
        std::printf("not counting\n");
        return;
      case SIGCHLD:
        break;
      default:
        throw std::runtime_error("ended by a signal");  // and with us what we trace
    }
    int status = 0;
    for (pid_t process = 0; (process = waitpid(-1, &status, WNOHANG | __WALL)) > 0;) Take(process, status);
  }

  void Add(pid_t process) {
    Traced traced;
    traced.who = processes_++;
    traced_.emplace(process, traced);
  }

  // From now on every call is seen.
  void Interrupt() {
    stepping_ = true;
    for (const auto& [process, traced] : traced_) ptrace(PTRACE_INTERRUPT, process, nullptr, nullptr);
  }

  void Take(pid_t process, int status) {
    if (WIFEXITED(status) || WIFSIGNALED(status)) return Ended(process, status);
    if (!WIFSTOPPED(status)) return;
    if (!traced_.contains(process)) Add(process);
    const int signal = WSTOPSIG(status);
    if (signal == (SIGTRAP | 0x80)) return TakeCall(process);
    if (status >> 16 == PTRACE_EVENT_STOP) {
      if (options_.wait && stepping_ && !counting_) BeginCounting();
      return Continue(process, 0);
    }
    const int event = status >> 16;
    if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK || event == PTRACE_EVENT_CLONE)
      AddCopyOf(process);
    Continue(process, event != 0 ? 0 : signal);
  }

  // The copy may be seen before its parent says that there is one, or later. From here on it dies with its parent.
  void AddCopyOf(pid_t parent) {
    unsigned long copy = 0;
    if (ptrace(PTRACE_GETEVENTMSG, parent, nullptr, &copy) != 0) return;  // it was killed
    const auto process = static_cast<pid_t>(copy);
    if (!traced_.contains(process) && !ended_.contains(process)) Add(process);
  }

  void Ended(pid_t process, int status) {
    const auto found = traced_.find(process);
    if (found == traced_.end()) return;
    std::printf("ended %zu %d\n", found->second.who,
                WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status));
    traced_.erase(found);
    ended_.insert(process);
  }

  void Continue(pid_t process, int signal) const {
    // It may have been killed.
    ptrace(stepping_ ? PTRACE_SYSCALL : PTRACE_CONT, process, nullptr, signal);
  }

  void BeginCounting() {
    counting_ = true;
    std::printf("counting\n");
  }

  void TakeCall(pid_t process) {
    Traced& traced = traced_.at(process);
    __ptrace_syscall_info info{};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof info, &info) < 0) return;  // it was killed
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      traced.call = ReadCall(process, info.entry.nr, info.entry.args);
      traced.in_call = true;
      if (!counting_ && !options_.wait && stepping_ && IsBegin(traced.call)) BeginCounting();
      if (CountStop(traced, std::nullopt)) ActAt(process, traced);
    } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && std::exchange(traced.in_call, false)) {
      if (CountStop(traced, info.exit.rval)) ActAt(process, traced);
    }
    if (held_ != process) Continue(process, 0);
  }

  bool IsBegin(const Call& call) const {
    return std::any_of(call.paths.begin(), call.paths.end(),
                       [this](const std::string& path) { return path.ends_with(options_.from); });
  }

  // Whether it is the stop at which something is to be done.
  bool CountStop(Traced& traced, std::optional<std::int64_t> result) const {
    if (!counting_ || !stepping_ || traced.call.IsWait()) return false;
    ++traced.stops;
    std::string line = "stop " + std::to_string(traced.who) + " " + std::to_string(traced.stops) + " " +
                       std::to_string(traced_.size()) + (result ? " exit " : " entry ") + traced.call.name +
                       " " + (result ? std::to_string(*result) : "-");
    for (const std::string& path : traced.call.paths) line += " " + path;
    std::printf("%s\n", line.c_str());
    return traced.who == options_.who && traced.stops == options_.number;
  }

  // Whether it dies at the point.
  bool IsVictim(pid_t process) const {
    switch (options_.victims) {
      case Victims::kProgram:
        return process == program_;
      case Victims::kCopies:
        return process != program_;
      case Victims::kAll:
        return true;
      case Victims::kNone:
        break;
    }
    return false;
  }

  void ActAt(pid_t process, const Traced& traced) {
    const bool is_held = options_.victims == Victims::kNone;
    const auto is_victim = [this](const auto& each) { return IsVictim(each.first); };
    if (!is_held && std::none_of(traced_.begin(), traced_.end(), is_victim)) return;
    // What lives on does so as fast as it can.
    stepping_ = false;
    if (is_held) {
      held_ = process;
      std::printf("held %zu %zu\n", traced.who, traced.stops);
      return;
    }
    for (const auto& [each, other] : traced_) {
      if (!IsVictim(each)) continue;
      kill(each, SIGKILL);
      std::printf("killed %zu %zu\n", other.who, other.stops);
    }
  }

  Options options_;
  pid_t program_ = -1;
  std::map<pid_t, Traced> traced_;
  std::set<pid_t> ended_;
  std::size_t processes_ = 0;
  bool stepping_ = false;
  bool counting_ = false;
  std::optional<pid_t> held_;
};

}  // namespace
}  // namespace trabex

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    trabex::Tracer(trabex::ParseArguments(argc, argv)).Run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kill_at_call: %s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
