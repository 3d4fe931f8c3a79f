// Logging from the module's source files.
//
// Each .cpp file that logs defines the constant `log_source`, its path without the extension, and
// logs with SNMP_LOG(level, format, ...): the level is a TORVASIN_LOG_ name without that prefix,
// and the compiler checks the format, a literal, against its arguments. Source path and line
// together name one statement.

#ifndef TORVASIN_SNMP_SNMP_LOG_H
#define TORVASIN_SNMP_SNMP_LOG_H

#include "../../torvasin.h"

#define SNMP_LOG(level, ...) \
  torvasin_log(TORVASIN_LOG_##level, log_source, __LINE__, 1, __VA_ARGS__)

#endif  // TORVASIN_SNMP_SNMP_LOG_H
