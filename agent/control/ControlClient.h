// ControlClient: `acl-agent ctl [--control PATH] [WORD...]`, the operator's
// way to ask a running live agent.
//
//   return runControlClient(argc - 2, argv + 2);   // the arguments after "ctl"
//
// The words are sent as one command line (joined by single spaces, as a
// remote shell joins them; a name with spaces is quoted for the agent:
// `acl-agent ctl 'link set "a b" 1'`); without words each line of standard
// input is sent, one at a time. What each command prints goes to standard
// output as the agent would print it; its error goes to standard error, as
// `-:LINE: error: MESSAGE` for a line of standard input and
// `acl-agent ctl: error: MESSAGE` for the words. Exit status: 0, 1 when a
// command failed, 2 when no agent answers at the path (or it went away) or
// for a usage error.
//
// `--timeout SECONDS` (default 60) bounds each wait: for the agent to take
// the connection, and for each line's answer. An agent that does not answer
// in time is one that does not answer: exit 2, with `acl-agent ctl: the
// agent at PATH did not answer within N s` (1 would say that the agent ran
// the command and it failed, which the client cannot know).
#pragma once

namespace AclAgent {

int runControlClient(int argc, char** argv);

}  // namespace AclAgent
