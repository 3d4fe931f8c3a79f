// The probe: a module that serves nothing. A host loads it instead of the agent, with the same
// configuration, to learn whether the host keeps the contract of module/torvasin.h. The probe calls
// the host functions from the entries, callbacks and threads that may call them, and checks what
// they do. It reports a broken duty at once, and lists all duties when no instance is left.

#include <ini.h>
#include <stdlib.h>

#include <map>
#include <vector>

#include "probe/duties.h"

using namespace torvasin_probe;

namespace {

// The checks of host functions run in startCycle, check_blocks in stopCycle too. They free what
// they allocate.
void check_log() {
  for (int level = TORVASIN_LOG_TRACE; level <= TORVASIN_LOG_FAILURE; level++) {
    for (int round = 0; round < 5; round++) log(level, "");
    for (const size_t length : {500u, 3000u, 20'000u}) log(level, std::string(length, 'x').c_str());
    log(level, "%s%n\n\x1b[0m\xff");
  }
}

bool is_filled(const void* block, int octet, size_t size) {
  const step here("reading a block", duty_blocks);
  const auto* octets = static_cast<const unsigned char*>(block);
  return std::all_of(octets, octets + size, [=](unsigned char one) { return one == octet; });
}

// When the host has no memory, the block stays as it is.
void resize(void** block, int octet, size_t from, size_t to) {
  void* resized = CALL(torvasin_realloc, *block, to);
  const duty one = resized != nullptr ? duty_content : duty_refusal;
  if (resized != nullptr) *block = resized;
  EXPECT(one, is_filled(*block, octet, resized != nullptr ? std::min(from, to) : from),
         "torvasin_realloc from %zu to %zu octets changed it", from, to);
}

void check_blocks() {
  void* resized = CALL_OF(" of null", torvasin_realloc, nullptr, 24);
  void* block = CALL(torvasin_malloc, 24);
  if (resized != nullptr || block != nullptr)
    EXPECT(duty_grows, resized != nullptr, "it returned null");
  for (void* one : {resized, block}) CALL(torvasin_free, one);
  constexpr std::array<size_t, 7> sizes = {1, 7, 24, 100, 4096, 5000, 200'000};
  std::array<void*, sizes.size()> blocks;
  for (size_t i = 0; i < sizes.size(); i++) {
    blocks[i] = CALL(torvasin_malloc, sizes[i]);
    if (blocks[i] != nullptr) memset(blocks[i], static_cast<int>(i + 1), sizes[i]);
  }
  for (size_t i = 0; i < sizes.size(); i++) {
    if (blocks[i] == nullptr) continue;
    const int octet = static_cast<int>(i + 1);
    EXPECT(duty_aligned, reinterpret_cast<uintptr_t>(blocks[i]) % alignof(max_align_t) == 0,
           "one of %zu octets is at %p", sizes[i], blocks[i]);
    EXPECT(duty_blocks, is_filled(blocks[i], octet, sizes[i]), "%zu octets changed", sizes[i]);
    for (const size_t to : {3 * sizes[i], (sizes[i] + 1) / 2}) {
      resize(&blocks[i], octet, sizes[i], to);
      memset(blocks[i], octet, std::min(sizes[i], to));
    }
  }
  for (void* one : blocks) CALL(torvasin_free, one);
  CALL_OF(" of null", torvasin_free, nullptr);
}

void expect_number(const torvasin_value& value, uint32_t type, uint32_t bits) {
  EXPECT(duty_records, value.type == type && value.payload.uint32 == bits,
         "%08x of type %u became %08x of type %u", bits, type, value.payload.uint32, value.type);
}

// An empty text proves nothing: the host may have had no memory for the right one.
void expect_text(const torvasin_value& value, const char* text, duty one) {
  const step here("reading the text of a record", one);
  const bool is_text = value.type == TORVASIN_TEXT && value.payload.text != nullptr;
  if (is_text && value.payload.text[0] == '\0' && text[0] != '\0') return;
  EXPECT(one, is_text && strcmp(value.payload.text, text) == 0,
         "a record of type %u lacked its text of %zu octets", value.type, strlen(text));
}

// Sets a record to a text, which ends with this call. Callbacks use it too.
void set_text(torvasin_value* value, std::string text, duty copied) {
  const std::string kept = text;
  CALL(torvasin_valueInitS, value, text.c_str());
  std::ranges::fill(text, '#');
  expect_text(*value, kept.c_str(), copied);
}

void take_texts(torvasin_value* value) {
  char borrowed[] = "a text of the module";
  CALL_OF(" of a text that is not the host's", torvasin_valueInitTakeS, value, borrowed, 0);
  expect_text(*value, "a text of the module", duty_records);
  CALL(torvasin_valueInitUInt32, value, 0);
  EXPECT(duty_borrowed, strcmp(borrowed, "a text of the module") == 0, "it did");
  auto* owned = static_cast<char*>(CALL(torvasin_malloc, sizeof borrowed));
  if (owned == nullptr) return;
  memcpy(owned, borrowed, sizeof borrowed);
  CALL(torvasin_valueInitTakeS, value, owned, 1);
  expect_text(*value, borrowed, duty_records);
}

void check_values() {
  constexpr std::array texts = {"one", "", "a text that is longer", "in place", "%s"};
  auto* values =
      static_cast<torvasin_value*>(CALL(torvasin_malloc, texts.size() * sizeof(torvasin_value)));
  if (values == nullptr) return;
  // The most harmful content of new memory is one that looks like a text.
  memset(values, 0xA5, texts.size() * sizeof *values);
  for (size_t i = 0; i < texts.size(); i++) values[i].type = TORVASIN_TEXT;
  CALL(torvasin_valueInitUInt32, &values[0], UINT32_MAX);
  CALL(torvasin_valueInitInt32, &values[1], -5);
  CALL(torvasin_valueInitFloat, &values[2], -1.5F);
  take_texts(&values[3]);
  expect_number(values[0], TORVASIN_UINT32, 0xFFFFFFFF);
  expect_number(values[1], TORVASIN_INT32, 0xFFFFFFFB);
  expect_number(values[2], TORVASIN_FLOAT, 0xBFC00000);
  for (const size_t n : {20'000u, 1000u, 64u})
    set_text(&values[4], std::string(n, 'x'), duty_copies);
  for (size_t i = 0; i < texts.size(); i++) set_text(&values[i], texts[i], duty_copies);
  for (const size_t count : {1000 * texts.size(), texts.size()}) {
    void* moved = CALL(torvasin_realloc, values, count * sizeof *values);
    if (moved != nullptr) values = static_cast<torvasin_value*>(moved);
    // Its copy may land where a text was that the host has released by mistake.
    auto* other = static_cast<torvasin_value*>(CALL(torvasin_malloc, sizeof *values));
    if (other != nullptr) set_text(other, "another", duty_copies);
    CALL(torvasin_free, other);
    for (size_t i = 0; i < texts.size(); i++) expect_text(values[i], texts[i], duty_moves);
  }
  CALL(torvasin_valueInitInt32, &values[0], 5);
  expect_number(values[0], TORVASIN_INT32, 5);
  CALL(torvasin_free, values);
}

// Looks a key up with each function. Returns the value, or null when the list does not have it.
const torvasin_value* look_up(const torvasin_key_value_list* list, const char* key) {
  const torvasin_value* value = nullptr;
  const char* text = nullptr;
  uint32_t number = 0;
  const int got = CALL(torvasin_keyValueListGet, list, key, &value);
  if (got == 0) EXPECT(duty_get, value != nullptr, "for '%.40s' it only returned 0", key);
  const int got_text = CALL(torvasin_keyValueListGetS, list, key, &text);
  const int got_number = CALL(torvasin_keyValueListGetIU, list, key, &number);
  if (got != 0 && got_text != 0 && got_number != 0) return nullptr;
  const step here("reading a value of a list", duty_unchanged);
  const bool found = got == 0 && value != nullptr;
  const bool is_text = found && value->type == TORVASIN_TEXT;
  const bool is_number = found && value->type <= TORVASIN_INT32;
  EXPECT(duty_get_text, (got_text == 0) == is_text, "for '%.40s', %s, it returned %d", key,
         is_text ? "a text" : "no text", got_text);
  EXPECT(duty_get_number, (got_number == 0) == is_number, "for '%.40s', %s, it returned %d", key,
         is_number ? "an integer" : "no integer", got_number);
  if (!found || (is_text && value->payload.text == nullptr)) return value;
  const bool same_text = !is_text || got_text != 0 || strcmp(text, value->payload.text) == 0;
  const bool same_number = !is_number || got_number != 0 || number == value->payload.uint32;
  EXPECT(duty_get, same_text && same_number, "for '%.40s' two of them gave different values", key);
  return value;
}

void expect_absent(const torvasin_key_value_list* list, const char* key) {
  EXPECT(duty_keys, look_up(list, key) == nullptr, "it found '%.40s'", key);
}

void look_up_odd_keys(const torvasin_key_value_list* list) {
  const torvasin_value* value;
  CALL_OF(" with an empty key", torvasin_keyValueListGet, list, "", &value);
  expect_absent(list, "probe.no such meter\xff");
  for (const size_t length : {3000u, 127u}) expect_absent(list, std::string(length, 'x').c_str());
}

struct registration {
  struct instance* owner;
  int speed;
  void* handle;
  torvasin_value* record;         // for the one call that took record_used; null without memory
  std::atomic<bool> record_used;  // calls may overlap
  std::atomic<bool> open;         // from before it is added until it is removed
  std::atomic<bool> outlived;     // another one of the engine was removed after the last call
  std::atomic<int> running;       // calls in progress
  std::atomic<int> called;        // calls so far
  std::atomic<pthread_t> caller;  // the thread of the last call
  std::atomic<long> last;         // the time of the last call, ms
  std::atomic<long> longest;      // the longest time from one call to the next, ms
};

struct item {
  std::string meter;
  int speed;
  std::atomic<bool> seen;  // a list of its speed contained the meter
};

// One start. It is never freed, because calls may come too late.
struct instance {
  std::atomic<torvasin_plugin_context*> context;  // null once it is stopped
  torvasin_plugin_context as_started;
  std::atomic<const char*> stage;
  std::atomic<bool> entered;
  registration slow;
  registration fast;
  std::vector<std::thread> pollers;
  std::atomic<bool> polling;
  std::map<std::string, item> items;  // of the configuration, by section
  int files_read;
  instance* next;
};
std::atomic<instance*> instances;
std::atomic<int> callbacks_running;
std::atomic<bool> log_wanted;  // a callback wants other threads to log meanwhile

// inih's callback. Files may include one another endlessly; like the agent, reads at most 256.
int take_key(void* user, const char* section, const char* key, const char* value) {
  auto* self = static_cast<instance*>(user);
  const bool include = strcmp(section, "General") == 0 && strcmp(key, "include") == 0;
  const bool unread = include && ++self->files_read <= 256 && ini_parse(value, take_key, user) < 0;
  if (unread) say(TORVASIN_LOG_WARNING, "cannot read '%s'", value);
  if (strncmp(section, "ITEM_", 5) != 0) return 1;
  item& one = self->items[section];
  if (strcmp(key, "meter") == 0) one.meter = value;
  if (strcmp(key, "metertype") == 0) one.speed = strcmp(value, "fast") == 0;
  return 1;
}

void read_list(instance* self, const torvasin_key_value_list* list) {
  const char* path = "snmpmanager.ini";
  if (list != nullptr) {
    look_up_odd_keys(list);
    for (const char* key : {"conf_fil", "conf_file ", "CONF_FILE"}) expect_absent(list, key);
    for (const char* key : {"affinity", "renice"}) look_up(list, key);
    const torvasin_value* file = look_up(list, "conf_file");
    const bool is_text = file != nullptr && file->type == TORVASIN_TEXT;
    if (is_text && file->payload.text != nullptr) path = file->payload.text;
  }
  take_key(self, "General", "include", path);
}

// Reads the values of all items of a speed, as the agent does. Returns a hash of them.
size_t take_values(registration* from, const torvasin_key_value_list* list, bool set) {
  size_t sum = 0;
  for (auto& [name, one] : from->owner->items) {
    if (one.speed != from->speed) continue;
    const torvasin_value* value = look_up(list, one.meter.c_str());
    if (value == nullptr) continue;
    one.seen.store(true, relaxed);
    const bool is_text = value->type == TORVASIN_TEXT;
    sum = sum * 31 + value->type + (is_text ? 0 : value->payload.uint32);
    if (!is_text) continue;
    EXPECT(duty_texts, value->payload.text != nullptr, "the text of '%s' is", one.meter.c_str());
    if (value->payload.text == nullptr) continue;
    const step here("reading a value of a list", duty_unchanged);
    sum = sum * 31 + std::hash<std::string_view>()(value->payload.text);
    if (set) set_text(from->record, value->payload.text, duty_copies);
  }
  return sum;
}

// Takes some milliseconds, so that calls on other threads overlap with it.
void take_list(registration* one, const torvasin_key_value_list* list) {
  look_up_odd_keys(list);
  log(TORVASIN_LOG_TRACE, "a line of a callback");
  const bool set = one->record != nullptr && !one->record_used.exchange(true);
  const size_t sum = take_values(one, list, set);
  log_wanted.store(one->called <= 10, relaxed);
  for (long ms = 0, begin = milliseconds(); ms < (log_wanted ? 20 : 5); usleep(100)) {
    const std::string text = "text " + std::to_string(ms++ * 2 + one->speed);
    if (set && callbacks_running.load(relaxed) > 1) set_text(one->record, text, duty_threads);
    ms = milliseconds() - begin;
  }
  EXPECT(duty_unchanged, sum == take_values(one, list, set), "a value changed");
  if (set) one->record_used = false;
}

template <int speed>
int on_meters(const torvasin_key_value_list* list, void* user) {
  registration* one = nullptr;
  for (instance* self = instances; self != nullptr; self = self->next) {
    registration* own = speed == TORVASIN_FAST ? &self->fast : &self->slow;
    if (own == user) one = own;
  }
  EXPECT(duty_user, one != nullptr, "a callback got %p", user);
  if (one == nullptr) return 0;
  const char* inside = this_thread().what;
  const bool adding = inside != nullptr && !one->handle && strstr(inside, "_addCallback");
  EXPECT(duty_calls, inside == nullptr || adding, "it called a callback");
  EXPECT(duty_list, list != nullptr, "it was");
  const step here(nullptr, duty_returns);
  if (!one->open) EXPECT(duty_after, false, "one of '%.39s' did", one->owner->as_started.name);
  if (!one->open || list == nullptr) return 0;
  callbacks_running.fetch_add(1, relaxed);
  one->running.fetch_add(1, relaxed);
  const long now = milliseconds();
  const long period = now - one->last.exchange(now, relaxed);
  if (one->called++ > 0 && period > one->longest) one->longest.store(period, relaxed);
  one->caller.store(pthread_self(), relaxed);
  if (one->outlived.exchange(false, relaxed)) judge(duty_others, true);
  take_list(one, list);
  if (inside == nullptr) outlast_calls();
  one->running.fetch_sub(1, relaxed);
  callbacks_running.fetch_sub(1, relaxed);
  return 0;
}

// Registers a callback. Returns false when the host refuses, as it may when another instance runs.
bool add(registration* one, int speed) {
  one->speed = speed;
  one->open = true;
  one->handle =
      CALL(torvasin_engine_addCallbackMeterManager, one->owner->as_started.engine, speed,
           speed == TORVASIN_FAST ? on_meters<TORVASIN_FAST> : on_meters<TORVASIN_SLOW>, one);
  const bool added = one->handle != nullptr;
  one->open = added;
  if (!added) say(TORVASIN_LOG_WARNING, "the host refuses a callback of speed %d", speed);
  const bool anew = started_instances == 1 && one->owner->next != nullptr;
  if (anew) EXPECT(duty_anew, added, "it was refused");
  return added;
}

// Makes a call during a callback on another thread, if one begins within wait_ms; else without one.
void call_during_callback(long wait_ms, auto call) {
  for (; wait_ms > 0 && callbacks_running == 0; wait_ms--) usleep(1000);
  const bool any = callbacks_running > 0;
  call();
  if (any && callbacks_running > 0) judge(duty_lock, true);
}

bool add_all(instance* self) {
  for (registration* one : {&self->slow, &self->fast}) {
    one->record = static_cast<torvasin_value*>(CALL(torvasin_malloc, sizeof *one->record));
  }
  if (!add(&self->slow, TORVASIN_SLOW)) return false;
  call_during_callback(200, [=] { add(&self->fast, TORVASIN_FAST); });
  call_during_callback(200, check_blocks);
  return self->fast.handle != nullptr;
}

// Whether the next call is so late that it will not come. The period is known from two calls on.
bool is_overdue(const registration& one) {
  const long first_limit = one.speed == TORVASIN_FAST ? 10'000 : 60'000;
  const long limit = one.called > 1 ? std::max(10 * one.longest, 3000L) : first_limit;
  return one.called > 0 && milliseconds() - one.last > limit;
}

// Removes a registration; with a null handle only makes the call. Afterwards the host must go on
// calling all other registrations of the engine.
void remove(registration* one, void* handle) {
  void* engine = one->owner->as_started.engine;
  const bool during = one->running > 0;
  const char* what = handle != nullptr ? "in torvasin_engine_rmCallbackMeterManager"
                                       : "in torvasin_engine_rmCallbackMeterManager of null";
  step(what, duty_returns), torvasin_engine_rmCallbackMeterManager(engine, handle);
  if (handle != nullptr) {
    one->open = false;
    if (during) EXPECT(duty_idle, one->running == 0, "one was");
    if (one->called > 0) judge(duty_after, true);
  }
  for (instance* self = instances; self != nullptr; self = self->next) {
    for (registration* other : {&self->slow, &self->fast}) {
      const bool stays = other->open && self->as_started.engine == engine && !is_overdue(*other);
      if (stays) other->outlived = true;
    }
  }
}

// Removes the fast registration during a callback, if the host runs those on other threads.
void remove_all(instance* self) {
  registration* fast = &self->fast;
  remove(fast, nullptr);
  remove(&self->slow, self->slow.handle);
  const bool calling = fast->called > 0 && fast->caller != pthread_self();
  const long period = calling ? std::min(fast->longest + 50, 1100L) : 0;
  call_during_callback(period, check_blocks);
  for (long ms = period; ms > 0 && fast->running == 0; ms--) usleep(1000);
  remove(fast, fast->handle);
  usleep(static_cast<useconds_t>(1000 * period));  // lets a call come that must not
  for (registration* one : {&self->slow, fast}) CALL(torvasin_free, one->record);
}

void check_last_call(const registration& one, duty again) {
  if (one.called > 1) judge(again, true);
  if (!is_overdue(one)) return;
  EXPECT(one.outlived ? duty_others : again, false, "after call %d of '%.39s' none came for %ld ms",
         one.called.load(), one.owner->as_started.name, milliseconds() - one.last);
}

// ---- Entries -----------------------------------------------------------------------------------

void log_on(void* user) {
  auto* self = static_cast<instance*>(user);
  for (int round = 0; self->polling; round++) {
    const bool wanted = log_wanted.exchange(false, relaxed);
    for (int level = 1; level <= (wanted ? 4 : 1); level++) log(level, "a line of a thread");
    if (wanted && callbacks_running > 0) judge(duty_log_lock, true);
    if (round > 128) usleep(3000);
  }
}

void end_pollers(instance* self) {
  self->polling = false;
  for (std::thread& one : self->pollers) one.join();
  self->pollers.clear();
}

// Finds the instance of a context, checks that it is in one of the allowed stages and puts it into
// the next. With a null next, only finds it. Returns null when no started instance has the context.
instance* enter(const char* entry, const torvasin_plugin_context* context, const char* allowed,
                const char* next) {
  EXPECT(duty_calls, this_thread().what == nullptr, "it called %s", entry);
  instance* self = instances;
  while (self != nullptr && self->context != context) self = self->next;
  if (next == nullptr) return self;
  EXPECT(duty_address, self != nullptr, "%s got one where no instance is started", entry);
  if (self == nullptr) return nullptr;
  const char* stage = self->stage.exchange(next);
  EXPECT(duty_order, strstr(allowed, stage) != nullptr, "%s came when it was %s", entry, stage);
  EXPECT(duty_single, !self->entered.exchange(true), "%s came during another entry", entry);
  const torvasin_plugin_context& then = self->as_started;
  const bool same = strncmp(context->name, then.name, sizeof then.name) == 0 &&
                    context->engine == then.engine && context->private_data == self;
  EXPECT(duty_context, same, "%s of '%.39s' got others", entry, then.name);
  return self;
}

void end_instance(instance* self) {
  self->context.exchange(nullptr)->private_data = nullptr;
  if (started_instances == 1) report_duties();
  started_instances--;
}

int32_t startCycle(torvasin_plugin_context* context, const torvasin_key_value_list* list) {
  if (instance* former = enter("startCycle", context, nullptr, nullptr)) {
    EXPECT(duty_stopped, false, "startCycle came when it was %s", former->stage.load());
    end_pollers(former);
    end_instance(former);
  }
  auto* self = new instance{};
  context->private_data = self;
  self->as_started = *context;
  self->stage = "started";
  self->entered = true;
  self->context = context;
  self->slow.owner = self->fast.owner = self;
  const bool first = started_instances++ == 0 && instances == nullptr;
  self->next = instances;
  while (!instances.compare_exchange_weak(self->next, self)) continue;
  const bool ends = memchr(context->name, '\0', sizeof context->name) != nullptr;
  EXPECT(duty_name, ends, "'%.40s' is not", context->name);
  if (first) begin_watch(), check_log();
  check_blocks();
  check_values();
  read_list(self, list);
  const bool added = add_all(self);
  if (!added) remove_all(self), end_instance(self);
  self->entered = false;
  return added ? 0 : -1;
}

void startThread(torvasin_plugin_context* context) {
  instance* self = enter("startThread", context, "started", "running");
  if (self == nullptr) return;
  self->polling = true;
  while (self->pollers.size() < 4) self->pollers.push_back(start_thread(log_on, self));
  self->entered = false;
}

void preStopCycle(torvasin_plugin_context* context) {
  instance* self = enter("preStopCycle", context, "started, running", "ending");
  if (self == nullptr) return;
  check_last_call(self->slow, duty_slow);
  check_last_call(self->fast, duty_fast);
  end_pollers(self);
  self->entered = false;
}

void stopCycle(torvasin_plugin_context* context, int32_t) {
  instance* self = enter("stopCycle", context, "ending", "ending");
  if (self == nullptr) return;
  end_pollers(self);
  remove_all(self);
  int seen = 0, wanted = 0;
  for (const auto& [name, one] : self->items) {
    if (one.meter.empty()) continue;
    wanted++;
    seen += one.seen ? 1 : 0;
    if (!one.seen)
      say(TORVASIN_LOG_WARNING, "no list of its speed contained '%s'", one.meter.c_str());
  }
  say(TORVASIN_LOG_WARNING, "%.39s: %d fast and %d slow lists with %d of %d meters", context->name,
      self->fast.called.load(), self->slow.called.load(), seen, wanted);
  judge(duty_stopped, true);
  end_instance(self);
  self->entered = false;
}

// The library stays loaded until the process ends. This runs after the host's exit handlers.
[[gnu::destructor]] void end() {
  started_instances = 0;  // the log must not be called any more
  for (instance* one = instances; one != nullptr; one = one->next) {
    one->polling = false;
    if (one->context == nullptr) continue;
    EXPECT(duty_stopped, false, "at the end '%.39s' was %s", one->as_started.name,
           one->stage.load());
  }
  const char* wanted = getenv("TORVASIN_PROBE_EXIT");
  if (!report_duties() || wanted == nullptr || strcmp(wanted, "1") != 0) return;
  fflush(nullptr);
  _exit(1);
}

}  // namespace

const torvasin_plugin_entry plugin_entry_0_6 = {"probe",   nullptr, startCycle,  preStopCycle,
                                                stopCycle, nullptr, startThread, nullptr};

const char* const plugin_entry_torvasin_module_version = TORVASIN_VERSION;
