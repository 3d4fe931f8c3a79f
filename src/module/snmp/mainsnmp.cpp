#include "mainsnmp.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fenv.h>
#include <ini.h>
#include <math.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <string_view>

#include "config_keys.h"
#include "snmp/snmp_log.h"
#include "snmp/snmp_msg_protocol.h"

// ---- Shared helpers ----------------------------------------------------------------------------
//
// Helpers that several sections below use; all others belong to one section. The sections call one
// another only through the functions of mainsnmp.h.

namespace {

constexpr char log_source[] = "src/module/snmp/mainsnmp";

snmp_module* module_of(const torvasin_plugin_context* context) {
  return static_cast<snmp_module*>(context->private_data);
}

// Copies as much of a text as fits. The copy always ends with a zero.
template <size_t size>
void copy_text(char (&destination)[size], const char* text) {
  const size_t length = strnlen(text, size - 1);
  memcpy(destination, text, length);
  destination[length] = '\0';
}

// Repeats a lock operation while it returns EAGAIN. Returns its last result.
int32_t retry(int (*operation)(pthread_mutex_t*), pthread_mutex_t* lock) {
  int result;
  do {
    result = operation(lock);
  } while (result == EAGAIN);
  return result;
}

// The poller runs while its run flag is 1. startThread sets the flag, preStopCycle clears it.
bool running(snmp_module* module) {
  return std::atomic_ref<int32_t>(module->run).load() == 1;
}

void set_running(snmp_module* module, int32_t run) {
  std::atomic_ref<int32_t>(module->run).store(run);
}

// While one of these exists, its thread computes in the default floating-point environment: no
// exception traps, and results are rounded to the nearest. A host may have chosen another
// environment, which must neither change the results of formulas nor let 1/0 end the process.
class default_arithmetic {
 public:
  default_arithmetic() {
    fegetenv(&callers_);
    fesetenv(FE_DFL_ENV);
  }
  default_arithmetic(const default_arithmetic&) = delete;
  default_arithmetic& operator=(const default_arithmetic&) = delete;
  ~default_arithmetic() { fesetenv(&callers_); }

 private:
  fenv_t callers_;
};

}  // namespace

// ---- Item store --------------------------------------------------------------------------------
//
// Finds or creates an item by name, links and checks the items once the configuration is read, and
// releases them.

namespace {

// Makes room for one more entry. When there is no memory, returns false and leaves the table
// unchanged.
template <typename entry>
bool grow(entry** table, uint32_t count) {
  void* grown = torvasin_realloc(*table, (size_t{count} + 1) * sizeof(entry));
  if (grown == nullptr) return false;
  *table = static_cast<entry*>(grown);
  return true;
}

}  // namespace

int32_t get_or_create_item(snmp_module* module, const char* name) {
  // The keys of a section are in a row, so the wanted item is nearly always the last one.
  for (uint32_t i = module->item_count; i > 0; i--) {
    if (strcmp(module->bindings[i - 1].name, name) == 0) return static_cast<int32_t>(i - 1);
  }
  if (strlen(name) >= ITEM_NAME_SIZE) {
    SNMP_LOG(ERROR, "%s item name too long: %s", "ini_handler_cb", name);
    SNMP_LOG(ERROR, "%s found item: %s not found and not creable", "ini_handler_cb", name);
    return -1;
  }
  if (!grow(&module->bindings, module->item_count) || !grow(&module->items, module->item_count)) {
    SNMP_LOG(FAILURE, "%s no memory for item: %s", "ini_handler_cb", name);
    return -1;
  }
  const uint32_t i = module->item_count++;
  module->items[i] = {{}, encode_null, nullptr};
  snmp_meter_binding* binding = &module->bindings[i];
  memset(binding, 0, sizeof *binding);
  torvasin_valueInitUInt32(&binding->value, 0);
  copy_text(binding->name, name);
  binding->module = module;
  return static_cast<int32_t>(i);
}

int32_t link_snmp_items(snmp_module* module) {
  SNMP_LOG(TRACE, "loaded %d oid", static_cast<int>(module->item_count));
  for (uint32_t i = 0; i < module->item_count; i++) {
    snmp_meter_binding* binding = &module->bindings[i];
    snmp_item* item = &module->items[i];
    item->writer_ctx = binding;
    if (binding->meter[0] == '\0') {
      SNMP_LOG(WARNING, "empty meter for %u:'%s'", i, binding->name);
    }
    if (binding->formula != nullptr && binding->type == ITEM_STRING) {
      SNMP_LOG(WARNING, "formula configured for string type, (not supported yet) %u:'%s'", i,
               binding->name);
      te_free(binding->formula);
      binding->formula = nullptr;
    }
    if (item->oid.count == 0) {
      SNMP_LOG(ERROR, "error missing oid: %u %s", i, binding->name);
      return -1;
    }
  }
  return 0;
}

void release_items(snmp_module* module) {
  if (module->bindings != nullptr) {
    for (uint32_t i = 0; i < module->item_count; i++) te_free(module->bindings[i].formula);
    torvasin_free(module->bindings);
    module->bindings = nullptr;
  }
  if (module->items != nullptr) {
    torvasin_free(module->items);
    module->items = nullptr;
  }
  module->item_count = 0;
}

// ---- Value writers -----------------------------------------------------------------------------
//
// Compute the current value of an item, formula included, and write it into a response.

namespace {

// Returns the number that an item serves, limited to the range of its type. A double represents
// every value of the three numeric tags exactly.
template <typename number>
number item_number(const snmp_meter_binding* binding) {
  using limits = std::numeric_limits<number>;
  constexpr uint32_t number_tag = limits::is_signed ? TORVASIN_INT32 : TORVASIN_UINT32;
  double x = 0;
  bool known = true;
  if (binding->value.type == TORVASIN_FLOAT) {
    x = static_cast<double>(binding->value.payload.float32);
  } else if (binding->value.type != number_tag) {
    SNMP_LOG(FAILURE, "programming error %d", __LINE__);
    known = false;
  } else if (limits::is_signed) {
    x = binding->value.payload.int32;
  } else {
    x = binding->value.payload.uint32;
  }
  if (binding->formula != nullptr) {
    if (known) binding->module->formula_value = x;
    x = te_eval(binding->formula);
  }
  if (isnan(x)) return 0;
  return static_cast<number>(
      std::clamp(x, static_cast<double>(limits::min()), static_cast<double>(limits::max())));
}

}  // namespace

int32_t encode_item_int(ber_tlv* destination, size_t capacity, size_t* size_out, void* context) {
  const auto x = item_number<int32_t>(static_cast<snmp_meter_binding*>(context));
  return write_value(destination, capacity, size_out, get_intlen(x),
                     [x](ber_tlv* at) { encode_int(at, x); });
}

int32_t encode_item_uint(ber_tlv* destination, size_t capacity, size_t* size_out, void* context) {
  const auto x = item_number<uint32_t>(static_cast<snmp_meter_binding*>(context));
  return write_value(destination, capacity, size_out, get_uintlen(x),
                     [x](ber_tlv* at) { encode_uint(at, x); });
}

int32_t encode_item_string(ber_tlv* destination, size_t capacity, size_t* size_out, void* context) {
  const torvasin_value* value = &static_cast<snmp_meter_binding*>(context)->value;
  const char* text = "";
  if (value->type == TORVASIN_TEXT && value->payload.text != nullptr) {
    text = value->payload.text;
  } else {
    SNMP_LOG(FAILURE, "programming error %d", __LINE__);
  }
  const size_t length = strlen(text);
  if (length > BER_MAX_LENGTH) capacity = 0;  // such a text has no encoding: refuse to write it
  return write_value(destination, capacity, size_out, get_strlen(length),
                     [text, length](ber_tlv* at) { encode_str(at, text, length); });
}

// ---- Meter refresh -----------------------------------------------------------------------------
//
// Copies current meter values from the host's lists into the items.

bool item_takes(snmp_item_type type, uint32_t tag) {
  switch (type) {
    case ITEM_UINT:
    case ITEM_INT:
      return tag == type || tag == TORVASIN_FLOAT;
    case ITEM_STRING:
      return tag == TORVASIN_TEXT;
  }
  SNMP_LOG(TRACE, "not yet managed %d", __LINE__);
  return false;
}

namespace {

// Stores a meter's raw value in the item, if the item takes its tag. Conversion and formula follow
// when the item is served.
void take_meter_value(snmp_meter_binding* binding, const torvasin_value* meter) {
  if (!item_takes(static_cast<snmp_item_type>(binding->type), meter->type)) return;
  binding->refreshed = 1;
  switch (meter->type) {
    case TORVASIN_UINT32:
      torvasin_valueInitUInt32(&binding->value, meter->payload.uint32);
      break;
    case TORVASIN_INT32:
      torvasin_valueInitInt32(&binding->value, meter->payload.int32);
      break;
    case TORVASIN_FLOAT:
      torvasin_valueInitFloat(&binding->value, meter->payload.float32);
      break;
    default:
      torvasin_valueInitS(&binding->value, meter->payload.text);
      break;
  }
}

}  // namespace

int32_t refresh_items(snmp_module* module, const torvasin_key_value_list* list, uint32_t speed) {
  const int32_t locked = retry(pthread_mutex_lock, &module->lock);
  if (locked != 0) return locked;
  for (uint32_t i = 0; i < module->item_count; i++) {
    module->bindings[i].refreshed = (module->bindings[i].fast != speed);
  }
  for (uint32_t i = 0; i < module->item_count; i++) {
    snmp_meter_binding* binding = &module->bindings[i];
    if (binding->refreshed != 0) continue;
    const torvasin_value* meter = nullptr;
    if (torvasin_keyValueListGet(list, binding->meter, &meter) != 0) continue;
    take_meter_value(binding, meter);
  }
  return retry(pthread_mutex_unlock, &module->lock);
}

int meter_callback_slow(const torvasin_key_value_list* list, void* user) {
  return refresh_items(module_of(static_cast<torvasin_plugin_context*>(user)), list, TORVASIN_SLOW);
}

int meter_callback_fast(const torvasin_key_value_list* list, void* user) {
  return refresh_items(module_of(static_cast<torvasin_plugin_context*>(user)), list, TORVASIN_FAST);
}

// ---- Configuration -----------------------------------------------------------------------------
//
// Reads the configuration file and applies each key line to the module or to an item.

void init_snmp_module(snmp_module* module) {
  memset(module, 0, sizeof *module);
  module->port = 161;
  copy_text(module->ip, "127.0.0.1");
  module->formula_vars = {"value", &module->formula_value, TE_VARIABLE, nullptr};
}

namespace {

using std::string_view;

// One key line of a file. The texts belong to inih and are valid only while its callback runs.
struct key_line {
  torvasin_plugin_context* context;
  const char* section;
  const char* key;
  const char* value;
};

// Logs a message about a key line: the line's texts, then the literal `what`.
#define KEY_LOG(level, line, what, ...)                                             \
  SNMP_LOG(level, "%s(%s, %s, %s, %s" what, "ini_handler_cb", (line).context->name, \
           (line).section, (line).key, (line).value __VA_OPT__(, ) __VA_ARGS__)

constexpr int file_not_opened = -1;  // a result of ini_parse

constexpr string_view int_prefix = "int:";
constexpr string_view uint_prefix = "uint:";
constexpr string_view string_prefix = "string:";

// Returns the rest of a text after a prefix, or null when the text does not begin with the prefix.
const char* after(const char* text, string_view prefix) {
  return strncmp(text, prefix.data(), prefix.size()) == 0 ? text + prefix.size() : nullptr;
}

void apply_port(const key_line& line, snmp_module* module) {
  char* end;
  const unsigned long port = strtoul(line.value, &end, 10);
  if (end == line.value) {
    KEY_LOG(ERROR, line, " not valid port)");
  } else if (port > UINT16_MAX) {
    KEY_LOG(ERROR, line, " not valid port too big)");
  } else {
    module->port = static_cast<uint16_t>(port);
  }
}

void apply_general_key(const key_line& line, snmp_module* module) {
  switch (find_key<general_key>(general_key_names, line.key)) {
    case general_key::ip:
      copy_text(module->ip, line.value);
      break;
    case general_key::port:
      apply_port(line, module);
      break;
    case general_key::include:
      if (parse_config_file(line.context, line.value) != 0) {
        KEY_LOG(ERROR, line, ") error parsing file");
      }
      break;
    case general_key::unknown:
      KEY_LOG(ERROR, line, ") element not yet managed");
      break;
  }
}

void set_type(snmp_meter_binding* binding, snmp_item* item, uint32_t type,
              snmp_value_writer writer) {
  binding->type = type;
  item->writer = writer;
}

// Sets the type of an item whose default value has just been set, by the value's tag.
void apply_typed_default(const key_line& line, snmp_meter_binding* binding, snmp_item* item) {
  switch (binding->value.type) {
    case TORVASIN_UINT32:
      set_type(binding, item, ITEM_UINT, encode_item_uint);
      KEY_LOG(TRACE, line, ") set callback uint with default");
      break;
    case TORVASIN_TEXT:
      set_type(binding, item, ITEM_STRING, encode_item_string);
      KEY_LOG(TRACE, line, ") set callback string with default");
      break;
    case TORVASIN_INT32:
      set_type(binding, item, ITEM_INT, encode_item_int);
      KEY_LOG(TRACE, line, ") set callback int with default");
      break;
    default:
      KEY_LOG(ERROR, line, ") programming error");
      break;
  }
}

void apply_type(const key_line& line, snmp_meter_binding* binding, snmp_item* item) {
  static char no_text[] = "";
  const string_view type = line.value;
  if (type == "int") {
    torvasin_valueInitInt32(&binding->value, 0);
    set_type(binding, item, ITEM_INT, encode_item_int);
    KEY_LOG(TRACE, line, ") set callback int");
  } else if (type == "uint") {
    torvasin_valueInitUInt32(&binding->value, 0);
    set_type(binding, item, ITEM_UINT, encode_item_uint);
    KEY_LOG(TRACE, line, ") set callback uint");
  } else if (type == "string") {
    torvasin_valueInitTakeS(&binding->value, no_text, 0);
    set_type(binding, item, ITEM_STRING, encode_item_string);
    KEY_LOG(TRACE, line, ") set callback string");
  } else if (parse_default_value(&binding->value, line.value) == 0) {
    apply_typed_default(line, binding, item);
  } else {
    KEY_LOG(ERROR, line, ") type not yet managed");
  }
}

void apply_formula(const key_line& line, snmp_module* module, snmp_meter_binding* binding) {
  SNMP_LOG(TRACE, "%s compile formula: %s", "ini_handler_cb", line.value);
  te_free(binding->formula);
  constexpr int variables = 1;
  int error = 0;
  {
    const default_arithmetic arithmetic;  // te_compile computes constant parts
    binding->formula = te_compile(line.value, &module->formula_vars, variables, &error);
  }
  if (binding->formula == nullptr) {
    KEY_LOG(ERROR, line, ", %d) error parsing formula near %d", variables, error);
  }
}

void apply_item_key(const key_line& line, snmp_module* module, const char* name) {
  const int32_t index = get_or_create_item(module, name);
  if (index < 0) return;
  snmp_meter_binding* binding = &module->bindings[index];
  snmp_item* item = &module->items[index];
  switch (find_key<item_key>(item_key_names, line.key)) {
    case item_key::meter:
      copy_text(binding->meter, line.value);
      break;
    case item_key::metertype:
      binding->fast = string_view(line.value) == "fast" ? TORVASIN_FAST : TORVASIN_SLOW;
      break;
    case item_key::type:
      apply_type(line, binding, item);
      break;
    case item_key::computeformula:
      apply_formula(line, module, binding);
      break;
    case item_key::oid:
      if (parse_oid(line.value, &item->oid) != 0) KEY_LOG(ERROR, line, ") error parsing oid");
      break;
    case item_key::unknown:
      KEY_LOG(ERROR, line, ") section not yet managed");
      break;
  }
}

// Reads one sub-identifier and the dot after it, if any. Moves *text past them.
bool read_subid(const char** text, uint32_t* subid) {
  char* end;
  const unsigned long number = strtoul(*text, &end, 10);
  if (end == *text || number > UINT32_MAX || (*end != '.' && *end != '\0')) return false;
  *subid = static_cast<uint32_t>(number);
  *text = *end == '.' ? end + 1 : end;
  return true;
}

bool read_subids(const char* text, snmp_oid* oid) {
  if (*text == '.') text++;
  do {
    if (oid->count == OID_TEXT_SUBIDS || !read_subid(&text, &oid->subid[oid->count])) return false;
    oid->count++;
  } while (*text != '\0');
  // The encoding puts the first two sub-identifiers into one octet.
  return uint64_t{oid->subid[0]} * 40 + oid->subid[1] <= 0x7F;
}

}  // namespace

int32_t parse_oid(const char* text, snmp_oid* oid) {
  *oid = {};
  if (read_subids(text, oid)) return 0;
  *oid = {};
  return -1;
}

int32_t parse_default_value(torvasin_value* value, const char* text) {
  char* end;
  if (const char* rest = after(text, int_prefix)) {
    const long number = strtol(rest, &end, 10);
    if (end == rest) {
      SNMP_LOG(ERROR, "'%s' has to be an int", rest);
      return -1;
    }
    torvasin_valueInitInt32(value, static_cast<int32_t>(number));
    return 0;
  }
  if (const char* rest = after(text, uint_prefix)) {
    const unsigned long number = strtoul(rest, &end, 10);
    if (end == rest) {
      SNMP_LOG(ERROR, "'%s' has to be an uint", rest);
      return -1;
    }
    torvasin_valueInitUInt32(value, static_cast<uint32_t>(number));
    return 0;
  }
  if (const char* rest = after(text, string_prefix)) {
    torvasin_valueInitS(value, rest);
    return 0;
  }
  return -1;
}

int ini_handler_cb(void* user, const char* section, const char* key, const char* value) {
  const key_line line = {static_cast<torvasin_plugin_context*>(user), section, key, value};
  snmp_module* module = module_of(line.context);
  const char* name = after(section, item_prefix);
  KEY_LOG(TRACE, line, ")");
  if (section == general_section) {
    apply_general_key(line, module);
  } else if (name != nullptr && *name != '\0') {
    apply_item_key(line, module, name);
  } else {
    KEY_LOG(ERROR, line, ") section not yet managed");
  }
  return 1;
}

int32_t parse_config_file(torvasin_plugin_context* context, const char* path) {
  snmp_module* module = module_of(context);
  // Without the first limit, a file that includes itself would use up all descriptors of the
  // process. Without the second, a file that includes itself twice would be read 65,535 times.
  if (module->open_files == MAX_OPEN_FILES || module->files_read == MAX_FILES) {
    SNMP_LOG(ERROR, "%s not read: more than %u files inside one another or %u in all", path,
             MAX_OPEN_FILES, MAX_FILES);
    return -1;
  }
  SNMP_LOG(TRACE, "parsing %s", path);
  module->files_read++;
  module->open_files++;
  const int result = ini_parse(path, ini_handler_cb, context);
  module->open_files--;
  if (result == file_not_opened) module->files_read--;
  if (result > 0) {
    SNMP_LOG(WARNING, "problem parsing %s (line first error: %d)", path, result);
    return -1;
  }
  if (result < 0) {
    SNMP_LOG(ERROR, "error %d parsing %s", result, path);
    return -1;
  }
  SNMP_LOG(TRACE, "read %s", path);
  return 0;
}

// ---- Poller ------------------------------------------------------------------------------------
//
// The thread that receives and answers datagrams: sets its CPU mask and niceness, loops, and sends
// the responses.

namespace {

constexpr char loop_name[] = "module_thread_loop";
constexpr int mask_cpus = 32;  // CPUs that an affinity mask can name

void apply_affinity(int32_t affinity) {
  SNMP_LOG(TRACE, "%s: try to set affinity to %08x", loop_name, static_cast<unsigned>(affinity));
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  for (unsigned i = 0; i < mask_cpus; i++) {
    if ((static_cast<uint32_t>(affinity) >> i & 1) != 0) CPU_SET(i, &cpus);
  }
  int error = pthread_setaffinity_np(pthread_self(), sizeof cpus, &cpus);
  if (error != 0) {
    SNMP_LOG(FAILURE, "%s: invalid affinity: %s", loop_name, strerror(error));
    return;
  }
  error = pthread_getaffinity_np(pthread_self(), sizeof cpus, &cpus);
  if (error != 0) {
    SNMP_LOG(FAILURE, "%s: invalid getting affinity: %s", loop_name, strerror(error));
  } else {
    uint32_t mask = 0;
    for (unsigned i = 0; i < mask_cpus; i++) {
      if (CPU_ISSET(i, &cpus)) mask |= 1u << i;
    }
    SNMP_LOG(WARNING, "%s: affinity to %08x", loop_name, mask);
  }
  usleep(1);  // lets the scheduler move the thread to a CPU of the mask
}

void apply_niceness(int32_t renice) {
  const int niceness = nice(renice);
  if (niceness != 0) SNMP_LOG(TRACE, "%s: new nice %d", loop_name, niceness);
}

unsigned port_of(const sockaddr_in* peer) {
  return ntohs(peer->sin_port);
}

// Answers one datagram. The response overwrites the request in the same buffer.
void handle_datagram(snmp_module* module, snmp_send_ctx* sender,
                     uint8_t (&packet)[SNMP_MAX_DATAGRAM], size_t received) {
  char address[IP_TEXT_SIZE];
  SNMP_LOG(TRACE, "received from: %s:%u\n", write_address(sender->peer.sin_addr, address),
           port_of(&sender->peer));
  const int32_t locked = retry(pthread_mutex_lock, &module->lock);
  if (locked != 0) {
    SNMP_LOG(FAILURE, "%s: datagram dropped, no lock: %d %s", loop_name, locked, strerror(locked));
    return;
  }
  minimal_snmp_exchange(&module->exchange, module->items, module->item_count, packet, received,
                        packet, sizeof packet, sender, minimal_snmp_send);
  retry(pthread_mutex_unlock, &module->lock);
}

}  // namespace

// Instead of inet_ntop, which is much slower: this runs twice for each datagram.
const char* write_address(in_addr address, char (&text)[IP_TEXT_SIZE]) {
  const auto* octets = reinterpret_cast<const uint8_t*>(&address);
  const auto digit = [](unsigned number) { return static_cast<char>('0' + number % 10); };
  char* at = text;
  for (size_t i = 0; i < sizeof address; i++) {
    if (octets[i] >= 100) *at++ = digit(octets[i] / 100u);
    if (octets[i] >= 10) *at++ = digit(octets[i] / 10u);
    *at++ = digit(octets[i]);
    *at++ = '.';
  }
  at[-1] = '\0';
  return text;
}

int32_t minimal_snmp_send(void* context, const uint8_t* message, size_t length) {
  const snmp_send_ctx* sender = static_cast<snmp_send_ctx*>(context);
  SNMP_LOG(TRACE, "%s(%d,...,%u)", __func__, sender->fd, static_cast<unsigned>(length));
  char address[IP_TEXT_SIZE];
  SNMP_LOG(TRACE, "sending to: %s %u", write_address(sender->peer.sin_addr, address),
           port_of(&sender->peer));
  const ssize_t sent =
      sendto(sender->fd, message, length, MSG_CONFIRM,
             reinterpret_cast<const sockaddr*>(&sender->peer), sizeof sender->peer);
  if (sent < 0) {
    SNMP_LOG(TRACE, "sent: %d %d %s", static_cast<int>(sent), errno, strerror(errno));
  } else {
    SNMP_LOG(TRACE, "sent: %d", static_cast<int>(sent));
  }
  return 0;
}

void* module_thread_loop(void* argument) {
  const auto* context = static_cast<torvasin_plugin_context*>(argument);
  snmp_module* module = module_of(context);
  const default_arithmetic arithmetic;  // this thread evaluates every formula that is served
  if (module->affinity >= 1) apply_affinity(module->affinity);
  if (module->renice != 0) apply_niceness(module->renice);

  uint8_t packet[SNMP_MAX_DATAGRAM];
  snmp_send_ctx sender = {{}, module->fd};
  socklen_t peer_length = sizeof sender.peer;
  while (running(module)) {
    const ssize_t received = recvfrom(module->fd, packet, sizeof packet, MSG_WAITALL,
                                      reinterpret_cast<sockaddr*>(&sender.peer), &peer_length);
    if (received > 0) {
      handle_datagram(module, &sender, packet, static_cast<size_t>(received));
    } else if (received < 0 && errno != EAGAIN) {
      SNMP_LOG(TRACE, "%s(%p) error receive: %d %s", loop_name, argument, errno, strerror(errno));
      usleep(1);  // a permanent error must not take the whole CPU
    }
  }
  SNMP_LOG(TRACE, "%s(%p) end", loop_name, argument);
  return nullptr;
}

// ---- Entries -----------------------------------------------------------------------------------
//
// The functions that start and stop an instance, and the table through which the host calls them.

namespace {

constexpr char default_config_file[] = "snmpmanager.ini";
constexpr timeval receive_timeout = {1, 0};  // bounds how long a stop takes
constexpr timeval send_timeout = {0, 1000};  // bounds how long a slow network blocks the lock

// Creates the lock with priority inheritance: a host thread that waits for it lends its priority to
// the poller.
int32_t create_lock(snmp_module* module) {
  pthread_mutexattr_t attribute;
  if (pthread_mutexattr_init(&attribute) != 0) {
    SNMP_LOG(FAILURE, "error initializing lock attribute");
    return -1;
  }
  if (pthread_mutexattr_setprotocol(&attribute, PTHREAD_PRIO_INHERIT) != 0) {
    SNMP_LOG(FAILURE, "error set lock attribute protocol");
  }
  // On a kernel without priority inheritance this fails and leaves the mutex zeroed: a plain mutex,
  // which works, though a flood of requests can then keep a host thread waiting.
  pthread_mutex_init(&module->lock, &attribute);
  module->lock_created = 1;
  pthread_mutexattr_destroy(&attribute);
  return 0;
}

// Reads the settings in the host's list. Returns the path of the configuration file.
const char* read_host_keys(snmp_module* module, const torvasin_key_value_list* list) {
  const char* path = default_config_file;
  module->affinity = -1;
  module->renice = 0;
  if (list == nullptr) return path;
  uint32_t number;
  const char* text;
  if (torvasin_keyValueListGetS(list, "conf_file", &text) == 0) {
    path = text;
    SNMP_LOG(TRACE, "replace configurationfile with %s", path);
  }
  if (torvasin_keyValueListGetIU(list, "affinity", &number) == 0 &&
      static_cast<int32_t>(number) >= 1) {
    SNMP_LOG(TRACE, "affinity: %d", static_cast<int32_t>(number));
    module->affinity = static_cast<int32_t>(number);
  }
  if (torvasin_keyValueListGetIU(list, "renice", &number) == 0 && number != 0) {
    SNMP_LOG(TRACE, "renice: %d", static_cast<int32_t>(number));
    module->renice = static_cast<int32_t>(number);
  }
  return path;
}

int32_t bind_socket(snmp_module* module) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr(module->ip);
  address.sin_port = htons(module->port);
  if (bind(module->fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    SNMP_LOG(FAILURE, "error bind(%s:%u) socker: %d %s", module->ip,
             static_cast<unsigned>(module->port), errno, strerror(errno));
    return -1;
  }
  if (setsockopt(module->fd, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof receive_timeout) !=
      0) {
    SNMP_LOG(FAILURE, "error setsockopt socker: %d %s", errno, strerror(errno));
    return -1;
  }
  // Without this timeout, the poller would hold the lock until the network takes the response. If
  // the system refuses it, the agent still works as long as the network is fast enough.
  setsockopt(module->fd, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
  return 0;
}

// Comes last in a start: the host may call a callback as soon as it is registered.
int32_t register_callbacks(torvasin_plugin_context* context, snmp_module* module) {
  module->slow_cb = torvasin_engine_addCallbackMeterManager(context->engine, TORVASIN_SLOW,
                                                            meter_callback_slow, context);
  if (module->slow_cb == nullptr) {
    SNMP_LOG(FAILURE, "cannot register meter slow callback");
    return -1;
  }
  module->fast_cb = torvasin_engine_addCallbackMeterManager(context->engine, TORVASIN_FAST,
                                                            meter_callback_fast, context);
  if (module->fast_cb == nullptr) {
    SNMP_LOG(FAILURE, "cannot register meter fast callback");
    torvasin_engine_rmCallbackMeterManager(context->engine, module->slow_cb);
    module->slow_cb = nullptr;
    return -1;
  }
  return 0;
}

// The part of a start that follows the allocation of the module's record and its socket.
int32_t start_module(torvasin_plugin_context* context, snmp_module* module,
                     const torvasin_key_value_list* list) {
  if (create_lock(module) != 0) return -1;
  const char* path = read_host_keys(module, list);
  // Without its file the agent still binds and answers.
  if (parse_config_file(context, path) != 0) SNMP_LOG(ERROR, "problem parsing %s", path);
  if (module->bindings != nullptr && link_snmp_items(module) != 0) return -1;
  if (bind_socket(module) != 0) return -1;
  return register_callbacks(context, module);
}

void close_socket(snmp_module* module) {
  if (module->fd >= 0) close(module->fd);
  module->fd = -1;
}

void free_module(torvasin_plugin_context* context) {
  torvasin_free(context->private_data);
  context->private_data = nullptr;
}

int32_t startCycle(torvasin_plugin_context* context, const torvasin_key_value_list* list) {
  SNMP_LOG(TRACE, "%s(%s, %p)", __func__, context->name, static_cast<const void*>(list));
  auto* module = static_cast<snmp_module*>(torvasin_malloc(sizeof(snmp_module)));
  if (module == nullptr) {
    SNMP_LOG(FAILURE, "%s: no memory for the module", __func__);
    return -1;
  }
  init_snmp_module(module);
  // SOCK_CLOEXEC: a program that the host starts meanwhile must not keep the port in use.
  module->fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (module->fd < 0) {
    SNMP_LOG(FAILURE, "error creating socker: %d %s", errno, strerror(errno));
    torvasin_free(module);
    return -1;
  }
  context->private_data = module;
  if (start_module(context, module, list) == 0) return 0;

  close_socket(module);
  if (module->lock_created != 0) pthread_mutex_destroy(&module->lock);
  release_items(module);
  free_module(context);
  return -1;
}

// Creates a thread that, from its first instruction on, blocks all signals but those that its own
// instructions may cause. If those were blocked too, they would end the process without calling the
// host's handler. Returns the result of pthread_create.
int create_quiet_thread(pthread_t* thread, void* (*run)(void*), void* argument) {
  sigset_t blocked;
  sigset_t callers;
  sigfillset(&blocked);
  for (int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) sigdelset(&blocked, own);
  pthread_sigmask(SIG_SETMASK, &blocked, &callers);  // a new thread inherits the mask
  const int result = pthread_create(thread, nullptr, run, argument);
  pthread_sigmask(SIG_SETMASK, &callers, nullptr);
  return result;
}

void startThread(torvasin_plugin_context* context) {
  snmp_module* module = module_of(context);
  set_running(module, 1);
  if (create_quiet_thread(&module->thread, module_thread_loop, context) != 0) {
    SNMP_LOG(FAILURE, "not possible to poller thread");
    return;
  }
  module->thread_created = 1;
  const int error = pthread_setname_np(module->thread, "SNMP");
  if (error != 0) {
    SNMP_LOG(WARNING, "not possible to set thread name %d %s", error, strerror(error));
  }
}

void preStopCycle(torvasin_plugin_context* context) {
  SNMP_LOG(WARNING, "%s(%s)", __func__, context->name);
  snmp_module* module = module_of(context);
  set_running(module, 0);
  if (module->thread_created == 0) return;
  if (pthread_join(module->thread, nullptr) != 0) SNMP_LOG(TRACE, "error join thread");
  module->thread_created = 0;
}

void stopCycle(torvasin_plugin_context* context, int32_t n) {
  SNMP_LOG(WARNING, "%s(%s, %d)", __func__, context->name, n);
  snmp_module* module = module_of(context);
  torvasin_engine_rmCallbackMeterManager(context->engine, module->fast_cb);
  module->fast_cb = nullptr;
  torvasin_engine_rmCallbackMeterManager(context->engine, module->slow_cb);
  module->slow_cb = nullptr;
  close_socket(module);
  release_items(module);
  pthread_mutex_destroy(&module->lock);
  free_module(context);
}

}  // namespace

const torvasin_plugin_entry plugin_entry_0_6 = {"snmp",    nullptr, startCycle,  preStopCycle,
                                                stopCycle, nullptr, startThread, nullptr};

const char* const plugin_entry_torvasin_module_version = TORVASIN_VERSION;
