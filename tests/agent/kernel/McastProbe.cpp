// mcast-probe: sends or receives UDP datagrams to a multicast group, for the
// tests that check what the kernel's rules let through.
//
//   mcast-probe receive GROUP PORT INTERFACE COUNT MILLISECONDS
//       joins GROUP on INTERFACE, prints "listening", counts the datagrams
//       that reach PORT until COUNT have, or until MILLISECONDS after its
//       standard input ends, and prints "received N"
//   mcast-probe send GROUP PORT INTERFACE COUNT
//       sends COUNT datagrams out of INTERFACE
//
// The receiver's window opens when it listens and closes a moment after
// whoever started it says the sending is done (by closing its standard
// input), not at a fixed time: on a loaded machine the sender can take
// seconds to start. MILLISECONDS is only how long datagrams already sent may
// still be on their way through the kernel, the time that a datagram that
// must not arrive is given to show up.
//
// Exit status: 0 when it ran, 2 for a usage error, 1 when a socket call failed.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int fail(const char* what) {
  std::fprintf(stderr, "mcast-probe: %s: %s\n", what, std::strerror(errno));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  in_addr group{};
  if (!((mode == "receive" && argc == 7) || (mode == "send" && argc == 6)) ||
      inet_pton(AF_INET, argv[2], &group) != 1) {
    std::fprintf(stderr,
                 "usage: mcast-probe receive GROUP PORT INTERFACE COUNT MILLISECONDS\n"
                 "       mcast-probe send GROUP PORT INTERFACE COUNT\n");
    return 2;
  }
  const ip_mreqn membership{group, {}, static_cast<int>(if_nametoindex(argv[4]))};
  if (membership.imr_ifindex == 0) return fail(argv[4]);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[3])));
  address.sin_addr = group;
  const int n = std::atoi(argv[5]);
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return fail("socket");

  if (mode == "send") {
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &membership, sizeof membership) != 0) {
      return fail("choose the interface");
    }
    for (int i = 0; i < n; ++i) {
      if (sendto(fd, "probe", 5, 0, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
        return fail("send");
      }
    }
    return 0;
  }

  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return fail("bind");
  if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
    return fail("join the group");
  }
  // Ready: whoever started us may send now.
  std::printf("listening\n");
  std::fflush(stdout);
  const int grace = std::atoi(argv[6]);
  int received = 0;
  bool sent = false;  // standard input has ended
  std::chrono::steady_clock::time_point end;
  while (received < n) {
    // Before the sending is done, wait for as long as it takes; after, only
    // until the grace is over, but always look once more, so that datagrams
    // that arrived while this process waited for a CPU are counted.
    int timeout = -1;
    if (sent) {
      const auto left = end - std::chrono::steady_clock::now();
      timeout = static_cast<int>(
          std::max<std::int64_t>(0, std::chrono::ceil<std::chrono::milliseconds>(left).count()));
    }
    pollfd ready[2]{{fd, POLLIN, 0}, {sent ? -1 : STDIN_FILENO, POLLIN, 0}};
    const int count = poll(ready, 2, timeout);
    if (count < 0) {
      if (errno == EINTR) continue;
      return fail("poll");
    }
    if (count == 0) break;
    char buffer[1500];
    if ((ready[0].revents & POLLIN) && recv(fd, buffer, sizeof buffer, 0) >= 0) ++received;
    if (ready[1].revents != 0 && read(STDIN_FILENO, buffer, sizeof buffer) <= 0) {
      sent = true;
      end = std::chrono::steady_clock::now() + std::chrono::milliseconds(grace);
    }
  }
  std::printf("received %d\n", received);
  return 0;
}
