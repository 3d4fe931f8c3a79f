// A load generator: keeps a number of requests outstanding at a UDP server on this machine for a
// time, checks every reply, and prints one line of what it measured.
//
// A request-id is 0x40000000 + sequence * 1024 + slot: the slot tells the outstanding requests
// apart, the sequence a late reply from the one that is waited for.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "message.h"

namespace {

using namespace torvasin_bench;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;
using time_point = clock_type::time_point;

constexpr unsigned slot_bits = 10;
constexpr unsigned sequence_mask = 0xFFFFF;
constexpr std::size_t largest_reply = 8192;
constexpr auto warm_up = 200ms;        // not measured
constexpr auto reply_timeout = 200ms;  // then a request counts as lost and is sent again
constexpr auto scan_period = 20ms;     // between two looks for lost requests

struct options {
  std::string request = "get1";
  std::string address = "127.0.0.1";
  std::uint16_t port = 161;
  unsigned outstanding = 32;
  double seconds = 2;
  std::uint32_t items = 100;
  std::vector<std::string> oids;
  bool echo = false;
  bool spin = false;
};

struct results {
  std::vector<std::uint32_t> latencies;  // nanoseconds, of each reply measured
  std::uint64_t lost = 0;
  std::uint64_t wrong = 0;  // replies to no request, or not as they should be
  std::uint64_t late = 0;   // replies to requests given up as lost
  double seconds = 0;       // measured
};

// What a reply has to carry, unless the server is an echo; 0 varbinds for any number.
struct expectation {
  bool echo;
  std::size_t varbinds;
};

struct slot {
  octets message;
  std::size_t id_at = 0;
  std::uint32_t id = 0;
  time_point asked;  // when its request was sent for the first time
  time_point sent;   // and for the last time
};

class generator {
 public:
  generator(int fd, std::vector<octets> requests, expectation expected, const options& given);
  results run(std::chrono::duration<double> measured);

 private:
  void ask(std::size_t i);
  void ask_again(std::size_t i);
  void send_queued();
  int receive();
  void take_reply(std::span<const std::uint8_t> message, time_point now);
  void find_lost(time_point now);
  bool is_right(std::span<const std::uint8_t> message) const;

  int fd_;
  int receive_flags_;
  std::vector<octets> requests_;
  std::vector<std::size_t> id_places_;
  expectation expected_;
  std::uint32_t sequence_ = 0;
  std::size_t next_request_ = 0;
  bool measuring_ = false;
  std::vector<slot> slots_;
  std::vector<std::size_t> queued_;
  std::vector<octets> inputs_;
  std::vector<iovec> out_parts_;
  std::vector<iovec> in_parts_;
  std::vector<mmsghdr> out_;
  std::vector<mmsghdr> in_;
  results results_;
};

generator::generator(int fd, std::vector<octets> requests, expectation expected,
                     const options& given)
    : fd_(fd),
      receive_flags_(given.spin ? MSG_DONTWAIT : MSG_WAITFORONE),
      requests_(std::move(requests)),
      expected_(expected),
      slots_(given.outstanding),
      inputs_(given.outstanding, octets(largest_reply)),
      out_parts_(given.outstanding),
      in_parts_(given.outstanding),
      out_(given.outstanding),
      in_(given.outstanding) {
  for (const octets& request : requests_) id_places_.push_back(find_request_id(request).value());
  for (std::size_t i = 0; i < given.outstanding; i++) {
    in_parts_[i] = {inputs_[i].data(), inputs_[i].size()};
    in_[i].msg_hdr.msg_iov = &in_parts_[i];
    in_[i].msg_hdr.msg_iovlen = 1;
    out_[i].msg_hdr.msg_iov = &out_parts_[i];
    out_[i].msg_hdr.msg_iovlen = 1;
  }
}

// Puts the next request into a slot, to be sent with the others queued.
void generator::ask(std::size_t i) {
  slot& s = slots_[i];
  s.message = requests_[next_request_];
  s.id_at = id_places_[next_request_];
  next_request_ = (next_request_ + 1) % requests_.size();
  s.asked = {};
  ask_again(i);
}

void generator::ask_again(std::size_t i) {
  slot& s = slots_[i];
  sequence_ = (sequence_ + 1) & sequence_mask;
  s.id = 0x40000000 | sequence_ << slot_bits | static_cast<std::uint32_t>(i);
  set_request_id(s.message, s.id_at, s.id);
  queued_.push_back(i);
}

// What the system does not take is found lost in time.
void generator::send_queued() {
  const time_point now = clock_type::now();
  for (std::size_t i = 0; i < queued_.size(); i++) {
    slot& s = slots_[queued_[i]];
    s.sent = now;
    if (s.asked == time_point()) s.asked = now;
    out_parts_[i] = {s.message.data(), s.message.size()};
  }
  std::size_t done = 0;
  while (done < queued_.size()) {
    const int sent =
        sendmmsg(fd_, out_.data() + done, static_cast<unsigned>(queued_.size() - done), 0);
    if (sent <= 0) break;
    done += static_cast<std::size_t>(sent);
  }
  queued_.clear();
}

// The number of replies in in_, 0 for none within the socket's time-out.
int generator::receive() {
  return std::max(
      0, recvmmsg(fd_, in_.data(), static_cast<unsigned>(in_.size()), receive_flags_, nullptr));
}

bool generator::is_right(std::span<const std::uint8_t> message) const {
  if (expected_.echo) return true;
  const auto answer = read_reply(message);
  return answer && answer->error_status == 0 && answer->exceptions == 0 &&
         (expected_.varbinds == 0 || answer->varbinds == expected_.varbinds);
}

void generator::take_reply(std::span<const std::uint8_t> message, time_point now) {
  const auto id_at = find_request_id(message);
  std::uint32_t id = 0;
  for (std::size_t i = 0; id_at && i < 4; i++) id = id << 8 | message[*id_at + i];
  const std::size_t i = id & ((1u << slot_bits) - 1);
  if (!id_at || i >= slots_.size()) {
    results_.wrong++;
    return;
  }
  if (slots_[i].id != id) {
    results_.late++;
    return;
  }
  if (!is_right(message)) results_.wrong++;
  if (measuring_) {
    const auto latency =
        std::chrono::duration_cast<std::chrono::nanoseconds>(now - slots_[i].asked);
    results_.latencies.push_back(
        static_cast<std::uint32_t>(std::min<std::int64_t>(latency.count(), UINT32_MAX)));
  }
  ask(i);
}

void generator::find_lost(time_point now) {
  for (std::size_t i = 0; i < slots_.size(); i++) {
    if (now - slots_[i].sent < reply_timeout) continue;
    results_.lost++;
    ask_again(i);
  }
}

results generator::run(std::chrono::duration<double> measured) {
  time_point now = clock_type::now();
  time_point begin = now + warm_up;
  const time_point end = begin + std::chrono::duration_cast<clock_type::duration>(measured);
  time_point next_scan = now + scan_period;
  for (std::size_t i = 0; i < slots_.size(); i++) ask(i);
  send_queued();
  while (now < end) {
    const int received = receive();
    now = clock_type::now();
    if (!measuring_ && now >= begin) {
      measuring_ = true;
      begin = now;
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(received); i++) {
      take_reply({inputs_[i].data(), in_[i].msg_len}, now);
    }
    send_queued();
    if (now >= next_scan) {
      find_lost(now);
      send_queued();
      next_scan = now + scan_period;
    }
  }
  results_.seconds = std::chrono::duration<double>(now - begin).count();
  return std::move(results_);
}

// ---- Command line ------------------------------------------------------------------------------

object_id parse_oid(const std::string& text) {
  object_id oid;
  const char* at = text.c_str();
  for (char* end = nullptr; *at != '\0'; at = *end == '.' ? end + 1 : end) {
    oid.push_back(static_cast<std::uint32_t>(std::strtoul(at, &end, 10)));
    if (end == at) throw CLI::ValidationError("--oid", "not an OID: " + text);
  }
  if (oid.size() < 2) throw CLI::ValidationError("--oid", "too short: " + text);
  return oid;
}

octets parse_hex(const std::string& text) {
  const bool hex = text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
  octets message;
  for (std::size_t i = 0; hex && i + 1 < text.size(); i += 2) {
    message.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
  }
  if (!find_request_id(message)) {
    throw CLI::ValidationError("REQUEST", "no kind, and no message with a request-id of 4 octets");
  }
  return message;
}

std::vector<octets> requests_of(const options& given, expectation& expected) {
  static const std::map<std::string, std::pair<request_kind, std::size_t>> kinds = {
      {"get1", {request_kind::get1, 1}},
      {"get20", {request_kind::get20, many}},
      {"bulk20", {request_kind::bulk20, many}}};
  const auto kind = kinds.find(given.request);
  if (kind == kinds.end()) return {parse_hex(given.request)};
  expected.varbinds = kind->second.second;
  std::vector<object_id> oids;
  for (const std::string& text : given.oids) oids.push_back(parse_oid(text));
  if (oids.empty()) {
    for (std::uint32_t i = 0; i < given.items; i++) oids.push_back(table_oid(i));
  }
  return make_requests(kind->second.first, oids);
}

void add_options(CLI::App& app, options& given) {
  app.add_option("request", given.request, "get1, get20, bulk20, or a whole message in hex");
  app.add_option("--address", given.address, "IPv4 address of the server")->capture_default_str();
  app.add_option("--port", given.port, "Port of the server")->capture_default_str();
  app.add_option("--outstanding", given.outstanding, "Requests under way at any time")
      ->check(CLI::Range(1u, 1u << slot_bits))
      ->capture_default_str();
  app.add_option("--seconds", given.seconds, "Time to measure, after a warm-up of 0.2 s")
      ->check(CLI::Range(0.1, 60.0))
      ->capture_default_str();
  app.add_option("--items", given.items, "Items of the server's test table; 21 at least for bulk20")
      ->check(CLI::Range(1u, 1'000'000u))
      ->capture_default_str();
  app.add_option("--oid", given.oids, "OIDs to ask for instead, in ascending order");
  app.add_flag("--echo", given.echo, "The server is an echo: check the request-ids alone");
  app.add_flag("--spin", given.spin, "Poll for replies without sleeping");
}

int open_socket(const options& given) {
  // Bounds the wait for a reply, so that the end and lost requests are noticed in time.
  constexpr timeval receive_timeout = {0, 20'000};
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in server = {};
  server.sin_family = AF_INET;
  server.sin_port = htons(given.port);
  if (inet_pton(AF_INET, given.address.c_str(), &server.sin_addr) != 1) errno = EINVAL;
  if (server.sin_addr.s_addr == 0 || fd < 0 ||
      connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0 ||
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof receive_timeout) != 0) {
    throw std::system_error(errno, std::generic_category(), given.address);
  }
  return fd;
}

double percentile_us(std::vector<std::uint32_t>& latencies, std::size_t percent) {
  if (latencies.empty()) return 0;
  const auto at =
      latencies.begin() + static_cast<std::ptrdiff_t>((latencies.size() - 1) * percent / 100);
  std::nth_element(latencies.begin(), at, latencies.end());
  return *at / 1e3;
}

int measure(const options& given) {
  expectation expected = {given.echo, 0};
  std::vector<octets> requests = requests_of(given, expected);
  const int fd = open_socket(given);
  results measured = generator(fd, std::move(requests), expected, given)
                         .run(std::chrono::duration<double>(given.seconds));
  close(fd);
  const std::size_t replies = measured.latencies.size();
  std::printf(
      "replies=%zu replies_per_s=%.0f p50_us=%.1f p99_us=%.1f lost=%ju late=%ju wrong=%ju\n",
      replies, static_cast<double>(replies) / measured.seconds,
      percentile_us(measured.latencies, 50), percentile_us(measured.latencies, 99),
      std::uintmax_t{measured.lost}, std::uintmax_t{measured.late}, std::uintmax_t{measured.wrong});
  return replies > 0 && measured.wrong == 0 ? 0 : 1;
}

int run(int argc, char** argv) {
  options given;
  CLI::App app(
      "Measures a UDP server with SNMP requests. Fails when no reply comes or one is wrong.",
      "load");
  add_options(app, given);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  }
  return measure(given);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "load: %s\n", error.what());
    return 1;
  }
}
