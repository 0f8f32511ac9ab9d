#include "platform/sandbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <net/ethernet.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files.h"
#include "platform/linux/process/landlock.h"
#include "support/child_process.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

// What a try came to: 0, or the system's code.
int CodeOf(long result) {
  return result < 0 ? errno : 0;
}

int OpenToRead(const std::string& path) {
  return CodeOf(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

int OpenToWrite(const std::string& path) {
  return CodeOf(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
}

int MakeSocket(int family, int type, int protocol) {
  return CodeOf(socket(family, type, protocol));
}

class Sandbox : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto why_not = WhyNoSandbox()) GTEST_SKIP() << *why_not;
    for (const char* const folder : {"read", "write", "other", "links"}) {
      ASSERT_EQ(mkdir((folder_ / folder).c_str(), 0755), 0);
    }
    WriteFile(folder_ / "read/Trabex.ini", "[Common]\n");
    WriteFile(folder_ / "read/list.txt", "x\n");
    WriteFile(folder_ / "write/database", "x");
    WriteFile(folder_ / "other/secret", "x");
    ASSERT_EQ(symlink((folder_ / "read/Trabex.ini").c_str(), (folder_ / "links/ini").c_str()), 0);
  }

  // Runs `body` in a child that is enclosed as the program is; what it returns, or -signal.
  int InSandbox(const std::function<int()>& body) {
    ChildProcess child([&] {
      const auto why_not = EncloseProcess({.read_files = {folder_ / "links/ini", folder_ / "gone/none.ini"},
                                           .read_places = {},
                                           .write_folders = {folder_ / "write"}});
      return why_not ? 255 : body();
    });
    return child.Wait();
  }

  TempFolder folder_;
};

struct Try {
  const char* what;
  std::function<int()> make;  // what it came to, as CodeOf
};

TEST_F(Sandbox, RefusesOneByOneWhatTheProgramHasNoUseFor) {
  const std::string other = folder_ / "other/";
  const std::string inside = folder_ / "write/";
  const std::string read_only = folder_ / "read/";
  const pid_t stranger = getpid();
  const std::vector<Try> files = {
      {"read /etc/shadow", [] { return OpenToRead("/etc/shadow"); }},
      {"read a file elsewhere", [&] { return OpenToRead(other + "secret"); }},
      {"read it by way of an allowed folder", [&] { return OpenToRead(inside + "../other/secret"); }},
      {"list a folder elsewhere", [&] { return CodeOf(open(other.c_str(), O_RDONLY | O_DIRECTORY)); }},
      {"read the memory of another process",
       [&] { return OpenToRead("/proc/" + std::to_string(stranger) + "/mem"); }},
      {"write elsewhere", [&] { return OpenToWrite(other + "new"); }},
      {"write over the initialization file", [&] { return OpenToWrite(read_only + "Trabex.ini"); }},
      {"make a file beside it", [&] { return OpenToWrite(read_only + "new"); }},
      {"empty it", [&] { return CodeOf(open((read_only + "Trabex.ini").c_str(), O_RDONLY | O_TRUNC)); }},
      {"remove it", [&] { return CodeOf(unlink((read_only + "Trabex.ini").c_str())); }},
      {"move it away",
       [&] { return CodeOf(rename((read_only + "list.txt").c_str(), (inside + "list.txt").c_str())); }},
      {"move something over it",
       [&] { return CodeOf(rename((inside + "database").c_str(), (read_only + "Trabex.ini").c_str())); }},
      {"link it to where one may write",
       [&] { return CodeOf(link((other + "secret").c_str(), (inside + "secret").c_str())); }},
      {"make a folder", [&] { return CodeOf(mkdir((inside + "folder").c_str(), 0700)); }},
      {"make a symbolic link", [&] { return CodeOf(symlink("/etc/shadow", (inside + "link").c_str())); }},
      {"make a FIFO", [&] { return CodeOf(mkfifo((inside + "fifo").c_str(), 0600)); }},
      {"change permissions", [&] { return CodeOf(chmod((inside + "database").c_str(), 0777)); }},
      {"change an owner", [&] { return CodeOf(chown((inside + "database").c_str(), 1, 1)); }},
      {"cut a file by its name", [&] { return CodeOf(truncate((inside + "database").c_str(), 0)); }},
      {"change a file's times", [&] { return CodeOf(utimensat(AT_FDCWD, inside.c_str(), nullptr, 0)); }},
      {"change the root folder", [&] { return CodeOf(chroot(inside.c_str())); }},
      {"change the current folder", [&] { return CodeOf(chdir("/")); }},
      {"mount", [&] { return CodeOf(mount("none", inside.c_str(), "tmpfs", 0, nullptr)); }},
      {"unmount", [] { return CodeOf(umount("/proc")); }},
      {"open a file by its handle",
       [] { return CodeOf(syscall(SYS_open_by_handle_at, AT_FDCWD, nullptr, 0)); }},
  };
  const std::vector<Try> sockets = {
      {"packets", [] { return MakeSocket(AF_PACKET, SOCK_RAW, ETH_P_ALL); }},
      {"raw IP", [] { return MakeSocket(AF_INET, SOCK_RAW, 1); }},
      {"raw IPv6", [] { return MakeSocket(AF_INET6, SOCK_RAW, 58); }},
      {"netlink, generic", [] { return MakeSocket(AF_NETLINK, SOCK_RAW, NETLINK_GENERIC); }},
      {"netlink, audit", [] { return MakeSocket(AF_NETLINK, SOCK_RAW, NETLINK_AUDIT); }},
      {"netlink, netfilter", [] { return MakeSocket(AF_NETLINK, SOCK_RAW, NETLINK_NETFILTER); }},
      {"VM sockets", [] { return MakeSocket(AF_VSOCK, SOCK_STREAM, 0); }},
      {"crypto", [] { return MakeSocket(AF_ALG, SOCK_SEQPACKET, 0); }},
      {"a pair of others than Unix sockets",
       [] {
         int ends[2];
         return CodeOf(socketpair(AF_INET, SOCK_STREAM, 0, ends));
       }},
  };
  const std::vector<Try> processes = {
      {"become root", [] { return CodeOf(setuid(0)); }},
      {"become somebody else", [] { return CodeOf(setresuid(1, 1, 1)); }},
      {"change the group", [] { return CodeOf(setgid(1)); }},
      {"signal a stranger", [&] { return CodeOf(kill(stranger, 0)); }},
      {"make a namespace", [] { return CodeOf(unshare(CLONE_NEWUSER)); }},
      {"fork into a namespace",
       [] { return CodeOf(syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0)); }},
      {"enter a namespace", [] { return CodeOf(setns(0, 0)); }},
      {"raise a limit",
       [] {
         const rlimit limit{16, 16};
         return CodeOf(setrlimit(RLIMIT_CORE, &limit));
       }},
      {"let itself be dumped", [] { return CodeOf(prctl(PR_SET_DUMPABLE, 1)); }},
      {"be an io_uring", [] { return CodeOf(syscall(SYS_io_uring_setup, 1, nullptr)); }},
      {"use a key ring", [] { return CodeOf(syscall(SYS_keyctl, 0, 0, 0, 0, 0)); }},
      {"watch performance", [] { return CodeOf(syscall(SYS_perf_event_open, nullptr, 0, 0, 0, 0)); }},
      {"make a file without a name", [] { return CodeOf(syscall(SYS_memfd_create, "x", 0)); }},
      {"write into memory that can be run",
       [] {
         void* const page =
             mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         return page == MAP_FAILED ? errno : 0;
       }},
      {"run memory that was written",
       [] {
         void* const page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         return CodeOf(mprotect(page, 4096, PROT_READ | PROT_EXEC));
       }},
      {"put keys into a terminal", [] { return CodeOf(ioctl(STDIN_FILENO, TIOCSTI, "x")); }},
      {"set the clock", [] { return CodeOf(syscall(SYS_clock_settime, 0, nullptr)); }},
      {"name the machine", [] { return CodeOf(sethostname("x", 1)); }},
      {"restart the machine", [] { return CodeOf(syscall(SYS_reboot, 0, 0, 0, nullptr)); }},
      {"have a file watched by fanotify", [] { return CodeOf(syscall(SYS_fanotify_init, 0, 0)); }},
      {"handle page faults", [] { return CodeOf(syscall(SYS_userfaultfd, 0)); }},
  };
  // What older versions of Landlock cannot keep from the process.
  const auto is_known = [](std::string_view what) {
    if (what == "empty it") return LandlockVersion() >= 3;
    return what != "signal a stranger" || LandlockVersion() >= 6;
  };
  for (const auto& group : {files, sockets, processes}) {
    for (const Try& attempt : group) {
      if (!is_known(attempt.what)) continue;
      const int code = InSandbox(attempt.make);
      const bool refused = code == EPERM || code == EACCES || code == EXDEV;
      EXPECT_TRUE(refused) << attempt.what << ": " << code;
    }
  }
}

TEST_F(Sandbox, EndsWhoTriesWhatOnlyAnIntruderWould) {
  const std::vector<Try> attempts = {
    {"run a program", [] { return CodeOf(execl("/bin/true", "true", nullptr)); }},
    {"run a program that is open", [] { return CodeOf(syscall(SYS_execveat, 0, "", nullptr, nullptr, 0)); }},
    {"look into a process", [] { return CodeOf(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr)); }},
    {"read another process's memory",
     [] { return CodeOf(syscall(SYS_process_vm_readv, 1, nullptr, 0, nullptr, 0, 0)); }},
    {"write another process's memory",
     [] { return CodeOf(syscall(SYS_process_vm_writev, 1, nullptr, 0, nullptr, 0, 0)); }},
    {"load a module", [] { return CodeOf(syscall(SYS_finit_module, 0, "", 0)); }},
    {"load code into the kernel", [] { return CodeOf(syscall(SYS_bpf, 0, nullptr, 0)); }},
    {"load another kernel", [] { return CodeOf(syscall(SYS_kexec_load, 0, 0, nullptr, 0)); }},
#if defined(__x86_64__)
    {"call by other numbers", [] { return CodeOf(syscall(0x40000000 | SYS_getpid)); }},
#endif
  };
  for (const Try& attempt : attempts) EXPECT_EQ(InSandbox(attempt.make), -SIGSYS) << attempt.what;
}

// Each line of a file that is replaced is read, and nothing of what the program does at run time is lost.
TEST_F(Sandbox, LetsThroughWhatTheProgramDoes) {
  const std::string inside = folder_ / "write/";
  const std::vector<Try> attempts = {
      {"read a file by a link", [&] { return OpenToRead(folder_ / "links/ini"); }},
      {"read another file of the folder", [&] { return OpenToRead(folder_ / "read/list.txt"); }},
      {"write and move",
       [&] {
         if (const int code = OpenToWrite(inside + "new")) return code;
         if (link((inside + "database").c_str(), (inside + "backup").c_str()) != 0) return errno;
         return CodeOf(rename((inside + "new").c_str(), (inside + "database").c_str()));
       }},
      {"remove", [&] { return CodeOf(unlink((inside + "database").c_str())); }},
      {"TCP", [] { return MakeSocket(AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }},
      {"UDP", [] { return MakeSocket(AF_INET, SOCK_DGRAM, 17); }},
      {"Unix", [] { return MakeSocket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }},
      {"the own addresses", [] { return MakeSocket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE); }},
      {"the table of sockets",
       [] { return MakeSocket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG); }},
      {"fork, and end the copy",
       [] {
         const pid_t copy = fork();
         while (copy == 0) poll(nullptr, 0, -1);
         if (copy < 0 || kill(copy, SIGKILL) != 0) return errno;
         return CodeOf(waitpid(copy, nullptr, 0));
       }},
      {"time zones", [] { return OpenToRead("/usr"); }},
      {"nothing", [] { return CodeOf(open("/dev/null", O_RDWR)); }},
      {"its own limits",
       [] {
         rlimit limit{};
         return CodeOf(getrlimit(RLIMIT_NOFILE, &limit));
       }},
      {"its own state", [] { return OpenToRead("/proc/self/status"); }},
  };
  for (const Try& attempt : attempts) EXPECT_EQ(InSandbox(attempt.make), 0) << attempt.what;
}

TEST_F(Sandbox, AFileThatIsReplacedIsReadAgain) {
  Notice enclosed;
  Notice replaced;
  ChildProcess child([&] {
    if (EncloseProcess({.read_files = {folder_ / "links/ini"}, .read_places = {}, .write_folders = {}}))
      return 1;
    enclosed.Give();
    replaced.Await();
    if (OpenToRead(folder_ / "read/Trabex.ini") != 0) return 2;
    return OpenToRead(folder_ / "links/ini") == 0 ? 0 : 3;
  });
  enclosed.Await();
  WriteFile(folder_ / "read/new", "[Common]\n");
  ASSERT_EQ(rename((folder_ / "read/new").c_str(), (folder_ / "read/Trabex.ini").c_str()), 0);
  ASSERT_EQ(unlink((folder_ / "links/ini").c_str()), 0);
  WriteFile(folder_ / "links/ini", "[Common]\n");
  replaced.Give();
  EXPECT_EQ(child.Wait(), 0);
}

TEST_F(Sandbox, TellsWhatIsOutside) {
  const std::string inside = folder_ / "write";
  const std::string other = folder_ / "other";
  EXPECT_FALSE(SandboxForbidsReading(other + "/secret"));
  EXPECT_FALSE(SandboxForbidsWritingIn(other));
  EXPECT_EQ(InSandbox([&] {
              if (!SandboxForbidsReading(other + "/secret") || SandboxForbidsReading(other + "/none"))
                return 1;
              if (SandboxForbidsReading(inside + "/database")) return 2;
              if (!SandboxForbidsWritingIn(other) || SandboxForbidsWritingIn(inside)) return 3;
              if (SandboxForbidsWritingIn(other + "/none")) return 4;
              AppendFile file;
              if (file.Open(other + "/log") || file.WhyNotOpened() != kOutsideSandbox) return 5;
              return file.Open(inside + "/log") ? 0 : 6;
            }),
            0);
}

// A folder beside a folder for logs: whoever may make one there could change all that lies beside it and is his.
TEST_F(Sandbox, FoldersAreMadeOnlyBesideWhatDecidesNothing) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  constexpr uid_t kNobody = 65534;
  const std::string top = folder_ / "top";
  const std::string file = folder_ / "top/file";
  const std::string tree = folder_ / "top/tree";
  for (const std::string& folder : {top, top + "/Log", tree}) ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  WriteFile(file, "x");
  // The files at its end are root's, but the link is not.
  ASSERT_EQ(symlink((folder_ / "read").c_str(), (folder_ / "top/link").c_str()), 0);
  for (const std::string& place : {top, top + "/Log", file}) {
    ASSERT_EQ(chown(place.c_str(), kNobody, kNobody), 0);
  }
  const struct {
    const char* variable;  // nullptr: none
    std::string value;
    std::vector<std::string> read_files;
    std::vector<std::string> read_places;
    int code;  // of making a folder
  } rows[] = {
      {nullptr, "", {}, {}, 0},
      {nullptr, "", {folder_ / "read/Trabex.ini"}, {folder_ / "other"}, 0},
      {"OPENSSL_CONF", folder_ / "read/Trabex.ini", {}, {}, 0},
      {"OPENSSL_CONF", file, {}, {}, EACCES},
      {"OPENSSL_CONF", top + "/none", {}, {}, EACCES},  // it could be made
      {"SSL_CERT_FILE", file, {}, {}, EACCES},
      {"SSL_CERT_DIR", tree, {}, {}, EACCES},
      {"TERMINFO", tree, {}, {}, EACCES},
      {nullptr, "", {}, {file}, EACCES},
      {nullptr, "", {}, {tree}, EACCES},
      {nullptr, "", {top + "/link/Trabex.ini"}, {}, EACCES},
      {"SSL_CERT_FILE", top + "/link/list.txt", {}, {}, EACCES},
  };
  for (const auto& row : rows) {
    ChildProcess child([&] {
      for (const char* const name : {"OPENSSL_CONF", "SSL_CERT_FILE", "SSL_CERT_DIR", "TERMINFO"})
        unsetenv(name);
      if (row.variable != nullptr) setenv(row.variable, row.value.c_str(), 1);
      if (setgid(kNobody) != 0 || setuid(kNobody) != 0) return 255;
      if (EncloseProcess({.read_files = row.read_files,
                          .read_places = row.read_places,
                          .write_folders = {top + "/Log"},
                          .folders_are_replaced = true}))
        return 254;
      return CodeOf(mkdir((top + "/new").c_str(), 0700));
    });
    EXPECT_EQ(child.Wait(), row.code)
        << (row.variable == nullptr ? "" : row.variable) << ' ' << row.value << ' '
        << testing::PrintToString(row.read_files) << ' ' << testing::PrintToString(row.read_places);
    rmdir((top + "/new").c_str());
  }
}

// All of it, and for the processes that come from this one.
TEST_F(Sandbox, HoldsForForkedProcesses) {
  EXPECT_EQ(InSandbox([&] {
              ChildProcess copy([&] { return OpenToRead(folder_ / "other/secret"); });
              return copy.Wait();
            }),
            EACCES);
  EXPECT_EQ(InSandbox([] {
              std::ifstream status("/proc/self/status");
              int found = 0;
              for (std::string name, value; status >> name;) {
                if (name == "NoNewPrivs:" && status >> value && value == "1") ++found;
                if (name == "Seccomp:" && status >> value && value == "2") ++found;
              }
              return found;
            }),
            2);
}

}  // namespace
}  // namespace trabex
