// A module for tests of torvasin_host. It logs what it gets, also what the host tells systemd, and each of the first
// 32 calls of a callback. It opens two sockets, asks for a reload in the 16th fast call and, once reloaded, for the end
// from the 32nd on. It releases nothing.

#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

#include "torvasin.h"

static int calls[2], speeds[2] = {TORVASIN_SLOW, TORVASIN_FAST}, starts, words;

static int take(const torvasin_key_value_list* list, void* speed) {
  const int fast = *(int*)speed, call = ++calls[fast];
  if (call <= 32) torvasin_log(TORVASIN_LOG_ERROR, fast ? "odd/fast" : "odd/slow", 7, list != NULL, "call %d", call);
  if (fast && (call == 16 || (call >= 32 && starts == 2))) kill(getpid(), call == 16 ? SIGHUP : SIGTERM);
  return 0;
}

static int32_t start(torvasin_plugin_context* context, const torvasin_key_value_list* list) {
  const struct sockaddr_in any = {.sin_family = AF_INET};
  struct sockaddr_un systemd = {.sun_family = AF_UNIX};
  uint32_t affinity = 0, renice = 0;
  torvasin_keyValueListGetIU(list, "affinity", &affinity);
  torvasin_keyValueListGetIU(list, "renice", &renice);
  torvasin_log(TORVASIN_LOG_WARNING, "odd/start", 5, 1, "%s %u %d\n", context->name, affinity, (int)renice);
  for (int i = 0; i < 2; i++) {
    torvasin_engine_addCallbackMeterManager(context->engine, speeds[i], take, &speeds[i]);
    bind(socket(AF_INET, SOCK_DGRAM, 0), (const struct sockaddr*)&any, sizeof any);
  }
  if (starts++ == 0 && getenv("NOTIFY_SOCKET") != NULL) {
    strncpy(systemd.sun_path, getenv("NOTIFY_SOCKET"), sizeof systemd.sun_path - 1);
    bind(words = socket(AF_UNIX, SOCK_DGRAM, 0), (const struct sockaddr*)&systemd, sizeof systemd);
  }
  return torvasin_malloc(1) == NULL;
}

static void* idle(void* context) {
  for (;;) pause();
  return context;
}

static void start_thread(torvasin_plugin_context* context) {
  pthread_t thread;
  torvasin_log(TORVASIN_LOG_WARNING, "odd/thread", 6, 1, "start %d", starts);
  if (strcmp(context->name, "lazy") != 0) pthread_create(&thread, NULL, idle, context);
}

static void pre_stop(torvasin_plugin_context* context) {
  char text[300];
  for (ssize_t n; words > 0 && (n = recv(words, text, sizeof text, MSG_DONTWAIT)) > 0;) {
    torvasin_log(TORVASIN_LOG_WARNING, "odd/systemd", 8, context != NULL, "%.*s", (int)n, text);
  }
}
static void stop(torvasin_plugin_context* context, int32_t n) { (void)context, (void)n; }

__attribute__((visibility("default"))) const char* const plugin_entry_torvasin_module_version = "7";
__attribute__((visibility("default"))) const torvasin_plugin_entry plugin_entry_0_6 = {
    .name = "odd", .startCycle = start, .preStopCycle = pre_stop, .stopCycle = stop, .startThread = start_thread};
