// A minimal host of the module, in C11. It implements the contract in torvasin.h.
// Usage: minimal_host LIBRARY CONFIGURATION. Until SIGINT or SIGTERM it publishes host.seconds
// (unsigned, fast: every second) and host.program (text, slow: every ten seconds), all on the main
// thread.

#define _XOPEN_SOURCE 700
#include <ctype.h>
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <search.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <torvasin.h>
#include <unistd.h>

// Writes a line if standard error takes it at once, otherwise drops it: a log must not wait. A pipe
// that is ready has room for PIPE_BUF octets; the lock reserves them for one thread. Writes only 20
// lines in 10 seconds and counts the others, so that malformed requests cannot fill a disk.
void torvasin_log(int level, const char* source, int line, int flag, const char* format, ...) {
  static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  static struct timespec begin;
  static unsigned lines;
  (void)flag;
  if (level < TORVASIN_LOG_WARNING) return;
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  for (char* at = text; *at != '\0'; at++) *at = iscntrl((unsigned char)*at) ? '?' : *at;
  pthread_mutex_lock(&lock);
  struct pollfd output = {.fd = STDERR_FILENO, .events = POLLOUT};
  poll(&output, 1, 0);
  if (output.revents == POLLOUT) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec - begin.tv_sec >= 10) {
      if (lines > 20) dprintf(output.fd, "%u lines left out\n", lines - 20);
      begin = now, lines = 0;
    }
    if (++lines <= 20) dprintf(output.fd, "%d %s:%d %s\n", level, source, line, text);
  }
  pthread_mutex_unlock(&lock);
}

void* torvasin_malloc(size_t size) { return malloc(size); }
void* torvasin_realloc(void* memory, size_t size) { return realloc(memory, size); }
void torvasin_free(void* memory) { free(memory); }

static int compare(const void* one, const void* other) { return strcmp(one, other); }

// Returns the host's copy of a text, one for all equal texts. Copies are never freed, so the module
// may move and free value records. A host whose texts change often must free replaced ones.
static const char* keep(const char* text) {
  static void* kept;
  char** found = tfind(text, &kept, compare);
  if (found == NULL && (text = strdup(text)) != NULL) found = tsearch(text, &kept, compare);
  return found != NULL ? *found : "";
}

void torvasin_valueInitUInt32(torvasin_value* value, uint32_t number) {
  *value = (torvasin_value){TORVASIN_UINT32, {.uint32 = number}};
}
void torvasin_valueInitInt32(torvasin_value* value, int32_t number) {
  *value = (torvasin_value){TORVASIN_INT32, {.int32 = number}};
}
void torvasin_valueInitFloat(torvasin_value* value, float number) {
  *value = (torvasin_value){TORVASIN_FLOAT, {.float32 = number}};
}
void torvasin_valueInitS(torvasin_value* value, const char* text) {
  *value = (torvasin_value){TORVASIN_TEXT, {.text = keep(text)}};
}
void torvasin_valueInitTakeS(torvasin_value* value, char* text, int owned) {
  torvasin_valueInitS(value, text);
  if (owned != 0) torvasin_free(text);
}

// A list is an array of these. An element without a key ends it.
struct torvasin_key_value_list {
  const char* key;
  torvasin_value value;
};
int torvasin_keyValueListGet(const torvasin_key_value_list* list, const char* key,
                             const torvasin_value** value) {
  while (list->key != NULL && strcmp(list->key, key) != 0) list++;
  if (list->key != NULL) *value = &list->value;
  return list->key != NULL ? 0 : -1;
}
int torvasin_keyValueListGetS(const torvasin_key_value_list* list, const char* key,
                              const char** text) {
  const torvasin_value* value;
  if (torvasin_keyValueListGet(list, key, &value) != 0 || value->type != TORVASIN_TEXT) return -1;
  *text = value->payload.text;
  return 0;
}
int torvasin_keyValueListGetIU(const torvasin_key_value_list* list, const char* key,
                               uint32_t* number) {
  const torvasin_value* value;
  if (torvasin_keyValueListGet(list, key, &value) != 0 || value->type > TORVASIN_INT32) return -1;
  *number = value->payload.uint32;
  return 0;
}

// One instance needs one registration for each speed. The main thread adds, calls and removes
// callbacks. So this host needs no lock, and a removal need not wait for a call. A host with meter
// threads needs both.
static struct registration {
  torvasin_meter_callback callback;  // null if there is no registration
  void* user;
} registrations[2];

void* torvasin_engine_addCallbackMeterManager(void* engine, int speed,
                                              torvasin_meter_callback callback, void* user) {
  (void)engine;
  if (registrations[speed].callback != NULL) return NULL;
  registrations[speed] = (struct registration){callback, user};
  return &registrations[speed];
}
void torvasin_engine_rmCallbackMeterManager(void* engine, void* registration) {
  (void)engine;
  if (registration != NULL) *(struct registration*)registration = (struct registration){0};
}

static void publish(int speed, const char* meter, torvasin_value value) {
  const torvasin_key_value_list list[] = {{meter, value}, {.key = NULL}};
  const struct registration* to = &registrations[speed];
  if (to->callback != NULL) to->callback(list, to->user);
}

int main(int argc, char** argv) {
  if (argc != 3) return fputs("usage: minimal_host LIBRARY CONFIGURATION\n", stderr), 2;
  void* library = dlopen(argv[1], RTLD_NOW);
  const torvasin_plugin_entry* entry = library != NULL ? dlsym(library, "plugin_entry_0_6") : NULL;
  if (entry == NULL) return fprintf(stderr, "%s\n", dlerror()), 1;

  sigset_t signals;  // blocked, so that sigtimedwait can accept them
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, NULL);
  torvasin_plugin_context context = {.name = "snmp"};
  const torvasin_value file = {TORVASIN_TEXT, {.text = argv[2]}};
  const torvasin_value program = {TORVASIN_TEXT, {.text = argv[0]}};
  const torvasin_key_value_list settings[] = {{"conf_file", file}, {.key = NULL}};
  if (entry->startCycle(&context, settings) != 0) return 1;
  entry->startThread(&context);
  torvasin_value seconds = {TORVASIN_UINT32, {.uint32 = 0}};
  do {
    publish(TORVASIN_FAST, "host.seconds", seconds);
    if (seconds.payload.uint32++ % 10 == 0) publish(TORVASIN_SLOW, "host.program", program);
  } while (sigtimedwait(&signals, NULL, &(struct timespec){.tv_sec = 1}) < 0);
  entry->preStopCycle(&context);
  entry->stopCycle(&context, 0);
  return dlclose(library) == 0 ? 0 : 1;
}
