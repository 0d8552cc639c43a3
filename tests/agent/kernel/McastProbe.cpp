// mcast-probe: sends or receives UDP datagrams to a multicast group, for the
// tests that check what the kernel's rules let through.
//
//   mcast-probe receive GROUP PORT INTERFACE MILLISECONDS
//       joins GROUP on INTERFACE, prints "listening", counts the datagrams
//       that reach PORT within MILLISECONDS and prints "received N"
//   mcast-probe send GROUP PORT INTERFACE COUNT
//       sends COUNT datagrams out of INTERFACE
//
// Exit status: 0 when it ran, 2 for a usage error, 1 when a socket call failed.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

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
  const std::string mode = argc == 6 ? argv[1] : "";
  in_addr group{};
  if ((mode != "receive" && mode != "send") || inet_pton(AF_INET, argv[2], &group) != 1) {
    std::fprintf(stderr,
                 "usage: mcast-probe receive GROUP PORT INTERFACE MILLISECONDS\n"
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
  int received = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(n);
  for (auto now = std::chrono::steady_clock::now(); now < end;
       now = std::chrono::steady_clock::now()) {
    pollfd ready{fd, POLLIN, 0};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now).count();
    if (poll(&ready, 1, static_cast<int>(left)) <= 0) continue;
    char buffer[1500];
    if (recv(fd, buffer, sizeof buffer, 0) >= 0) ++received;
  }
  std::printf("received %d\n", received);
  return 0;
}
