// A load generator: for a given time keeps a number of requests outstanding at a UDP server on this
// machine, checks every reply, and prints one line of measurements. It polls for replies, so that
// only the server limits the rate. With --damage it sleeps instead, because several generators may
// then run at once.
//
// Request-ids count up, and a server with one socket answers in order. So a reply shows that the
// server has received everything sent before it, and that older requests without a reply are lost.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <sstream>

#include "workload.h"

namespace {

using namespace torvasin_bench;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;
using time_point = clock_type::time_point;

constexpr std::uint32_t first_id = 0x40000000;  // takes four octets, like the placeholder
constexpr std::uint32_t table_items = 100;      // items of the table to ask for
constexpr auto patience = 1000ms;               // until a request counts as lost
constexpr std::size_t largest_reply = 1472;     // a longer one arrives truncated, so it is wrong

// Damaged datagrams before a request. With the request they take less than 32 KiB of the server's
// receive buffer, 208 KiB by default. So six sockets with one outstanding request each never fill
// it, and the kernel drops nothing.
constexpr std::size_t largest_burst = 12;
constexpr std::size_t largest_damaged = 1600;  // octets; some exceed the 1472 that an agent reads

struct options {
  request_kind kind = request_kind::get1;
  std::uint16_t port = 161;
  unsigned outstanding = 32;
  double seconds = 2;
  std::vector<std::string> oids;
  std::optional<std::uint32_t> damage;
  std::uint32_t table = 0;
  bool echo = false;
};

class generator {
 public:
  generator(const options& given, int fd, std::vector<octets> requests)
      : given_(given), fd_(fd), requests_(std::move(requests)), asked_(given.outstanding) {}

  // Sends requests until the time is over, then waits for the outstanding replies.
  void run() {
    std::uint8_t reply[largest_reply];
    time_point now = clock_type::now();
    const auto end = now + std::chrono::duration<double>(given_.seconds);
    while (now < end || oldest_ != next_) {
      while (now < end && next_ - oldest_ < given_.outstanding) ask();
      const ssize_t received = recv(fd_, reply, sizeof reply, given_.damage ? 0 : MSG_DONTWAIT);
      now = clock_type::now();
      if (received >= 0) take_reply({reply, static_cast<std::size_t>(received)}, now);
      for (; oldest_ != next_ && now - asked(oldest_) >= patience; oldest_++) lost_++;
    }
  }

  // Prints the measurements. Returns whether the server answered as it must.
  bool report() const {
    std::printf(
        "replies=%ju replies_per_s=%.0f p50_us=%.1f p99_us=%.1f longest_us=%.1f lost=%ju "
        "late=%ju wrong=%ju damaged=%ju\n",
        replies_, static_cast<double>(replies_) / given_.seconds, percentile_us(50),
        percentile_us(99), percentile_us(100), lost_, late_, wrong_, damaged_);
    return replies_ > 0 && wrong_ == 0 && (!given_.damage || lost_ == 0);
  }

 private:
  time_point& asked(std::uint32_t id) { return asked_[id % asked_.size()]; }

  // A request that the system refuses to send counts as lost later, when no reply comes.
  void ask() {
    if (given_.damage) send_burst();
    message_ = requests_[next_ % requests_.size()];
    const std::uint32_t id = htonl(next_);
    std::memcpy(&*std::ranges::search(message_, placeholder_id).begin(), &id, sizeof id);
    asked(next_++) = clock_type::now();
    send(fd_, message_.data(), message_.size(), 0);
  }

  // Sends requests with a few octets changed, or nothing but noise, half of them with another
  // length. Nobody waits for replies to them.
  void send_burst() {
    const auto below = [&](std::size_t n) { return random_() % n; };
    const auto any_octet = [&] { return static_cast<std::uint8_t>(random_()); };
    for (std::size_t left = below(largest_burst + 1); left > 0; left--) {
      octets datagram = requests_[below(requests_.size())];
      if (below(2) == 0) datagram.resize(1 + below(largest_damaged), any_octet());
      const std::size_t size = datagram.size();
      for (std::size_t n = below(4) == 0 ? size : 1 + below(4); n > 0; n--) {
        datagram[below(size)] = any_octet();
      }
      if (send(fd_, datagram.data(), size, 0) >= 0) damaged_++;
    }
  }

  void take_reply(view message, time_point now) {
    const std::uint8_t tag = given_.echo ? pdu_tag(given_.kind) : response_tag;
    if (read_strictly(message, &reply_, tag) != nullptr) {
      wrong_++;
      return;
    }
    const auto id = static_cast<std::uint32_t>(reply_.id);
    if (id - oldest_ >= next_ - oldest_) {
      late_++;
      return;
    }
    if (!given_.echo && !is_right()) wrong_++;
    replies_++;
    latencies_[(now - asked(id)) / 100ns]++;
    lost_ += id - oldest_;
    oldest_ = id + 1;
  }

  // With --damage, the table may have fewer items than a GETBULK asks for.
  bool is_right() const {
    const auto is_value = [](const auto& varbind) { return varbind.second[0] < 0x80; };
    if (reply_.error_status != 0) return false;
    if (given_.damage) return !reply_.varbinds.empty();
    const bool one = given_.kind == request_kind::get1 || given_.kind == request_kind::next1;
    return reply_.varbinds.size() == (one ? 1 : many) &&
           std::ranges::all_of(reply_.varbinds, is_value);
  }

  double percentile_us(unsigned percent) const {
    std::uint64_t below = 0;
    for (const auto& [latency, count] : latencies_) {
      below += count;
      if (below * 100 >= replies_ * percent) return static_cast<double>(latency) / 10;
    }
    return 0;
  }

  const options& given_;
  const int fd_;
  const std::vector<octets> requests_;
  std::uint32_t oldest_ = first_id;  // the oldest outstanding request
  std::uint32_t next_ = first_id;    // the next request to send
  std::vector<time_point> asked_;    // when the outstanding requests were sent
  octets message_;
  read_response reply_;
  std::mt19937 random_{given_.damage.value_or(0)};
  std::map<std::int64_t, std::uint64_t> latencies_;  // how many replies took this long, in 0.1 us
  std::uint64_t replies_ = 0;
  std::uint64_t lost_ = 0;     // requests without a reply
  std::uint64_t late_ = 0;     // replies to requests counted as lost, or to damaged ones
  std::uint64_t wrong_ = 0;    // malformed replies, errors, and answers that lack a value
  std::uint64_t damaged_ = 0;  // damaged datagrams sent
};

int open_socket(std::uint16_t port) {
  constexpr timeval receive_timeout = {0, 20'000};  // lets run() notice lost requests in time
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in server = {};
  server.sin_family = AF_INET;
  server.sin_port = htons(port);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0 ||
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof receive_timeout) != 0) {
    std::perror("load");
    std::exit(EXIT_FAILURE);
  }
  return fd;
}

object_id parse_oid(std::string text) {
  std::ranges::replace(text, '.', ' ');
  std::istringstream in(text);
  object_id oid;
  for (std::uint32_t subid; in >> subid;) oid.push_back(subid);
  return oid;
}

}  // namespace

int main(int argc, char** argv) {
  options given;
  CLI::App app(
      "Sends SNMP requests to a server on this machine. Fails when no reply comes or one is wrong, "
      "and with --damage when a request is lost.",
      "load");
  const std::map<std::string, request_kind> kinds = {{"get1", request_kind::get1},
                                                     {"get20", request_kind::get20},
                                                     {"next1", request_kind::next1},
                                                     {"bulk20", request_kind::bulk20}};
  app.add_option("request", given.kind, "get1, get20, next1 or bulk20")
      ->transform(CLI::Transformer(kinds));
  app.add_option("--port", given.port, "Port of the server");
  app.add_option("--outstanding", given.outstanding, "Requests outstanding at any time")
      ->check(CLI::PositiveNumber);
  app.add_option("--seconds", given.seconds, "Time to measure");
  app.add_option("--oid", given.oids, "OIDs to ask for, in ascending order");
  app.add_option("--damage", given.damage,
                 "Send damaged datagrams before each request; seed of their random numbers");
  app.add_flag("--echo", given.echo, "The server is an echo: check only the request-ids");
  app.add_option("--table", given.table, "Print the configuration of a table of N items instead");
  CLI11_PARSE(app, argc, argv);
  if (given.table > 0) {
    std::printf("[General]\nport = %d\n%s", given.port, table_ini(given.table).c_str());
    return EXIT_SUCCESS;
  }
  std::vector<object_id> oids = table_oids(table_items);
  if (!given.oids.empty()) {
    oids.clear();
    std::ranges::transform(given.oids, std::back_inserter(oids), parse_oid);
  }
  generator load(given, open_socket(given.port), make_requests(given.kind, oids));
  load.run();
  return load.report() ? EXIT_SUCCESS : EXIT_FAILURE;
}
