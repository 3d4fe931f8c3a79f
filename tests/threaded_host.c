// A host with a thread for each speed, written from torvasin.h, for the probe to check. -DKIND=... selects a kind of
// host that the contract allows, or one with a fault. Usage: HOST PROBE CONFIGURATION.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <search.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <torvasin.h>
#include <unistd.h>
// clang-format off: a table; the kinds in the first line are correct
enum {
  plain, nine_instances, small_arena, own_engines, slow_log,
  log_takes_50_ms, log_takes_the_lock, malloc_takes_the_lock, misaligned, one_block_for_two, realloc_forgets,
  refusal_spoils, text_gets_lost, text_in_64, int_is_uint, borrowed_is_written, shared_buffer, key_in_32, empty_key,
  any_case, number_of_any, numbers_grow, null_text, null_list, once, fifty_slow, removes_callback, no_wait,
  removes_nothing, place_lost, removal_calls, removal_of_null, long_name, private_data_null, two_at_once, no_stop
};
// clang-format on
// One lock for each speed, held during its callbacks. Only the host function that removes callbacks may take them.
static pthread_mutex_t publishing[] = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER};
static void wait_for_callbacks(void) {
  for (pthread_mutex_t* one = publishing; one < publishing + 2; one++)
    pthread_mutex_lock(one), pthread_mutex_unlock(one);
}
void torvasin_log(int level, const char* source, int line, int flag, const char* format, ...) {
  static _Atomic int lines;
  char text[300];
  va_list arguments;
  if (level < TORVASIN_LOG_WARNING) return;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (KIND == log_takes_50_ms) usleep(50000);
  if (KIND == log_takes_the_lock) wait_for_callbacks();
  if (KIND == slow_log && ++lines % 40 == 0) sleep(1);  // as if the machine were busy with something else
  dprintf(STDERR_FILENO, "log %d %d %s:%d %s\n", level, flag, source, line, text);
}
enum { shift = KIND == misaligned ? 8 : 0 };
static _Atomic size_t in_use;
static size_t size_of(char* memory) { return memory != NULL ? malloc_usable_size(memory - shift) - shift : 0; }
void torvasin_free(void* memory) {
  in_use -= size_of(memory);
  if (memory != NULL) free((char*)memory - shift);
}
void* torvasin_malloc(size_t size) {
  static size_t shared[1000];
  if (KIND == one_block_for_two && (size == 4096 || size == 5000)) return &shared[10];
  if ((KIND == small_arena || KIND == refusal_spoils) && in_use + size > 20000) return NULL;
  if (KIND == malloc_takes_the_lock) wait_for_callbacks();
  char* memory = malloc(size + shift);
  if (memory != NULL) memory += shift;
  in_use += size_of(memory);
  return memory;
}
void* torvasin_realloc(void* memory, size_t size) {
  torvasin_value* moved = torvasin_malloc(size);
  if (KIND == refusal_spoils && moved == NULL && memory != NULL) memset(memory, 0, 1);
  if (moved == NULL || memory == NULL) return moved;
  if (KIND != realloc_forgets) memcpy(moved, memory, size_of(memory) < size ? size_of(memory) : size);
  if (KIND == text_gets_lost && moved->type == TORVASIN_TEXT) moved->payload.text = "lost";
  torvasin_free(memory);
  return moved;
}
static int compare(const void* one, const void* other) { return strcmp(one, other); }
// Returns the host's copy of a text; equal texts share one.
static const char* keep(const char* text) {
  static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  static void* kept;
  static char buffer[30000];
  char small[64];
  if (KIND == text_in_64) text = strcpy(small, text);
  if (KIND == shared_buffer) text = strcpy(buffer, text), usleep(1);
  pthread_mutex_lock(&lock);
  char** found = tfind(text, &kept, compare);
  if (found == NULL) found = tsearch(strdup(text), &kept, compare);
  pthread_mutex_unlock(&lock);
  return *found;
}

void torvasin_valueInitUInt32(torvasin_value* at, uint32_t x) { at->type = TORVASIN_UINT32, at->payload.uint32 = x; }
void torvasin_valueInitInt32(torvasin_value* at, int32_t x) { at->type = KIND != int_is_uint, at->payload.int32 = x; }
void torvasin_valueInitFloat(torvasin_value* at, float x) { at->type = TORVASIN_FLOAT, at->payload.float32 = x; }
void torvasin_valueInitS(torvasin_value* at, const char* x) { at->type = TORVASIN_TEXT, at->payload.text = keep(x); }
void torvasin_valueInitTakeS(torvasin_value* value, char* text, int owned) {
  torvasin_valueInitS(value, text);
  if (KIND == borrowed_is_written) *text = '*';
  if (owned != 0) torvasin_free(text);
}
struct torvasin_key_value_list {  // an element of an array; one without a key ends it
  const char* key;
  torvasin_value value;
};
int torvasin_keyValueListGet(const torvasin_key_value_list* list, const char* key, const torvasin_value** value) {
  char small[32];
  if (KIND == key_in_32) key = strcpy(small, key);
  if (KIND == empty_key && *key == '\0') key = NULL;
  while (list->key != NULL && (KIND == any_case ? strcasecmp : strcmp)(list->key, key) != 0) list++;
  if (list->key == NULL) return -1;
  *value = &list->value;
  if (KIND == numbers_grow && list->value.type == TORVASIN_UINT32) ++*(uint32_t*)(uintptr_t)&list->value.payload;
  return 0;
}
int torvasin_keyValueListGetS(const torvasin_key_value_list* list, const char* key, const char** text) {
  const torvasin_value* value;
  if (torvasin_keyValueListGet(list, key, &value) != 0 || value->type != TORVASIN_TEXT) return -1;
  *text = value->payload.text;
  return 0;
}
int torvasin_keyValueListGetIU(const torvasin_key_value_list* list, const char* key, uint32_t* number) {
  const torvasin_value* value;
  if (torvasin_keyValueListGet(list, key, &value) != 0) return -1;
  if (value->type > TORVASIN_INT32 && KIND != number_of_any) return -1;
  *number = value->payload.uint32;
  return 0;
}
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static struct registration {
  void* engine;  // null in a free place
  torvasin_meter_callback callback;
  void* user;
  int speed;
} places[KIND == place_lost ? 4 : 32];
enum { place_count = sizeof places / sizeof *places };
static torvasin_plugin_context contexts[9];  // also the engines

void* torvasin_engine_addCallbackMeterManager(void* engine, int speed, torvasin_meter_callback callback, void* user) {
  pthread_mutex_lock(&lock);
  const long first = KIND == own_engines ? 2 * ((torvasin_plugin_context*)engine - contexts) + speed : 0;
  struct registration* place = &places[first];  // own_engines: one per speed; the newer registration replaces the older
  while (KIND != own_engines && place < &places[place_count] && place->engine != NULL) place++;
  const int any = place < &places[place_count];
  if (any) *place = (struct registration){engine, callback, user, speed};
  pthread_mutex_unlock(&lock);
  return any ? place : NULL;
}
void torvasin_engine_rmCallbackMeterManager(void* engine, void* registration) {
  struct registration* leaving = registration;
  if (KIND == removal_of_null) engine = *(void* volatile*)registration;
  if (KIND == removes_nothing || leaving == NULL) return;
  if (KIND == removal_calls) leaving->callback(NULL, leaving->user);
  pthread_mutex_lock(&lock);
  const torvasin_meter_callback callback = leaving->callback;
  for (struct registration* one = places; one < &places[place_count]; one++) {
    if (one != leaving && (KIND != removes_callback || one->callback != callback)) continue;
    *one = (struct registration){KIND == place_lost ? engine : NULL, NULL, NULL, 0};
  }
  pthread_mutex_unlock(&lock);
  if (KIND != no_wait) wait_for_callbacks();
}
static _Atomic int over, fast_calls;
static void* publish(void* of) {
  const int speed = of == &publishing[TORVASIN_FAST];
  for (uint32_t round = 0; !over; usleep(speed == TORVASIN_FAST ? 20000 : 30000), round++) {
    if ((KIND == once && fast_calls > 0) || (KIND == fifty_slow && round > 50 && speed == TORVASIN_SLOW)) continue;
    torvasin_value value = {TORVASIN_UINT32, {.uint32 = round}};
    if (speed == TORVASIN_SLOW) value = (torvasin_value){TORVASIN_TEXT, {.text = KIND == null_text ? NULL : "host"}};
    torvasin_key_value_list list[] = {{speed == TORVASIN_SLOW ? "host.program" : "host.seconds", value}, {.key = NULL}};
    pthread_mutex_lock(of);
    for (int i = 0; i < place_count; i++) {
      pthread_mutex_lock(&lock);
      const struct registration one = places[i];
      pthread_mutex_unlock(&lock);
      if (one.callback == NULL || one.speed != speed) continue;
      fast_calls += speed;
      one.callback(KIND == null_list ? NULL : list, one.user);
    }
    pthread_mutex_unlock(of);
  }
  return NULL;
}
static const torvasin_plugin_entry* entry;
static int start(torvasin_plugin_context* context, char* path) {
  const torvasin_key_value_list settings[] = {{"conf_file", {TORVASIN_TEXT, {.text = path}}}, {.key = NULL}};
  if (entry->startCycle(context, settings) != 0) return 0;
  if (KIND == private_data_null) context->private_data = NULL;
  return entry->startThread(context), 1;
}
static void* end(void* context) { return usleep(20000), entry->preStopCycle(context), NULL; }
static void stop(torvasin_plugin_context* context) {
  pthread_t other;
  entry->preStopCycle(context);
  if (KIND == two_at_once) pthread_create(&other, NULL, end, context);
  if (KIND != no_stop) entry->stopCycle(context, 0);
  if (KIND == two_at_once) pthread_join(other, NULL);
}

int main(int argc, char** argv) {
  const int count = KIND == nine_instances ? 9 : KIND == own_engines ? 3 : 2;
  if (argc != 3 || (entry = dlsym(dlopen(argv[1], RTLD_NOW), "plugin_entry_0_6")) == NULL) return 2;
  pthread_t meters[2];
  for (int speed = 0; speed < 2; speed++) pthread_create(&meters[speed], NULL, publish, &publishing[speed]);
  for (int i = 0; i < count; i++) {
    memset(contexts[i].name, 'x', KIND == long_name ? sizeof contexts[i].name : 3);
    contexts[i].engine = &contexts[KIND == own_engines ? i : 0];
    start(&contexts[i], argv[2]);
  }
  usleep(KIND == once ? 10500000 : KIND == fifty_slow ? 6000000 : 300000);
  stop(&contexts[0]);
  if (KIND == removes_callback) usleep(3500000);
  for (int i = 1; i < count; i++) stop(&contexts[i]);
  if (start(&contexts[0], argv[2])) stop(&contexts[0]);
  over = 1;
  for (int speed = 0; speed < 2; speed++) pthread_join(meters[speed], NULL);
  return 0;
}
