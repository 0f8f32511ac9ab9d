// A library that is loaded into a program (LD_PRELOAD) whose clocks a test moves; nobody else's clocks move.
//
// SHIFTED_CLOCK names a file of two numbers, 64 bits each in the order of the machine: by how many nanoseconds the
// wall clock is ahead of the system's, and by how many the monotonic clock is. They are read at each question, so
// the test moves the clocks by writing into the file in place, and a question costs no system call more. Waits
// keep the length that the program gave them: timers that a jump makes due are called when it wakes.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

struct Shifts {
  std::atomic<std::int64_t> wall;
  std::atomic<std::int64_t> monotonic;
};
static_assert(sizeof(Shifts) == 16 && std::atomic<std::int64_t>::is_always_lock_free);

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  _exit(EXIT_FAILURE);
}

const Shifts* MapShifts() {
  const char* const path = std::getenv("SHIFTED_CLOCK");
  const int file = open(path != nullptr ? path : "", O_RDONLY | O_CLOEXEC);
  if (file < 0) Fail("SHIFTED_CLOCK");
  void* const mapped = mmap(nullptr, sizeof(Shifts), PROT_READ, MAP_SHARED, file, 0);
  if (mapped == MAP_FAILED) Fail("SHIFTED_CLOCK");
  close(file);
  return static_cast<const Shifts*>(mapped);
}

const Shifts& GetShifts() {
  static const Shifts* const shifts = MapShifts();
  return *shifts;
}

using GetTime = int (*)(clockid_t, timespec*);

int SystemTime(clockid_t clock, timespec* time) {
  static const auto next = reinterpret_cast<GetTime>(dlsym(RTLD_NEXT, "clock_gettime"));
  return next(clock, time);
}

std::int64_t ShiftOf(clockid_t clock) {
  switch (clock) {
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
      return GetShifts().wall;
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_COARSE:
    case CLOCK_MONOTONIC_RAW:
    case CLOCK_BOOTTIME:
      return GetShifts().monotonic;
    default:
      return 0;
  }
}

// Before the program's own first line, so that its first question is like all others.
[[gnu::constructor]] void Prepare() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const int result = SystemTime(clock, time);
  if (result != 0) return result;
  const std::int64_t moved = time->tv_nsec + ShiftOf(clock);
  const std::int64_t seconds =
      moved >= 0 ? moved / kNanoseconds : -((kNanoseconds - 1 - moved) / kNanoseconds);
  time->tv_sec += seconds;
  time->tv_nsec = moved - seconds * kNanoseconds;
  return 0;
}

int gettimeofday(timeval* time, void* /*zone*/) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  time->tv_sec = now.tv_sec;
  time->tv_usec = now.tv_nsec / 1000;
  return 0;
}

time_t time(time_t* result) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}
}
