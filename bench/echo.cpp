// An echo server, the lower bound for the cost of an agent: sends every datagram back with one
// recvfrom and one sendto, with the same flags as the agent's poller, until a signal ends it.
//
// It serves on a second thread, as the agent does: in a process with several threads the kernel
// counts the references to a socket in each call, which takes about a tenth of an echo's time.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

constexpr timeval receive_timeout = {1, 0};

[[noreturn]] void serve(int fd) {
  std::uint8_t packet[1472];
  sockaddr_in peer = {};
  socklen_t peer_length = sizeof peer;
  auto* address = reinterpret_cast<sockaddr*>(&peer);
  for (;;) {
    const ssize_t received =
        recvfrom(fd, packet, sizeof packet, MSG_WAITALL, address, &peer_length);
    if (received <= 0) continue;
    sendto(fd, packet, static_cast<std::size_t>(received), MSG_CONFIRM, address, sizeof peer);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(argc == 2 ? std::atoi(argv[1]) : 0));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (address.sin_port == 0 ||
      bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof receive_timeout) != 0) {
    std::perror("echo PORT");
    return EXIT_FAILURE;
  }
  std::thread(serve, fd).join();
}
