// A library that the lab preloads into the daemon. It moves the wall clock and the monotonic clock
// each by an offset in microseconds, or stops them at given values. Both are in a file that the lab
// and the daemon map, so that the lab can change them at any time.
//
// Absolute timers are moved back to the kernel's time when they are set. One that is already
// running when the monotonic clock jumps still expires at its old time, unless the process reads
// the clock earlier; so the lab pings it after each jump.
//
// Where time_t has 32 bits, programs may be built with 32 or 64 bits, and each variant has its own
// functions. The 64-bit functions do the work; the 32-bit ones, at the end, call them.
#define _GNU_SOURCE
#define _TIME_BITS 64
#define _FILE_OFFSET_BITS 64
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#ifdef SYS_clock_gettime64
enum { kClockGettime = SYS_clock_gettime64, kTimerfdSettime = SYS_timerfd_settime64 };
#else
enum { kClockGettime = SYS_clock_gettime, kTimerfdSettime = SYS_timerfd_settime };
#endif

struct Offsets {
  int64_t wall;
  int64_t monotonic;
  // Not zero: they are no offsets, but the time itself.
  int64_t stopped;
};

static const struct Offsets kNone;
static const volatile struct Offsets* g_offsets = &kNone;

__attribute__((constructor)) static void MapOffsets(void) {
  const char* const path = getenv("CLOCK_SHIFT_FILE");
  const int file = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  void* const map =
      file < 0 ? MAP_FAILED : mmap(NULL, sizeof(struct Offsets), PROT_READ, MAP_SHARED, file, 0);
  if (map == MAP_FAILED) abort();
  close(file);
  g_offsets = map;
}

static int64_t OffsetOf(clockid_t clock) {
  switch (clock) {
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
    case CLOCK_REALTIME_ALARM:
      return g_offsets->wall;
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_COARSE:
    case CLOCK_MONOTONIC_RAW:
    case CLOCK_BOOTTIME:
    case CLOCK_BOOTTIME_ALARM:
      return g_offsets->monotonic;
    default:
      return 0;
  }
}

static struct timespec Moved(struct timespec time, int64_t microseconds) {
  const int64_t nanoseconds = time.tv_nsec + microseconds % 1000000 * 1000;
  const int64_t carry = nanoseconds < 0 ? -1 : nanoseconds / 1000000000;
  time.tv_sec += microseconds / 1000000 + carry;
  time.tv_nsec = nanoseconds - carry * 1000000000;
  return time;
}

// A stopped monotonic clock still advances by 1 µs whenever it is read, because libcurl cannot
// distinguish two timers of the same time.
static int64_t NextMonotonic(int64_t least) {
  static int64_t g_shown;
  int64_t shown = __atomic_load_n(&g_shown, __ATOMIC_SEQ_CST);
  int64_t next;
  do next = shown + 1 > least ? shown + 1 : least;
  while (
      !__atomic_compare_exchange_n(&g_shown, &shown, next, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST));
  return next;
}

static struct timespec StoppedTime(clockid_t clock) {
  const int64_t time = OffsetOf(clock);
  return Moved((struct timespec){0}, clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE
                                         ? time
                                         : NextMonotonic(time));
}

int clock_gettime(clockid_t clock, struct timespec* time) {
  // Clocks that are not ours, of CPU time, run on.
  if (g_offsets->stopped && OffsetOf(clock) != 0) {
    *time = StoppedTime(clock);
    return 0;
  }
  const int result = (int)syscall(kClockGettime, clock, time);
  if (result == 0) *time = Moved(*time, OffsetOf(clock));
  return result;
}

int gettimeofday(struct timeval* restrict time, void* restrict zone) {
  (void)zone;
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  time->tv_sec = now.tv_sec;
  time->tv_usec = now.tv_nsec / 1000;
  return 0;
}

time_t time(time_t* seconds) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (seconds) *seconds = now.tv_sec;
  return now.tv_sec;
}

// The clocks of the timers made so far, by descriptor; those of higher descriptors are not moved.
enum { kMaxTimers = 1024 };
static clockid_t g_timer_clocks[kMaxTimers];

int timerfd_create(clockid_t clock, int flags) {
  const int timer = (int)syscall(SYS_timerfd_create, clock, flags);
  if (timer >= 0 && timer < kMaxTimers) g_timer_clocks[timer] = clock;
  return timer;
}

// Sets a timer of a stopped clock to expire at once, or not before it is set again. An event loop
// that tolerates late timers sets them a little late; if one is not due, the loop reads the clock
// and sets the timer again until the clock has advanced to it.
static struct timespec UntilStoppedTime(clockid_t clock, struct timespec due) {
  enum { kLateMicroseconds = 5000 };
  const struct timespec soon = Moved(StoppedTime(clock), kLateMicroseconds);
  const int is_due =
      due.tv_sec < soon.tv_sec || (due.tv_sec == soon.tv_sec && due.tv_nsec <= soon.tv_nsec);
  return (struct timespec){.tv_nsec = is_due ? 1 : 0};
}

int timerfd_settime(int timer, int flags, const struct itimerspec* value, struct itimerspec* old) {
  struct itimerspec moved = *value;
  const int armed = value->it_value.tv_sec != 0 || value->it_value.tv_nsec != 0;
  if (armed && (flags & TFD_TIMER_ABSTIME) && timer >= 0 && timer < kMaxTimers) {
    const clockid_t clock = g_timer_clocks[timer];
    moved.it_value = g_offsets->stopped ? UntilStoppedTime(clock, value->it_value)
                                        : Moved(value->it_value, -OffsetOf(clock));
    // A time before the kernel's zero has long passed; zero itself would disarm the timer.
    if (moved.it_value.tv_sec < 0) moved.it_value = (struct timespec){.tv_nsec = 1};
  }
  return (int)syscall(kTimerfdSettime, timer, flags, &moved, old);
}

#if defined(__TIMESIZE) && __TIMESIZE == 32

struct Timespec32 {
  int32_t seconds;
  int32_t nanoseconds;
};

struct Timeval32 {
  int32_t seconds;
  int32_t microseconds;
};

struct Timer32 {
  struct Timespec32 interval;
  struct Timespec32 value;
};

// Under the names without a 64, because the headers redirect these to the functions above.
int ClockGettime32(clockid_t clock, struct Timespec32* time) __asm__("clock_gettime");
int Gettimeofday32(struct Timeval32* time, void* zone) __asm__("gettimeofday");
int32_t Time32(int32_t* seconds) __asm__("time");
int TimerfdSettime32(int timer, int flags, const struct Timer32* value,
                     struct Timer32* old) __asm__("timerfd_settime");

int ClockGettime32(clockid_t clock, struct Timespec32* time) {
  struct timespec now;
  const int result = clock_gettime(clock, &now);
  if (result == 0) *time = (struct Timespec32){(int32_t)now.tv_sec, (int32_t)now.tv_nsec};
  return result;
}

int Gettimeofday32(struct Timeval32* time, void* zone) {
  struct timeval now;
  const int result = gettimeofday(&now, zone);
  if (result == 0) *time = (struct Timeval32){(int32_t)now.tv_sec, (int32_t)now.tv_usec};
  return result;
}

int32_t Time32(int32_t* seconds) {
  const int32_t now = (int32_t)time(NULL);
  if (seconds) *seconds = now;
  return now;
}

static struct timespec Widened(struct Timespec32 time) {
  return (struct timespec){.tv_sec = time.seconds, .tv_nsec = time.nanoseconds};
}

static struct Timespec32 Narrowed(struct timespec time) {
  return (struct Timespec32){(int32_t)time.tv_sec, (int32_t)time.tv_nsec};
}

int TimerfdSettime32(int timer, int flags, const struct Timer32* value, struct Timer32* old) {
  const struct itimerspec wide = {Widened(value->interval), Widened(value->value)};
  struct itimerspec was;
  const int result = timerfd_settime(timer, flags, &wide, old ? &was : NULL);
  if (result == 0 && old)
    *old = (struct Timer32){Narrowed(was.it_interval), Narrowed(was.it_value)};
  return result;
}

#endif
