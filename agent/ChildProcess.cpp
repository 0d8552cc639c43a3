#include "agent/ChildProcess.h"

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
#include <cstring>
#include <optional>

extern char** environ;

namespace AclAgent {
namespace {

// What a child that cannot go on tells its parent through the status pipe.
struct ChildFailure {
  int stage;  // kEnterNetns or kExec
  int error;
};
constexpr int kEnterNetns = 1;
constexpr int kExec = 2;

std::string errorText(int error) {
  return std::strerror(error);
}

// The program's path: `program` itself when it holds a '/', else the first
// executable file of that name on PATH.
std::optional<std::string> programPath(const std::string& program, std::string* error) {
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

// The child's side, between fork and exec: async-signal-safe calls only.
[[noreturn]] void childMain(const char* path, char* const* argv, int netnsFd, int in, int out,
                            int err, int status) {
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  for (int sig : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD}) {
    ::sigaction(sig, &defaults, nullptr);
  }
  ChildFailure failure{kEnterNetns, 0};
  if (netnsFd < 0 || ::setns(netnsFd, CLONE_NEWNET) == 0) {
    // The descriptors are all above 2, so none overwrites another; dup2
    // leaves the copies open across exec.
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    // Descriptors the agent opened without close-on-exec stay out of the
    // child as well.
    ::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
    ::execve(path, argv, environ);
    failure.stage = kExec;
  }
  failure.error = errno;
  [[maybe_unused]] ssize_t n = ::write(status, &failure, sizeof failure);
  ::_exit(127);
}

// Forks a child that runs `command` with the given descriptors; -1 with
// `*error` set when it cannot.
pid_t spawn(const ChildCommand& command, int in, int out, int err, int status, std::string* error) {
  const std::optional<std::string> path = programPath(command.program, error);
  if (!path) return -1;
  std::vector<std::string> words{command.program};
  words.insert(words.end(), command.args.begin(), command.args.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) childMain(path->c_str(), argv.data(), command.netnsFd, in, out, err, status);
  if (pid < 0) *error = "cannot start \"" + command.program + "\": " + errorText(errno);
  return pid;
}

// What the child said through the status pipe before it could exec.
std::string childFailure(int status, const std::string& program) {
  ChildFailure failure{};
  if (::read(status, &failure, sizeof failure) != sizeof failure) return {};
  if (failure.stage == kEnterNetns) {
    return "cannot enter the network namespace: " + errorText(failure.error);
  }
  return "cannot run \"" + program + "\": " + errorText(failure.error);
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

int ChildProcess::openNamespace(const std::string& path, std::string* error) {
  const int fd = aboveStdio(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd < 0) {
    *error = errno == ENOENT ? "" : "cannot open \"" + path + "\": " + errorText(errno);
  }
  return fd;
}

std::unique_ptr<ChildProcess> ChildProcess::start(Zov::Ptr<Pell::TaskSchedulerRoot> loop,
                                                  const ChildCommand& command,
                                                  Pell::Nanoseconds timeout, Done done,
                                                  std::string* error) {
  std::unique_ptr<ChildProcess> child(new ChildProcess);
  int out[2] = {-1, -1}, err[2] = {-1, -1}, status[2] = {-1, -1};
  int in = inputFile(command.input, error);
  auto closeChildEnds = [&] {
    closeFd(in);
    closeFd(out[1]);
    closeFd(err[1]);
    closeFd(status[1]);
  };
  if (in < 0 || !pipeOf(out, error) || !pipeOf(err, error) || !pipeOf(status, error)) {
    closeChildEnds();
    closeFd(out[0]);
    closeFd(err[0]);
    closeFd(status[0]);
    return nullptr;
  }
  child->outFd_ = out[0];
  child->errFd_ = err[0];
  child->statusFd_ = status[0];
  child->pid_ = spawn(command, in, out[1], err[1], status[1], error);
  closeChildEnds();
  if (child->pid_ < 0) {
    child->pid_ = -1;
    child->closeAll();
    return nullptr;
  }
  child->pidFd_ = aboveStdio(static_cast<int>(::syscall(SYS_pidfd_open, child->pid_, 0)));
  if (child->pidFd_ < 0) {
    *error = "cannot watch a child process (pidfd_open needs Linux 5.3): " + errorText(errno);
    int waitStatus = 0;
    killAndReap(child->pid_, &waitStatus);
    child->pid_ = -1;
    child->closeAll();
    return nullptr;
  }
  ::fcntl(child->outFd_, F_SETFL, O_NONBLOCK);
  ::fcntl(child->errFd_, F_SETFL, O_NONBLOCK);
  ::fcntl(child->statusFd_, F_SETFL, O_NONBLOCK);
  if (timeout > 0) {
    child->timerFd_ = aboveStdio(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    itimerspec due{};
    due.it_value = {timeout / 1'000'000'000, timeout % 1'000'000'000};
    if (child->timerFd_ < 0 || ::timerfd_settime(child->timerFd_, 0, &due, nullptr) != 0) {
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
  child->program_ = command.program;
  loop->fdWatchIs(self->outFd_, [self] { self->handleOutput(self->outFd_, self->result_.out); });
  loop->fdWatchIs(self->errFd_, [self] { self->handleOutput(self->errFd_, self->result_.err); });
  loop->fdWatchIs(self->pidFd_, [self] { self->handleEnd(); });
  if (self->timerFd_ >= 0) loop->fdWatchIs(self->timerFd_, [self] { self->handleTimeout(); });
  loop->workInFlightInc();
  return child;
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    int waitStatus = 0;
    killAndReap(pid_, &waitStatus);
  }
  const bool counted = pidFd_ >= 0 && loop_;
  closeAll();
  if (counted) loop_->workInFlightDec();
}

void ChildProcess::closeAll() {
  for (int* fd : {&outFd_, &errFd_, &pidFd_, &timerFd_, &statusFd_}) {
    if (*fd >= 0 && loop_) loop_->fdWatchDel(*fd);
    closeFd(*fd);
  }
}

void ChildProcess::handleOutput(int& fd, std::string& into) {
  if (readAvailable(fd, into)) return;
  loop_->fdWatchDel(fd);
  closeFd(fd);
}

void ChildProcess::handleTimeout() {
  std::uint64_t expirations = 0;
  [[maybe_unused]] ssize_t n = ::read(timerFd_, &expirations, sizeof expirations);
  loop_->fdWatchDel(timerFd_);
  closeFd(timerFd_);
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
  if (outFd_ >= 0) readAvailable(outFd_, result_.out);
  if (errFd_ >= 0) readAvailable(errFd_, result_.err);
  if (statusFd_ >= 0) result_.failure = childFailure(statusFd_, program_);
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
  int status[2] = {-1, -1};
  int in = inputFile(command.input, &error);
  int out = in < 0 ? -1 : inputFile("", &error);
  int err = out < 0 ? -1 : inputFile("", &error);
  if (err < 0 || !pipeOf(status, &error)) {
    for (int* fd : {&in, &out, &err}) closeFd(*fd);
    return result;
  }
  const pid_t pid = spawn(command, in, out, err, status[1], &error);
  closeFd(in);
  closeFd(status[1]);
  if (pid > 0) {
    int pidFd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    pollfd ended{pidFd, POLLIN, 0};
    const int waitMs = timeout > 0 ? static_cast<int>((timeout + 999'999) / 1'000'000) : -1;
    int ready = 0;
    while (pidFd >= 0 && (ready = ::poll(&ended, 1, waitMs)) < 0 && errno == EINTR) {
    }
    if (pidFd >= 0 && ready == 0) {
      result.timedOut = true;
      ::kill(pid, SIGKILL);
    }
    closeFd(pidFd);
    int waitStatus = 0;
    while (::waitpid(pid, &waitStatus, 0) < 0 && errno == EINTR) {
    }
    recordWait(waitStatus, result);
    ::fcntl(status[0], F_SETFL, O_NONBLOCK);
    result.failure = childFailure(status[0], command.program);
    for (auto [fd, into] : {std::pair{out, &result.out}, std::pair{err, &result.err}}) {
      ::lseek(fd, 0, SEEK_SET);
      readAvailable(fd, *into);
    }
  }
  for (int* fd : {&out, &err, &status[0]}) closeFd(*fd);
  return result;
}

}  // namespace AclAgent
