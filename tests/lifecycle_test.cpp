// Start, run and stop. The linker routes every call that can fail through the wrappers below.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <fenv.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "engine/memory.h"
#include "engine/meter_engine.h"
#include "module/snmp/mainsnmp.h"
#include "support.h"

namespace {

using namespace std::literals;

// The call that fails: it succeeds `skips` times, then fails `times` times.
std::atomic<const char*> failing_call = "";
std::atomic<const void*> failing_lock;  // the only lock that fails
std::atomic<int> error, skips, times, receives;

torvasin_plugin_context context;
snmp_module* module() { return static_cast<snmp_module*>(context.private_data); }

// Logs a call and what it concerns as a line of level 0; nothing when `what` is null.
void note(const char* call, const char* what) {
  if (what != nullptr) torvasin_log(0, "test", 0, 1, "%s %s", call, what);
}
// The name of a part of the module that a stop releases, or null.
const char* name_of(const void* part) {
  const snmp_module* m = module();
  if (m == nullptr) return nullptr;
  const void* parts[] = {m, m->items, m->bindings, &m->lock, m->fast_cb, m->slow_cb};
  const char* names[] = {"record", "items", "bindings", "lock", "fast", "slow", nullptr};
  return names[std::ranges::find(parts, part) - parts];
}

void plan(const char* call, int with = EPERM, int after = 0, int how_often = 1) {
  failing_call = "";
  error = with;
  skips = after;
  times = how_often;
  failing_call = call;
}

ptrdiff_t entries(const char* directory) { return std::distance(std::filesystem::directory_iterator(directory), {}); }

template <typename... other>
bool fails(const char* call, other...) {
  receives += call == "recvfrom"sv;
  if (strcmp(call, failing_call) != 0 || skips-- > 0 || times-- <= 0) return false;
  errno = error;
  return true;
}
bool fails(const char* call, pthread_mutex_t* lock) { return lock == failing_lock && fails(call); }
bool fails(const char* call, int, const sockaddr* address, socklen_t) {
  note(call, inet_ntoa(reinterpret_cast<const sockaddr_in*>(address)->sin_addr));
  return fails(call);
}
// socket: a process that the host starts meanwhile must not inherit it.
bool fails(const char* call, int, int type, int) {
  EXPECT_EQ(SOCK_DGRAM | SOCK_CLOEXEC, type);
  return fails(call);
}
// pthread_create: from its first instruction on, the thread handles only signals that its own instructions cause.
bool fails(const char* call, pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
  sigset_t inherited;
  pthread_sigmask(SIG_SETMASK, nullptr, &inherited);
  std::set<int> reaching;
  for (int signal = 1; signal <= SIGRTMAX; signal++) {
    const bool blockable = signal != SIGKILL && signal != SIGSTOP && (signal < 32 || signal >= SIGRTMIN);
    if (blockable && sigismember(&inherited, signal) == 0) reaching.insert(signal);
  }
  EXPECT_EQ((std::set{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}), reaching);
  return fails(call);
}
// setsockopt: the poller waits for less time than it asked for, so that it notices at once when it must stop.
bool fails(const char* call, int, int level, int name, const void*& timeout, socklen_t) {
  static const timeval brief = {0, 1000};
  const timeval asked = *static_cast<const timeval*>(timeout);
  EXPECT_EQ(SOL_SOCKET, level);
  if (name == SO_RCVTIMEO) timeout = &brief;
  const char* which = name == SO_RCVTIMEO ? "receive " : "send ";
  note(call, (which + std::to_string(asked.tv_sec) + "." + std::to_string(asked.tv_usec)).c_str());
  return fails(call);
}
// sendto: an EAGAIN comes after the socket's timeout, as from the system when the socket's buffer stays full.
bool fails(const char* call, int fd, const void*, size_t, int flags, const sockaddr*, socklen_t) {
  EXPECT_EQ(MSG_CONFIRM, flags);
  if (!fails(call)) return false;
  timeval wait;
  socklen_t length = sizeof wait;
  getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, &length);
  if (error == EAGAIN)
    usleep(wait.tv_sec == 0 && wait.tv_usec == 0 ? 5'000'000 : static_cast<useconds_t>(wait.tv_usec));
  errno = error;
  return true;
}
// torvasin_keyValueListGetS: this engine treats null as an empty list, but another host may crash on null.
bool fails(const char*, const torvasin_key_value_list* list, const char*, const char**) {
  return list->find("") != nullptr;
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
WRAP(torvasin_keyValueListGetS, int, (const torvasin_key_value_list* l, const char* k, const char** t), 1, l, k, t)
WRAP(recvfrom, ssize_t, (int fd, void* p, size_t n, int flags, sockaddr* a, socklen_t* l), -1, fd, p, n, flags, a, l)
WRAP(sendto, ssize_t, (int fd, const void* p, size_t n, int flags, const sockaddr* a, socklen_t l), -1, fd, p, n, flags,
     a, l)
WRAP(pthread_mutexattr_init, int, (pthread_mutexattr_t * a), errno, a)
WRAP(pthread_mutexattr_setprotocol, int, (pthread_mutexattr_t * a, int protocol), errno, a, protocol)
WRAP(pthread_create, int, (pthread_t * t, const pthread_attr_t* a, void* (*f)(void*), void* p), errno, t, a, f, p)
WRAP(pthread_join, int, (pthread_t t, void** result), __real_pthread_join(t, result) + error, t, result)
WRAP(pthread_setname_np, int, (pthread_t t, const char* name), errno, t, name)
WRAP(pthread_mutex_lock, int, (pthread_mutex_t * lock), std::exchange(errno, 0), lock)
WRAP(pthread_mutex_unlock, int, (pthread_mutex_t * lock), errno, lock)

#define NOTE(name, result, parameters, what, ...) \
  extern "C" result __real_##name parameters;     \
  extern "C" result __wrap_##name parameters {    \
    note(#name, what);                            \
    return __real_##name(__VA_ARGS__);            \
  }

NOTE(torvasin_engine_rmCallbackMeterManager, void, (void* e, void* registration), name_of(registration), e,
     registration)
NOTE(close, int, (int fd), module() != nullptr && fd == module()->fd ? "socket" : nullptr, fd)
NOTE(te_free, void, (te_expr * formula), formula != nullptr ? "formula" : nullptr, formula)
NOTE(torvasin_free, void, (void* block), name_of(block), block)
NOTE(pthread_mutex_destroy, int, (pthread_mutex_t * lock), name_of(lock), lock)

// A machine with any number of processors, and a user who may choose any niceness.
static cpu_set_t processors;
static std::atomic<int> niceness;
extern "C" int __wrap_pthread_setaffinity_np(pthread_t, size_t, const cpu_set_t* set) {
  processors = *set;
  return fails("pthread_setaffinity_np") ? errno : 0;
}
extern "C" int __wrap_pthread_getaffinity_np(pthread_t, size_t, cpu_set_t* set) {
  *set = processors;
  return fails("pthread_getaffinity_np") ? errno : 0;
}
extern "C" int __wrap_nice(int added) { return niceness += added; }

namespace {

const std::string port = "[General]\nport = 0\n";

// Items 1 and 2 serve the same number when the meter n is twice m. Nobody publishes the meter of item 9.
std::string items(const std::string& arc) {
  std::string text;
  for (const std::string item :
       {"9\nmeter = absent", "1\ntype = uint\nmeter = m\ncomputeformula = value*2",
        "2\ntype = uint:3\nmeter = n\ncomputeformula = value", "3\ntype = string\nmeter = s"}) {
    text += "[ITEM_" + item.substr(0, 1) + "]\nmetertype = fast\noid = 1.3.6." + arc + "." + item + "\n";
  }
  return text;
}
octets get(uint32_t arc, std::initializer_list<uint32_t> asked) {
  std::string varbinds;
  for (const uint32_t last : asked) varbinds += null_varbind({1, 3, 6, arc, last});
  return build({.varbinds = varbinds});
}
const octets get_a_and_b = get(1, {1, 2});
const char initial_values[] = "0 0: 1.3.6.1.1=410100 1.3.6.1.2=410103";
const char unknown[] = "0 0: 1.3.6.1.1=8000 1.3.6.1.2=8000";

// Sends requests to a real agent over loopback, to the address that its socket is bound to.
class udp_client {
 public:
  explicit udp_client(const torvasin_plugin_context& agent) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(static_cast<snmp_module*>(agent.private_data)->fd, reinterpret_cast<sockaddr*>(&address), &length);
    connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  }
  ~udp_client() { close(fd_); }
  udp_client(const udp_client&) = delete;

  uint16_t port() const {
    sockaddr_in own;
    socklen_t length = sizeof own;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&own), &length);
    return ntohs(own.sin_port);
  }
  void tell(const octets& datagram) { send(fd_, datagram.data(), datagram.size(), 0); }

  // The answer as describe() writes it, or "silence" when none comes within `patience` milliseconds.
  std::string ask(const octets& datagram, int patience = 30000) {
    tell(datagram);
    uint8_t answer[2048];
    pollfd readable = {fd_, POLLIN, 0};
    const ssize_t length = poll(&readable, 1, patience) > 0 ? recv(fd_, answer, sizeof answer, 0) : -1;
    return length < 0 ? "silence" : describe({answer, static_cast<size_t>(length)});
  }

 private:
  int fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

struct lifecycle : testing::Test {
  lifecycle() {
    std::thread([] {}).join();  // the first thread makes ThreadSanitizer start one of its own
    context = given;
    threads = entries("/proc/self/task");
    close(STDIN_FILENO);  // so that the socket becomes descriptor 0, which must work too
    files = entries("/proc/self/fd");
    configure(port + items("1"));
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
    const int32_t status = entry->startCycle(&instance, &host_keys);
    if (status == 0) entry->startThread(&instance);
    return status;
  }
  void stop(torvasin_plugin_context& instance) {
    entry->preStopCycle(&instance);
    entry->stopCycle(&instance, 0);
  }
  std::string ask() { return udp_client(context).ask(get_a_and_b); }

  void nothing_is_left() {
    torvasin_engine::release_all_texts();
    EXPECT_EQ(nullptr, module());
    EXPECT_EQ(0, memcmp(&given, &context, sizeof given)) << "the module changed the host's part of the context";
    EXPECT_EQ(0u, torvasin_engine::get_memory_stats().live_blocks);
    EXPECT_EQ(0u, engine.registrations());
    EXPECT_EQ(files, entries("/proc/self/fd"));
    // A joined thread may take a moment to disappear from the list.
    for (int i = 0; i < 10000 && entries("/proc/self/task") > threads; i++) usleep(1000);
    EXPECT_GE(threads, entries("/proc/self/task"));
  }

  ptrdiff_t threads, files;  // before a test
  const std::string path = testing::TempDir() + "lifecycle_" + std::to_string(getpid()) + ".ini";
  captured_log log;
  torvasin_engine::meter_engine engine;
  const torvasin_plugin_entry* entry = &plugin_entry_0_6;
  const torvasin_plugin_context given = {"test", &engine, "the host's own octets.", nullptr};
  torvasin_key_value_list host_keys;
};

// Every line, at all levels, of a start, two requests and a stop, with notes of what is bound, set and released.
TEST_F(lifecycle, log) {
  configure(port + "[ITEM_a]\noid = 1.3.6.1.1\ntype = uint:7\ncomputeformula = value\nmeter = m\n");
  host_keys.set("affinity", 0x40000301u);
  host_keys.set("renice", -5);
  niceness = 5;
  ASSERT_EQ(0, start(context));
  char name[16];
  pthread_getname_np(module()->thread, name, sizeof name);
  EXPECT_STREQ("SNMP", name);
  udp_client client(context);
  client.tell({0x30, 0x00});
  const std::string numbers[] = {"02 01 07", "02 01 02", "02 01 03"};
  client.ask(build({.id = numbers[0], .second = numbers[1], .third = numbers[2], .varbinds = null_varbind({1, 3, 9})}));
  for (int i = 0; i < 10000 && !log.has(1, "sent: 34"); i++) usleep(1000);
  std::string expected =
      "1$MstartCycle(test, $K)\n1$Mreplace configurationfile with $F\n1$Maffinity: 1073742593\n1$Mrenice: -5\n"
      "1$Mparsing $F\n1$LGeneral, port, 0)\n1$LITEM_a, oid, 1.3.6.1.1)\n1$LITEM_a, type, uint:7)\n"
      "1$LITEM_a, type, uint:7) set callback uint with default\n1$LITEM_a, computeformula, value)\n"
      "1$Mini_handler_cb compile formula: value\n1$LITEM_a, meter, m)\n1$Mread $F\n1$Mloaded 1 oid\n"
      "0 test: bind 127.0.0.1\n0 test: setsockopt receive 1.0\n0 test: setsockopt send 0.1000\n"
      "1$Mmodule_thread_loop: try to set affinity to 40000301\n2$Mmodule_thread_loop: affinity to 40000301\n"
      "1$Mreceived from: 127.0.0.1:$P\n\n1$A: Received: 2 data\n3$A_msg_protocol: pos (2) out of buffer (2) (0)\n"
      "1$A: Error in request\n1$Mreceived from: 127.0.0.1:$P\n\n1$A: Received: 34 data\n1$A: request: (GET)\n\tver: 1\n"
      "\tid: 7\n\tcommunity: public\n\tnon_repeaters: 2\n\tmax_repetitions: 3\n\toid: \n"
      "1$A_handler: minimal_snmp_handle_get oid not found\n1$A: SEND...\n1$Mminimal_snmp_send($S,...,34)\n"
      "1$Msending to: 127.0.0.1 $P\n1$Msent: 34\n2$MpreStopCycle(test)\n1$Mmodule_thread_loop($C) end\n"
      "2$MstopCycle(test, 0)\n0 test: torvasin_engine_rmCallbackMeterManager fast\n"
      "0 test: torvasin_engine_rmCallbackMeterManager slow\n0 test: close socket\n0 test: te_free formula\n"
      "0 test: torvasin_free bindings\n0 test: torvasin_free items\n0 test: pthread_mutex_destroy lock\n"
      "0 test: torvasin_free record\n";
  const auto print = [](auto value) { return testing::PrintToString(value); };
  const std::string sources = " src/module/snmp/";
  const std::pair<std::string, std::string> words[] = {
      {"$L", "$Mini_handler_cb(test, "}, {"$M", sources + "mainsnmp: "}, {"$A", sources + "snmp/snmp"},
      {"$K", print(&host_keys)},         {"$C", print(&context)},        {"$F", path},
      {"$S", print(module()->fd)},       {"$P", print(client.port())}};
  for (const auto& [word, meaning] : words) {
    for (size_t at = expected.find(word); at != expected.npos; at = expected.find(word))
      expected.replace(at, 2, meaning);
  }
  stop(context);
  EXPECT_EQ(expected, log.take(0, true));
}

TEST_F(lifecycle, faults_of_a_start) {
  const std::string include = "include = " + path + "\n", line = "1 ini_handler_cb(test, General, ";
  const std::string begin = "1 replace configurationfile with " + path + "\n", parsing = "1 parsing " + path + "\n";
  const std::string close = "0 close socket\n", record = "0 torvasin_free record\n";
  const std::string undone = close + "0 pthread_mutex_destroy lock\n" + repeated(2, "0 te_free formula\n") +
                             "0 torvasin_free bindings\n0 torvasin_free items\n" + record;
  // The call that fails, its errno and the calls before that succeed, or the configuration; the status and messages.
  const std::tuple<const char*, int, int, std::string, int32_t, std::string> rows[] = {
      {"torvasin_malloc", 0, 0, "", -1, "4 startCycle: no memory for the module\n"},
      {"torvasin_realloc", 0, 0, "", 0, "4 ini_handler_cb no memory for item: 9\n"},
      {"torvasin_realloc", 0, 1, "", 0, "1 loaded 0 oid\n"},
      {"torvasin_realloc", 0, 3, "", 0, "4 ini_handler_cb no memory for item: 1\n"},
      {"socket", EMFILE, 0, "", -1, "4 error creating socker: 24 Too many open files\n"},
      {"pthread_mutexattr_init", EPERM, 0, "", -1, "4 error initializing lock attribute\n" + close + record},
      {"pthread_mutexattr_setprotocol", EPERM, 0, "", 0, "4 error set lock attribute protocol\n"},
      {"bind", EACCES, 0, "", -1, "4 error bind(127.0.0.1:0) socker: 13 Permission denied\n" + undone},
      {"setsockopt", EPERM, 0, port + "ip = localhost\n" + items("1"), -1,
       "0 bind 255.255.255.255\n0 setsockopt receive 1.0\n4 error setsockopt socker: 1 Operation not permitted\n" +
           undone},
      {"setsockopt", EPERM, 1, "", 0, "0 setsockopt send 0.1000\n1 module_thread_loop: try"},
      {"torvasin_engine_addCallbackMeterManager", 0, 0, "", -1, "4 cannot register meter slow callback\n" + undone},
      {"torvasin_engine_addCallbackMeterManager", 0, 1, "", -1,
       "4 cannot register meter fast callback\n0 torvasin_engine_rmCallbackMeterManager slow\n" + undone},
      {"pthread_create", EAGAIN, 0, "", 0, "4 not possible to poller thread\n"},
      {"pthread_join", EINVAL, 0, "", 0, "1 error join thread\n"},
      {"pthread_setname_np", ERANGE, 0, "", 0, "2 not possible to set thread name 34 Numerical result out of range\n"},
      {"pthread_setaffinity_np", EINVAL, 0, "", 0,
       ": invalid affinity: Invalid argument\n1 module_thread_loop: new nice 6"},
      {"pthread_getaffinity_np", EINVAL, 0, "", 0,
       ": invalid getting affinity: Invalid argument\n1 module_thread_loop: new nice 6"},
      {"", 0, 0, "[ITEM_x]\noid = 1.3\n[ITEM_y]\nother = 1", -1, "2 empty meter for 1:'y'\n3 error missing oid: 1 y\n"},
      {"", 0, 0, port + "ip = 192.0.2.1", -1, "4 error bind(192.0.2.1:0) socker: 99 Cannot assign requested address\n"},
      {"", 0x80000000, 0, "nonsense\n" + port, 0,
       begin + parsing + line + "port, 0)\n2 problem parsing " + path + " (line first error: 1)\n3 problem parsing " +
           path + "\n0 bind 127.0.0.1\n0 setsockopt receive 1.0\n0 setsockopt send 0.1000\n1 received"},
      {"", 0, 0, port + include + include, 0,
       begin + repeated(16, parsing + line + "port, 0)\n" + line + "include, " + path + ")\n") + "3 " + path +
           " not read: more than 16 files inside one another or 256 in all\n3 ini_handler_cb"},
  };
  for (const auto& [call, with, after, text, status, expected] : rows) {
    SCOPED_TRACE(call + text + std::to_string(after));
    configure(text.empty() ? port + items("1") : text);
    host_keys.set("affinity", text.empty() ? 1 : with);
    host_keys.set("renice", text.empty() ? 5 : 0);
    niceness = 1;
    plan(call, with, after, 99);
    EXPECT_EQ(status, start(context));
    if (status == 0 && module()->thread_created == 1) {
      EXPECT_EQ(call == "torvasin_realloc"s || !text.empty() ? unknown : initial_values, ask());
      EXPECT_EQ(call != "pthread_mutexattr_setprotocol"s, module()->lock.__data.__kind >> 5) << "priority inheritance";
      EXPECT_EQ(text.ends_with(include) ? 256u : 1u, module()->files_read);
    }
    if (status == 0) stop(context);
    const std::string messages = log.take(0);
    EXPECT_NE(std::string::npos, messages.find(expected)) << expected << "is not in\n" << messages;
    nothing_is_left();
  }
  plan("bind", EACCES);
  EXPECT_EQ(-1, plugin_entry_0_6.startCycle(&context, nullptr));
  for (const void* slot : {entry->slot1, entry->slot5, entry->slot7}) EXPECT_EQ(nullptr, slot);
  EXPECT_EQ("snmp 0.6.25"s, entry->name + " "s + plugin_entry_torvasin_module_version);
  EXPECT_EQ(
      "3 error -1 parsing snmpmanager.ini\n3 problem parsing snmpmanager.ini\n"
      "4 error bind(127.0.0.1:161) socker: 13 Permission denied\n",
      log.take());
}

TEST_F(lifecycle, lock_that_cannot_be_taken) {
  ASSERT_EQ(0, start(context));
  udp_client client(context);
  torvasin_key_value_list list;
  list.set("m", 7u);
  list.set("n", 7u);
  failing_lock = &module()->lock;
  plan("pthread_mutex_lock", EINVAL);
  client.tell(get(1, {1}));
  EXPECT_EQ(initial_values, client.ask(get_a_and_b));
  EXPECT_TRUE(log.has(4, "module_thread_loop: datagram dropped, no lock: 22 Invalid argument"));
  plan("pthread_mutex_lock", EINVAL);
  EXPECT_EQ(EINVAL, meter_callback_fast(&list, &context));
  EXPECT_EQ(initial_values, client.ask(get_a_and_b));
  for (const char* call : {"pthread_mutex_lock", "pthread_mutex_unlock"}) {
    EXPECT_EQ(0, meter_callback_fast(&list, &context));  // returns once the poller has released the lock
    plan(call, EAGAIN, 0, 3);
    EXPECT_EQ(0, meter_callback_fast(&list, &context));
    plan(call, EAGAIN, 0, 3);
    EXPECT_EQ("0 0: 1.3.6.1.1=41010E 1.3.6.1.2=410107", client.ask(get_a_and_b));
  }
  stop(context);
  EXPECT_GT(0, times) << "it must try again until it succeeds";
}

TEST_F(lifecycle, datagrams_and_errors_of_the_socket) {
  ASSERT_EQ(0, start(context));
  udp_client client(context), other(context);
  plan("sendto", EPERM);
  client.tell(get_a_and_b);
  EXPECT_EQ(initial_values, other.ask(get_a_and_b));
  auto since = std::chrono::steady_clock::now();
  const auto passed = [&] { return std::chrono::steady_clock::now() - since; };
  for (const char* call : {"nothing", "recvfrom"}) {
    plan(call, ENOMEM, 0, INT_MAX);
    receives = 0;
    since = std::chrono::steady_clock::now();
    usleep(50000);
    EXPECT_LT(receives, passed() / 10us) << "the poller spins";
  }
  plan("recvfrom", ENOMEM, 0, 20);
  EXPECT_EQ(initial_values, client.ask(get_a_and_b));
  EXPECT_LT(passed(), 10s) << "it answers too late after an error";
  const std::string messages = log.take(1);
  EXPECT_NE(std::string::npos, messages.find("1 sent: -1 1 Operation not permitted\n"));
  EXPECT_NE(std::string::npos, messages.find(") error receive: 12 Cannot allocate memory\n"));
  const auto padded = [](size_t n) {
    return build({.varbinds = to_hex(tlv(0x30, from_hex("06 04 2B 06 01 01") + tlv(0x04, octets(n, 1))))});
  };
  const size_t fill = 1472 - padded(1000).size() + 1000;
  EXPECT_EQ("0 0: 1.3.6.1.1=410100", client.ask(padded(fill)));
  torvasin_key_value_list list;
  list.set("s", std::string(fill, 'x'));
  EXPECT_EQ(0, meter_callback_fast(&list, &context));
  EXPECT_EQ("0 0: 1.3.6.1.3=04820592" + repeated(fill, "78"), other.ask(get(1, {3})));  // as long as the request was
  list.set("s", std::string(fill + 1, 'x'));
  EXPECT_EQ(0, meter_callback_fast(&list, &context));
  log.take();
  for (const octets& unanswered : {get(1, {3}), padded(fill + 1), {}, {0x30, 0x00}}) client.tell(unanswered);
  EXPECT_EQ(initial_values, client.ask(get_a_and_b));
  stop(context);
  EXPECT_EQ(
      "3 encode_snmp_response: HEADER not fit in buffer\n3 Error in encoding response\n"
      "3 decode_snmp_request: package size does not match len:1469 size:1472 pos:4\n"
      "3 pos (2) out of buffer (2) (0)\n2 preStopCycle(test)\n2 stopCycle(test, 0)\n",
      log.take());
}

// A host that has enabled floating-point traps, rounds down and blocks a signal finds all that unchanged, and the
// values served do not depend on it.
TEST_F(lifecycle, leaves_its_host_alone) {
  std::string text = port;
  for (const std::string item : {"1\ncomputeformula = 100/value", "2\ncomputeformula = 1/0",
                                 "3\ncomputeformula = 1/3*3", "4\ncomputeformula = (value+1)/3*3"}) {
    text += "[ITEM_" + item.substr(0, 1) + "]\nmeter = m\ntype = uint\noid = 1.3.6.1." + item + "\n";
  }
  configure(text);
  sigset_t given_mask = {}, left = {};
  sigaddset(&given_mask, SIGUSR1);
  pthread_sigmask(SIG_SETMASK, &given_mask, nullptr);
  fenv_t own;
  fegetenv(&own);
  fesetround(FE_DOWNWARD);
  feenableexcept(FE_DIVBYZERO | FE_INVALID | FE_OVERFLOW);
  const int armed = fegetexcept();  // none if the processor lacks such traps
  const int32_t status = start(context);
  EXPECT_EQ(armed, fegetexcept());
  EXPECT_EQ(FE_DOWNWARD, fegetround());
  EXPECT_EQ(0, fetestexcept(FE_DIVBYZERO)) << "a constant formula raised it";
  fesetenv(&own);
  ASSERT_EQ(0, status);
  const std::string all = "=410500FFFFFFFF";
  EXPECT_EQ("0 0: 1.3.6.1.1" + all + " 1.3.6.1.2" + all + " 1.3.6.1.3=410101 1.3.6.1.4=410101",
            udp_client(context).ask(get(1, {1, 2, 3, 4})));

  pthread_sigmask(SIG_SETMASK, nullptr, &left);
  EXPECT_EQ(0, memcmp(&given_mask, &left, sizeof left));
  stop(context);
}

// The network takes an octet every eight milliseconds, if the test has the right to set that up. Otherwise a wrapper
// makes the socket behave in the same way.
TEST_F(lifecycle, slow_network_keeps_no_thread_of_the_host_waiting) {
  configure(port + "[ITEM_text]\noid = 1.3.6.1.1\ntype = string\nmeter = s\nmetertype = fast\n");
  const auto run = [&](const char* where) {
    ASSERT_EQ(0, entry->startCycle(&context, &host_keys));
    torvasin_key_value_list list;
    list.set("s", std::string(1400, 'x'));
    EXPECT_EQ(0, meter_callback_fast(&list, &context));
    udp_client client(context);
    const int least = 1;
    __real_setsockopt(module()->fd, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    // All before the first response, because requests take the same slow link.
    for (int i = 0; i < 12; i++) client.tell(get(1, {1}));
    entry->startThread(&context);
    auto longest = 0ms;
    const auto timed = [&](auto call) {
      const auto since = std::chrono::steady_clock::now();
      call();
      longest = std::max(
          longest, std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since));
    };
    while (longest < 1s && !log.has(1, "sent: -1 11 Resource temporarily unavailable")) {
      timed([&] { meter_callback_fast(&list, &context); });
    }
    timed([&] { stop(context); });
    EXPECT_LT(longest, 1s) << where;
    RecordProperty("longest_ms", static_cast<int>(longest.count()));
  };
  bool slow = false;
  std::jthread([&] {  // in a thread, with which the network ends: not every system permits switching back
    slow = unshare(CLONE_NEWNET) == 0 && system(
                                             "ip link set lo up 2>/dev/null && tc qdisc add dev lo root tbf "
                                             "rate 1kbit burst 3000 limit 1mb 2>/dev/null") == 0;
    if (slow) run("on a slow link");
  })
      .join();
  if (slow) return;
  plan("sendto", EAGAIN, 3, INT_MAX);
  run("with a full buffer");
}

// Two threads publish, and clients ask both instances, as fast as they can; the instances stop in the middle of it.
TEST_F(lifecycle, two_instances_answer_side_by_side) {
  torvasin_engine::set_log_level(2);
  const auto publish = [&](std::stop_token over, int speed) {
    torvasin_key_value_list list;
    for (uint32_t i = 0; !over.stop_requested(); i++) {
      list.set("m", i);
      list.set("n", 2 * i);
      engine.publish(speed, list);
    }
  };
  const std::jthread fast(publish, TORVASIN_FAST), slow(publish, TORVASIN_SLOW);
  torvasin_plugin_context second = {"second", &engine, {}, nullptr};
  for (int round = 0; round < 20; round++) {
    std::atomic<int> refreshed[3] = {};
    const auto ask = [&](std::stop_token stopped, const torvasin_plugin_context& instance, uint32_t arc) {
      udp_client client(instance);
      const std::string oid = " 1.3.6." + std::to_string(arc);
      while (!stopped.stop_requested()) {
        const std::string answer = client.ask(get(arc, {1, 2}), 50);
        if (answer == "silence" || answer.ends_with("=410103")) continue;
        const std::string value = answer.substr(std::min(answer.rfind('='), answer.size()));
        EXPECT_EQ("0 0:" + oid + ".1" + value + oid + ".2" + value, answer);
        refreshed[arc]++;
      }
    };
    configure(port + items("1"));
    ASSERT_EQ(0, start(context));
    configure(port + items("2"));
    ASSERT_EQ(0, start(second));
    const std::jthread first(ask, std::cref(context), 1), other(ask, std::cref(second), 2);
    while (refreshed[1] < 100 || refreshed[2] < 100) usleep(100);
    stop(second);
    refreshed[1] = 0;
    while (refreshed[1] < 100) usleep(100);
    stop(context);
  }
}

}  // namespace

#ifdef TORVASIN_LIBRARY  // not under sanitizers, which replace malloc themselves

static std::atomic<bool> scarce;  // only the main thread gets memory
extern "C" void* __libc_malloc(size_t n);
extern "C" void* malloc(size_t n) { return scarce && gettid() != getpid() ? nullptr : __libc_malloc(n); }

// Loads the library as a host does: only then could the C library allocate thread-local variables in its threads.
TEST_F(lifecycle, pollers_need_no_memory) {
  torvasin_engine::set_log_level(torvasin_engine::log_off);
  void* library = dlopen(TORVASIN_LIBRARY, RTLD_NOW);
  entry = static_cast<torvasin_plugin_entry*>(dlsym(library, "plugin_entry_0_6"));
  torvasin_plugin_context second = {"second", &engine, {}, nullptr};
  scarce = true;
  ASSERT_EQ(0, start(context));
  ASSERT_EQ(0, start(second));
  for (const auto& instance : {context, second}) EXPECT_EQ(initial_values, udp_client(instance).ask(get_a_and_b));
  stop(context);
  stop(second);
  scarce = false;
  dlclose(library);
}
#endif
