#include "agent/os/ChildProcess.h"

#include "agent/os/ChildLaunch.h"

#include <fcntl.h>
#include <poll.h>
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

extern char** environ;

namespace AclAgent {
namespace {

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

}  // namespace

// What a child reads until it execs, with the strings it points into; where
// it stopped and why, when it could not run the program. The child shares
// the parent's memory and reads this while the parent runs on, so nothing of
// it changes until the child has ended.
struct ChildLaunch {
  std::string path;
  std::vector<std::string> words;
  std::vector<char*> argv;
  std::vector<char*> envp;  // a copy: the environment may change meanwhile
  ChildExec exec;
};

namespace {

// Starts a child that runs `command` with the given descriptors as its
// standard input, output and error; pid -1, with `*error` set, when none
// could be started. `*launch` is what the child reads until it execs: it must
// stay as it is until the child has ended. The child shares this process's
// memory, so nothing is copied however large the process is, and this
// thread does not wait for it.
pid_t spawn(const ChildCommand& command, int in, int out, int err,
            std::unique_ptr<ChildLaunch>* launch, int* pidFd, std::string* error) {
  // Not value-initialised: the child's stack needs no zeroing.
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
  l.exec.file = l.path.c_str();
  l.exec.args = l.argv.data();
  l.exec.environment = l.envp.data();
  l.exec.netnsFd = command.netnsFd;
  l.exec.in = in;
  l.exec.out = out;
  l.exec.err = err;
  const pid_t pid = cloneChild(l.exec, pidFd);
  if (pid < 0) {
    *error = "cannot start \"" + command.program + "\": " + errorText(-pid);
    return -1;
  }
  *pidFd = aboveStdio(*pidFd);
  *launch = std::move(made);
  return pid;
}

// Why a child that has ended could not run its program, or empty.
std::string launchFailure(const ChildLaunch& launch) {
  switch (launch.exec.stage) {
    case ChildExecStage::kEnterNetns:
      return "cannot enter the network namespace: " + errorText(launch.exec.error);
    case ChildExecStage::kExec:
      return "cannot run \"" + launch.words.front() + "\": " + errorText(launch.exec.error);
    case ChildExecStage::kNone:
      break;
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
