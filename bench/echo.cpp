// The floor of any agent: one thread that sends every datagram back with one recvfrom and one
// sendto, the same calls with the same flags as the agent's poller. Ends on SIGTERM or SIGINT.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr timeval receive_timeout = {1, 0};

volatile std::sig_atomic_t ended = 0;

void end(int) {
  ended = 1;
}

int open_socket(std::uint16_t port) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof receive_timeout) != 0) {
    std::perror("echo");
    std::exit(EXIT_FAILURE);
  }
  return fd;
}

void serve(int fd) {
  std::uint8_t packet[1472];
  sockaddr_in peer = {};
  socklen_t peer_length = sizeof peer;
  auto* address = reinterpret_cast<sockaddr*>(&peer);
  while (ended == 0) {
    const ssize_t received =
        recvfrom(fd, packet, sizeof packet, MSG_WAITALL, address, &peer_length);
    if (received <= 0) continue;
    sendto(fd, packet, static_cast<std::size_t>(received), MSG_CONFIRM, address, sizeof peer);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const long port = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 0;
  if (port < 1 || port > UINT16_MAX) {
    std::fputs("usage: echo PORT\n", stderr);
    return EXIT_FAILURE;
  }
  std::signal(SIGTERM, end);
  std::signal(SIGINT, end);
  const int fd = open_socket(static_cast<std::uint16_t>(port));
  serve(fd);
  close(fd);
}
