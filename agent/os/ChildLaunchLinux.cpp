// The raw start of a child process on Linux (ChildLaunch.h). Everything of
// ChildProcess that goes past the C library lives here, in one file, with
// what it assumes written down and checked as it builds.
//
// Why it is raw: the child shares the agent's memory (clone with CLONE_VM)
// and the agent's thread goes on at once, without waiting for it to exec
// (no CLONE_VFORK). Waiting for the exec cost about a millisecond a start on
// a loaded machine; not waiting, tens of microseconds. The price is that,
// until it execs, the child runs beside the agent's thread in the same
// memory, with that thread's TLS, errno and sanitizer state: it must touch
// none of them. So it makes raw system calls only (libc's wrappers set
// errno), on a stack of its own, and calls no function at all.
//
// What this file assumes, and what checks it:
// - Linux on x86-64 or arm64, LP64: the system calls are inline assembly for
//   those two ABIs. Any other target stops at an #error below.
// - The system call numbers of those ABIs, which never change: each is
//   checked against the kernel headers' number.
// - The kernel's own struct sigaction (not the C library's), and a signal
//   mask of 64 signals in 8 bytes, the size rt_sigaction and rt_sigprocmask
//   insist on: they come from the kernel headers, and their layout is
//   checked against the ABI's (a smaller struct would have the kernel write
//   past it; another mask size makes every call fail, leaving the agent's
//   handlers in place).
// - No instrumentation in the child's code: sanitizers, coverage counters
//   and stack protector reach for state the agent's thread is using, or call
//   into runtimes that do. CMake builds this file without them (see
//   agent/CMakeLists.txt), this file refuses to build where the compiler
//   says any of them is on, and a build step (ChildCodeCheck.cmake) fails
//   the build where the child's object code refers to any symbol or calls
//   through a pointer, which is how instrumentation that the compiler does
//   not announce (gcc's UndefinedBehaviorSanitizer and coverage) shows.
// - A kernel of 5.11 or later at run time, for CLONE_PIDFD (5.2), polling a
//   pidfd (5.3) and close_range with CLOSE_RANGE_CLOEXEC (5.11). That cannot
//   be checked while building.
//
// Nothing of the C++ library is included: its inline functions, built here
// without instrumentation, could stand in for the instrumented ones
// elsewhere. Of the C library, only <sched.h> (clone) and <errno.h>: the
// kernel's signal definitions clash with its <signal.h> and <sys/types.h>.

#if !defined(__linux__)
#error "ChildLaunchLinux.cpp starts children the Linux way and builds for Linux only"
#endif
#if !(defined(__x86_64__) || defined(__aarch64__)) || defined(__ILP32__)
#error "the child's raw system calls are written for x86-64 and arm64 (LP64) only"
#endif

// Instrumentation the compiler announces. What it does not announce, the
// object code check finds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__SANITIZE_HWADDRESS__)
#error "a sanitizer is on for ChildLaunchLinux.cpp; its child must run uninstrumented"
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(hwaddress_sanitizer) || \
    __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer) ||     \
    __has_feature(dataflow_sanitizer) || __has_feature(safe_stack) ||         \
    __has_feature(undefined_behavior_sanitizer) || __has_feature(coverage_sanitizer)
#error "a sanitizer or coverage is on for ChildLaunchLinux.cpp; its child must run uninstrumented"
#endif
#endif
#if defined(__SSP__) || defined(__SSP_STRONG__) || defined(__SSP_ALL__)
#error "the stack protector is on for ChildLaunchLinux.cpp; its child must run uninstrumented"
#endif

#include "agent/os/ChildLaunch.h"

// The C library's clone and errno; the kernel's own signal definitions,
// system call numbers and close_range flags.
#include <errno.h>
#include <sched.h>

#include <asm/signal.h>
#include <asm/unistd.h>
#include <linux/close_range.h>

namespace AclAgent {
namespace {

static_assert(sizeof(long) == 8 && sizeof(void*) == 8, "the system calls take 64-bit words");
static_assert(ChildExec::kStackSize % 16 == 0 && alignof(ChildExec) >= 16,
              "both ABIs want the stack pointer 16-byte aligned at the call");

// The system calls the child makes, by number.
#if defined(__x86_64__)
constexpr long kRtSigaction = 13;
constexpr long kRtSigprocmask = 14;
constexpr long kExecve = 59;
constexpr long kSetpgid = 109;
constexpr long kDup3 = 292;
constexpr long kSetns = 308;
constexpr long kCloseRange = 436;
#else
constexpr long kRtSigaction = 134;
constexpr long kRtSigprocmask = 135;
constexpr long kExecve = 221;
constexpr long kSetpgid = 154;
constexpr long kDup3 = 24;
constexpr long kSetns = 268;
constexpr long kCloseRange = 436;
#endif
// The kernel headers number them as the ABI the assembly is written for.
static_assert(kRtSigaction == __NR_rt_sigaction, "rt_sigaction: another ABI's number");
static_assert(kRtSigprocmask == __NR_rt_sigprocmask, "rt_sigprocmask: another ABI's number");
static_assert(kExecve == __NR_execve, "execve: another ABI's number");
static_assert(kSetpgid == __NR_setpgid, "setpgid: another ABI's number");
static_assert(kDup3 == __NR_dup3, "dup3: another ABI's number");
static_assert(kSetns == __NR_setns, "setns: another ABI's number");
static_assert(kCloseRange == __NR_close_range, "close_range: another ABI's number");

// The kernel's struct sigaction and signal set, as rt_sigaction reads and
// writes them on both ABIs.
using KernelSigaction = struct sigaction;
constexpr unsigned long kSigsetSize = 8;
constexpr int kSignals = 64;
static_assert(sizeof(sigset_t) == kSigsetSize && kSigsetSize * 8 == kSignals,
              "the kernel's signal set is 64 signals in 8 bytes");
static_assert(__builtin_offsetof(KernelSigaction, sa_handler) == 0 &&
                  __builtin_offsetof(KernelSigaction, sa_flags) == 8 &&
                  __builtin_offsetof(KernelSigaction, sa_restorer) == 16 &&
                  __builtin_offsetof(KernelSigaction, sa_mask) == 24 &&
                  sizeof(KernelSigaction) == 24 + kSigsetSize,
              "the kernel's struct sigaction is handler, flags, restorer, mask");

constexpr unsigned long signalBit(int sig) {
  return 1UL << (sig - 1);
}
// Signals that the child gets back on their default action even where the
// agent ignores them.
constexpr unsigned long kTakenBack = signalBit(SIGPIPE) | signalBit(SIGINT) | signalBit(SIGTERM) |
                                     signalBit(SIGHUP) | signalBit(SIGQUIT) | signalBit(SIGCHLD);

// An argument of a system call, as a register holds it.
template <typename T>
__attribute__((always_inline)) inline long word(T value) {
  return (long)value;
}

// A system call made without libc, which would set errno: the result, or
// -errno. Inlined into the child's code, as everything that runs there.
template <typename A = long, typename B = long, typename C = long, typename D = long>
__attribute__((always_inline)) inline long rawSyscall(long number, A first = 0, B second = 0,
                                                      C third = 0, D fourth = 0) {
#if defined(__x86_64__)
  long result;
  register long a3 __asm__("r10") = word(fourth);
  __asm__ volatile("syscall"
                   : "=a"(result)
                   : "a"(number), "D"(word(first)), "S"(word(second)), "d"(word(third)), "r"(a3)
                   : "rcx", "r11", "memory", "cc");
  return result;
#else
  register long n __asm__("x8") = number;
  register long a0 __asm__("x0") = word(first);
  register long a1 __asm__("x1") = word(second);
  register long a2 __asm__("x2") = word(third);
  register long a3 __asm__("x3") = word(fourth);
  __asm__ volatile("svc 0" : "+r"(a0) : "r"(n), "r"(a1), "r"(a2), "r"(a3) : "memory", "cc");
  return a0;
#endif
}

// The child's side until it execs, started with every signal blocked. The
// name is what ChildCodeCheck.cmake looks for in the object code.
__attribute__((noinline)) int childMain(void* arg) {
  ChildExec& exec = *static_cast<ChildExec*>(arg);
  // A handler is the agent's code, which must not run in here; none survives
  // exec anyway.
  for (int sig = 1; sig <= kSignals; ++sig) {
    if (sig == SIGKILL || sig == SIGSTOP) continue;
    // Set field by field: a compiler may make `{}` a call to memset.
    KernelSigaction action;
    action.sa_handler = SIG_DFL;
    if (rawSyscall(kRtSigaction, sig, 0, &action, kSigsetSize) != 0) continue;
    const bool ignored = action.sa_handler == SIG_IGN && ((kTakenBack >> (sig - 1)) & 1) == 0;
    if (action.sa_handler != SIG_DFL && !ignored) {
      action.sa_handler = SIG_DFL;
      action.sa_flags = 0;
      action.sa_restorer = nullptr;
      action.sa_mask = sigset_t{};
      rawSyscall(kRtSigaction, sig, &action, 0, kSigsetSize);
    }
  }
  // A group of its own, so that killing the group at its timeout kills what
  // it started too.
  rawSyscall(kSetpgid, 0, 0);
  if (exec.netnsFd >= 0) {
    const long entered = rawSyscall(kSetns, exec.netnsFd, CLONE_NEWNET);
    if (entered != 0) {
      exec.error = static_cast<int>(-entered);
      exec.stage = ChildExecStage::kEnterNetns;
      return 127;
    }
  }
  // The descriptors are all above 2, so none overwrites another; the copies
  // stay open across exec.
  rawSyscall(kDup3, exec.in, 0, 0);
  rawSyscall(kDup3, exec.out, 1, 0);
  rawSyscall(kDup3, exec.err, 2, 0);
  // Descriptors the agent opened without close-on-exec stay out of the child
  // as well.
  rawSyscall(kCloseRange, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
  const unsigned long none = 0;
  rawSyscall(kRtSigprocmask, SIG_SETMASK, &none, 0, kSigsetSize);
  const long ran = rawSyscall(kExecve, exec.file, exec.args, exec.environment);
  exec.error = static_cast<int>(-ran);
  exec.stage = ChildExecStage::kExec;
  return 127;
}

}  // namespace

int cloneChild(ChildExec& exec, int* pidFd) {
  // Blocked until the child has put every handler back to the default: it
  // starts with this mask.
  const unsigned long all = ~0UL;
  unsigned long before = 0;
  rawSyscall(kRtSigprocmask, SIG_SETMASK, &all, &before, kSigsetSize);
  *pidFd = -1;
  const int pid = ::clone(childMain, exec.stack + sizeof exec.stack,
                          CLONE_VM | CLONE_PIDFD | SIGCHLD, &exec, pidFd);
  const int error = errno;
  rawSyscall(kRtSigprocmask, SIG_SETMASK, &before, 0, kSigsetSize);
  return pid < 0 ? -error : pid;
}

}  // namespace AclAgent
