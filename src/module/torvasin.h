// The host engine's interface, as a plug-in module sees it.
//
// The host owns the plug-in context, its key/value lists and the allocator. It exports every
// torvasin_* function below from its own process. A module leaves them undefined, and the dynamic
// linker resolves them when the host loads it. The header works in C11 and in C++.

#ifndef TORVASIN_H
#define TORVASIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Levels of torvasin_log.
enum torvasin_log_level {
  TORVASIN_LOG_TRACE = 1,    // function entries, every datagram, transient errors
  TORVASIN_LOG_WARNING = 2,  // stop entries, items served in a reduced way
  TORVASIN_LOG_ERROR = 3,    // faults in the configuration and in requests
  TORVASIN_LOG_FAILURE = 4,  // system resources and host calls that fail
};

// Tags of torvasin_value. They are wire values of the host: never renumber them.
enum torvasin_value_type {
  TORVASIN_UINT32 = 0,
  TORVASIN_INT32 = 1,
  TORVASIN_FLOAT = 2,
  TORVASIN_TEXT = 3,
};

// Speeds of the meter sets.
enum torvasin_speed {
  TORVASIN_SLOW = 0,
  TORVASIN_FAST = 1,
};

// One value: a tag and its payload. A module writes it only through the torvasin_valueInit
// functions, so that the host can release a text when a later value replaces it.
typedef struct torvasin_value {
  uint32_t type;  // enum torvasin_value_type; the host may add tags
  union {
    uint32_t uint32;
    int32_t int32;
    float float32;
    const char* text;  // NUL-terminated
  } payload;
} torvasin_value;

// The host's record of one instance. Every entry and every meter callback gets the same pointer. A
// module reads name and engine, owns private_data and touches nothing else.
typedef struct torvasin_plugin_context {
  char name[40];  // NUL-terminated instance name
  void* engine;
  unsigned char host_data[24];
  void* private_data;
} torvasin_plugin_context;

// Keys with their values: a module's configuration, or the current values of a set of meters. A
// list is valid only during the call that hands it over.
typedef struct torvasin_key_value_list torvasin_key_value_list;

// Called from the host's threads with current meter values. user is what was registered.
typedef int (*torvasin_meter_callback)(const torvasin_key_value_list* list, void* user);

// A module's descriptor: eight pointer-sized slots, exported as the symbol plugin_entry_0_6.
typedef struct torvasin_plugin_entry {
  const char* name;
  const void* slot1;
  int32_t (*startCycle)(torvasin_plugin_context* context, const torvasin_key_value_list* list);
  void (*preStopCycle)(torvasin_plugin_context* context);
  void (*stopCycle)(torvasin_plugin_context* context, int32_t n);
  const void* slot5;
  void (*startThread)(torvasin_plugin_context* context);
  const void* slot7;
} torvasin_plugin_entry;

// What the host exports, whatever visibility it is compiled with.
#pragma GCC visibility push(default)

// Logs one line. source is the path of the emitting code without its extension, line its source
// line; flag is 1. A host drops a line by its level before it formats anything.
void torvasin_log(int level, const char* source, int line, int flag, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// The allocator. Memory is not cleared. The result is null when there is none. Freeing null does
// nothing.
void* torvasin_malloc(size_t size);
void* torvasin_realloc(void* memory, size_t size);
void torvasin_free(void* memory);

// Look a key up. When it is present they set the out-parameter and return 0, otherwise they return
// another number. Texts and value records stay the list's.
int torvasin_keyValueListGetS(const torvasin_key_value_list* list, const char* key,
                              const char** text);
int torvasin_keyValueListGetIU(const torvasin_key_value_list* list, const char* key,
                               uint32_t* number);
int torvasin_keyValueListGet(const torvasin_key_value_list* list, const char* key,
                             const torvasin_value** value);

// Set a value record. It need not have been set before, and it may since have been moved, as part
// of its block, by torvasin_realloc. InitS copies the text. InitTakeS keeps the pointer: with owned
// non-zero the text comes from torvasin_malloc and becomes the host's to free; with owned 0 it
// stays the caller's and must outlive the value.
void torvasin_valueInitUInt32(torvasin_value* value, uint32_t number);
void torvasin_valueInitInt32(torvasin_value* value, int32_t number);
void torvasin_valueInitFloat(torvasin_value* value, float number);
void torvasin_valueInitS(torvasin_value* value, const char* text);
void torvasin_valueInitTakeS(torvasin_value* value, char* text, int owned);

// Adds a callback to the meter set of a speed (enum torvasin_speed); it may be called at once.
// Returns its registration, or null. Removal returns only when no call of the callback is running.
void* torvasin_engine_addCallbackMeterManager(void* engine, int speed,
                                              torvasin_meter_callback callback, void* user);
void torvasin_engine_rmCallbackMeterManager(void* engine, void* registration);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#define TORVASIN_LAYOUT(expression) static_assert(expression, "host interface layout")
#else
#define TORVASIN_LAYOUT(expression) _Static_assert(expression, "host interface layout")
#endif

TORVASIN_LAYOUT(sizeof(torvasin_value) == 16 && offsetof(torvasin_value, payload) == 8);
TORVASIN_LAYOUT(offsetof(torvasin_plugin_context, engine) == 40);
TORVASIN_LAYOUT(offsetof(torvasin_plugin_context, host_data) == 48);
TORVASIN_LAYOUT(offsetof(torvasin_plugin_context, private_data) == 72);
TORVASIN_LAYOUT(sizeof(torvasin_plugin_entry) == 8 * sizeof(void*));

#undef TORVASIN_LAYOUT

#endif  // TORVASIN_H
