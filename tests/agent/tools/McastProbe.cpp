// mcast-probe: sends or receives UDP datagrams to a multicast group, for the
// tests that check what the kernel's rules let through.
//
//   mcast-probe receive GROUP PORT INTERFACE MILLISECONDS
//       joins GROUP on INTERFACE, counts the datagrams that reach PORT within
//       MILLISECONDS and prints "received N"
//   mcast-probe send GROUP PORT INTERFACE [COUNT]
//       sends COUNT (default 1) datagrams out of INTERFACE
//
// Exit status: 0 when it ran, 2 for a usage error, 1 when a socket call failed.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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

int receive(const in_addr& group, int port, unsigned interface, int milliseconds) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return fail("socket");
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr = group;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return fail("bind");
  ip_mreqn membership{};
  membership.imr_multiaddr = group;
  membership.imr_ifindex = static_cast<int>(interface);
  if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
    return fail("join the group");
  }
  // Ready: whoever started us may send now.
  std::printf("listening\n");
  std::fflush(stdout);
  int received = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          end - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) break;
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(left)) <= 0) continue;
    char buffer[1500];
    if (recv(fd, buffer, sizeof buffer, 0) >= 0) ++received;
  }
  std::printf("received %d\n", received);
  close(fd);
  return 0;
}

int send(const in_addr& group, int port, unsigned interface, int count) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return fail("socket");
  ip_mreqn out{};
  out.imr_ifindex = static_cast<int>(interface);
  if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out) != 0) {
    return fail("choose the interface");
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr = group;
  for (int i = 0; i < count; ++i) {
    const char datagram[] = "probe";
    if (sendto(fd, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&address),
               sizeof address) < 0) {
      return fail("send");
    }
  }
  close(fd);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if ((mode != "receive" && mode != "send") || argc < 5 || (mode == "receive" && argc != 6)) {
    std::fprintf(stderr,
                 "usage: mcast-probe receive GROUP PORT INTERFACE MILLISECONDS\n"
                 "       mcast-probe send GROUP PORT INTERFACE [COUNT]\n");
    return 2;
  }
  in_addr group{};
  if (inet_pton(AF_INET, argv[2], &group) != 1) {
    std::fprintf(stderr, "mcast-probe: bad group \"%s\"\n", argv[2]);
    return 2;
  }
  const int port = std::atoi(argv[3]);
  const unsigned interface = if_nametoindex(argv[4]);
  if (interface == 0) return fail(argv[4]);
  if (mode == "receive") return receive(group, port, interface, std::atoi(argv[5]));
  return send(group, port, interface, argc > 5 ? std::atoi(argv[5]) : 1);
}
