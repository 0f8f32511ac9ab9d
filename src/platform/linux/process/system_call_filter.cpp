#include "platform/linux/process/system_call_filter.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/sched.h>
#include <linux/seccomp.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace trabex {

namespace {

#if defined(__x86_64__)
constexpr std::uint32_t kProcessor = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t kProcessor = AUDIT_ARCH_AARCH64;
#else
constexpr std::uint32_t kProcessor = 0;
#endif

constexpr std::uint32_t kAllow = SECCOMP_RET_ALLOW;
constexpr std::uint32_t kRefuse = SECCOMP_RET_ERRNO | EPERM;
constexpr std::uint32_t kUnknownCall = SECCOMP_RET_ERRNO | ENOSYS;
constexpr std::uint32_t kEnd = SECCOMP_RET_KILL_PROCESS;

// The calls of a session, in the order of how often they are made. A kernel from 5.11 on allows all calls without a
// condition by a table, so the order counts for older ones only.
constexpr std::uint32_t kFrequent[] = {
    __NR_recvfrom,   __NR_sendto,  __NR_epoll_pwait, __NR_read,       __NR_write,       __NR_sendmsg,
    __NR_recvmsg,    __NR_splice,  __NR_epoll_ctl,   __NR_close,      __NR_writev,      __NR_accept4,
    __NR_shutdown,   __NR_connect, __NR_setsockopt,  __NR_getsockopt, __NR_getsockname, __NR_getpeername,
#ifdef __NR_epoll_wait
    __NR_epoll_wait,
#endif
};

// scripts/compare-system-calls tells which of them nothing makes on a machine. Those are here for
//   other processors and C libraries: the older or newer one of two calls (open, stat, statx, pipe, poll, select, renameat2,
//   faccessat2, epoll_pwait2, clock_nanosleep, waitid), and the clocks, which elsewhere are calls;
//   memory and threads of the libraries, as they grow or find out what there is: mremap, madvise, getrandom, sysinfo,
//   sched_getaffinity, rseq, sigaltstack, uname;
//   OpenSSL and c-ares: getuid and the like (whether the environment can be trusted), getpeername, sendmmsg, recvmmsg;
//   the same by another call, on what is open already: readv, writev, sendmsg, pread64, fdatasync, dup, linkat;
//   what only asks about this process, waits or ends it: getrusage, times, gettid, nanosleep, tgkill, restart_syscall.
constexpr std::uint32_t kAllowed[] = {
    // Descriptors and the loop
    __NR_readv,
    __NR_pread64,
    __NR_pwrite64,
    __NR_lseek,
    __NR_close_range,
    __NR_dup,
    __NR_dup3,
    __NR_fcntl,
    __NR_pipe2,
    __NR_eventfd2,
    __NR_signalfd4,
    __NR_epoll_create1,
    __NR_epoll_pwait2,
    __NR_ppoll,
    __NR_pselect6,
    __NR_timerfd_create,
    __NR_timerfd_settime,
    // Sockets
    __NR_bind,
    __NR_listen,
    __NR_accept,
    __NR_sendmmsg,
    __NR_recvmmsg,
    // Files
    __NR_openat,
    __NR_newfstatat,
    __NR_fstat,
    __NR_statx,
    __NR_statfs,
    __NR_fstatfs,
    __NR_faccessat,
    __NR_faccessat2,
    __NR_readlinkat,
    __NR_getdents64,
    __NR_getcwd,
    __NR_mkdirat,
    __NR_unlinkat,
    __NR_linkat,
    __NR_renameat2,
    __NR_flock,
    __NR_fsync,
    __NR_fdatasync,
    __NR_ftruncate,
    __NR_fallocate,
    __NR_fchown,
    __NR_fadvise64,
    __NR_inotify_init1,
    __NR_inotify_add_watch,
    __NR_inotify_rm_watch,
    // Memory
    __NR_brk,
    __NR_munmap,
    __NR_mremap,
    __NR_madvise,
    __NR_futex,
    __NR_getrandom,
    // Time
    __NR_clock_gettime,
    __NR_clock_getres,
    __NR_gettimeofday,
    __NR_nanosleep,
    __NR_clock_nanosleep,
    __NR_times,
    // Signals and processes
    __NR_rt_sigaction,
    __NR_rt_sigprocmask,
    __NR_rt_sigreturn,
    __NR_rt_sigpending,
    __NR_sigaltstack,
    __NR_restart_syscall,
    __NR_kill,
    __NR_tgkill,
    __NR_wait4,
    __NR_waitid,
    __NR_exit,
    __NR_exit_group,
    __NR_getpid,
    __NR_getppid,
    __NR_gettid,
    __NR_getpgid,
    __NR_getsid,
    __NR_setpriority,
    __NR_getpriority,
    __NR_set_robust_list,
    __NR_set_tid_address,
    __NR_rseq,
    __NR_sched_yield,
    __NR_sched_getaffinity,
    __NR_getrusage,
    // Who and where
    __NR_getuid,
    __NR_geteuid,
    __NR_getgid,
    __NR_getegid,
    __NR_getresuid,
    __NR_getresgid,
    __NR_getgroups,
    __NR_uname,
    __NR_sysinfo,
// Those that newer processors know by their successors only.
#ifdef __NR_open
    __NR_open,
    __NR_stat,
    __NR_lstat,
    __NR_access,
    __NR_readlink,
    __NR_mkdir,
    __NR_unlink,
    __NR_link,
    __NR_rename,
    __NR_poll,
    __NR_select,
    __NR_pipe,
    __NR_dup2,
    __NR_fork,
    __NR_getpgrp,
    __NR_time,
#endif
#ifdef __NR_renameat
    __NR_renameat,
#endif
};

constexpr std::uint32_t kIntruders[] = {
    __NR_execve,
    __NR_execveat,
    __NR_ptrace,
    __NR_process_vm_readv,
    __NR_process_vm_writev,
    __NR_init_module,
    __NR_finit_module,
    __NR_delete_module,
    __NR_kexec_load,
    __NR_bpf,
#ifdef __NR_kexec_file_load
    __NR_kexec_file_load,
#endif
};

constexpr std::uint32_t kNewNamespaces =
    CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;

class FilterProgram {
 public:
  FilterProgram() {
    Load(offsetof(seccomp_data, arch));
    IfEqual(kProcessor, 1, 0);
    Return(kEnd);
    LoadCall();
    EndOtherNumbers();
    for (const std::uint32_t call : kFrequent) Allow(call);
    for (const std::uint32_t call : kAllowed) Allow(call);
    for (const std::uint32_t call : kIntruders) Answer(call, kEnd);
    AddConditions();
    Return(kRefuse);
  }

  sock_fprog Get() { return {.len = static_cast<unsigned short>(code_.size()), .filter = code_.data()}; }

 private:
  void Add(std::uint16_t what, std::uint32_t value, std::uint8_t if_true = 0, std::uint8_t if_false = 0) {
    code_.push_back({what, if_true, if_false, value});
  }
  void Load(std::size_t offset) { Add(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset)); }
  void LoadCall() { Load(offsetof(seccomp_data, nr)); }
  // The lower half: the kernel looks at no more where the argument is an int.
  void LoadArgument(std::size_t index) { Load(offsetof(seccomp_data, args) + index * sizeof(std::uint64_t)); }
  void Return(std::uint32_t action) { Add(BPF_RET | BPF_K, action); }
  void IfEqual(std::uint32_t value, std::uint8_t skip_if_true, std::uint8_t skip_if_false) {
    Add(BPF_JMP | BPF_JEQ | BPF_K, value, skip_if_true, skip_if_false);
  }
  void Answer(std::uint32_t value, std::uint32_t action) {
    IfEqual(value, 0, 1);
    Return(action);
  }
  void Allow(std::uint32_t call) { Answer(call, kAllow); }

  // The same calls by other numbers, which nothing here uses.
  void EndOtherNumbers() {
#if defined(__x86_64__)
    constexpr std::uint32_t kX32Bit = 0x40000000;
    Add(BPF_JMP | BPF_JGE | BPF_K, kX32Bit, 0, 1);
    Return(kEnd);
#endif
  }

  // What `then` adds answers the call in any case.
  template <class Then>
  void If(std::uint32_t call, Then then) {
    const std::size_t test = code_.size();
    IfEqual(call, 0, 0);
    then();
    code_[test].jf = static_cast<std::uint8_t>(code_.size() - test - 1);
  }
  void AllowWhereOneOf(std::uint32_t call, std::size_t argument,
                       std::initializer_list<std::uint32_t> values) {
    If(call, [&] {
      LoadArgument(argument);
      for (const std::uint32_t value : values) Answer(value, kAllow);
      Return(kRefuse);
    });
  }
  void AllowWithoutBits(std::uint32_t call, std::size_t argument, std::uint32_t bits) {
    If(call, [&] {
      LoadArgument(argument);
      Add(BPF_JMP | BPF_JSET | BPF_K, bits, 0, 1);
      Return(kRefuse);
      Return(kAllow);
    });
  }

  void AddConditions() {
    AddSockets();
    // A forked copy saves the records. What clone3 is to do lies in memory, where a filter cannot look; the C library
    // then goes back to clone.
    AllowWithoutBits(__NR_clone, 0, kNewNamespaces | CLONE_PTRACE);
    Answer(__NR_clone3, kUnknownCall);
    // Memory that can be written is never run.
    If(__NR_mmap, [&] {
      LoadArgument(2);
      Add(BPF_ALU | BPF_AND | BPF_K, PROT_WRITE | PROT_EXEC);
      Answer(PROT_WRITE | PROT_EXEC, kRefuse);
      Return(kAllow);
    });
    AllowWithoutBits(__NR_mprotect, 2, PROT_EXEC);
    // The size of a pipe or a queue and the modes of a terminal; not to put keys into one (TIOCSTI).
    AllowWhereOneOf(__NR_ioctl, 1,
                    {FIONREAD, FIONBIO, SIOCOUTQ, TCGETS, TCSETS, TCSETSW, TCSETSF, TIOCGWINSZ, TIOCGPGRP,
                     SIOCGIFINDEX, SIOCGIFNAME});
    AllowWhereOneOf(__NR_prctl, 0,
                    {PR_SET_NAME, PR_GET_NAME, PR_SET_PDEATHSIG, PR_GET_NO_NEW_PRIVS, PR_GET_DUMPABLE});
    // A limit can be asked for, not changed.
    If(__NR_prlimit64, [&] {
      LoadArgument(2);
      IfEqual(0, 1, 0);
      Return(kRefuse);
      Load(offsetof(seccomp_data, args) + 2 * sizeof(std::uint64_t) + sizeof(std::uint32_t));
      IfEqual(0, 1, 0);
      Return(kRefuse);
      Return(kAllow);
    });
#ifdef __NR_getrlimit
    Allow(__NR_getrlimit);
#endif
  }

  // TCP, UDP and Unix sockets. Of the kernel's own: routes tell the addresses of this machine, the table of sockets
  // tells whose the name of an instance is.
  void AddSockets() {
    If(__NR_socket, [&] {
      LoadArgument(0);
      const std::size_t netlink = code_.size();
      IfEqual(AF_NETLINK, 0, 0);
      LoadArgument(2);
      Answer(NETLINK_ROUTE, kAllow);
      Answer(NETLINK_SOCK_DIAG, kAllow);
      Return(kRefuse);
      code_[netlink].jf = static_cast<std::uint8_t>(code_.size() - netlink - 1);
      IfEqual(AF_INET, 3, 0);
      IfEqual(AF_INET6, 2, 0);
      IfEqual(AF_UNIX, 1, 0);
      Return(kRefuse);
      LoadArgument(1);
      Add(BPF_ALU | BPF_AND | BPF_K, 0xF);  // without SOCK_NONBLOCK and SOCK_CLOEXEC
      Answer(SOCK_STREAM, kAllow);
      Answer(SOCK_DGRAM, kAllow);
      Return(kRefuse);
    });
    AllowWhereOneOf(__NR_socketpair, 0, {AF_UNIX});
  }

  std::vector<sock_filter> code_;
};

}  // namespace

bool HasSystemCallFilter() {
  const std::uint32_t action = kEnd;
  return kProcessor != 0 && syscall(SYS_seccomp, SECCOMP_GET_ACTION_AVAIL, 0, &action) == 0;
}

bool FilterSystemCalls() {
  if (!HasSystemCallFilter()) return false;
  FilterProgram filter;
  sock_fprog code = filter.Get();
  // Without the flag a kernel before 5.16 makes every guess of the processor cost more.
  return syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_SPEC_ALLOW, &code) == 0 ||
         syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &code) == 0;
}

}  // namespace trabex
