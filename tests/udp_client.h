
#ifndef TORVASIN_TESTS_UDP_CLIENT_H
#define TORVASIN_TESTS_UDP_CLIENT_H

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "strict_reader.h"
#include "support.h"

// Asks a real agent over loopback, at the address that an agent's socket is bound to.
class udp_client {
 public:
  explicit udp_client(int agent_socket) {
    sockaddr_in agent = {};
    socklen_t length = sizeof agent;
    getsockname(agent_socket, reinterpret_cast<sockaddr*>(&agent), &length);
    connect(fd_, reinterpret_cast<sockaddr*>(&agent), sizeof agent);
  }
  ~udp_client() { close(fd_); }
  udp_client(const udp_client&) = delete;

  void tell(const octets& datagram) { send(fd_, datagram.data(), datagram.size(), 0); }

  // The answer as describe() puts it, "silence" when none comes within the patience, milliseconds.
  std::string ask(const octets& datagram, int patience = 30000) {
    tell(datagram);
    uint8_t answer[2048];
    pollfd readable = {fd_, POLLIN, 0};
    const ssize_t length = poll(&readable, 1, patience) > 0 ? recv(fd_, answer, sizeof answer, 0) : -1;
    return length < 0 ? "silence" : describe(answer, static_cast<size_t>(length));
  }

 private:
  int fd_ = socket(AF_INET, SOCK_DGRAM, 0);
};

#endif  // TORVASIN_TESTS_UDP_CLIENT_H
