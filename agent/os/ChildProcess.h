// ChildProcess: one program run as a child process, optionally inside a
// network namespace, whose output and end the event loop hears without ever
// waiting for it.
//
//   ChildCommand command{"iptables-save", {"-t", "filter"}, netnsFd, ""};
//   std::string error;
//   auto child = ChildProcess::start(loop, command, 5'000'000'000,
//                                    [](ChildResult result) { ... }, &error);
//   if (!child) report(error);               // it never ran; `done` will not be called
//
// Standard input is a memory file holding `input`, so handing it over never
// blocks; standard output and standard error come back through pipes watched
// by the loop, bounded: all of standard output up to `kMaxOut` bytes (past
// that the child is killed and `outTooLong` set), the last `kErrTail` bytes
// of standard error. The end is heard through a pidfd, and the timeout
// through a timerfd (real time, on either clock), after which the child's
// process group (its own, so what it started goes too) is killed with
// SIGKILL; what it was blocked on then, when that can be known (a file
// lock), is in `waitedFor`. While the child runs it counts as work in flight on the loop, so
// `settle` waits for it. `done` runs once, from a descriptor handler, after
// the child has been reaped; it may destroy the `ChildProcess`.
//
// Destroying a `ChildProcess` whose child still runs kills and reaps it
// without calling `done`.
//
// The child shares the agent's memory until it execs, so starting one costs
// the same however large the agent is: nothing is copied, and the agent's
// thread goes on at once, without waiting for the child to run. Until it
// execs, the child makes raw system calls only, on a stack of its own, with
// every handler reset.
//
// Threading: the event thread only (`run`: any thread).
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Pell.h"

namespace AclAgent {

struct ChildCommand {
  // Looked up on PATH when it holds no '/', unless `path` is given.
  std::string program;
  std::vector<std::string> args;
  // A network namespace to enter before running the program (`openNamespace`
  // opens one); -1: stay. The caller keeps it open until `start` or `run`
  // returns.
  int netnsFd = -1;
  std::string input;
  // The file `program` names, when looked up already (`findProgram`).
  std::string path{};
};

struct ChildResult {
  // Set when the program never ran: it was not found, could not be started,
  // or the namespace could not be entered.
  std::string failure;
  bool exited = false;  // with `status`; otherwise killed by `signal`
  int status = 0;
  int signal = 0;
  bool timedOut = false;
  // What it was blocked on when killed at its timeout ("a lock on FILE"), or
  // empty when not known.
  std::string waitedFor;
  bool outTooLong = false;  // killed for printing more than `kMaxOut`
  std::string out;
  std::string err;  // its last `kErrTail` bytes, from a line's start

  bool ok() const { return failure.empty() && !timedOut && !outTooLong && exited && status == 0; }
  // Why the run of `program` did not succeed, for a message: the failure, the
  // timeout, the signal, `errors` (what it wrote on standard error, as the
  // caller sums it up) or else its exit status.
  std::string whyFailed(const std::string& program, Pell::Nanoseconds timeout,
                        const std::string& errors) const;
};

struct ChildLaunch;

class ChildProcess {
 public:
  using Done = std::function<void(ChildResult)>;

  // All of standard output is kept, up to this: iptables-save of a table
  // far larger than any the agent writes fits.
  static constexpr std::size_t kMaxOut = 64 * 1024 * 1024;
  // The end of standard error is kept, where the reasons are.
  static constexpr std::size_t kErrTail = 16 * 1024;

  // Starts `command`, to be killed past `timeout` (none when not positive);
  // null, with `*error` set, when it cannot be started.
  static std::unique_ptr<ChildProcess> start(Zov::Ptr<Pell::TaskSchedulerRoot> loop,
                                             const ChildCommand& command, Pell::Nanoseconds timeout,
                                             Done done, std::string* error);
  // Runs `command` to its end (or `timeout`) without an event loop.
  static ChildResult run(const ChildCommand& command, Pell::Nanoseconds timeout);

  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  int pid() const { return pid_; }

  // The file that runs for `program`: `program` itself when it holds a '/',
  // else the first executable file of that name on PATH; nothing, with
  // `*error` set, when there is none.
  static std::optional<std::string> findProgram(const std::string& program, std::string* error);

 private:
  ChildProcess();
  // A descriptor of the child's and the loop's watch on it; the watch ends
  // before the descriptor is closed.
  struct Watched {
    int fd = -1;
    Pell::FdWatch watch;
    void close();
  };

  void handleOutput(Watched& from);
  void handleEnd();
  void handleTimeout();
  void closeAll();

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_;
  Done done_;
  int pid_ = -1;
  Watched ended_;  // the pidfd, readable once the child has ended
  Watched timer_;  // a timerfd, readable at the timeout
  Watched out_;
  Watched err_;
  // What the child reads until it execs; kept until it has ended.
  std::unique_ptr<ChildLaunch> launch_;
  ChildResult result_;
};

}  // namespace AclAgent
