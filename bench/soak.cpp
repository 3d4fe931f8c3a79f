// Keeps an agent under full load of good, damaged and random datagrams from several sockets on
// loopback, for a bounded time, and says whether every good request was answered.
//
// Each socket sends a burst of bad datagrams and then one good request, and sends no more until
// that one is answered or given up. The agent's socket is a queue, so an answer shows that the
// whole burst before it has been taken. All bursts together stay below the socket's default receive
// buffer, so nothing is dropped there; the script beside this program checks that with the kernel's
// own count.

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <random>
#include <stdexcept>

#include "message.h"

namespace {

using namespace torvasin_bench;
using clock_type = std::chrono::steady_clock;

constexpr std::size_t sockets = 4;
constexpr std::size_t largest_burst = 12;  // 4 * 13 datagrams of at most 2 KiB: below 208 KiB
constexpr std::size_t largest_bad = 1600;  // some exceed the 1472 octets that an agent reads
constexpr std::size_t largest_answer = 1472;
constexpr std::chrono::milliseconds patience(1000);

struct totals {
  std::uint64_t good = 0;
  std::uint64_t answered = 0;
  std::uint64_t bad = 0;
  std::uint64_t other_answers = 0;  // to damaged requests that were still requests
  std::chrono::microseconds longest{0};
};

class soak {
 public:
  soak(std::uint16_t port, std::uint32_t seed) : random_(seed) {
    std::vector<object_id> oids;
    for (std::uint32_t group = 1; group <= 4; group++) {
      for (std::uint32_t i = 1; i <= 3; i++) oids.push_back({1, 3, 6, 1, 4, 1, 32473, group, i, 0});
    }
    for (auto kind :
         {request_kind::get1, request_kind::get20, request_kind::next1, request_kind::bulk20}) {
      for (octets& request : make_requests(kind, oids)) good_.push_back(std::move(request));
    }
    sockaddr_in agent = {};
    agent.sin_family = AF_INET;
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    agent.sin_port = htons(port);
    for (peer& one : peers_) {
      one.fd = ::socket(AF_INET, SOCK_DGRAM, 0);
      if (::connect(one.fd, reinterpret_cast<sockaddr*>(&agent), sizeof agent) != 0) {
        throw std::runtime_error("cannot reach the agent");
      }
    }
  }
  ~soak() {
    for (peer& one : peers_) ::close(one.fd);
  }
  soak(const soak&) = delete;
  soak& operator=(const soak&) = delete;

  totals run(std::chrono::seconds duration) {
    const auto end = clock_type::now() + duration;
    while (clock_type::now() < end) {
      for (peer& one : peers_) send_burst(one);
      for (peer& one : peers_) await(one);
    }
    return totals_;
  }

 private:
  struct peer {
    int fd = -1;
    std::uint32_t id = 0;
    clock_type::time_point sent;
  };

  std::size_t below(std::size_t n) { return random_() % n; }
  std::uint8_t any_octet() { return static_cast<std::uint8_t>(random_()); }

  // A good request with a few octets changed, cut off or added, or nothing but noise.
  octets bad_datagram() {
    octets datagram = good_[below(good_.size())];
    switch (below(4)) {
      case 0:
        datagram.resize(below(datagram.size()));
        break;
      case 1:
        datagram.resize(datagram.size() + 1 + below(largest_bad - datagram.size()), any_octet());
        break;
      case 2:
        datagram.resize(below(largest_bad));
        std::generate(datagram.begin(), datagram.end(), [this] { return any_octet(); });
        break;
      default:
        for (std::size_t n = 1 + below(4); n > 0; n--)
          datagram[below(datagram.size())] = any_octet();
        break;
    }
    return datagram;
  }

  void send_burst(peer& to) {
    for (std::size_t n = below(largest_burst + 1); n > 0; n--) {
      const octets datagram = bad_datagram();
      if (::send(to.fd, datagram.data(), datagram.size(), 0) >= 0) totals_.bad++;
    }
    octets request = good_[below(good_.size())];
    to.id = next_id_++;
    set_request_id(request, find_request_id(request).value(), to.id);
    to.sent = clock_type::now();
    if (::send(to.fd, request.data(), request.size(), 0) >= 0) totals_.good++;
  }

  void await(peer& from) {
    for (auto left = patience; left.count() > 0;) {
      pollfd ready = {from.fd, POLLIN, 0};
      ::poll(&ready, 1, static_cast<int>(left.count()));
      std::array<std::uint8_t, 2048> answer;
      const ssize_t length = ::recv(from.fd, answer.data(), answer.size(), MSG_DONTWAIT);
      const auto waited = clock_type::now() - from.sent;
      if (length > 0) {
        if (length > static_cast<ssize_t>(largest_answer))
          throw std::runtime_error("answer too long");
        const auto reply = read_reply({answer.data(), static_cast<std::size_t>(length)});
        if (!reply) throw std::runtime_error("an answer that is no Response");
        if (reply->id == from.id && reply->error_status == 0 && reply->varbinds > 0) {
          totals_.answered++;
          totals_.longest = std::max(totals_.longest,
                                     std::chrono::duration_cast<std::chrono::microseconds>(waited));
          return;
        }
        totals_.other_answers++;
      }
      left = patience - std::chrono::duration_cast<std::chrono::milliseconds>(waited);
    }
    totals_.longest = std::max<std::chrono::microseconds>(totals_.longest, patience);
  }

  std::mt19937 random_;
  std::vector<octets> good_;
  std::array<peer, sockets> peers_;
  std::uint32_t next_id_ = 0x41000000;  // not the id that damaged requests carry
  totals totals_;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Loads an SNMP agent that serves the example configuration.");
  std::uint16_t port = 0;
  std::uint32_t seconds = 10;
  std::uint32_t seed = 1;
  app.add_option("port", port, "loopback port of the agent")->required();
  app.add_option("--seconds", seconds, "how long")->check(CLI::Range(1, 86400));
  app.add_option("--seed", seed, "seed of the damage");
  CLI11_PARSE(app, argc, argv);
  try {
    const totals all = soak(port, seed).run(std::chrono::seconds(seconds));
    std::printf("good=%llu answered=%llu bad=%llu other_answers=%llu longest_us=%lld\n",
                static_cast<unsigned long long>(all.good),
                static_cast<unsigned long long>(all.answered),
                static_cast<unsigned long long>(all.bad),
                static_cast<unsigned long long>(all.other_answers),
                static_cast<long long>(all.longest.count()));
    return all.good == all.answered ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak: %s\n", error.what());
    return 1;
  }
}
