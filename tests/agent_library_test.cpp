// libtorvasin_agent as a program uses it: through its header, over UDP and on standard error.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <torvasin_agent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "client.h"

// LeakSanitizer asks this. In a forked child, memory of the parent's threads would look leaked.
static bool is_child = false;
extern "C" int __lsan_is_turned_off() { return is_child; }  // NOLINT(bugprone-reserved-identifier)

// What the library calls to bind.
static int bind_error = 0;
extern "C" [[gnu::visibility("default")]] int bind(int fd, const sockaddr* address, socklen_t size) {
  if ((errno = bind_error) != 0) return -1;
  return static_cast<int>(syscall(SYS_bind, fd, address, size));
}

namespace {

using std::string;
using agent_owner = std::unique_ptr<torvasin_agent, decltype([](torvasin_agent* a) { torvasin_agent_destroy(a); })>;

const string path = "agent_library_test.ini";  // in the build directory

string item(int number, const string& lines) {
  return "[ITEM_i" + std::to_string(number) + "]\noid = 1.3." + std::to_string(number) + "\n" + lines + "\n";
}
const string items = item(1, "type = uint:0\nmeter = c") + item(2, "type = int:0\nmeter = g\nmetertype = fast") +
                     item(3, "type = int:0\nmeter = r\ncomputeformula = value*10") +
                     item(4, "type = string:\nmeter = t");

agent_owner with_file(const string& lines, const string& port = "0", const string& ip = "127.0.0.1") {
  std::ofstream(path) << "[General]\nip = " << ip << "\nport = " << port << "\n" << lines;
  return agent_owner(torvasin_agent_create(path.c_str()));
}
string fault(const agent_owner& agent) { return torvasin_agent_fault(agent.get()); }
string port_of(const agent_owner& agent) { return string(torvasin_agent_address(agent.get())).substr(10); }

// The answer to a GET of items 1 to last, as describe() writes it.
string ask(const agent_owner& agent, uint32_t last) {
  request_parts parts{.varbinds = ""};
  for (uint32_t i = 1; i <= last; i++) parts.varbinds += null_varbind({1, 3, i}) + " ";
  const octets request = build(parts);
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  const timeval patience = {5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  const sockaddr_in to = {
      AF_INET, htons(static_cast<uint16_t>(std::stoi(port_of(agent)))), {htonl(INADDR_LOOPBACK)}, {}};
  sendto(fd, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  octets answer(2000);
  answer.resize(static_cast<size_t>(std::max<ssize_t>(recv(fd, answer.data(), answer.size(), 0), 0)));
  close(fd);
  return describe(answer);
}

TEST(agent_library, refuses_names_that_no_item_can_have_and_lists_the_others) {
  const agent_owner agent = with_file("");
  const struct {
    string name, words;
  } rows[] = {{string(127, 'a'), ""},
              {"a;b c", ""},
              {"a;b c", "there is already a meter 'a;b c'"},
              {"", "a meter needs a name"},
              {string(128, 'a'), "at most 127 octets"},
              {"a]", "contains a ']'"},
              {"a\nb", "a control character"},
              {"a ", "begins or ends with a blank"},
              {" a", "begins or ends"},
              {"a ;b", "has a ';'"},
              {";b", "has a ';'"}};
  for (const auto& [name, words] : rows) {
    EXPECT_EQ(torvasin_agent_counter(agent.get(), name.c_str(), " two\nlines ;") == nullptr, !words.empty()) << name;
    EXPECT_TRUE(words.empty() ? fault(agent).empty() : fault(agent).find(words) != string::npos) << fault(agent);
  }
  ASSERT_EQ(torvasin_agent_write_meters(agent.get(), path.c_str()), 0);
  const string listed = (std::stringstream() << std::ifstream(path).rdbuf()).str();
  EXPECT_TRUE(listed.ends_with("\n\n[a;b c]\ntype = uint\ncounts = yes\ndescription =  two lines ,\n")) << listed;
  EXPECT_EQ(torvasin_agent_write_meters(agent.get(), "/proc/x/y"), -1);
  EXPECT_EQ(fault(agent), "/proc/x/y: No such file or directory");
}

TEST(agent_library, says_why_it_does_not_start_and_goes_on_when_it_does_not_reload) {
  const agent_owner other = with_file(items), agent = with_file(items);
  ASSERT_EQ(torvasin_agent_start(other.get()), 0) << fault(other);
  const struct {
    string lines, port, ip, words;
    int error = 0;
  } rows[] = {{"gone", "0", "127.0.0.1", path + ": No such file or directory"},
              {"[ITEM_b]\nmeter = m", "0", "127.0.0.1", "error missing oid: 0 b: add an oid to [ITEM_b]"},
              {items, port_of(other), "127.0.0.1", "Address already in use: another program or agent uses this port"},
              {items, "0", "192.0.2.1", "Cannot assign requested address: this machine does not have this address"},
              {items, "0", "127.0.0.1", "Permission denied: a port below 1024 requires a privilege", EACCES}};
  for (const auto call : {torvasin_agent_start, torvasin_agent_reload}) {
    const string before = torvasin_agent_address(agent.get());
    for (const auto& [lines, port, ip, words, error] : rows) {
      with_file(lines, port, ip);
      bind_error = error;
      if (lines == "gone") std::filesystem::remove(path);
      EXPECT_EQ(call(agent.get()), -1) << words;
      EXPECT_NE(fault(agent).find(words), string::npos) << fault(agent);
      EXPECT_EQ(torvasin_agent_address(agent.get()), before) << words;
    }
    with_file(items);
    bind_error = 0;
    EXPECT_EQ(torvasin_agent_start(agent.get()), before.empty() ? 0 : -1) << fault(agent);
    EXPECT_EQ(ask(agent, 1), "0 0: 1.3.1=410100");
  }
  EXPECT_EQ(fault(agent), "the agent is already started");
}

TEST(agent_library, reads_a_pipe_once) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const string text = "[General]\nport = 0\n" + items, fifo = "/dev/fd/" + std::to_string(ends[0]);
  const agent_owner agent(torvasin_agent_create(fifo.c_str()));
  ASSERT_GT(write(ends[1], text.data(), text.size()), 0);
  close(ends[1]);
  EXPECT_EQ(torvasin_agent_start(agent.get()), 0) << fault(agent);
  EXPECT_EQ(torvasin_agent_reload(agent.get()), -1);
  EXPECT_EQ(fault(agent), fifo + ": Not a regular file");
  close(ends[0]);
}

TEST(agent_library, has_all_values_in_its_first_answer_and_after_a_reload) {
  const agent_owner other = with_file(items), agent = with_file(items);
  torvasin_counter_add(torvasin_agent_counter(agent.get(), "c", ""), 7);
  torvasin_gauge* gauge = torvasin_agent_gauge(agent.get(), "g", "");
  torvasin_gauge_set(gauge, -3);
  torvasin_real_set(torvasin_agent_real(agent.get(), "r", ""), 1.5f);
  torvasin_text_set(torvasin_agent_text(agent.get(), "t", ""), "ok");
  for (const auto& each : {&other, &agent}) ASSERT_EQ(torvasin_agent_start(each->get()), 0) << fault(*each);
  EXPECT_EQ(ask(agent, 4), "0 0: 1.3.1=410107 1.3.2=0201FD 1.3.3=02010F 1.3.4=04026F6B");
  EXPECT_EQ(ask(other, 2), "0 0: 1.3.1=410100 1.3.2=020100");
  with_file(items + item(5, "type = int:0\nmeter = late"), port_of(agent));  // the port that it holds already
  torvasin_gauge_add(gauge, 1);
  torvasin_gauge_set(torvasin_agent_gauge(agent.get(), "late", ""), 9);
  ASSERT_EQ(torvasin_agent_reload(agent.get()), 0) << fault(agent);
  EXPECT_EQ(ask(agent, 5), "0 0: 1.3.1=410107 1.3.2=0201FE 1.3.3=02010F 1.3.4=04026F6B 1.3.5=020109");
  const auto before = std::chrono::steady_clock::now();
  torvasin_agent_stop(agent.get());
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(500));
}

TEST(agent_library, loses_no_addition_while_it_publishes_and_answers) {
  const agent_owner agent = with_file(items);
  static std::atomic<bool> quiet = false;
  const auto collect = [](torvasin_agent*, int, void*) {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    if (sigismember(&blocked, SIGTERM) > sigismember(&blocked, SIGSEGV)) quiet = true;
  };
  torvasin_agent_set_collect(agent.get(), collect, nullptr);
  torvasin_agent_set_periods(agent.get(), 1, 1);
  torvasin_counter* counter = torvasin_agent_counter(agent.get(), "c", "");
  torvasin_text* text = torvasin_agent_text(agent.get(), "t", "");
  ASSERT_EQ(torvasin_agent_start(agent.get()), 0) << fault(agent);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; i++) {
    threads.emplace_back([&, i] {
      for (int n = 0; n < 20000; n++) torvasin_counter_add(counter, 1);
      for (int n = 0; n < 500; n++) torvasin_text_set(text, "some text");
      torvasin_agent_gauge(agent.get(), std::to_string(i).c_str(), "");
    });
  }
  for (int i = 0; i < 50; i++) EXPECT_TRUE(ask(agent, 4).starts_with("0 0: "));
  for (std::thread& each : threads) each.join();
  EXPECT_EQ(torvasin_agent_publish(agent.get()), 0);
  EXPECT_EQ(ask(agent, 1), "0 0: 1.3.1=4103027100");  // 160,000
  EXPECT_TRUE(quiet) << "collect in the thread meters";
}

TEST(agent_library, refuses_from_inside_collect_what_would_wait_for_it) {
  const agent_owner agent = with_file(items);
  static string words;
  const auto collect = [](torvasin_agent* self, int speed, void* gauge) {
    for (const auto call : {torvasin_agent_start, torvasin_agent_stop, torvasin_agent_reload, torvasin_agent_publish}) {
      words += std::to_string(call(self)) + torvasin_agent_fault(self) + "\n";
    }
    torvasin_agent_destroy(self);
    torvasin_gauge_set(static_cast<torvasin_gauge*>(gauge), 40 + speed);
    if (words.size() > 400) throw std::runtime_error("no values");
  };
  torvasin_agent_set_collect(agent.get(), collect, torvasin_agent_gauge(agent.get(), "g", ""));
  EXPECT_EQ(torvasin_agent_start(agent.get()), 0) << fault(agent);
  EXPECT_EQ(ask(agent, 2), "0 0: 1.3.1=410100 1.3.2=020129");
  EXPECT_TRUE(words.starts_with("-1start cannot be called from inside collect\n-1stop cannot")) << words;
  EXPECT_EQ(torvasin_agent_publish(agent.get()), -1);
  EXPECT_EQ(fault(agent), "no values");
}

TEST(agent_library, leaves_a_forked_child_no_port_and_nothing_to_wait_for) {
  agent_owner idle = with_file(items), agent = with_file(items);
  torvasin_text* text = torvasin_agent_text(agent.get(), "t", "");
  ASSERT_EQ(torvasin_agent_start(agent.get()), 0) << fault(agent);
  const string port = port_of(agent);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const pid_t child = fork();
  is_child = child == 0;
  if (is_child) {
    close(ends[1]);
    torvasin_text_set(text, "a");
    const bool refused = torvasin_agent_start(agent.get()) == -1 && fault(agent).starts_with("this process was forked");
    agent.reset();
    const bool told = write(ends[0], "", 1) == 1 && read(ends[0], ends, 1) == 0;
    const bool works = told && torvasin_agent_start(idle.get()) == 0 && ask(idle, 1).size() > 5;
    std::exit(refused && works ? 0 : 1);
  }
  close(ends[0]);
  char ready = 1;
  EXPECT_EQ(read(ends[1], &ready, 1), 1);
  agent.reset();
  EXPECT_EQ(torvasin_agent_start(with_file(items, port).get()), 0);  // while the child still runs
  with_file(items);
  close(ends[1]);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST(agent_library, may_be_stopped_while_the_log_function_waits_for_a_thread_that_forks) {
  static int lines = 0;
  const auto log = [](int, const char*, int, const char*, void*) {
    std::thread([] { fork() == 0 ? _exit(0) : void(wait(nullptr)); }).join();
    lines++;
  };
  torvasin_agent_set_log(log, nullptr, 2);
  EXPECT_EQ(torvasin_agent_start(with_file(items).get()), 0);
  torvasin_agent_set_log(nullptr, nullptr, 2);
  EXPECT_EQ(lines, 2);  // of the stop
}

TEST(agent_library, writes_a_log_that_neither_floods_nor_controls_a_terminal) {
  string lines;
  for (int i = 0; i < 30; i++) lines += item(i, "meter = m\ntype = \x1b[1m\xff" + std::to_string(i));
  testing::internal::CaptureStderr();
  EXPECT_EQ(torvasin_agent_start(with_file(lines).get()), 0);
  const string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::ranges::count(log, '\\'), 2 * 20) << log;
  EXPECT_NE(log.find("torvasin_agent: error src/module/"), string::npos) << log;
  EXPECT_NE(log.find("\\x1b[1m\\xff19"), string::npos) << log;
}

}  // namespace
