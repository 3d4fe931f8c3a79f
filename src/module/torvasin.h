// The contract between a host and a plug-in module, for C11 and C++.
//
// A host is a program that measures values, called meters, and loads the module, a shared library
// that serves them. An instance is one start of the module with its own context; a process may run
// several. Each sentence here binds the side that it names. Neither side may rely on anything that
// is not promised here.
//
// The module is a guest. Each call leaves the host's signal mask, floating-point environment and
// locale as it found them, and the values that the module serves depend on none of them. Programs
// that the host executes do not inherit the module's socket.
//
// Loading. The host defines all torvasin_ functions below and exports them, either from a program
// linked with -rdynamic or from a library loaded with RTLD_GLOBAL. If one is missing, dlopen fails.
// The host passes RTLD_NOW and a path with a slash, because dlopen looks for a bare file name only
// in the system's library directories, where the module is not. dlsym finds the two symbols at the
// end of this file. The host may unload the module once every instance has been stopped or has
// failed to start.
//
// Rules for every host function:
//  - The module calls it on the host's threads, from the entries and meter callbacks listed after
//    "Called from". It calls torvasin_log from all of them and also from its own threads, which
//    call no other host function.
//  - The module may hold one of its own locks during the call, so the function must not wait:
//    neither for a reader nor for a lock whose holder waits for one or calls a callback. It may
//    take a lock that is held briefly. It may write to a file, because the kernel takes that into
//    memory; a disk too slow for what is written makes it wait all the same. Only
//    torvasin_engine_rmCallbackMeterManager may wait, where its description says so.
//  - It must not call an entry or a callback, except that torvasin_engine_addCallbackMeterManager
//    may call the callback that it adds. It must return: no exception or longjmp may leave it.
//  - Several threads may call it at once if several run entries or callbacks. A host that runs all
//    of them on one thread needs a lock only in torvasin_log.
//  - The module passes no null pointer unless the function's description allows it. A text is
//    NUL-terminated; it may be empty, and may have any length and contain any octets.

#ifndef TORVASIN_H
#define TORVASIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- Records -----------------------------------------------------------------------------------

// Levels of torvasin_log.
enum torvasin_log_level {
  TORVASIN_LOG_TRACE = 1,    // function entries, every datagram, transient errors
  TORVASIN_LOG_WARNING = 2,  // stop entries, unparsable lines, incomplete items, thread settings
  TORVASIN_LOG_ERROR = 3,    // other faults in the configuration and in requests
  TORVASIN_LOG_FAILURE = 4,  // failed system calls and host functions, lack of memory
};

// Tags of torvasin_value. A host may use other numbers itself; the module ignores such values.
enum torvasin_value_type {
  TORVASIN_UINT32 = 0,
  TORVASIN_INT32 = 1,
  TORVASIN_FLOAT = 2,
  TORVASIN_TEXT = 3,
};

// Speeds. Each meter belongs to one of the two; the host chooses how often it publishes each speed.
enum torvasin_speed {
  TORVASIN_SLOW = 0,
  TORVASIN_FAST = 1,
};

// One value. The host fills the values of its lists itself; their texts are never null, and a float
// may be anything, NaN included. The module sets its own records only with the torvasin_valueInit
// functions, and reads type and payload directly.
typedef struct torvasin_value {
  uint32_t type;  // enum torvasin_value_type
  union {
    uint32_t uint32;
    int32_t int32;
    float float32;
    const char* text;
  } payload;
} torvasin_value;

// One instance. The record belongs to the host. It stays at the same address from startCycle to the
// end of stopCycle, and every entry gets this address. Meanwhile the host changes neither name nor
// engine nor private_data. The module writes only private_data.
typedef struct torvasin_plugin_context {
  char name[40];                // for messages; NUL-terminated
  void* engine;                 // passed to the functions of "Meters"; may be null
  unsigned char host_data[24];  // for the host's own use
  void* private_data;           // for the module's own use: anything before startCycle and after
                                // one that failed, null after stopCycle
} torvasin_plugin_context;

// A list of keys with their values. The host defines this type as it likes; the module only sees
// pointers to it. It reads a list with the torvasin_keyValueListGet functions, during the call that
// passes the list and on the thread of that call. Meanwhile the host keeps the list, its values and
// their texts unchanged.
typedef struct torvasin_key_value_list torvasin_key_value_list;

// ---- Log ---------------------------------------------------------------------------------------

// The host exports these functions whatever visibility it is compiled with.
#pragma GCC visibility push(default)

// Logs one message. Several threads may call it at once, from the start of startCycle to the end of
// stopCycle, but not during dlopen or dlclose. It may change errno.
//
// source is the path of the source file that logs, without its extension, and line the line in it;
// both are meant for people. flag is always 1. format is a printf format, followed by its
// arguments. source and format stay valid while the module is loaded, the arguments only during the
// call.
//
// The host may drop any message and truncate a long one; it must not wait until a message is
// written. The text may contain line feeds, and octets that a client sent. The host must treat it
// as text, never as a format, and must escape control characters before they reach a terminal or a
// line-oriented file. Advice: check the level before you format a message. The module logs several
// TRACE messages for each datagram, and the client waits for its answer meanwhile.
void torvasin_log(int level, const char* source, int line, int flag, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// ---- Memory ------------------------------------------------------------------------------------

// Called from startCycle and stopCycle. Blocks are aligned like those of malloc (alignof
// max_align_t) and belong to the module until it frees them. One thread may allocate a block and
// another one free it.
//
// malloc: size is at least 1. The content is undefined. Returns null when there is no memory; the
// module then does without the block, or startCycle fails.
void* torvasin_malloc(size_t size);

// realloc: memory is a block or null; with null it does the same as torvasin_malloc. size is at
// least 1. The host may move the block. The content is kept up to the smaller of the two sizes, and
// the texts of the torvasin_value records in it stay valid: records keep their offset, so their
// addresses change with the block. Records beyond a smaller size end as with torvasin_free. When
// the result is null, the old block is unchanged.
void* torvasin_realloc(void* memory, size_t size);

// free: memory is a block or null; with null the call does nothing. The records in the block end
// with it, and the module makes no other call to release their texts.
void torvasin_free(void* memory);

// ---- Lists -------------------------------------------------------------------------------------

// Called from startCycle and from callbacks, with the list that was passed to them. They compare
// keys octet by octet. key may be empty: for an item without a meter, the module looks up the empty
// key. The same key may be looked up several times, and several threads may look up keys at once,
// even in the same list.
//
// If the list contains the key with a value of the right type, they set the out-parameter and
// return 0. Otherwise, also when the value has another type, they return any other number, and the
// module does not read the out-parameter. The text and the value record still belong to the list.
//
// GetS: TORVASIN_TEXT only.
int torvasin_keyValueListGetS(const torvasin_key_value_list* list, const char* key,
                              const char** text);

// GetIU: TORVASIN_UINT32, and TORVASIN_INT32 with the same 32 bits: -5 arrives as 4294967291.
int torvasin_keyValueListGetIU(const torvasin_key_value_list* list, const char* key,
                               uint32_t* number);

// Get: any type.
int torvasin_keyValueListGet(const torvasin_key_value_list* list, const char* key,
                             const torvasin_value** value);

// ---- Values ------------------------------------------------------------------------------------

// Called from startCycle and from callbacks. They set type and payload of one of the module's
// records, which lies in a block of torvasin_malloc or torvasin_realloc. Two threads never set the
// same record at once.
//
// Before the call, the record may hold anything: its memory may be new, it may hold another value,
// and torvasin_realloc may have moved it. So the host must not conclude from its content that it
// holds a text. Reading the record gives the same value until it is set again or its block is
// freed. While either happens, no thread reads the record, and from then on no thread reads the
// text that it held: the host may release that text at once, or never.
void torvasin_valueInitUInt32(torvasin_value* value, uint32_t number);
void torvasin_valueInitInt32(torvasin_value* value, int32_t number);
void torvasin_valueInitFloat(torvasin_value* value, float number);

// InitS copies the text, which the caller may free afterwards. It is never the text of one of the
// module's records. When there is no memory for the copy, the host sets an empty text. InitTakeS
// does the same.
void torvasin_valueInitS(torvasin_value* value, const char* text);

// InitTakeS need not copy. If owned is 0, text still belongs to the caller, which keeps it
// unchanged as long as the record holds it; the host does not write to it. Otherwise text is the
// start of a block of torvasin_malloc or torvasin_realloc and now belongs to the host, which frees
// it.
void torvasin_valueInitTakeS(torvasin_value* value, char* text, int owned);

// ---- Meters ------------------------------------------------------------------------------------

// A callback takes the current values of meters. user is what was registered with it.
//
// The host calls it with a list, which must not be null but may be empty or contain only some of
// the meters of the speed. An item whose meter is missing keeps its last value. So does an item
// whose type does not accept the value; snmpmanager.ini(5) says which types it accepts, and how the
// module converts them.
//
// The host may call it on any thread, but inside a host function only from the one that registers
// it. Calls may overlap, even those of one registration. The callback waits while the module
// answers one datagram: microseconds, or a few milliseconds if the network is too slow to take the
// response, which is then dropped. No host function except torvasin_engine_rmCallbackMeterManager
// may take a lock that the host holds during a callback. The result is 0, or an error number if the
// module could not take the values; the host may ignore it.
typedef int (*torvasin_meter_callback)(const torvasin_key_value_list* list, void* user);

// Registers a callback for a speed (enum torvasin_speed) with the engine of a context. Called from
// startCycle, the slow callback first, then the fast one; an instance has at most one registration
// for each speed. Returns the registration, or null if the host cannot register the callback, which
// makes startCycle fail. The host may call the callback before this function returns.
//
// Several instances register the same callbacks with the same engine; only user tells them apart. A
// host that runs a single instance may refuse others with null. If the speed has meters, the host
// keeps calling the callback until it calls preStopCycle. The first call may come at any time;
// until then an item serves the first value that its configuration gives it.
void* torvasin_engine_addCallbackMeterManager(void* engine, int speed,
                                              torvasin_meter_callback callback, void* user);

// Removes a registration of this engine; others stay. Called from stopCycle, and from a startCycle
// that fails. registration may be null; then the call does nothing. Waits until no call for this
// registration is in progress; none begins afterwards. The same callback may be registered again
// later.
void torvasin_engine_rmCallbackMeterManager(void* engine, void* registration);

#pragma GCC visibility pop

// ---- The module --------------------------------------------------------------------------------

// What the module exports as plugin_entry_0_6: eight pointers, constant while it is loaded.
//
// The host calls the entries of one instance one at a time, on any thread that is not inside a
// callback or a host function. The order is startCycle, startThread, preStopCycle, stopCycle; then
// startCycle may follow again. startThread may be left out, the others may not. Entries of two
// instances may overlap if the host functions allow it.
typedef struct torvasin_plugin_entry {
  // The module's name, "snmp".
  const char* name;

  // Null, like slot5 and slot7. The host uses none of the three.
  const void* slot1;

  // Starts an instance. list may be null. The module reads these keys from it and ignores others:
  //   conf_file  text: path of the configuration file, relative to the working directory.
  //              Default: snmpmanager.ini
  //   affinity   number: mask of the processors for the instance's thread, bit 0 for the first.
  //              0 and masks with bit 31 have no effect. Default: any processor
  //   renice     number: added to the niceness of this thread; a negative number needs a privilege.
  //              Default: 0
  // Returns 0 when the instance has started: the callbacks are registered, but requests are not
  // answered yet. Returns -1 when it cannot start: the module has logged the reason and released
  // everything, and the host calls no entry of this instance but a new startCycle. A configuration
  // file that cannot be read, or that has a faulty line, is logged and does not prevent the start.
  int32_t (*startCycle)(torvasin_plugin_context* context, const torvasin_key_value_list* list);

  // Stops the instance's thread and waits for its end, about a second at most. Callbacks may
  // continue.
  void (*preStopCycle)(torvasin_plugin_context* context);

  // Removes the callbacks and releases everything that the instance holds. n may be any number; it
  // is only logged.
  void (*stopCycle)(torvasin_plugin_context* context, int32_t n);

  const void* slot5;

  // Starts the thread that answers requests. The thread blocks all signals except SIGSEGV, SIGBUS,
  // SIGFPE, SIGILL, SIGTRAP and SIGSYS, which its own instructions may cause, so it never handles
  // any other signal sent to the process. The caller's mask does not change. If the thread cannot
  // be started, the module logs this and answers nothing; the host stops the instance as any other.
  void (*startThread)(torvasin_plugin_context* context);

  const void* slot7;
} torvasin_plugin_entry;

// The module's symbols. dlsym returns a const torvasin_plugin_entry* for "plugin_entry_0_6", and
// for "plugin_entry_torvasin_module_version" a const char* const* to a text such as "0.6.25". A
// host only reads them.
#pragma GCC visibility push(default)
extern const torvasin_plugin_entry plugin_entry_0_6;
extern const char* const plugin_entry_torvasin_module_version;
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
