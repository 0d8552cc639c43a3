// ChildLaunch: the raw start of a child process for ChildProcess, kept apart
// from its portable part (pipes, memory file, watches, timeout, result).
//
//   ChildExec& exec = ...;  // file, args, environment, descriptors: set by the caller
//   int pidFd = -1;
//   const int pid = cloneChild(exec, &pidFd);
//   if (pid < 0) report(-pid);  // an errno value
//   ...                         // once the child has ended:
//   if (exec.stage != ChildExecStage::kNone) report(exec.error);
//
// The child shares the caller's memory until it execs, runs on `exec.stack`,
// and reads `exec` while the caller runs on; it writes `stage` and `error`
// when it cannot run the program. The one implementation is
// ChildLaunchLinux.cpp, which says what it assumes of the kernel and the
// compiler and checks it as it builds.
//
// This header includes nothing: the file that implements it is built
// without instrumentation, keeps the C++ library out (its inline functions
// built there would stand in for the instrumented ones), and takes the
// kernel's own signal definitions, which the C library's headers clash with.
//
// Threading: any thread; `exec` belongs to the one child.
#pragma once

namespace AclAgent {

// Where a child that could not run its program stopped.
enum class ChildExecStage : int {
  kNone = 0,
  kEnterNetns = 1,
  kExec = 2,
};

// What a child reads until it execs: plain values, so that it calls nothing
// to read them.
struct ChildExec {
  static constexpr unsigned long kStackSize = 16 * 1024;

  const char* file = nullptr;  // the program, as execve takes it
  char* const* args = nullptr;
  char* const* environment = nullptr;
  int netnsFd = -1;  // a network namespace to enter first; -1: stay
  // Above 2, so that none of them is overwritten while they are put on 0, 1
  // and 2.
  int in = -1;
  int out = -1;
  int err = -1;
  // Written by the child when it could not run the program: where it
  // stopped, and the errno value.
  ChildExecStage stage = ChildExecStage::kNone;
  int error = 0;
  // Left uninitialised by a default-initialising `new`: it needs no zeroing.
  alignas(16) char stack[kStackSize];
};

// Starts a child that runs `exec.file` with standard input, output and error
// on `exec.in`, `exec.out` and `exec.err`, every signal handler reset and an
// empty signal mask, in a process group of its own (its pid), and no other
// descriptor of this process; its pid, with
// a pidfd for it in `*pidFd` (close-on-exec; possibly 0, 1 or 2 where those
// were closed), or -errno when none could be started. The calling thread
// does not wait for the child to run.
// REQUIRES: `exec` stays where it is, unchanged, until the child has ended.
int cloneChild(ChildExec& exec, int* pidFd);

}  // namespace AclAgent
