// Start, run and stop: the linker routes every call that can fail through the wrappers below.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "host/memory.h"
#include "host/meter_engine.h"
#include "module/snmp/mainsnmp.h"
#include "udp_client.h"

namespace {

// The call that fails, after it went well `skips` times, as often as `times` says.
std::atomic<const char*> failing_call = "";
std::atomic<const void*> failing_lock;  // of all locks the only one that fails
std::atomic<int> error, skips, times;

void plan(const char* call, int with = EPERM, int after = 0, int how_often = 1) {
  failing_call = "";
  error = with;
  skips = after;
  times = how_often;
  failing_call = call;
}

template <typename... other>
bool fails(const char* call, other...) {
  if (strcmp(call, failing_call) != 0 || skips-- > 0 || times-- <= 0) return false;
  errno = error;
  return true;
}
bool fails(const char* call, pthread_mutex_t* lock) { return lock == failing_lock && fails(call); }
// setsockopt: a shorter time-out for the poller, so that it sees at once that it is to stop.
bool fails(const char* call, int, int, int, const void*& timeout, socklen_t) {
  static const timeval brief = {0, 1000};
  timeout = &brief;
  return fails(call);
}

}  // namespace

#define WRAP(name, result, parameters, failure, ...)                           \
  extern "C" result __real_##name parameters;                                  \
  extern "C" result __wrap_##name parameters {                                 \
    return fails(#name, __VA_ARGS__) ? (failure) : __real_##name(__VA_ARGS__); \
  }

WRAP(torvasin_malloc, void*, (size_t n), nullptr, n)
WRAP(torvasin_realloc, void*, (void* p, size_t n), nullptr, p, n)
WRAP(socket, int, (int family, int type, int protocol), -1, family, type, protocol)
WRAP(bind, int, (int fd, const sockaddr* a, socklen_t n), -1, fd, a, n)
WRAP(setsockopt, int, (int fd, int level, int name, const void* p, socklen_t n), -1, fd, level, name, p, n)
WRAP(torvasin_engine_addCallbackMeterManager, void*, (void* e, int s, torvasin_meter_callback f, void* p), nullptr, e,
     s, f, p)
WRAP(pthread_mutexattr_init, int, (pthread_mutexattr_t * a), errno, a)
WRAP(pthread_mutexattr_setprotocol, int, (pthread_mutexattr_t * a, int protocol), errno, a, protocol)
WRAP(pthread_create, int, (pthread_t * t, const pthread_attr_t* a, void* (*f)(void*), void* p), errno, t, a, f, p)
WRAP(pthread_setname_np, int, (pthread_t t, const char* name), errno, t, name)
WRAP(pthread_setaffinity_np, int, (pthread_t t, size_t n, const cpu_set_t* set), errno, t, n, set)
WRAP(pthread_getaffinity_np, int, (pthread_t t, size_t n, cpu_set_t* set), errno, t, n, set)
WRAP(pthread_mutex_lock, int, (pthread_mutex_t * lock), errno, lock)
WRAP(pthread_mutex_unlock, int, (pthread_mutex_t * lock), errno, lock)

namespace {

const std::string port = "[General]\nport = 0\n";
const std::string items =
    "[ITEM_a]\noid = 1.3.6.1.1\ntype = uint\nmeter = m\nmetertype = fast\n"
    "[ITEM_b]\noid = 1.3.6.1.2\ntype = uint:3\nmeter = m\nmetertype = fast\ncomputeformula = value\n";
const std::string a = null_varbind(oid_of({1, 3, 6, 1, 1}));
const octets get_a_and_b = build({.varbinds = a + null_varbind(oid_of({1, 3, 6, 1, 2}))});
const char initial_values[] = "0 0: 1.3.6.1.1=410100 1.3.6.1.2=410103";

ptrdiff_t entries(const char* directory) { return std::distance(std::filesystem::directory_iterator(directory), {}); }

struct lifecycle : testing::Test {
  lifecycle() {
    std::thread([] {}).join();  // ThreadSanitizer's own thread comes with the first one
    threads = entries("/proc/self/task");
    configure(port + items);
  }
  ~lifecycle() override {
    plan("");
    nothing_is_left();
    std::filesystem::remove(path);
  }

  void configure(const std::string& text) {
    std::ofstream(path) << text;
    host_keys.set("conf_file", path);
  }
  int32_t start(torvasin_plugin_context& instance) {
    const int32_t status = plugin_entry_0_6.startCycle(&instance, &host_keys);
    if (status == 0) plugin_entry_0_6.startThread(&instance);
    return status;
  }
  void stop(torvasin_plugin_context& instance) {
    plugin_entry_0_6.preStopCycle(&instance);
    plugin_entry_0_6.stopCycle(&instance, 0);
  }
  snmp_module* module() { return static_cast<snmp_module*>(context.private_data); }
  std::string ask() { return udp_client(module()->fd).ask(get_a_and_b); }

  void nothing_is_left() {
    torvasin_host::release_all_texts();
    EXPECT_EQ(nullptr, context.private_data);
    EXPECT_EQ(0u, torvasin_host::get_memory_stats().live_blocks);
    EXPECT_EQ(0u, engine.registrations());
    EXPECT_EQ(files, entries("/proc/self/fd"));
    // A thread that was joined may take a moment to leave the list.
    for (int i = 0; i < 10000 && entries("/proc/self/task") > threads; i++) usleep(1000);
    EXPECT_EQ(threads, entries("/proc/self/task"));
  }

  const ptrdiff_t files = entries("/proc/self/fd");
  ptrdiff_t threads;
  const std::string path = testing::TempDir() + "lifecycle_" + std::to_string(getpid()) + ".ini";
  captured_log log;
  torvasin_host::meter_engine engine;
  torvasin_plugin_context context = {"test", &engine, {}, nullptr};
  torvasin_key_value_list host_keys;
};

TEST_F(lifecycle, every_failure_of_a_start) {
  const std::tuple<const char*, int, int, int32_t, std::string> rows[] = {
      {"torvasin_malloc", 0, 0, -1, "4 startCycle: no memory for the module\n"},
      {"torvasin_realloc", 0, 0, -1, "4 ini_handler_cb no memory for item: a\n"},
      {"torvasin_realloc", 0, 1, -1, "4 ini_handler_cb no memory for item: a\n"},
      {"torvasin_realloc", 0, 3, -1, "4 ini_handler_cb no memory for item: b\n"},
      {"socket", EMFILE, 0, -1, "4 error creating socker: 24 Too many open files\n"},
      {"pthread_mutexattr_init", EPERM, 0, -1, "4 error initializing lock attribute\n"},
      {"pthread_mutexattr_setprotocol", EPERM, 0, 0, "4 error set lock attribute protocol\n"},
      {"bind", EACCES, 0, -1, "4 error bind(127.0.0.1:0) socker: 13 Permission denied\n"},
      {"setsockopt", EDOM, 0, -1, "4 error setsockopt socker: 33 Numerical argument out of domain\n"},
      {"torvasin_engine_addCallbackMeterManager", 0, 0, -1, "4 cannot register meter slow callback\n"},
      {"torvasin_engine_addCallbackMeterManager", 0, 1, -1, "4 cannot register meter fast callback\n"},
      {"pthread_create", EAGAIN, 0, 0, "4 not possible to poller thread\n"},
      {"pthread_setname_np", ERANGE, 0, 0, "2 not possible to set thread name 34 Numerical result out of range\n"},
      {"nothing", 0, 0, 0, "2 module_thread_loop: affinity to 00000001\n"},
      {"pthread_setaffinity_np", EINVAL, 0, 0, "4 module_thread_loop: invalid affinity: Invalid argument\n"},
      {"pthread_getaffinity_np", EINVAL, 0, 0, "4 module_thread_loop: invalid getting affinity: Invalid argument\n"},
  };
  host_keys.set("affinity", 1u);
  host_keys.set("renice", 5);
  const std::string niceness = std::to_string(std::min(nice(0) + 5, 19));
  for (const auto& [call, with, after, status, expected] : rows) {
    SCOPED_TRACE(call + std::to_string(after));
    plan(call, with, after);
    EXPECT_EQ(status, start(context));
    if (status == 0 && module()->thread_created == 1) {
      EXPECT_EQ(initial_values, ask());
      EXPECT_TRUE(log.has(1, "module_thread_loop: try to set affinity to 00000001"));
      EXPECT_TRUE(log.has(1, "module_thread_loop: new nice " + niceness));
    }
    const std::string messages = log.take();
    EXPECT_NE(std::string::npos, messages.find(expected)) << messages;
    if (status == 0) stop(context);
    nothing_is_left();
  }
}

TEST_F(lifecycle, files_that_cannot_be_used) {
  const std::tuple<std::string, int32_t, std::string> rows[] = {
      {"[ITEM_x]\noid = 1.3\n[ITEM_y]\nother = 1", -1, "3 error missing oid: 1 y\n"},
      {port + "ip = 192.0.2.1", -1, "4 error bind(192.0.2.1:0) socker: 99 Cannot assign requested address\n"},
      {port + "nonsense\nip = 127.0.0.1", 0, " (line first error: 3)\n3 problem parsing " + path + "\n"},
      {port + "include = " + path, 0,
       " not read: more than 16 files inside one another or 256 in all\n3 ini_handler_cb"},
  };
  host_keys.set("affinity", 0x80000000u);  // negative as a mask, so none
  host_keys.set("renice", 0);
  for (const auto& [text, status, expected] : rows) {
    SCOPED_TRACE(text);
    configure(text);
    EXPECT_EQ(status, start(context));
    if (status == 0) {
      EXPECT_EQ("0 0: 1.3.6.1.1=8000 1.3.6.1.2=8000", ask());
      stop(context);
    }
    const std::string messages = log.take(1);
    EXPECT_NE(std::string::npos, messages.find(expected)) << messages;
    for (const char* unset : {"affinity", "nice"}) EXPECT_EQ(std::string::npos, messages.find(unset)) << unset;
  }
  host_keys.set("conf_file", "/x");
  plan("bind", EACCES);
  EXPECT_EQ(-1, start(context));
  EXPECT_EQ("3 error -1 parsing /x\n3 problem parsing /x\n4 error bind(127.0.0.1:161) socker: 13 Permission denied\n",
            log.take());
}

TEST_F(lifecycle, one_instance_has_the_poller) {
  ASSERT_EQ(0, start(context));
  torvasin_plugin_context second = {"second", &engine, {}, nullptr};
  for (int round = 0; round < 2; round++) {
    ASSERT_EQ(0, start(second));
    EXPECT_TRUE(log.has(4, "startThread: second stays without a poller, another instance has one"));
    EXPECT_EQ("silence", udp_client(static_cast<snmp_module*>(second.private_data)->fd).ask(get_a_and_b, 50));
    stop(second);
  }
  EXPECT_EQ(initial_values, ask());
  stop(context);
}

TEST_F(lifecycle, lock_that_cannot_be_taken) {
  ASSERT_EQ(0, start(context));
  udp_client client(module()->fd);
  torvasin_key_value_list list;
  list.set("m", 7u);
  failing_lock = &module()->lock;
  plan("pthread_mutex_lock", EINVAL);
  client.tell(build({.varbinds = a}));
  EXPECT_EQ(initial_values, client.ask(get_a_and_b));
  EXPECT_TRUE(log.has(4, "module_thread_loop: datagram dropped, no lock: 22 Invalid argument"));
  plan("pthread_mutex_lock", EINVAL);
  EXPECT_EQ(EINVAL, meter_callback_fast(&list, &context));
  EXPECT_EQ(initial_values, client.ask(get_a_and_b));
  plan("pthread_mutex_lock", EAGAIN, 0, 3);
  EXPECT_EQ(0, meter_callback_fast(&list, &context));
  plan("pthread_mutex_unlock", EAGAIN, 0, 3);
  EXPECT_EQ("0 0: 1.3.6.1.1=410107 1.3.6.1.2=410107", client.ask(get_a_and_b));
  stop(context);
  EXPECT_GT(0, times) << "asked again";
}

TEST_F(lifecycle, datagrams) {
  ASSERT_EQ(0, start(context));
  udp_client client(module()->fd);
  const auto padded = [](size_t n) {
    return build({.varbinds = to_hex(tlv(0x30, from_hex("06 04 2B 06 01 01") + tlv(0x04, octets(n, 1))))});
  };
  const size_t fill = SNMP_MAX_DATAGRAM - padded(1000).size() + 1000;
  EXPECT_EQ("0 0: 1.3.6.1.1=410100", client.ask(padded(fill)));
  log.take();
  client.tell(padded(fill + 1));
  client.tell({0x30, 0x00});
  EXPECT_EQ(initial_values, client.ask(get_a_and_b));
  stop(context);
  EXPECT_EQ(
      "3 decode_snmp_request: package size does not match len:1469 size:1472 pos:4\n"
      "3 pos (2) out of buffer (2) (0)\n2 preStopCycle(test)\n2 stopCycle(test, 0)\n",
      log.take());
}

// Publishers as fast as they can, requests as fast as they are answered, and a stop in the middle.
TEST_F(lifecycle, refreshes_requests_and_stops_race) {
  torvasin_host::set_log_level(2);
  std::atomic<bool> over = false;
  const auto publish = [&](int speed) {
    torvasin_key_value_list list;
    for (uint32_t i = 0; !over; i++) {
      list.set("m", i);
      engine.publish(speed, list);
    }
  };
  const std::jthread fast(publish, TORVASIN_FAST), slow(publish, TORVASIN_SLOW);
  for (int round = 0; round < 50; round++) {
    ASSERT_EQ(0, start(context));
    udp_client client(module()->fd);
    std::atomic<int> refreshed = 0;
    std::atomic<bool> stopped = false;
    const std::jthread asking([&] {
      while (!stopped) {
        const std::string answer = client.ask(get_a_and_b, 50);
        if (answer == "silence" || answer == initial_values) continue;
        const std::string value = answer.substr(answer.rfind('=') + 1);
        EXPECT_EQ("0 0: 1.3.6.1.1=" + value + " 1.3.6.1.2=" + value, answer);
        refreshed++;
      }
    });
    while (refreshed < 100) usleep(100);
    stop(context);
    stopped = true;
  }
  over = true;
}

}  // namespace
