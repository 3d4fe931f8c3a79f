// The module itself: what the host loads, and everything between the host and the SNMP agent
// proper.
//
// Threads and lock. The host's threads run the four entries, one at a time. They also run the meter
// callbacks, at any moment between their registration and their removal. One poller thread answers
// datagrams. `lock` is the only lock. The poller holds it while it handles a datagram and sends the
// response, for which it waits a few milliseconds at most. A meter callback holds it for a whole
// refresh. The item tables change shape only inside startCycle and stopCycle, when neither the
// poller nor a callback runs. Instances in one process share nothing: each has its own context,
// state and poller.
//
// Ownership. The host owns the context, its lists and the allocator. The module owns snmp_module,
// which owns the two tables, the formulas and the socket. The module allocates nothing while it
// answers datagrams.
//
// Unless its comment says otherwise, a function returns 0 for success; for failure it logs the
// reason and returns -1.

#ifndef TORVASIN_SNMP_MAINSNMP_H
#define TORVASIN_SNMP_MAINSNMP_H

#include <netinet/in.h>
#include <pthread.h>
#include <tinyexpr.h>

#include "../torvasin.h"
#include "snmp/snmp.h"

constexpr size_t ITEM_NAME_SIZE = 64;  // with the terminating zero, like the two below
constexpr size_t METER_NAME_SIZE = 128;
constexpr size_t IP_TEXT_SIZE = 16;     // "255.255.255.255"
constexpr size_t OID_TEXT_SUBIDS = 19;  // of a configured OID; one less than snmp_oid holds

constexpr uint32_t MAX_OPEN_FILES = 16;  // configuration files open at a time, through "include"
constexpr uint32_t MAX_FILES = 256;      // configuration files read in one start

// What an item serves. Each number is also the tag of the values that carry it.
enum snmp_item_type : uint32_t {
  ITEM_UINT = TORVASIN_UINT32,  // Counter32
  ITEM_INT = TORVASIN_INT32,    // INTEGER
  ITEM_STRING = TORVASIN_TEXT,  // OCTET STRING
};

struct snmp_module;

// The meter side of a configured item; its SNMP side is the snmp_item of the same index.
struct snmp_meter_binding {
  char name[ITEM_NAME_SIZE];    // the section's name without "ITEM_"
  char meter[METER_NAME_SIZE];  // key under which the host publishes the meter; may be empty
  uint32_t fast;                // the enum torvasin_speed that refreshes it
  uint32_t type;                // enum snmp_item_type
  te_expr* formula;             // owned, or null; never on a string item once linked
  torvasin_value value;         // current, raw: tag 0 or 2 (uint), 1 or 2 (int), 3 (string)
  snmp_module* module;          // the owner, for its formula variable
  uint32_t refreshed;           // 1 when the current refresh has no more to do for it
};

// The module's whole state; the context's private_data points at it.
struct snmp_module {
  int32_t affinity;       // CPU mask of the poller, bit i for CPU i; -1 for none
  int32_t renice;         // niceness increment of the poller; 0 for none
  uint16_t port;          // host byte order
  char ip[IP_TEXT_SIZE];  // IPv4 address to bind, dotted
  int32_t fd;             // the UDP socket; -1 once closed
  void* fast_cb;          // registrations of the meter callbacks, or null
  void* slow_cb;
  pthread_t thread;  // the poller
  int32_t run;       // 1 while the poller must go on; read and written atomically
  pthread_mutex_t lock;
  snmp_meter_binding* bindings;  // owned, item_count entries, in order of creation; null for none
  snmp_item* items;              // owned, item_count entries
  uint32_t item_count;
  double formula_value;      // the formulas' variable, set before each evaluation, under lock
  te_variable formula_vars;  // binds the name "value" to formula_value
  uint32_t lock_created;     // 1 once lock must be destroyed
  uint32_t thread_created;   // 1 while thread must be joined
  uint32_t open_files;       // configuration files that are open now
  uint32_t files_read;       // configuration files opened in this start
  snmp_exchange exchange;    // the poller's, under lock
};

// The poller's send context: where the current datagram came from.
struct snmp_send_ctx {
  sockaddr_in peer;
  int32_t fd;
};

// ---- Item store, used by the thread that runs startCycle or stopCycle --------------------------

// Returns the index of the item with this name. If there is none, creates it as a uint item with
// value 0 that answers NULL. Returns a negative number and creates nothing when the name has more
// than 63 octets or there is no memory. A call may move both tables.
int32_t get_or_create_item(snmp_module* module, const char* name);

// Called once the configuration is read. Makes each item's binding the context of its writer, and
// checks the items: warns of an item without a meter, drops the formula of a string item, and fails
// at the first item without an OID.
int32_t link_snmp_items(snmp_module* module);

// Frees formulas and tables. The host releases the text values.
void release_items(snmp_module* module);

// ---- Value writers, under the lock -------------------------------------------------------------

// The snmp_value_writers of the item types. The context is the item's snmp_meter_binding. Each call
// applies the item's formula to its raw value. A result outside the type's range becomes the
// nearest number in it, NaN becomes 0, and fractions are truncated. The string writer reports a
// size for a text above BER_MAX_LENGTH, but fails to write it. None of them logs that a value does
// not fit.
int32_t encode_item_int(ber_tlv* destination, size_t capacity, size_t* size_out, void* context);
int32_t encode_item_uint(ber_tlv* destination, size_t capacity, size_t* size_out, void* context);
int32_t encode_item_string(ber_tlv* destination, size_t capacity, size_t* size_out, void* context);

// ---- Meter refresh, on the host's meter threads ------------------------------------------------

// Whether items of a type take values of a tag (enum torvasin_value_type). An unknown type takes
// none and logs a trace message.
bool item_takes(snmp_item_type type, uint32_t tag);

// Copies the current value of every item of a speed from a list. An item keeps its value when its
// meter is missing or has a tag that the item's type does not take. Returns the result of the
// unlock, normally 0. If the lock fails, changes nothing and returns its error. Logs neither.
int32_t refresh_items(snmp_module* module, const torvasin_key_value_list* list, uint32_t speed);

// The callbacks that startCycle registers for the two speeds; user is the context.
int meter_callback_slow(const torvasin_key_value_list* list, void* user);
int meter_callback_fast(const torvasin_key_value_list* list, void* user);

// ---- Configuration, on the thread that runs startCycle -----------------------------------------

// Prepares a record for a configuration: no items, and the address that holds until a file gives
// another. The record must not move afterwards.
void init_snmp_module(snmp_module* module);

// Reads a file, and the files that it includes, into the module. Logs and skips faulty lines; all
// other lines take effect. Returns -1 when the file cannot be read, when one of its lines is not an
// ini line, or when MAX_OPEN_FILES files are open or MAX_FILES have been read already. A file that
// cannot be opened does not count.
int32_t parse_config_file(torvasin_plugin_context* context, const char* path);

// inih's callback for one key line. user is the context. Always returns 1, so that inih goes on.
int ini_handler_cb(void* user, const char* section, const char* key, const char* value);

// Reads "int:N", "uint:N" or "string:TEXT" into a value. For any other text returns -1 and leaves
// the value unchanged; logs this only when the number is missing.
int32_t parse_default_value(torvasin_value* value, const char* text);

// Reads a dotted OID of 1 to 19 sub-identifiers. The wire format puts the first two into one octet,
// so first * 40 + second must be at most 127. For any other text sets an empty OID and returns -1
// without a message.
int32_t parse_oid(const char* text, snmp_oid* oid);

// ---- Poller ------------------------------------------------------------------------------------

// The poller thread. Its argument is the context, its result is null. It handles none of the host's
// signals and computes in the default floating-point environment.
void* module_thread_loop(void* context);

// Writes an IPv4 address as dotted text, as inet_ntop does, and returns the text.
const char* write_address(in_addr address, char (&text)[IP_TEXT_SIZE]);

// The poller's send callback. The context is an snmp_send_ctx. Sends once, logs a failure and
// always returns 0. Sending fails when the socket's buffer has no room within a few milliseconds.
int32_t minimal_snmp_send(void* context, const uint8_t* message, size_t length);

#endif  // TORVASIN_SNMP_MAINSNMP_H
