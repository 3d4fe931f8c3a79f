// A module that tells what it gets, has two sockets, logs a line of its own for each call, and leaves things behind.

#include <netinet/in.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include "torvasin.h"

static int calls[2], speeds[2] = {TORVASIN_SLOW, TORVASIN_FAST};

static int take(const torvasin_key_value_list* list, void* speed) {
  const int fast = *(int*)speed;
  torvasin_log(TORVASIN_LOG_ERROR, fast ? "odd/fast" : "odd/slow", 7, list != NULL, "call %d", ++calls[fast]);
  return 0;
}

static int32_t start(torvasin_plugin_context* context, const torvasin_key_value_list* list) {
  const struct sockaddr_in any = {.sin_family = AF_INET};
  uint32_t affinity = 0, renice = 0;
  torvasin_keyValueListGetIU(list, "affinity", &affinity);
  torvasin_keyValueListGetIU(list, "renice", &renice);
  torvasin_log(TORVASIN_LOG_WARNING, "odd/start", 5, 1, "%s %u %d", context->name, affinity, (int)renice);
  for (int i = 0; i < 2; i++) {
    torvasin_engine_addCallbackMeterManager(context->engine, speeds[i], take, &speeds[i]);
    bind(socket(AF_INET, SOCK_DGRAM, 0), (const struct sockaddr*)&any, sizeof any);
  }
  return torvasin_malloc(1) == NULL;
}

static void* idle(void* context) {
  for (;;) pause();
  return context;
}

static void start_thread(torvasin_plugin_context* context) {
  pthread_t thread;
  if (strcmp(context->name, "lazy") != 0) pthread_create(&thread, NULL, idle, context);
}

static void pre_stop(torvasin_plugin_context* context) { (void)context; }
static void stop(torvasin_plugin_context* context, int32_t n) { (void)context, (void)n; }

__attribute__((visibility("default"))) const char* const plugin_entry_torvasin_module_version = "7";
__attribute__((visibility("default"))) const torvasin_plugin_entry plugin_entry_0_6 = {
    .name = "odd", .startCycle = start, .preStopCycle = pre_stop, .stopCycle = stop, .startThread = start_thread};
