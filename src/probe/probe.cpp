// The probe: a module that serves nothing. A host loads it in place of the agent, with the same
// configuration, to learn whether it keeps the contract of module/torvasin.h.
//
// It calls every host function in the ways that the contract allows, from the entries, callbacks
// and threads that may call it, and checks each result and each call that it gets. A sentence of
// the contract that the host breaks is one line, "probe: FAULT: what the contract says, what the
// host did", on standard error and in the host's log. The stop says in one line how much was
// checked. When a host function crashes or waits, the line names the call.

#include <ini.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <span>

#include "module/torvasin.h"
#include "probe/fault.h"
#include "probe/functions.h"

using namespace torvasin_probe;

namespace {

// ---- Instances ---------------------------------------------------------------------------------

struct instance;

struct registration {
  instance* owner;
  int speed;
  void* handle;
  std::atomic<bool> open;    // from before it is added until it is removed
  std::atomic<int> running;  // calls in progress
  std::atomic<int> called;   // calls
  std::atomic<long> last;    // time of the last call
  std::atomic<long> period;  // from the call before to the last one
};

struct item {
  char meter[128];
  int speed;
  bool seen;  // in a list of its speed
};

struct instance {
  std::atomic<torvasin_plugin_context*> context;  // null when there is no instance
  std::atomic<const char*> stage;
  std::atomic<bool> entered;
  torvasin_plugin_context as_started;
  registration slow;
  registration fast;
  registration twin;         // fast too: what a second instance would add
  std::atomic<bool> adding;  // the twin, while a call of the fast one is in progress
  pthread_t poller;
  std::atomic<bool> polling;
  std::array<item, 256> items;  // of the configuration
  size_t item_count;
  char section[64];                                  // of the item that is read
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;  // held by a callback, for the two below
  torvasin_value* value;
};
std::array<instance, 8> instances;

void check_context(const instance& self) {
  const torvasin_plugin_context* now = self.context;
  EXPECT(strncmp(now->name, self.as_started.name, sizeof now->name) == 0 &&
             now->engine == self.as_started.engine && now->private_data == &self,
         "the host changes no name, engine or private_data", "it did for '%.39s'",
         self.as_started.name);
}

// ---- Meters ------------------------------------------------------------------------------------

// inih's callback: notes the items of the file, not of files that it includes.
int take_key(void* user, const char* section, const char* key, const char* value) {
  auto* self = static_cast<instance*>(user);
  if (strncmp(section, "ITEM_", 5) != 0) return 1;
  if (strcmp(section, self->section) != 0) {
    if (self->item_count == self->items.size()) return 1;
    snprintf(self->section, sizeof self->section, "%s", section);
    self->items[self->item_count++] = {};
  }
  item& last = self->items[self->item_count - 1];
  if (strcmp(key, "meter") == 0) snprintf(last.meter, sizeof last.meter, "%s", value);
  if (strcmp(key, "metertype") == 0) last.speed = strcmp(value, "fast") == 0;
  return 1;
}

// Takes the values of all items of a speed, as the agent does. Returns a sum that tells one state
// of the list from another.
uint64_t take_values(instance* self, const torvasin_key_value_list* list, int speed) {
  uint64_t sum = 0;
  const auto add = [&sum](uint64_t number) { sum = sum * 31 + number; };
  for (item& one : std::span(self->items).first(self->item_count)) {
    const torvasin_value* value = one.speed == speed ? look_up(list, one.meter) : nullptr;
    if (value == nullptr) continue;
    one.seen = true;
    add(value->type);
    if (value->type != TORVASIN_TEXT) {
      add(value->payload.uint32);
      continue;
    }
    CALL(torvasin_valueInitS, self->value, value->payload.text);
    const step here("reading the text of a record");
    for (const char* at = self->value->payload.text; *at != '\0'; at++) {
      add(static_cast<unsigned char>(*at));
    }
  }
  return sum;
}

void take_list(instance* self, const torvasin_key_value_list* list, int speed) {
  check_context(*self);
  pthread_mutex_lock(&self->lock);
  expect_absent(list, "probe.no such meter");
  const uint64_t sum = take_values(self, list, speed);
  log_text(TORVASIN_LOG_TRACE, 100);
  pause_ms(5);
  EXPECT(sum == take_values(self, list, speed), "a list stays unchanged during the call",
         "one changed");
  pthread_mutex_unlock(&self->lock);
}

registration* registration_of(const void* user) {
  for (instance& self : instances) {
    for (registration* one : {&self.slow, &self.fast, &self.twin}) {
      if (one == user && one->owner != nullptr) return one;
    }
  }
  return nullptr;
}

template <int speed>
int on_meters(const torvasin_key_value_list* list, void* user) {
  registration* one = registration_of(user);
  const bool ours = one != nullptr && one->speed == speed;
  EXPECT(ours, "a callback gets the user that was registered with it", "one got %p", user);
  if (!ours) return 0;
  one->running++;
  one->called++;
  const long now = milliseconds();
  one->period = now - one->last.exchange(now);
  const auto adding = [one] { return one == &one->owner->fast && one->owner->adding; };
  for (int ms = 0; ms < 1000 && adding(); ms++) pause_ms(1);
  EXPECT(!adding(), "a registration does not wait for a callback", "one waited");
  EXPECT(one->open, "no call begins after the removal", "one did");
  EXPECT(list != nullptr, "the list of a callback is not null", "one was");
  if (one->open && list != nullptr && one->owner->value != nullptr)
    take_list(one->owner, list, speed);
  one->running--;
  return 0;
}

// Waits for a call in progress. There is none if the host calls on this thread.
bool await_call(const registration& one) {
  for (int ms = 0; ms < 1100 && one.running == 0; ms++) pause_ms(1);
  return one.running > 0;
}

// False when the host refuses, which it may when another instance exists.
bool add(instance* self, registration* one, int speed) {
  one->owner = self;
  one->speed = speed;
  one->open = true;
  const auto callback =
      speed == TORVASIN_FAST ? on_meters<TORVASIN_FAST> : on_meters<TORVASIN_SLOW>;
  void* engine = self->as_started.engine;
  one->handle = CALL(torvasin_engine_addCallbackMeterManager, engine, speed, callback, one);
  const auto exists = [](const instance& other) { return other.context != nullptr; };
  const bool may_refuse = one == &self->twin || std::ranges::count_if(instances, exists) > 1;
  EXPECT(one->handle != nullptr || may_refuse,
         "an instance registers a callback for each speed, also anew",
         "for speed %d the host refused", speed);
  return one->handle != nullptr;
}

void remove(instance* self, registration* one) {
  CALL(torvasin_engine_rmCallbackMeterManager, self->as_started.engine, one->handle);
  one->open = false;
  one->handle = nullptr;
  EXPECT(one->running == 0, "a removal returns when no call of the callback runs", "one ran");
}

void remove_all(instance* self) {
  for (registration* one : {&self->fast, &self->slow, &self->twin}) remove(self, one);
}

// The twin comes during a call of the fast registration, which comes anew after it.
bool add_all(instance* self) {
  const bool added = add(self, &self->slow, TORVASIN_SLOW) && add(self, &self->fast, TORVASIN_FAST);
  if (!added) return false;
  self->adding = true;
  await_call(self->fast);
  add(self, &self->twin, TORVASIN_FAST);
  self->adding = false;
  remove(self, &self->fast);
  return add(self, &self->fast, TORVASIN_FAST);
}

// ---- Threads of the module ---------------------------------------------------------------------

void* log_on(void* user) {
  auto* self = static_cast<instance*>(user);
  for (size_t round = 1; self->polling; round++) {
    log_text(round == 128 ? TORVASIN_LOG_WARNING : TORVASIN_LOG_TRACE, round % 200);
    if (round > 128) pause_ms(10);
  }
  return nullptr;
}

void* poll(void* user) {
  std::array<pthread_t, 3> others;
  for (pthread_t& other : others) pthread_create(&other, nullptr, log_on, user);
  log_on(user);
  for (const pthread_t other : others) pthread_join(other, nullptr);
  return nullptr;
}

// ---- Entries -----------------------------------------------------------------------------------

constexpr char stopped[] = "stopped";
constexpr char started[] = "started";
constexpr char running[] = "running";
constexpr char ending[] = "ending";

// Finds and checks the instance of an entry, which must be in one of two stages, and brings it into
// the next. Null when the context is that of no instance.
instance* enter(const char* entry, torvasin_plugin_context* context, const char* allowed,
                const char* allowed_too, const char* next) {
  instance* self = nullptr;
  for (instance& one : instances) {
    if (one.context == context) self = &one;
  }
  for (instance& one : instances) {
    torvasin_plugin_context* none = nullptr;
    if (self == nullptr && allowed == stopped &&
        one.context.compare_exchange_strong(none, context)) {
      self = &one;
      self->stage = stopped;
    }
  }
  EXPECT(self != nullptr, "startCycle comes first, every entry gets the context of startCycle",
         "%s got one that is not started", entry);
  if (self == nullptr) return nullptr;
  const char* stage = self->stage.exchange(next);
  EXPECT(stage == allowed || stage == allowed_too,
         "the order is startCycle, startThread, preStopCycle, stopCycle",
         "%s came when the instance was %s", entry, stage);
  EXPECT(!self->entered.exchange(true), "the entries of an instance are called one at a time",
         "%s came during another", entry);
  if (stage != stopped) check_context(*self);
  return self;
}

void read_list(instance* self, const torvasin_key_value_list* list) {
  const char* path = "snmpmanager.ini";
  if (list != nullptr) {
    for (const char* key : {"conf_fil", "conf_file ", "CONF_FILE"}) expect_absent(list, key);
    for (const char* key : {"affinity", "renice"}) look_up(list, key);
    const torvasin_value* file = look_up(list, "conf_file");
    if (file != nullptr && file->type == TORVASIN_TEXT) path = file->payload.text;
  }
  self->item_count = 0;
  self->section[0] = '\0';
  if (ini_parse(path, take_key, self) < 0) say(TORVASIN_LOG_WARNING, "cannot read '%s'", path);
}

void end_instance(instance* self) {
  CALL(torvasin_free, self->value);
  end_watch();
  torvasin_plugin_context* context = self->context;
  context->private_data = nullptr;
  self->entered = false;
  self->context = nullptr;
}

int32_t startCycle(torvasin_plugin_context* context, const torvasin_key_value_list* list) {
  instance* self = enter("startCycle", context, stopped, stopped, started);
  if (self == nullptr) return -1;
  EXPECT(memchr(context->name, '\0', sizeof context->name) != nullptr, "a name ends with a zero",
         "'%.40s' does not", context->name);
  context->private_data = self;
  self->as_started = *context;
  begin_watch();
  check_log();
  check_blocks();
  check_values();
  read_list(self, list);
  self->value = static_cast<torvasin_value*>(CALL(torvasin_malloc, sizeof(torvasin_value)));
  if (!add_all(self)) {
    remove_all(self);
    end_instance(self);
    return -1;
  }
  self->entered = false;
  return 0;
}

void startThread(torvasin_plugin_context* context) {
  instance* self = enter("startThread", context, started, started, running);
  if (self == nullptr) return;
  if (!self->polling.exchange(true)) pthread_create(&self->poller, nullptr, poll, self);
  self->entered = false;
}

void end_poller(instance* self) {
  if (self->polling.exchange(false)) pthread_join(self->poller, nullptr);
}

void preStopCycle(torvasin_plugin_context* context) {
  instance* self = enter("preStopCycle", context, started, running, ending);
  if (self == nullptr) return;
  end_poller(self);
  self->entered = false;
}

void report(const instance& self) {
  int wanted = 0;
  int seen = 0;
  for (const item& one : std::span(self.items).first(self.item_count)) {
    if (one.meter[0] == '\0') continue;
    wanted++;
    seen += one.seen ? 1 : 0;
    if (!one.seen) say(TORVASIN_LOG_WARNING, "no list of its speed had '%s'", one.meter);
  }
  say(TORVASIN_LOG_WARNING, "%u checks, %u faults; %d fast and %d slow lists with %d of %d meters",
      checks.load(), faults.load(), self.fast.called.load(), self.slow.called.load(), seen, wanted);
}

void stopCycle(torvasin_plugin_context* context, int32_t) {
  instance* self = enter("stopCycle", context, ending, ending, stopped);
  if (self == nullptr) return;
  end_poller(self);
  EXPECT(self->twin.handle == nullptr || self->fast.called < 3 || self->twin.called > 0,
         "each registration is called", "one of two with the same callback was not");
  // The best time for the removal is during a call. The next one would come a period later.
  const bool called = self->fast.called > 0 && await_call(self->fast);
  remove_all(self);
  if (called) pause_ms(std::min(self->fast.period + 50, 1500L));
  report(*self);
  end_instance(self);
}

// The library stays loaded until the process ends, for the threads of an instance that the host
// forgot.
[[gnu::destructor]] void end() {
  for (const instance& one : instances) {
    if (one.context == nullptr) continue;
    say(0, "FAULT: every instance is stopped, '%.39s' was not", one.as_started.name);
  }
}

}  // namespace

const torvasin_plugin_entry plugin_entry_0_6 = {"probe",   nullptr, startCycle,  preStopCycle,
                                                stopCycle, nullptr, startThread, nullptr};

const char* const plugin_entry_torvasin_module_version = TORVASIN_VERSION;
