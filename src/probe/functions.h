// The checks of the host functions that need no instance. Each of them calls the host from the
// thread that calls it.

#ifndef TORVASIN_PROBE_FUNCTIONS_H
#define TORVASIN_PROBE_FUNCTIONS_H

#include <stddef.h>

#include "module/torvasin.h"

namespace torvasin_probe {

// Logs a text of up to 20,000 characters, from any thread.
void log_text(int level, size_t length);

// From startCycle. What they take they give back.
void check_log();
void check_blocks();
void check_values();

// From startCycle and from a callback, with the list of this call. Asks for a key in each way.
// Returns the value, or null when the list does not have it.
const torvasin_value* look_up(const torvasin_key_value_list* list, const char* key);
void expect_absent(const torvasin_key_value_list* list, const char* key);

// From startCycle and from a callback. Sets a record to a text, of which the host gets a copy that
// is then gone.
void set_text(torvasin_value* value, const char* text);

}  // namespace torvasin_probe

#endif  // TORVASIN_PROBE_FUNCTIONS_H
