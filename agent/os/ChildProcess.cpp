#include "agent/os/ChildProcess.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>

extern char** environ;

namespace AclAgent {
namespace {

// Where a child that could not run its program stopped.
constexpr int kEnterNetns = 1;
constexpr int kExec = 2;

std::string errorText(int error) {
  return std::strerror(error);
}

// Moves a descriptor that landed on 0, 1 or 2 (the agent's own were closed)
// above them, so that setting up the child's never overwrites another.
int aboveStdio(int fd) {
  if (fd < 0 || fd > 2) return fd;
  const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
  ::close(fd);
  return moved;
}

// A memory file holding `input`, read from its start.
int inputFile(const std::string& input, std::string* error) {
  const int fd =
      aboveStdio(static_cast<int>(::syscall(SYS_memfd_create, "acl-agent", MFD_CLOEXEC)));
  if (fd < 0) {
    *error = "cannot make a memory file: " + errorText(errno);
    return -1;
  }
  for (std::size_t done = 0; done < input.size();) {
    const ssize_t n = ::write(fd, input.data() + done, input.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = "cannot write a memory file: " + errorText(errno);
      ::close(fd);
      return -1;
    }
    done += static_cast<std::size_t>(n);
  }
  ::lseek(fd, 0, SEEK_SET);
  return fd;
}

bool pipeOf(int ends[2], std::string* error) {
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    *error = "cannot make a pipe: " + errorText(errno);
    return false;
  }
  ends[0] = aboveStdio(ends[0]);
  ends[1] = aboveStdio(ends[1]);
  return true;
}

void closeFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

// Reads what `fd` holds now into `into`; false at end of file or on an error.
bool readAvailable(int fd, std::string& into) {
  char buffer[16384];
  while (true) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      into.append(buffer, static_cast<std::size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      return n < 0 && errno == EAGAIN;
    }
  }
}

// An argument of a raw system call, as a register holds it.
template <typename T>
__attribute__((always_inline, no_sanitize("address", "undefined"))) inline long word(T value) {
  if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<long>(value);
  } else {
    return static_cast<long>(value);
  }
}

// A system call made without libc, which would set errno: the child shares
// errno with the agent's thread, which runs on meanwhile. The result, or
// -errno. Inlined into the child's code, as everything that runs there.
template <typename A = long, typename B = long, typename C = long, typename D = long>
__attribute__((always_inline, no_sanitize("address", "undefined"))) inline long rawSyscall(
    long number, A first = 0, B second = 0, C third = 0, D fourth = 0) {
#if defined(__x86_64__)
  long result;
  register long a3 __asm__("r10") = word(fourth);
  __asm__ volatile("syscall"
                   : "=a"(result)
                   : "a"(number), "D"(word(first)), "S"(word(second)), "d"(word(third)), "r"(a3)
                   : "rcx", "r11", "memory", "cc");
  return result;
#elif defined(__aarch64__)
  register long n __asm__("x8") = number;
  register long a0 __asm__("x0") = word(first);
  register long a1 __asm__("x1") = word(second);
  register long a2 __asm__("x2") = word(third);
  register long a3 __asm__("x3") = word(fourth);
  __asm__ volatile("svc 0" : "+r"(a0) : "r"(n), "r"(a1), "r"(a2), "r"(a3) : "memory", "cc");
  return a0;
#else
#error "the child's raw system calls are written for x86-64 and arm64 only"
#endif
}

// The kernel's own `struct sigaction`, which rt_sigaction takes (libc's
// differs), and the size of its signal sets.
struct KernelSigaction {
  void (*handler)(int);
  unsigned long flags;
  void (*restorer)();
  std::uint64_t mask;
};
constexpr std::size_t kSigsetSize = sizeof(std::uint64_t);

constexpr std::uint64_t signalBit(int sig) {
  return std::uint64_t{1} << (sig - 1);
}
// Signals that the child gets back on their default action even where the
// agent ignores them.
constexpr std::uint64_t kTakenBack = signalBit(SIGPIPE) | signalBit(SIGINT) | signalBit(SIGTERM) |
                                     signalBit(SIGHUP) | signalBit(SIGQUIT) | signalBit(SIGCHLD);

}  // namespace

// What a child reads until it execs, made ready by the parent, with the stack
// it runs on; where it stopped and why, when it could not run the program.
// The child shares the parent's memory and reads this while the parent runs
// on, so nothing of it changes until the child has ended.
struct ChildLaunch {
  std::string path;
  std::vector<std::string> words;
  std::vector<char*> argv;
  std::vector<char*> envp;  // a copy: the environment may change meanwhile
  // What the child reads: plain values, so that it calls nothing.
  const char* file = nullptr;          // path
  char* const* args = nullptr;         // argv
  char* const* environment = nullptr;  // envp
  int netnsFd = -1;
  int in = -1;
  int out = -1;
  int err = -1;
  int stage = 0;  // kEnterNetns or kExec when it stopped
  int error = 0;
  alignas(16) char stack[16 * 1024];
};

namespace {

// The child's side until it execs. It shares the parent's memory (and its
// thread's errno and sanitizer state) while the parent runs on, so it makes
// raw system calls only, on its own stack, and calls nothing. Every signal is
// blocked when it starts.
__attribute__((noinline, no_sanitize("address", "undefined"))) int childMain(void* arg) {
  ChildLaunch& launch = *static_cast<ChildLaunch*>(arg);
  // A handler is the agent's code, which must not run in here; none survives
  // exec anyway.
  for (int sig = 1; sig < NSIG; ++sig) {
    if (sig == SIGKILL || sig == SIGSTOP) continue;
    // Set field by field: a compiler may make `{}` a call to memset.
    KernelSigaction action;
    action.handler = SIG_DFL;
    if (rawSyscall(SYS_rt_sigaction, sig, 0, &action, kSigsetSize) != 0) continue;
    const bool ignored = action.handler == SIG_IGN && ((kTakenBack >> (sig - 1)) & 1) == 0;
    if (action.handler != SIG_DFL && !ignored) {
      action.handler = SIG_DFL;
      action.flags = 0;
      action.restorer = nullptr;
      action.mask = 0;
      rawSyscall(SYS_rt_sigaction, sig, &action, 0, kSigsetSize);
    }
  }
  if (launch.netnsFd >= 0) {
    const long entered = rawSyscall(SYS_setns, launch.netnsFd, CLONE_NEWNET);
    if (entered != 0) {
      launch.error = static_cast<int>(-entered);
      launch.stage = kEnterNetns;
      return 127;
    }
  }
  // The descriptors are all above 2, so none overwrites another; the copies
  // stay open across exec.
  rawSyscall(SYS_dup3, launch.in, 0, 0);
  rawSyscall(SYS_dup3, launch.out, 1, 0);
  rawSyscall(SYS_dup3, launch.err, 2, 0);
  // Descriptors the agent opened without close-on-exec stay out of the child
  // as well.
  rawSyscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
  const std::uint64_t none = 0;
  rawSyscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, 0, kSigsetSize);
  const long exec = rawSyscall(SYS_execve, launch.file, launch.args, launch.environment);
  launch.error = static_cast<int>(-exec);
  launch.stage = kExec;
  return 127;
}

// Starts a child that runs `command` with the given descriptors as its
// standard input, output and error; pid -1, with `*error` set, when none
// could be started. `*launch` is what the child reads until it execs: it must
// stay as it is until the child has ended. The child shares this process's
// memory, so nothing is copied however large the process is, and this
// thread does not wait for it.
pid_t spawn(const ChildCommand& command, int in, int out, int err,
            std::unique_ptr<ChildLaunch>* launch, int* pidFd, std::string* error) {
  // Not value-initialised: the stack needs no zeroing.
  std::unique_ptr<ChildLaunch> made(new ChildLaunch);
  ChildLaunch& l = *made;
  l.path = command.path;
  if (l.path.empty()) {
    std::optional<std::string> found = ChildProcess::findProgram(command.program, error);
    if (!found) return -1;
    l.path = std::move(*found);
  }
  l.words.push_back(command.program);
  l.words.insert(l.words.end(), command.args.begin(), command.args.end());
  for (std::string& word : l.words) l.argv.push_back(word.data());
  l.argv.push_back(nullptr);
  for (char** variable = environ; variable && *variable; ++variable) l.envp.push_back(*variable);
  l.envp.push_back(nullptr);
  l.file = l.path.c_str();
  l.args = l.argv.data();
  l.environment = l.envp.data();
  l.netnsFd = command.netnsFd;
  l.in = in;
  l.out = out;
  l.err = err;
  // Blocked until the child has put every handler back to the default: it
  // starts with this mask.
  const std::uint64_t all = ~std::uint64_t{0};
  std::uint64_t before = 0;
  ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, &before, kSigsetSize);
  *pidFd = -1;
  const pid_t pid =
      ::clone(childMain, l.stack + sizeof l.stack, CLONE_VM | CLONE_PIDFD | SIGCHLD, &l, pidFd);
  const int cloneError = errno;
  ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &before, nullptr, kSigsetSize);
  if (pid < 0) {
    *error = "cannot start \"" + command.program + "\": " + errorText(cloneError);
    return -1;
  }
  *pidFd = aboveStdio(*pidFd);
  *launch = std::move(made);
  return pid;
}

// Why a child that has ended could not run its program, or empty.
std::string launchFailure(const ChildLaunch& launch) {
  if (launch.stage == kEnterNetns) {
    return "cannot enter the network namespace: " + errorText(launch.error);
  }
  if (launch.stage == kExec) {
    return "cannot run \"" + launch.words.front() + "\": " + errorText(launch.error);
  }
  return {};
}

void recordWait(int waitStatus, ChildResult& result) {
  if (WIFEXITED(waitStatus)) {
    result.exited = true;
    result.status = WEXITSTATUS(waitStatus);
  } else if (WIFSIGNALED(waitStatus)) {
    result.signal = WTERMSIG(waitStatus);
  }
}

void killAndReap(pid_t pid, int* waitStatus) {
  ::kill(pid, SIGKILL);
  while (::waitpid(pid, waitStatus, 0) < 0 && errno == EINTR) {
  }
}

std::string secondsText(Pell::Nanoseconds ns) {
  std::string text = std::to_string(static_cast<double>(ns) / 1e9);
  while (text.back() == '0') text.pop_back();
  if (text.back() == '.') text.pop_back();
  return text + " s";
}

}  // namespace

std::string ChildResult::whyFailed(const std::string& program, Pell::Nanoseconds timeout,
                                   const std::string& errors) const {
  if (!failure.empty()) return failure;
  if (timedOut) {
    return program + " did not finish within " + secondsText(timeout) + " and was killed";
  }
  if (!exited) return program + " was killed by signal " + std::to_string(signal);
  if (!errors.empty()) return program + " failed: " + errors;
  return program + " exited with status " + std::to_string(status);
}

std::unique_ptr<ChildProcess> ChildProcess::start(Zov::Ptr<Pell::TaskSchedulerRoot> loop,
                                                  const ChildCommand& command,
                                                  Pell::Nanoseconds timeout, Done done,
                                                  std::string* error) {
  std::unique_ptr<ChildProcess> child(new ChildProcess);
  int out[2] = {-1, -1}, err[2] = {-1, -1};
  int in = inputFile(command.input, error);
  auto closeChildEnds = [&] {
    closeFd(in);
    closeFd(out[1]);
    closeFd(err[1]);
  };
  if (in < 0 || !pipeOf(out, error) || !pipeOf(err, error)) {
    closeChildEnds();
    closeFd(out[0]);
    closeFd(err[0]);
    return nullptr;
  }
  child->out_.fd = out[0];
  child->err_.fd = err[0];
  child->pid_ = spawn(command, in, out[1], err[1], &child->launch_, &child->ended_.fd, error);
  closeChildEnds();
  if (child->pid_ < 0) {
    child->pid_ = -1;
    child->closeAll();
    return nullptr;
  }
  if (child->ended_.fd < 0) {
    *error = "cannot watch a child process: " + errorText(errno);
    int waitStatus = 0;
    killAndReap(child->pid_, &waitStatus);
    child->pid_ = -1;
    child->closeAll();
    return nullptr;
  }
  ::fcntl(child->out_.fd, F_SETFL, O_NONBLOCK);
  ::fcntl(child->err_.fd, F_SETFL, O_NONBLOCK);
  if (timeout > 0) {
    child->timer_.fd = aboveStdio(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    itimerspec due{};
    due.it_value = {timeout / 1'000'000'000, timeout % 1'000'000'000};
    if (child->timer_.fd < 0 || ::timerfd_settime(child->timer_.fd, 0, &due, nullptr) != 0) {
      *error = "cannot time a child process: " + errorText(errno);
      int waitStatus = 0;
      killAndReap(child->pid_, &waitStatus);
      child->pid_ = -1;
      child->closeAll();
      return nullptr;
    }
  }
  ChildProcess* self = child.get();
  child->loop_ = loop;
  child->done_ = std::move(done);
  self->out_.watch = Pell::FdWatch(*loop, self->out_.fd,
                                   [self] { self->handleOutput(self->out_, self->result_.out); });
  self->err_.watch = Pell::FdWatch(*loop, self->err_.fd,
                                   [self] { self->handleOutput(self->err_, self->result_.err); });
  self->ended_.watch = Pell::FdWatch(*loop, self->ended_.fd, [self] { self->handleEnd(); });
  if (self->timer_.fd >= 0) {
    self->timer_.watch = Pell::FdWatch(*loop, self->timer_.fd, [self] { self->handleTimeout(); });
  }
  loop->workInFlightInc();
  return child;
}

ChildProcess::ChildProcess() = default;

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    int waitStatus = 0;
    killAndReap(pid_, &waitStatus);
  }
  const bool counted = ended_.fd >= 0 && loop_;
  closeAll();
  if (counted) loop_->workInFlightDec();
}

void ChildProcess::Watched::close() {
  watch.reset();
  closeFd(fd);
}

void ChildProcess::closeAll() {
  for (Watched* watched : {&out_, &err_, &ended_, &timer_}) watched->close();
}

void ChildProcess::handleOutput(Watched& from, std::string& into) {
  if (!readAvailable(from.fd, into)) from.close();
}

void ChildProcess::handleTimeout() {
  std::uint64_t expirations = 0;
  [[maybe_unused]] ssize_t n = ::read(timer_.fd, &expirations, sizeof expirations);
  timer_.close();
  // A child that ended just in time is not counted as killed.
  siginfo_t info{};
  if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
      info.si_pid == pid_) {
    return;
  }
  result_.timedOut = true;
  ::kill(pid_, SIGKILL);
}

void ChildProcess::handleEnd() {
  int waitStatus = 0;
  const pid_t reaped = ::waitpid(pid_, &waitStatus, WNOHANG);
  if (reaped == 0 || (reaped < 0 && errno == EINTR)) return;
  pid_ = -1;
  recordWait(waitStatus, result_);
  // What the child wrote is in the pipes by now; a descendant that kept them
  // open is not waited for.
  if (out_.fd >= 0) readAvailable(out_.fd, result_.out);
  if (err_.fd >= 0) readAvailable(err_.fd, result_.err);
  result_.failure = launchFailure(*launch_);
  launch_.reset();
  closeAll();
  loop_->workInFlightDec();
  // `done` may destroy this object: nothing of it is touched after the call.
  Done done = std::move(done_);
  ChildResult result = std::move(result_);
  done(std::move(result));
}

ChildResult ChildProcess::run(const ChildCommand& command, Pell::Nanoseconds timeout) {
  ChildResult result;
  std::string& error = result.failure;
  int in = inputFile(command.input, &error);
  int out = in < 0 ? -1 : inputFile("", &error);
  int err = out < 0 ? -1 : inputFile("", &error);
  if (err < 0) {
    for (int* fd : {&in, &out, &err}) closeFd(*fd);
    return result;
  }
  std::unique_ptr<ChildLaunch> launch;
  int pidFd = -1;
  const pid_t pid = spawn(command, in, out, err, &launch, &pidFd, &error);
  closeFd(in);
  if (pid > 0) {
    pollfd ended{pidFd, POLLIN, 0};
    const int waitMs = timeout > 0 ? static_cast<int>((timeout + 999'999) / 1'000'000) : -1;
    int ready = 0;
    while (ended.fd >= 0 && (ready = ::poll(&ended, 1, waitMs)) < 0 && errno == EINTR) {
    }
    if (ended.fd >= 0 && ready == 0) {
      result.timedOut = true;
      ::kill(pid, SIGKILL);
    }
    closeFd(pidFd);
    int waitStatus = 0;
    while (::waitpid(pid, &waitStatus, 0) < 0 && errno == EINTR) {
    }
    recordWait(waitStatus, result);
    result.failure = launchFailure(*launch);
    for (auto [fd, into] : {std::pair{out, &result.out}, std::pair{err, &result.err}}) {
      ::lseek(fd, 0, SEEK_SET);
      readAvailable(fd, *into);
    }
  }
  for (int* fd : {&out, &err}) closeFd(*fd);
  return result;
}

std::optional<std::string> ChildProcess::findProgram(const std::string& program,
                                                     std::string* error) {
  if (program.empty()) {
    *error = "no program given";
    return std::nullopt;
  }
  if (program.find('/') != std::string::npos) return program;
  const char* path = std::getenv("PATH");
  std::string_view dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
  while (true) {
    const std::size_t colon = dirs.find(':');
    std::string dir(dirs.substr(0, colon));
    const std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
    struct stat st {};
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
    if (colon == std::string_view::npos) break;
    dirs.remove_prefix(colon + 1);
  }
  *error = "cannot run \"" + program + "\": not found on PATH";
  return std::nullopt;
}

}  // namespace AclAgent
