// The contract between a host and a plug-in module, for C11 and C++.
//
// A host is a program that measures values, its meters, and loads the module, a shared library that
// serves them. An instance is one start of the module with a context of its own; a process may have
// several. Each sentence here binds the side that it names. What neither side promises, the other
// must not rely on.
//
// The module is a guest. After each call the host's signal mask, floating-point environment and
// locale are as before, and the values that it serves depend on none of them. A program that the
// host executes does not inherit its socket.
//
// Loading. The host defines all torvasin_ functions below and exports them to the libraries that it
// loads: from the program, linked with -rdynamic, or from a library loaded with RTLD_GLOBAL. If one
// is missing, dlopen fails. The host gives dlopen RTLD_NOW and a path with a slash: a bare file
// name is searched for among the system's libraries only, and the module is not there. It finds the
// two symbols at the end of this file with dlsym. It may unload the module when each instance is
// stopped, or its startCycle failed.
//
// Rules for every host function:
//  - The module calls it on the host's threads, from the entries or meter callbacks that "Called
//    from" names. torvasin_log is called from each of them, and it is the only one that the module
//    also calls from a thread of its own.
//  - The module may hold a lock of its own during the call. Therefore the function must not wait:
//    not for a reader, and not for a lock that some thread holds while it waits for one or calls a
//    callback. It may take a lock that is held briefly, and it may write to a file: the system
//    takes that into memory, unless its disk is so slow that it holds all writers back. Only
//    torvasin_engine_rmCallbackMeterManager may wait, where it says so.
//  - It must not call an entry or a callback. Only torvasin_engine_addCallbackMeterManager may call
//    the callback that it adds. It must return: no exception or longjmp may leave it.
//  - torvasin_log is called by several threads at once. So are the others if the host runs entries
//    or callbacks on several threads at once. If it runs all of them on one thread, those need no
//    lock.
//  - The module passes no null pointer, unless the function's own words allow it. A text may be
//    empty, may have any length and any octets, and ends with a zero.

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
  TORVASIN_LOG_WARNING = 2,  // stop entries, unreadable lines, items and threads set up in part
  TORVASIN_LOG_ERROR = 3,    // other faults in the configuration and in requests
  TORVASIN_LOG_FAILURE = 4,  // system resources and host calls that fail
};

// Tags of torvasin_value. Other numbers are the host's own; the module ignores such values.
enum torvasin_value_type {
  TORVASIN_UINT32 = 0,
  TORVASIN_INT32 = 1,
  TORVASIN_FLOAT = 2,
  TORVASIN_TEXT = 3,
};

// Speeds. Each meter belongs to one of the two; the host chooses how often it publishes a speed.
enum torvasin_speed {
  TORVASIN_SLOW = 0,
  TORVASIN_FAST = 1,
};

// One value. The host fills the values of its lists itself; their texts are never null, and a float
// may be any, NaN included. The module sets its own records with the torvasin_valueInit functions
// only, and reads type and payload directly.
typedef struct torvasin_value {
  uint32_t type;  // enum torvasin_value_type
  union {
    uint32_t uint32;
    int32_t int32;
    float float32;
    const char* text;
  } payload;
} torvasin_value;

// One instance, a record of the host's. It lies at the same address from startCycle to the end of
// stopCycle, and every entry gets this address. In this time the host changes neither name nor
// engine nor private_data. The module writes private_data and nothing else.
typedef struct torvasin_plugin_context {
  char name[40];                // for messages; ends with a zero
  void* engine;                 // for the functions of "Meters", which get it back; may be null
  unsigned char host_data[24];  // the host's own
  void* private_data;           // the module's own: anything before startCycle and after one that
                                // failed, null after stopCycle
} torvasin_plugin_context;

// A list of keys with their values. The host defines this type as it likes; the module has only
// pointers to it. It asks a list with the torvasin_keyValueListGet functions, on the thread and
// during the call that hand it the list. In this time the host keeps the list, its values and their
// texts unchanged.
typedef struct torvasin_key_value_list torvasin_key_value_list;

// ---- Log ---------------------------------------------------------------------------------------

// What the host exports, whatever visibility it is compiled with.
#pragma GCC visibility push(default)

// Logs one message. Called by several threads at once, from the start of startCycle to the end of
// stopCycle, but not during dlopen and dlclose. It may change errno.
//
// source is the path of the code that logs, without its extension, and line its source line; both
// are for people. flag is always 1. format is that of printf, with the arguments that it needs.
// source and format stay as long as the module is loaded, the arguments only during the call.
//
// The host may drop any message, and may cut a long one: it must not wait until it is written. The
// text may hold line feeds, and octets that a client sent. The host must treat it as a text, never
// as a format, and escapes control characters before they reach a terminal or a file of lines.
// Advice: drop a message by its level before you format it. The module logs several of level TRACE
// for each datagram, and the client waits for its answer meanwhile.
void torvasin_log(int level, const char* source, int line, int flag, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// ---- Memory ------------------------------------------------------------------------------------

// Called from startCycle and stopCycle. Blocks are aligned as those of malloc (alignof max_align_t)
// and belong to the module until it frees them; the entry that frees a block may run on another
// thread than the one that took it.
//
// malloc: size is at least 1. The content is undefined. Null means that there is no memory: the
// module then goes on without, or startCycle fails.
void* torvasin_malloc(size_t size);

// realloc: memory is a block, or null, which makes the call a torvasin_malloc. size is at least 1.
// The host may move the block. The content stays as far as both sizes go, and the texts of the
// torvasin_value records in it stay with them: records keep their offset, so their addresses change
// with the block. Records beyond a smaller size end as with torvasin_free. When the result is null,
// the old block stays as it was.
void* torvasin_realloc(void* memory, size_t size);

// free: memory is a block, or null, which does nothing. Records in the block end with it, and the
// module makes no further call for their texts.
void torvasin_free(void* memory);

// ---- Lists -------------------------------------------------------------------------------------

// Called from startCycle and from a callback, with the list of this call. They compare keys octet
// by octet. key may be empty: the module looks for the meter of an item without one under the empty
// key. The same key may be asked for several times. Several threads may ask at once, one list too.
//
// When the list has the key with a value of the right type, they set the out-parameter and return
// 0. Otherwise, a value of another type included, they return any other number; the module does
// not read the out-parameter then. The text and the value record stay the list's.
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

// Called from startCycle and from callbacks. They set type and payload of a record of the module's,
// which lies in a block of torvasin_malloc. Two threads never set the same record at once.
//
// Before the call, the record may hold anything: its memory may be new, it may hold another value,
// and torvasin_realloc may have moved it. So the host must not conclude from its content that it
// holds a text. Reading the record gives the same value until it is set again or its block is
// freed. No thread reads the record, or the text that it held, from the start of that call on: the
// host may release this text at once, or keep it for ever.
void torvasin_valueInitUInt32(torvasin_value* value, uint32_t number);
void torvasin_valueInitInt32(torvasin_value* value, int32_t number);
void torvasin_valueInitFloat(torvasin_value* value, float number);

// InitS copies the text: the caller's may end with the call. It is never the text of a record of
// the module's. Without memory for the copy, the host sets an empty text. So it does in InitTakeS.
void torvasin_valueInitS(torvasin_value* value, const char* text);

// InitTakeS need not copy. With owned 0, text stays the caller's, which keeps it unchanged as long
// as the record holds it; the host does not write to it. With any other owned, text is the start of
// a block of torvasin_malloc or torvasin_realloc and becomes the host's, which frees it.
void torvasin_valueInitTakeS(torvasin_value* value, char* text, int owned);

// ---- Meters ------------------------------------------------------------------------------------

// Takes the current values of meters into the module. user is what was registered with it.
//
// The host calls it with a list, which must not be null but may be empty or hold only some of the
// meters of the speed: a meter that is not in it keeps its last value. So does one whose type does
// not suit its item; snmpmanager.ini(5) tells which types do, and how they are converted.
//
// The call may come on any thread, but not from inside a host function, except the one that
// registers it. Calls may overlap, those of one registration too. The callback waits while the
// module answers one datagram: microseconds, or some milliseconds where the network is too slow to
// take the response, which is then dropped. During a callback the host may hold a lock of its own
// that no host function but torvasin_engine_rmCallbackMeterManager takes. The result is 0, or an
// error number when the module could not take the values; the host may ignore it.
typedef int (*torvasin_meter_callback)(const torvasin_key_value_list* list, void* user);

// Registers a callback for a speed (enum torvasin_speed) with an engine, that of a context. Called
// from startCycle, the slow callback first, then the fast one; an instance has at most one
// registration for each speed. Returns the registration, or null when the host cannot register it:
// then startCycle fails. The callback may be called before this function returns.
//
// Several instances register the same callbacks with the same engine, and differ in user only: user
// belongs to the registration. A host with a single instance may refuse others with null. If its
// speed has meters, the host calls the callback again and again until it calls preStopCycle. There
// is no limit for the first call: until then an item serves its first value.
void* torvasin_engine_addCallbackMeterManager(void* engine, int speed,
                                              torvasin_meter_callback callback, void* user);

// Removes a registration of this engine; others stay. Called from stopCycle, and from a startCycle
// that fails. registration may be null, which does nothing. Waits until no call of the callback
// with this registration runs any more. None begins afterwards. The same callback may be registered
// again later.
void torvasin_engine_rmCallbackMeterManager(void* engine, void* registration);

#pragma GCC visibility pop

// ---- The module --------------------------------------------------------------------------------

// What the module exports as plugin_entry_0_6: eight pointers, constant while it is loaded.
//
// The host calls the entries of one instance one at a time, from any threads that are not inside a
// callback or a host function. The order is startCycle, startThread, preStopCycle, stopCycle; then
// startCycle may follow again. startThread may be left out, the others may not. Entries of two
// instances may overlap if the host functions allow it.
typedef struct torvasin_plugin_entry {
  // The module's name, "snmp".
  const char* name;

  // Null. The host does not use it, nor slot5 and slot7.
  const void* slot1;

  // Starts an instance. list may be null or hold any of these keys; others are ignored:
  //   conf_file  text: path of the configuration file. Default: snmpmanager.ini in the working
  //              directory, to which a relative path refers too
  //   affinity   number: mask of the processors for the thread of the instance, bit 0 for the
  //              first. 0, or a mask with bit 31, has no effect. Default: any processor
  //   renice     number: added to the niceness of this thread; a negative one needs a privilege.
  //              Default: 0
  // Returns 0 when the instance is started; callbacks are registered and nothing is answered yet.
  // Returns -1 when it cannot start; the reason is logged, the module holds nothing any more, and
  // the host calls no other entry of this instance but a new startCycle. A configuration file that
  // cannot be read, or has a faulty line, does not prevent the start; both are logged.
  int32_t (*startCycle)(torvasin_plugin_context* context, const torvasin_key_value_list* list);

  // Ends the thread of the instance and waits for it, about a second at most. Callbacks may go on.
  void (*preStopCycle)(torvasin_plugin_context* context);

  // Removes the callbacks, and gives back all that the instance took. n is any number; it is only
  // logged.
  void (*stopCycle)(torvasin_plugin_context* context, int32_t n);

  const void* slot5;

  // Starts the thread that answers requests. The thread blocks all signals but SIGSEGV, SIGBUS,
  // SIGFPE, SIGILL, SIGTRAP and SIGSYS, which its own instructions may cause; no other signal to
  // the process lands on it. The mask of the caller stays as it was. When the thread cannot be
  // started, that is logged, nothing is answered, and the instance is stopped as any other.
  void (*startThread)(torvasin_plugin_context* context);

  const void* slot7;
} torvasin_plugin_entry;

// The module's symbols, for dlsym: "plugin_entry_0_6" gives a const torvasin_plugin_entry*, and
// "plugin_entry_torvasin_module_version" a const char* const*, which points to a text such as
// "0.6.25". A host only reads them.
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
