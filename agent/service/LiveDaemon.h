// LiveDaemon: `acl-agent --live`, the agent as a daemon. It publishes the
// kernel's state, loads the plugins and says `ready` when their first
// refresh is applied; then standard input and the control socket
// (ControlServer.h) run as they arrive, until SIGINT or SIGTERM, or until
// standard output cannot be written: a daemon that can no longer say what
// it was asked stops, as a scenario does. SIGHUP reads the --config file
// again and changes what can change while running; the service manager
// hears how it is (ServiceNotifier.h).
//
//   Runner runner(agent);
//   return runLive(options, agent, runner, loop);   // the exit status
//
// REQUIRES: `options.live`; `agent` made with `options`' plugins and backend.
// Threading: the event thread only.
#pragma once

#include "agent/cli/CommandLine.h"
#include "agent/cli/Runner.h"
#include "agent/host/Agent.h"
#include "platform/Pell.h"

namespace AclAgent {

int runLive(const CommandLine& options, Agent& agent, Runner& runner,
            const Zov::Ptr<Pell::TaskSchedulerRoot>& loop);

}  // namespace AclAgent
