// A load generator: keeps a number of requests outstanding at a UDP server on this machine for a
// time, checks every reply, and prints one line of what it measured.
//
// With --damage a burst of damaged and random datagrams goes before every request. A server that
// serves one socket takes datagrams in turn, so a reply shows that it took the burst before it too.
//
// A request-id is 0x40000000 + sequence * 1024 + slot: the slot tells the outstanding requests
// apart, the sequence a late reply from the one that is waited for.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "workload.h"

namespace {

using namespace torvasin_bench;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;
using time_point = clock_type::time_point;

constexpr unsigned slot_bits = 10;
constexpr std::uint32_t slot_mask = (1u << slot_bits) - 1;
constexpr std::uint32_t sequence_mask = 0xFFFFF;
constexpr std::size_t largest_reply = 1472;  // a longer one arrives cut off, and so is wrong
constexpr auto warm_up = 200ms;              // not measured
constexpr auto scan_period = 20ms;           // between two looks for lost requests

// Until a request counts as lost and is sent again.
constexpr std::chrono::milliseconds reply_timeout = 200ms;
constexpr std::chrono::milliseconds reply_timeout_among_damaged = 1000ms;

// With its request it takes less than 32 KiB of the server's receive buffer: six sockets with one
// request outstanding each stay below the default of 208 KiB, so that nothing is dropped.
constexpr std::size_t largest_burst = 12;
constexpr std::size_t largest_damaged = 1600;  // some exceed the 1472 octets that an agent reads

struct options {
  request_kind kind = request_kind::get1;
  std::uint16_t port = 161;
  unsigned outstanding = 32;
  double seconds = 2;
  std::uint32_t items = 100;
  std::vector<std::string> oids;
  std::optional<std::uint32_t> damage;
  bool echo = false;
  bool spin = false;
};

// Counts by their first ten significant bits, so that memory does not grow with the time.
class latencies {
 public:
  void add(std::chrono::nanoseconds latency) {
    longest_ = std::max(longest_, latency);
    counts_[std::bit_cast<std::uint32_t>(static_cast<float>(latency.count())) >> dropped_bits]++;
    total_++;
  }
  std::uint64_t total() const { return total_; }
  double longest_us() const { return static_cast<double>(longest_.count()) / 1e3; }
  double percentile_us(std::uint64_t percent) const {
    std::uint64_t below = 0;
    std::uint32_t at = 0;
    while (at < counts_.size() && (below += counts_[at]) * 100 <= (total_ - 1) * percent) at++;
    return total_ == 0 ? 0.0 : static_cast<double>(std::bit_cast<float>(at << dropped_bits)) / 1e3;
  }

 private:
  static constexpr unsigned dropped_bits = 14;  // of a float's 23
  std::vector<std::uint64_t> counts_ = std::vector<std::uint64_t>(1u << (31 - dropped_bits));
  std::uint64_t total_ = 0;
  std::chrono::nanoseconds longest_{0};
};

struct results {
  latencies measured;
  std::uint64_t lost = 0;   // requests given up
  std::uint64_t late = 0;   // replies to requests given up, or to damaged ones
  std::uint64_t wrong = 0;  // replies that are not as they should be
  std::uint64_t damaged = 0;
};

struct slot {
  octets message;
  std::size_t id_at;               // where the message has its request-id
  std::optional<std::int64_t> id;  // of the request that is outstanding
  time_point asked;                // when it was sent for the first time
  time_point sent;                 // and for the last time
};

class generator {
 public:
  generator(int fd, const options& given, std::vector<octets> requests);
  results run();

 private:
  void ask(std::size_t i);
  void ask_again(std::size_t i);
  void send_queued();
  void send_burst();
  octets damaged_request();
  void take_reply(view message, time_point now);
  void find_lost(time_point now);
  bool is_right() const;

  const int fd_;
  const options& given_;
  const std::vector<octets> requests_;
  std::size_t next_request_ = 0;
  std::uint32_t sequence_ = 0;
  std::size_t outstanding_ = 0;
  time_point begin_, end_;  // of the time that is measured
  std::vector<slot> slots_;
  std::vector<std::size_t> queued_;
  std::vector<octets> inputs_;
  std::vector<iovec> out_parts_, in_parts_;
  std::vector<mmsghdr> out_, in_;
  read_response reply_;
  std::mt19937 random_;
  results results_;
};

generator::generator(int fd, const options& given, std::vector<octets> requests)
    : fd_(fd),
      given_(given),
      requests_(std::move(requests)),
      slots_(given.outstanding),
      inputs_(given.outstanding, octets(largest_reply)),
      out_parts_(given.outstanding),
      in_parts_(given.outstanding),
      out_(given.outstanding),
      in_(given.outstanding),
      random_(given.damage.value_or(0)) {
  for (std::size_t i = 0; i < given.outstanding; i++) {
    in_parts_[i] = {inputs_[i].data(), inputs_[i].size()};
    in_[i].msg_hdr.msg_iov = &in_parts_[i];
    out_[i].msg_hdr.msg_iov = &out_parts_[i];
    in_[i].msg_hdr.msg_iovlen = out_[i].msg_hdr.msg_iovlen = 1;
  }
}

// Puts the next request into a slot, to be sent with the others queued.
void generator::ask(std::size_t i) {
  slot& s = slots_[i];
  s.message = requests_[next_request_];
  next_request_ = (next_request_ + 1) % requests_.size();
  const auto id = std::search(s.message.begin(), s.message.end(), std::begin(placeholder_id),
                              std::end(placeholder_id));
  s.id_at = static_cast<std::size_t>(id - s.message.begin());
  s.asked = {};
  outstanding_++;
  ask_again(i);
}

void generator::ask_again(std::size_t i) {
  slot& s = slots_[i];
  sequence_ = (sequence_ + 1) & sequence_mask;
  const std::uint32_t id = 0x40000000 | sequence_ << slot_bits | static_cast<std::uint32_t>(i);
  const std::uint32_t on_the_wire = htonl(id);
  std::memcpy(&s.message[s.id_at], &on_the_wire, sizeof on_the_wire);
  s.id = id;
  queued_.push_back(i);
}

// What the system does not take is found lost in time.
void generator::send_queued() {
  for (std::size_t i = 0; given_.damage && i < queued_.size(); i++) send_burst();
  const time_point now = clock_type::now();
  for (std::size_t i = 0; i < queued_.size(); i++) {
    slot& s = slots_[queued_[i]];
    s.sent = now;
    if (s.asked == time_point()) s.asked = now;
    out_parts_[i] = {s.message.data(), s.message.size()};
  }
  for (std::size_t done = 0; done < queued_.size();) {
    const auto left = static_cast<unsigned>(queued_.size() - done);
    const int sent = sendmmsg(fd_, out_.data() + done, left, 0);
    if (sent <= 0) break;
    done += static_cast<std::size_t>(sent);
  }
  queued_.clear();
}

void generator::send_burst() {
  for (std::size_t n = random_() % (largest_burst + 1); n > 0; n--) {
    const octets datagram = damaged_request();
    if (send(fd_, datagram.data(), datagram.size(), 0) >= 0) results_.damaged++;
  }
}

// A request with a few octets changed, cut off or added, or nothing but noise. Its request-id is
// not one that is waited for.
octets generator::damaged_request() {
  const auto below = [&](std::size_t n) { return random_() % n; };
  const auto any_octet = [&] { return static_cast<std::uint8_t>(random_()); };
  octets datagram = requests_[below(requests_.size())];
  switch (below(4)) {
    case 0:
      datagram.resize(below(datagram.size()));
      break;
    case 1:
      datagram.resize(datagram.size() + 1 + below(largest_damaged - datagram.size()), any_octet());
      break;
    case 2:
      datagram.resize(below(largest_damaged));
      std::ranges::generate(datagram, any_octet);
      break;
    default:
      for (std::size_t n = 1 + below(4); n > 0; n--) datagram[below(datagram.size())] = any_octet();
      break;
  }
  return datagram;
}

// The few items that are asked for among damaged requests may end before a GETBULK does.
bool generator::is_right() const {
  if (given_.echo) return true;
  if (reply_.error_status != 0) return false;
  const std::size_t count = reply_.varbinds.size();
  if (given_.damage) return count > 0;
  const bool asks_many = given_.kind == request_kind::get20 || given_.kind == request_kind::bulk20;
  return count == (asks_many ? many : 1) &&
         std::ranges::all_of(reply_.varbinds, [](const auto& one) { return one.second[0] < 0x80; });
}

void generator::take_reply(view message, time_point now) {
  if (read_strictly(message, &reply_, given_.echo ? pdu_tag(given_.kind) : 0xA2) != nullptr) {
    results_.wrong++;
    return;
  }
  const auto i = static_cast<std::size_t>(reply_.id & slot_mask);
  if (i >= slots_.size() || slots_[i].id != reply_.id) {
    results_.late++;
    return;
  }
  if (!is_right()) results_.wrong++;
  if (now >= begin_ && now < end_) results_.measured.add(now - slots_[i].asked);
  slots_[i].id.reset();
  outstanding_--;
  if (now < end_) ask(i);
}

void generator::find_lost(time_point now) {
  const auto patience = given_.damage ? reply_timeout_among_damaged : reply_timeout;
  for (std::size_t i = 0; i < slots_.size(); i++) {
    if (!slots_[i].id || now - slots_[i].sent < patience) continue;
    results_.lost++;
    if (now < end_) {
      ask_again(i);
    } else {
      slots_[i].id.reset();
      outstanding_--;
    }
  }
}

// Asks until the end, and waits for the replies to what was asked.
results generator::run() {
  time_point now = clock_type::now();
  time_point next_scan = now + scan_period;
  const std::chrono::duration<double> measured(given_.seconds);
  begin_ = now + warm_up;
  end_ = begin_ + std::chrono::duration_cast<clock_type::duration>(measured);
  for (std::size_t i = 0; i < slots_.size(); i++) ask(i);
  send_queued();
  while (outstanding_ > 0) {
    const int received = recvmmsg(fd_, in_.data(), given_.outstanding,
                                  given_.spin ? MSG_DONTWAIT : MSG_WAITFORONE, nullptr);
    now = clock_type::now();
    for (int i = 0; i < received; i++) {
      const auto at = static_cast<std::size_t>(i);
      take_reply(view(inputs_[at]).first(in_[at].msg_len), now);
    }
    if (now >= next_scan) {
      find_lost(now);
      next_scan = now + scan_period;
    }
    send_queued();
  }
  return std::move(results_);
}

// ---- Command line ------------------------------------------------------------------------------

object_id parse_oid(const std::string& dotted) {
  std::string text = dotted;
  std::ranges::replace(text, '.', ' ');
  std::istringstream in(text);
  const object_id oid(std::istream_iterator<std::uint32_t>(in), {});
  if (!in.eof() || oid.size() < 2) throw std::invalid_argument("not an OID: " + dotted);
  return oid;
}

std::vector<octets> requests_of(const options& given) {
  std::vector<object_id> oids;
  std::ranges::transform(given.oids, std::back_inserter(oids), parse_oid);
  for (std::uint32_t i = 0; given.oids.empty() && i < given.items; i++)
    oids.push_back(table_oid(i));
  return make_requests(given.kind, oids);
}

void add_options(CLI::App& app, options& given) {
  static const std::map<std::string, request_kind> kinds = {{"get1", request_kind::get1},
                                                            {"get20", request_kind::get20},
                                                            {"next1", request_kind::next1},
                                                            {"bulk20", request_kind::bulk20}};
  app.add_option("request", given.kind, "get1, get20, next1 or bulk20")
      ->transform(CLI::Transformer(kinds));
  app.add_option("--port", given.port, "Port of the server")->capture_default_str();
  app.add_option("--outstanding", given.outstanding, "Requests under way at any time")
      ->check(CLI::Range(1u, 1u << slot_bits))
      ->capture_default_str();
  app.add_option("--seconds", given.seconds, "Time to measure, after a warm-up of 0.2 s")
      ->check(CLI::Range(0.1, 86400.0))
      ->capture_default_str();
  app.add_option("--items", given.items, "Items of the server's test table; 21 at least for bulk20")
      ->check(CLI::Range(1u, 1'000'000u))
      ->capture_default_str();
  app.add_option("--oid", given.oids, "OIDs to ask for instead, in ascending order");
  app.add_option("--damage", given.damage,
                 "Seed of damaged datagrams, a burst before each request");
  app.add_flag("--echo", given.echo, "The server is an echo: check the request-ids alone");
  app.add_flag("--spin", given.spin, "Poll for replies without sleeping");
}

int open_socket(std::uint16_t port) {
  // Bounds the wait for a reply, so that the end and lost requests are noticed in time.
  constexpr timeval receive_timeout = {0, 20'000};
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in server = {};
  server.sin_family = AF_INET;
  server.sin_port = htons(port);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0 ||
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof receive_timeout) != 0) {
    throw std::system_error(errno, std::generic_category(), "socket");
  }
  return fd;
}

// Whether the server did what it has to.
bool measure(const options& given) {
  const int fd = open_socket(given.port);
  const results found = generator(fd, given, requests_of(given)).run();
  close(fd);
  const std::uintmax_t replies = found.measured.total();
  std::printf("replies=%ju replies_per_s=%.0f p50_us=%.1f p99_us=%.1f lost=%ju late=%ju wrong=%ju",
              replies, static_cast<double>(replies) / given.seconds,
              found.measured.percentile_us(50), found.measured.percentile_us(99), found.lost,
              found.late, found.wrong);
  if (given.damage) {
    std::printf(" damaged=%ju longest_us=%.1f", found.damaged, found.measured.longest_us());
  }
  std::puts("");
  return replies > 0 && found.wrong == 0 && (!given.damage || found.lost == 0);
}

}  // namespace

int main(int argc, char** argv) {
  options given;
  CLI::App app(
      "Loads a server on this machine with SNMP requests. Fails when no reply comes or one is "
      "wrong, and with --damage when a request is lost.",
      "load");
  add_options(app, given);
  CLI11_PARSE(app, argc, argv);
  try {
    return measure(given) ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "load: %s\n", error.what());
    return 1;
  }
}
