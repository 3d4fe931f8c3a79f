// Logging from the module's source files.
//
// Each .cpp file that logs defines the constant `log_source`, its path without the extension, and
// logs with SNMP_LOG(level, format, ...). The level is a TORVASIN_LOG_ name without that prefix.
// The format is a literal, so that the compiler checks the arguments against it.

#ifndef TORVASIN_SNMP_SNMP_LOG_H
#define TORVASIN_SNMP_SNMP_LOG_H

#include "../../torvasin.h"

#define SNMP_LOG(level, ...) \
  torvasin_log(TORVASIN_LOG_##level, log_source, __LINE__, 1, __VA_ARGS__)

#endif  // TORVASIN_SNMP_SNMP_LOG_H
