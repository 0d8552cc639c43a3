#include "agent/os/ChildProcess.h"

#include "agent/os/ChildLaunch.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>

extern char** environ;

namespace AclAgent {
namespace {

// /proc/locks is read this far at most.
constexpr std::size_t kLocksBytes = 1024 * 1024;

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

// How much of a stream is kept.
enum class Keep : std::uint8_t { kHead, kTail };

// Reads what `fd` holds now into `into`, keeping at most `limit` bytes of it:
// the first ones (then `*overflow` is set, and reading stops) or the last
// ones, from a line's start. False at end of file, on an error, or at the
// overflow.
bool readAvailable(int fd, std::string& into, Keep keep, std::size_t limit, bool* overflow) {
  char buffer[16384];
  while (true) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      into.append(buffer, static_cast<std::size_t>(n));
      if (keep == Keep::kHead && into.size() > limit) {
        into.resize(limit);
        *overflow = true;
        return false;
      }
      // Cut seldom, so that keeping the tail costs little per byte.
      if (keep == Keep::kTail && into.size() > 2 * limit) {
        std::size_t cut = into.size() - limit;
        const std::size_t line = into.find('\n', cut);
        if (line != std::string::npos) cut = line + 1;
        into.erase(0, cut);
      }
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      return n < 0 && errno == EAGAIN;
    }
  }
}

bool readOut(int fd, ChildResult& result) {
  return readAvailable(fd, result.out, Keep::kHead, ChildProcess::kMaxOut, &result.outTooLong);
}

bool readErr(int fd, ChildResult& result) {
  bool ignored = false;
  const bool more = readAvailable(fd, result.err, Keep::kTail, ChildProcess::kErrTail, &ignored);
  if (result.err.size() > ChildProcess::kErrTail) {
    std::size_t cut = result.err.size() - ChildProcess::kErrTail;
    const std::size_t line = result.err.find('\n', cut);
    if (line != std::string::npos) cut = line + 1;
    result.err.erase(0, cut);
  }
  return more;
}

// A child and what it started are in its own process group.
void killGroup(pid_t pid) {
  ::kill(-pid, SIGKILL);
  // Before the child has made its group (just started), the group does not
  // exist yet.
  ::kill(pid, SIGKILL);
}

// What `pid` waits for, when it is blocked on a file lock: "a lock on FILE"
// (the file it holds open with that lock), from /proc/locks; empty when
// nothing there says so.
std::string waitedFor(pid_t pid) {
  const int locks = ::open("/proc/locks", O_RDONLY | O_CLOEXEC);
  if (locks < 0) return {};
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = ::read(locks, buffer, sizeof buffer)) > 0 && text.size() < kLocksBytes;) {
    text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(locks);
  // A blocked request reads "N: -> FLOCK  ADVISORY  WRITE PID MAJ:MIN:INODE START END".
  const std::string pidWord = " " + std::to_string(pid) + " ";
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const std::string line = text.substr(at, end - at);
    at = end + 1;
    const std::size_t where = line.find(pidWord);
    if (line.find(" -> ") == std::string::npos || where == std::string::npos) continue;
    unsigned major = 0, minor = 0;
    unsigned long long inode = 0;
    if (std::sscanf(line.c_str() + where + pidWord.size(), "%x:%x:%llu", &major, &minor, &inode) !=
        3) {
      continue;
    }
    const std::string fds = "/proc/" + std::to_string(pid) + "/fd/";
    for (int fd = 0; fd < 64; ++fd) {
      const std::string link = fds + std::to_string(fd);
      struct stat st {};
      if (::stat(link.c_str(), &st) != 0 || st.st_ino != inode || ::major(st.st_dev) != major ||
          ::minor(st.st_dev) != minor) {
        continue;
      }
      char path[4096];
      const ssize_t n = ::readlink(link.c_str(), path, sizeof path);
      if (n > 0) return "a lock on " + std::string(path, static_cast<std::size_t>(n));
    }
    return "a file lock";
  }
  return {};
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
  // The child makes its group itself; made here too, it is there before
  // anything could kill it. Refused once the child has execed, by then
  // made.
  ::setpgid(pid, pid);
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
  killGroup(pid);
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
    return program + " did not finish within " + secondsText(timeout) + " and was killed" +
           (waitedFor.empty() ? "" : ", waiting for " + waitedFor);
  }
  if (outTooLong) {
    return program + " printed more than " + std::to_string(ChildProcess::kMaxOut >> 20) +
           " MiB and was killed";
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
  self->out_.watch =
      Pell::FdWatch(*loop, self->out_.fd, [self] { self->handleOutput(self->out_); });
  self->err_.watch =
      Pell::FdWatch(*loop, self->err_.fd, [self] { self->handleOutput(self->err_); });
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

void ChildProcess::handleOutput(Watched& from) {
  if (&from == &out_ ? readOut(from.fd, result_) : readErr(from.fd, result_)) return;
  from.close();
  // Past the bound what it prints is of no use: it ends now.
  if (result_.outTooLong && pid_ > 0) killGroup(pid_);
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
  result_.waitedFor = waitedFor(pid_);
  killGroup(pid_);
}

void ChildProcess::handleEnd() {
  int waitStatus = 0;
  const pid_t reaped = ::waitpid(pid_, &waitStatus, WNOHANG);
  if (reaped == 0 || (reaped < 0 && errno == EINTR)) return;
  pid_ = -1;
  recordWait(waitStatus, result_);
  // What the child wrote is in the pipes by now; a descendant that kept them
  // open is not waited for.
  if (out_.fd >= 0) readOut(out_.fd, result_);
  if (err_.fd >= 0) readErr(err_.fd, result_);
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
  int out[2] = {-1, -1}, err[2] = {-1, -1};
  int in = inputFile(command.input, &error);
  if (in < 0 || !pipeOf(out, &error) || !pipeOf(err, &error)) {
    for (int* fd : {&in, &out[0], &out[1], &err[0], &err[1]}) closeFd(*fd);
    return result;
  }
  std::unique_ptr<ChildLaunch> launch;
  int pidFd = -1;
  const pid_t pid = spawn(command, in, out[1], err[1], &launch, &pidFd, &error);
  for (int* fd : {&in, &out[1], &err[1]}) closeFd(*fd);
  if (pid > 0) {
    ::fcntl(out[0], F_SETFL, O_NONBLOCK);
    ::fcntl(err[0], F_SETFL, O_NONBLOCK);
    timespec start{};
    ::clock_gettime(CLOCK_MONOTONIC, &start);
    const Pell::Nanoseconds startNs = start.tv_sec * 1'000'000'000LL + start.tv_nsec;
    // The output is read as it comes, so that a child never blocks on a full
    // pipe and what is kept stays bounded.
    pollfd watched[3] = {{pidFd, POLLIN, 0}, {out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    while (pidFd >= 0) {
      int waitMs = -1;
      if (timeout > 0) {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        const Pell::Nanoseconds left =
            startNs + timeout - (now.tv_sec * 1'000'000'000LL + now.tv_nsec);
        waitMs = left > 0 ? static_cast<int>((left + 999'999) / 1'000'000) : 0;
      }
      const int ready = ::poll(watched, 3, waitMs);
      if (ready < 0 && errno == EINTR) continue;
      if (ready == 0) {
        result.timedOut = true;
        result.waitedFor = waitedFor(pid);
        killGroup(pid);
        break;
      }
      if (watched[1].revents != 0 && !readOut(out[0], result)) {
        watched[1].fd = -1;
        if (result.outTooLong) {
          killGroup(pid);
          break;
        }
      }
      if (watched[2].revents != 0 && !readErr(err[0], result)) watched[2].fd = -1;
      if (watched[0].revents != 0) break;
    }
    closeFd(pidFd);
    int waitStatus = 0;
    while (::waitpid(pid, &waitStatus, 0) < 0 && errno == EINTR) {
    }
    recordWait(waitStatus, result);
    result.failure = launchFailure(*launch);
    if (watched[1].fd >= 0 && !result.outTooLong) readOut(out[0], result);
    if (watched[2].fd >= 0) readErr(err[0], result);
  }
  for (int* fd : {&out[0], &err[0]}) closeFd(*fd);
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
