// Start, run and stop, with every call of a start made to fail in turn (the linker routes those
// calls through the wrappers below), and refreshes, requests and stops racing each other.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "host/key_value_list.h"
#include "host/memory.h"
#include "host/meter_engine.h"
#include "module/snmp/mainsnmp.h"
#include "udp_client.h"

namespace {

// The call that fails: from its skip-th occurrence on, `times` times.
struct fault {
  const char* call = "";
  int skip = 0;
  int times = 1;
  int error = EPERM;
};
// The fault planned, in pieces that the poller may read while a test plans the next.
std::atomic<const char*> failing_call = "";
std::atomic<const void*> failing_lock;  // the one lock whose calls count
std::atomic<int> skips;
std::atomic<int> times;
std::atomic<int> error;

void plan(const fault& next) {
  failing_call = "";
  skips = next.skip;
  times = next.times;
  error = next.error;
  failing_call = next.call;
}

bool fails(const char* call) {
  if (strcmp(call, failing_call) != 0 || skips-- > 0 || times-- <= 0) return false;
  errno = error;
  return true;
}

}  // namespace

#define WRAP(result, name, parameters, arguments, failure)     \
  extern "C" result __real_##name parameters;                  \
  extern "C" result __wrap_##name parameters;                  \
  extern "C" result __wrap_##name parameters {                 \
    return fails(#name) ? (failure) : __real_##name arguments; \
  }
#define WRAP_LOCK(name)                                                               \
  extern "C" int __real_##name(pthread_mutex_t*);                                     \
  extern "C" int __wrap_##name(pthread_mutex_t*);                                     \
  extern "C" int __wrap_##name(pthread_mutex_t* lock) {                               \
    return lock == failing_lock && fails(#name) ? error.load() : __real_##name(lock); \
  }

WRAP(void*, torvasin_malloc, (size_t n), (n), nullptr)
WRAP(void*, torvasin_realloc, (void* p, size_t n), (p, n), nullptr)
WRAP(int, socket, (int a, int b, int c), (a, b, c), -1)
WRAP(int, bind, (int fd, const sockaddr* a, socklen_t n), (fd, a, n), -1)
WRAP(int, setsockopt, (int fd, int l, int o, const void* v, socklen_t n), (fd, l, o, v, n), -1)
WRAP(int, pthread_mutexattr_init, (pthread_mutexattr_t * a), (a), error.load())
WRAP(int, pthread_mutexattr_setprotocol, (pthread_mutexattr_t * a, int p), (a, p), error.load())
WRAP(void*, torvasin_engine_addCallbackMeterManager,
     (void* engine, int speed, torvasin_meter_callback callback, void* user),
     (engine, speed, callback, user), nullptr)
WRAP(int, pthread_create, (pthread_t * t, const pthread_attr_t* a, void* (*f)(void*), void* u),
     (t, a, f, u), error.load())
WRAP(int, pthread_setname_np, (pthread_t t, const char* name), (t, name), error.load())
WRAP(int, pthread_setaffinity_np, (pthread_t t, size_t n, const cpu_set_t* s), (t, n, s),
     error.load())
WRAP(int, pthread_getaffinity_np, (pthread_t t, size_t n, cpu_set_t* s), (t, n, s), error.load())
WRAP_LOCK(pthread_mutex_lock)
WRAP_LOCK(pthread_mutex_unlock)

namespace {

const char configuration[] =
    "[General]\nport = 0\n"
    "[ITEM_a]\noid = 1.3.6.1.1\ntype = uint\nmeter = m\nmetertype = fast\n"
    "[ITEM_b]\noid = 1.3.6.1.2\ntype = uint:3\ncomputeformula = value\nmeter = m\nmetertype = "
    "fast\n";

size_t entries(const char* directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

struct lifecycle : testing::Test {
  lifecycle() {
    std::thread([] {}).join();  // ThreadSanitizer's own thread comes with the first one
    threads = entries("/proc/self/task");
    strcpy(context.name, "test");
    context.engine = &engine;
    configure(configuration);
  }
  ~lifecycle() override {
    failing_lock = nullptr;
    plan({});
    nothing_is_left();
    std::filesystem::remove(path);
  }

  void configure(const std::string& text) {
    std::ofstream(path) << text;
    host_keys.set("conf_file", path.c_str());
  }
  int32_t start() {
    const int32_t status = plugin_entry_0_6.startCycle(&context, &host_keys);
    if (status == 0) plugin_entry_0_6.startThread(&context);
    return status;
  }
  void stop() {
    plugin_entry_0_6.preStopCycle(&context);
    plugin_entry_0_6.stopCycle(&context, 0);
  }
  snmp_module* module() { return static_cast<snmp_module*>(context.private_data); }

  // Wakes the poller, which would see only after its time-out that it is to stop.
  void stop_at_once() {
    udp_client client(module()->fd);
    std::atomic<bool> stopped = false;
    std::thread waking([&] {
      for (; !stopped; usleep(1000)) client.tell({0});
    });
    stop();
    stopped = true;
    waking.join();
  }

  void nothing_is_left() {
    torvasin_host::release_all_texts();
    EXPECT_EQ(nullptr, context.private_data);
    EXPECT_EQ(0u, torvasin_host::get_memory_stats().live_blocks);
    EXPECT_EQ(0u, engine.registrations());
    EXPECT_EQ(files, entries("/proc/self/fd"));
    // A thread that was joined may take a moment to leave the list.
    for (int i = 0; i < 1000 && entries("/proc/self/task") > threads; i++) usleep(1000);
    EXPECT_EQ(threads, entries("/proc/self/task"));
  }

  const size_t files = entries("/proc/self/fd");
  size_t threads;
  const std::string path = testing::TempDir() + "lifecycle_" + std::to_string(getpid()) + ".ini";
  captured_log log;
  torvasin_host::meter_engine engine;
  torvasin_plugin_context context = {};
  torvasin_key_value_list host_keys;
};

octets get_a_and_b() {
  return build(
      {.varbinds = null_varbind(oid_of({1, 3, 6, 1, 1})) + null_varbind(oid_of({1, 3, 6, 1, 2}))});
}

const char initial_values[] = "0 0: 1.3.6.1.1=410100 1.3.6.1.2=410103";

TEST_F(lifecycle, every_failure_of_a_start) {
  struct {
    fault planned;
    std::string message;
    bool starts;
  } const rows[] = {
      {{"torvasin_malloc"}, "4 startCycle: no memory for the module\n", false},
      {{"socket", 0, 1, EMFILE}, "4 error creating socker: 24 Too many open files\n", false},
      {{"pthread_mutexattr_init"}, "4 error initializing lock attribute\n", false},
      {{"pthread_mutexattr_setprotocol"}, "4 error set lock attribute protocol\n", true},
      {{"bind", 0, 1, EACCES}, "4 error bind(127.0.0.1:0) socker: 13 Permission denied\n", false},
      {{"setsockopt", 0, 1, EDOM},
       "4 error setsockopt socker: 33 Numerical argument out of domain\n",
       false},
      {{"torvasin_engine_addCallbackMeterManager"},
       "4 cannot register meter slow callback\n",
       false},
      {{"torvasin_engine_addCallbackMeterManager", 1},
       "4 cannot register meter fast callback\n",
       false},
      {{"pthread_create", 0, 1, EAGAIN}, "4 not possible to poller thread\n", true},
      {{"pthread_setname_np", 0, 1, ERANGE},
       "2 not possible to set thread name 34 Numerical result out of range\n",
       true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.message);
    plan(row.planned);
    EXPECT_EQ(row.starts ? 0 : -1, start());
    EXPECT_EQ(row.message, log.take());
    if (row.starts) stop_at_once();
    nothing_is_left();
    plan({});
    ASSERT_EQ(0, start());
    EXPECT_EQ(initial_values, udp_client(module()->fd).ask(get_a_and_b()));
    stop_at_once();
    log.take();
  }
}

TEST_F(lifecycle, every_allocation_of_the_tables) {
  for (int skip = 0; skip < 4; skip++) {
    plan({"torvasin_realloc", skip});
    EXPECT_EQ(-1, start()) << "the line refused was the item's oid";
    const char* item = skip < 2 ? "a" : "b";
    EXPECT_EQ("4 ini_handler_cb no memory for item: " + std::string(item) +
                  "\n3 error missing oid: " + (skip < 2 ? "0" : "1") + " " + item + "\n",
              log.take().substr(0, 100));
    nothing_is_left();
  }
}

TEST_F(lifecycle, files_that_cannot_be_used) {
  struct {
    const char* text;
    int32_t status;
    std::string message;
  } const rows[] = {
      {"[ITEM_x]\noid = 1.3\n[ITEM_y]\nother = 1\n", -1, "3 error missing oid: 1 y\n"},
      {"[General]\nip = 192.0.2.1\nport = 0\n", -1,
       "4 error bind(192.0.2.1:0) socker: 99 Cannot assign requested address\n"},
      {"[General]\nport = 0\nnonsense\nip = 127.0.0.1\n", 0,
       "2 problem parsing " + path + " (line first error: 3)\n3 problem parsing " + path + "\n"},
      {"[General]\nport = 0\n", 0, ""},
  };
  for (const auto& row : rows) {
    configure(row.text);
    EXPECT_EQ(row.status, start());
    const std::string messages = log.take();
    EXPECT_NE(std::string::npos, messages.find(row.message)) << messages;
    if (row.status == 0) {
      EXPECT_EQ("0 0: 1.3.6.1.1=8000 1.3.6.1.2=8000", udp_client(module()->fd).ask(get_a_and_b()));
      stop_at_once();
    }
    nothing_is_left();
  }
  configure("[General]\nport = 0\ninclude = " + path + "\n");
  EXPECT_EQ(0, start());
  EXPECT_TRUE(log.has(3, path + " not read: includes nested deeper than 16 files"));
  EXPECT_TRUE(
      log.has(3, "ini_handler_cb(test, General, include, " + path + ") error parsing file"));
  stop_at_once();
  host_keys.set("conf_file", "/nowhere/at/all");
  log.take();
  start();  // port 161 may be refused; then the start fails
  EXPECT_EQ(0u, log.take().find(
                    "3 error -1 parsing /nowhere/at/all\n3 problem parsing /nowhere/at/all\n"));
  if (module() != nullptr) stop_at_once();
}

TEST_F(lifecycle, port_in_use) {
  ASSERT_EQ(0, start());
  sockaddr_in bound = {};
  socklen_t length = sizeof bound;
  getsockname(module()->fd, reinterpret_cast<sockaddr*>(&bound), &length);
  const std::string port = std::to_string(ntohs(bound.sin_port));
  configure("[General]\nport = " + port + "\n");
  torvasin_plugin_context second = {};
  second.engine = &engine;
  EXPECT_EQ(-1, plugin_entry_0_6.startCycle(&second, &host_keys));
  EXPECT_TRUE(log.has(4, "error bind(127.0.0.1:" + port + ") socker: 98 Address already in use"));
  stop_at_once();
}

TEST_F(lifecycle, poller_settings) {
  host_keys.set("affinity", 1u);
  host_keys.set("renice", 5);
  struct {
    fault planned;
    std::string messages;
  } const rows[] = {
      {{},
       "1 module_thread_loop: try to set affinity to 00000001\n2 module_thread_loop: affinity to "
       "00000001\n"},
      {{"pthread_setaffinity_np", 0, 1, EINVAL},
       "1 module_thread_loop: try to set affinity to 00000001\n4 module_thread_loop: invalid "
       "affinity: Invalid argument\n"},
      {{"pthread_getaffinity_np", 0, 1, EINVAL},
       "1 module_thread_loop: try to set affinity to 00000001\n4 module_thread_loop: invalid "
       "getting affinity: Invalid argument\n"},
  };
  for (const auto& row : rows) {
    plan(row.planned);
    ASSERT_EQ(0, start());
    EXPECT_EQ(initial_values, udp_client(module()->fd).ask(get_a_and_b()));
    EXPECT_NE(std::string::npos,
              log.take(1).find(row.messages + "1 module_thread_loop: new nice 5\n"));
    stop_at_once();
  }
  host_keys.set("affinity", 0x80000000u);
  host_keys.set("renice", 0);
  ASSERT_EQ(0, start());
  EXPECT_EQ(initial_values, udp_client(module()->fd).ask(get_a_and_b()));
  stop_at_once();
  const std::string messages = log.take(1);
  EXPECT_EQ(std::string::npos, messages.find("affinity"));
  EXPECT_EQ(std::string::npos, messages.find("nice"));
}

TEST_F(lifecycle, lock_that_cannot_be_taken) {
  ASSERT_EQ(0, start());
  udp_client client(module()->fd, {0, 300000});
  torvasin_key_value_list list;
  list.set("m", 7u);
  failing_lock = &module()->lock;
  plan({"pthread_mutex_lock", 0, 1, EINVAL});
  EXPECT_EQ("silence", client.ask(get_a_and_b()));
  EXPECT_TRUE(log.has(4, "module_thread_loop: datagram dropped, no lock: 22 Invalid argument"));
  plan({"pthread_mutex_lock", 0, 1, EINVAL});
  EXPECT_EQ(EINVAL, meter_callback_fast(&list, &context));
  EXPECT_EQ(initial_values, client.ask(get_a_and_b()));
  plan({"pthread_mutex_lock", 0, 3, EAGAIN});
  EXPECT_EQ(0, meter_callback_fast(&list, &context));
  plan({"pthread_mutex_unlock", 0, 3, EAGAIN});
  EXPECT_EQ("0 0: 1.3.6.1.1=410107 1.3.6.1.2=410107", client.ask(get_a_and_b()));
  stop_at_once();
  EXPECT_GT(0, times) << "asked again";
}

TEST_F(lifecycle, datagrams) {
  ASSERT_EQ(0, start());
  udp_client client(module()->fd, {0, 200000});
  const octets name = from_hex("06 04 2B 06 01 01");
  const auto padded = [&](size_t n) {
    return build({.varbinds = to_hex(tlv(0x30, name + tlv(0x04, octets(n, 1))))});
  };
  const size_t fill = SNMP_MAX_DATAGRAM - padded(1000).size() + 1000;
  ASSERT_EQ(SNMP_MAX_DATAGRAM, padded(fill).size());
  EXPECT_EQ("0 0: 1.3.6.1.1=410100", client.ask(padded(fill)));
  log.take();
  EXPECT_EQ("silence", client.ask(padded(fill + 1)));
  EXPECT_EQ("3 decode_snmp_request: package size does not match len:1469 size:1472 pos:4\n",
            log.take());
  EXPECT_EQ("silence", client.ask({}));
  EXPECT_EQ("", log.take(1)) << "an empty datagram is dropped without a word";
  EXPECT_EQ("silence", client.ask({0x30, 0x00}));
  EXPECT_EQ("3 pos (2) out of buffer (2) (0)\n", log.take());
  EXPECT_EQ(initial_values, client.ask(get_a_and_b()));
  stop();  // on its own, within the time-out
  EXPECT_EQ("2 preStopCycle(test)\n2 stopCycle(test, 0)\n", log.take());
}

// Publishers as fast as they can, requests as fast as they are answered, and a stop in the middle.
TEST_F(lifecycle, refreshes_requests_and_stops_race) {
  torvasin_host::set_log_level(2);
  std::atomic<bool> over = false;
  auto publish = [&](int speed, uint32_t first) {
    torvasin_key_value_list list;
    for (uint32_t i = first; !over; i += 2) {
      list.set("m", i);
      engine.publish(speed, list);
    }
  };
  std::thread publishers[] = {std::thread(publish, TORVASIN_FAST, 0),
                              std::thread(publish, TORVASIN_FAST, 1),
                              std::thread(publish, TORVASIN_SLOW, 0)};
  uint64_t refreshed = 0;
  for (int round = 0; round < 50; round++) {
    ASSERT_EQ(0, start());
    udp_client client(module()->fd, {0, 50000});
    std::thread stopping;
    std::atomic<bool> stopped = false;
    for (int answers = 0; !stopped;) {
      const std::string answer = client.ask(get_a_and_b());
      if (answer == "silence") continue;
      if (++answers == 100) {
        stopping = std::thread([&] {
          stop();
          stopped = true;
        });
      }
      if (answer == initial_values) continue;
      const size_t second = answer.find(" 1.3.6.1.2=");
      ASSERT_NE(std::string::npos, second) << answer;
      EXPECT_EQ(answer.substr(second + 11), answer.substr(15, second - 15));
      refreshed++;
    }
    stopping.join();
  }
  over = true;
  for (std::thread& publisher : publishers) publisher.join();
  EXPECT_LT(1000u, refreshed);
}

}  // namespace
