// An SNMP agent inside any program, for C11 and C++. It answers SNMPv1 and v2c Get, GetNext and
// GetBulk requests on one UDP port with values that the program sets. A configuration file gives
// each meter its OID; snmpmanager.ini(5) describes it.
//
//   torvasin_agent* agent = torvasin_agent_create("my.ini");
//   torvasin_gauge* waiting = torvasin_agent_gauge(agent, "queue.length", "jobs that wait");
//   if (torvasin_agent_start(agent) != 0) puts(torvasin_agent_fault(agent));
//   torvasin_gauge_set(waiting, 12);
//   torvasin_agent_destroy(agent);
//
// Threads. Any thread may call any function. Starts, stops, reloads and publications of one agent
// wait for one another. A process may run several agents, each with its own file and meters. Link
// with -pthread if your C library requires it.
//
// Failures. A function that can fail returns -1 or a null pointer, and torvasin_agent_fault says
// why. Given a null agent, it fails; the other functions ignore null pointers.
//
// A started agent runs two threads: "SNMP" answers requests, "meters" publishes values. They block
// all signals except those caused by an instruction (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP,
// SIGSYS). The signal masks of the program's own threads never change. dlclose does not unload the
// library. pthread_cancel ends a thread only after its call returns.
//
// exit. A program may exit without destroying its agents. Their threads run until the process ends,
// so collect may run while the program's static objects are being destroyed.
//
// fork. A child process has no threads of a started agent. Its copy of that agent has no socket and
// refuses to start, stop, reload and publish. The child may set its meters, destroy it, exit, and
// create agents of its own. An agent that was stopped when the process forked works in the child.
// fork waits while an agent reads its file, or opens or closes its socket.

#ifndef TORVASIN_AGENT_H
#define TORVASIN_AGENT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

typedef struct torvasin_agent torvasin_agent;

// ---- Life of an agent --------------------------------------------------------------------------

// Returns an agent that is not started, or null if there is no memory. conf_file is copied; null
// means "snmpmanager.ini". Each start and reload reads the file; a relative path refers to the
// working directory at that time.
torvasin_agent* torvasin_agent_create(const char* conf_file);

// Stops the agent and frees it and its meters. No other thread may use them any more. Inside
// collect, it does nothing but set the fault.
void torvasin_agent_destroy(torvasin_agent* agent);

// Reads the file, binds the port, publishes both speeds, and only then answers, so even the first
// answer carries current values. Returns 0, or -1 and leaves no socket and no thread behind. It
// fails if
//  - the agent is already started, or collect makes the call;
//  - the file cannot be read, or an item in it has no OID;
//  - the address cannot be bound, or memory, descriptors or threads run out;
//  - collect throws an exception.
// A faulty line in the file is logged and ignored. If the file is a pipe, the start waits until
// somebody has written it.
int torvasin_agent_start(torvasin_agent* agent);

// Stops answering and closes the socket. This takes at most 50 ms, plus the time that a running
// collect needs. Values and settings stay, and the agent can be started again. Returns 0, even if
// the agent is not started, or -1 inside collect and in a forked child.
int torvasin_agent_stop(torvasin_agent* agent);

// Stops the agent and starts it again with the file as it is now. Values stay. It fails, and the
// agent keeps running unchanged, if the agent is not started, if collect makes the call, or if the
// file cannot be read, is a pipe, contains an item without an OID, or names an address that cannot
// be bound. If the start fails for another reason, the agent is stopped.
int torvasin_agent_reload(torvasin_agent* agent);

// Why the latest call for this agent failed, or "" if it succeeded. Only calls that can fail count.
// The text is at most 511 octets long and belongs to the agent; the next such call overwrites it.
// Read it on the thread that made the call, while no other thread makes one.
const char* torvasin_agent_fault(const torvasin_agent* agent);

// Where a started agent answers, such as "127.0.0.1:1161", or "" if it is stopped. The text belongs
// to the agent; do not read it while another thread starts, stops or reloads the agent.
const char* torvasin_agent_address(const torvasin_agent* agent);

// ---- Settings ----------------------------------------------------------------------------------

// Set these before torvasin_agent_start. Later changes take effect at the next start or reload.

// The name that messages show, cut after 39 octets. Default: "snmp".
void torvasin_agent_set_name(torvasin_agent* agent, const char* name);

// How often the agent publishes for items with "metertype = fast" and for the others, in
// milliseconds. 0 means never; if both are 0, there is no thread "meters". Defaults: 1000, 10000.
void torvasin_agent_set_periods(torvasin_agent* agent, unsigned fast_ms, unsigned slow_ms);

// The processors on which the thread "SNMP" may run; bit 0 stands for the first. 0 and masks with
// bit 31 mean any processor, which is the default.
void torvasin_agent_set_affinity(torvasin_agent* agent, uint32_t processors);

// A number added to the niceness of the thread "SNMP". A negative one requires a privilege.
// Default: 0.
void torvasin_agent_set_renice(torvasin_agent* agent, int32_t renice);

// A function of the program that sets meters just before they are published. The agent calls it
// before each publication of a speed (1: fast, 0: slow) on the thread that publishes: "meters", or
// the one that calls start, reload or publish. It must not wait for a thread that calls a function
// of this agent. start, stop, reload and publish fail inside it. If it throws an exception, nothing
// is published; the call that publishes fails, or "meters" logs the exception. Null, the default,
// means no function.
void torvasin_agent_set_collect(torvasin_agent* agent,
                                void (*collect)(torvasin_agent* agent, int speed, void* user),
                                void* user);

// ---- Meters ------------------------------------------------------------------------------------
//
// A meter belongs to its agent and exists as long as the agent does. Add meters at any time, also
// while the agent runs. Items in the file refer to a meter by its name; snmpmanager.ini(5) lists
// which "type" of item accepts which meter.
//
// Name and description are copied. A name is 1 to 127 octets long and unique in its agent. Since it
// stands in ini files, it contains no ']' and no control character, neither begins nor ends with a
// blank, and has no ';' at its beginning or after a blank. Otherwise the function returns null. The
// description is for torvasin_agent_write_meters and may be null.
//
// Any thread may set a value at any time, and never waits. The agent publishes the latest value.
// Counters, gauges and reals may be set in signal handlers, texts may not. A counter is published
// from the start, beginning with 0, other meters once they are set. Null handles are ignored.

typedef struct torvasin_counter torvasin_counter;
typedef struct torvasin_gauge torvasin_gauge;
typedef struct torvasin_real torvasin_real;
typedef struct torvasin_text torvasin_text;

// A number that only grows and wraps to 0 after 4294967295.
torvasin_counter* torvasin_agent_counter(torvasin_agent* agent, const char* name,
                                         const char* description);
void torvasin_counter_add(torvasin_counter* counter, uint32_t number);
void torvasin_counter_set(torvasin_counter* counter, uint32_t number);

// A number that rises and falls, 0 at first. Additions wrap at the ends of its range.
torvasin_gauge* torvasin_agent_gauge(torvasin_agent* agent, const char* name,
                                     const char* description);
void torvasin_gauge_set(torvasin_gauge* gauge, int32_t number);
void torvasin_gauge_add(torvasin_gauge* gauge, int32_t number);

// A number with a fraction. SNMP serves integers: an item's formula can scale it, value*100.
torvasin_real* torvasin_agent_real(torvasin_agent* agent, const char* name,
                                   const char* description);
void torvasin_real_set(torvasin_real* real, float number);

// A text. The value is copied; null means "". If there is no memory, the previous one stays.
torvasin_text* torvasin_agent_text(torvasin_agent* agent, const char* name,
                                   const char* description);
void torvasin_text_set(torvasin_text* text, const char* value);

// Publishes both speeds now. Returns 0, or -1 if the agent is not started, if collect makes the
// call, or if collect throws an exception.
int torvasin_agent_publish(torvasin_agent* agent);

// Writes the list of meters for "torvasin_config check --meters", which checks the agent's
// configuration against it. The agent need not be started. Each description becomes one line of at
// most 180 octets. Returns 0, or -1 if the file cannot be written.
int torvasin_agent_write_meters(torvasin_agent* agent, const char* path);

// ---- Log of the whole process ------------------------------------------------------------------

// Levels: 1 trace (several lines for each datagram), 2 warning, 3 error, 4 failure.
//
// Passes each line of lowest_level or above to log, one at a time, on the thread that logs it, with
// the place in the library's source. The text may contain control characters and octets that a
// client sent. log must not wait, and may call only those functions of this header that set meters.
// If it throws an exception, the line is lost. Once torvasin_agent_set_log returns, the previous
// function is not called any more.
//
// If log is null, and before the first call (from level 2), lines go to standard error as
// "torvasin_agent: LEVEL PLACE:LINE TEXT", with characters escaped that a terminal cannot show. A
// line that cannot be written at once is dropped, and so is one that repeats the previous line of
// its place or exceeds 20 lines in 10 seconds there; a later line says how many were dropped. Each
// stop logs two warnings that report it.
void torvasin_agent_set_log(void (*log)(int level, const char* source, int line, const char* text,
                                        void* user),
                            void* user, int lowest_level);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif  // TORVASIN_AGENT_H
