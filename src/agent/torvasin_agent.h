// An SNMP agent inside any program, for C11 and C++. It answers SNMPv1 and v2c Get, GetNext and
// GetBulk on one UDP port with values that the program sets. snmpmanager.ini(5) describes the
// configuration file, which gives a meter its OID.
//
//   torvasin_agent* agent = torvasin_agent_create("my.ini");
//   torvasin_gauge* waiting = torvasin_agent_gauge(agent, "queue.length", "jobs that wait");
//   if (torvasin_agent_start(agent) != 0) puts(torvasin_agent_fault(agent));
//   torvasin_gauge_set(waiting, 12);
//   torvasin_agent_destroy(agent);
//
// Threads. Every function may be called on any thread. Starts, stops, reloads and publications of
// one agent wait for one another. A process may have several agents, each with its own file and
// meters. Link with -pthread where the C library needs it.
//
// Failures. A function that can fail returns -1 or a null pointer, and torvasin_agent_fault says
// why. With a null agent it fails too, and all others do nothing.
//
// A started agent has two threads of its own: "SNMP" answers, "meters" publishes. They block all
// signals but those that an instruction causes (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS);
// the masks of the program's threads stay as they are. Once loaded, the library stays loaded.
//
// fork. A child process gets no thread of an agent that runs: the child's copy of the agent has no
// socket and cannot be started again, which its fault says. The child may set its meters, destroy
// it, exit, and create agents of its own. An agent that is not started when the process forks works
// in the child. While an agent starts or stops, fork waits for it.

#ifndef TORVASIN_AGENT_H
#define TORVASIN_AGENT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

typedef struct torvasin_agent torvasin_agent;

// ---- Life of an agent --------------------------------------------------------------------------

// Returns an agent that is not started, or null without memory for it. conf_file is copied and is
// read by each start and reload; a relative path refers to the working directory of that moment.
// Null stands for snmpmanager.ini.
torvasin_agent* torvasin_agent_create(const char* conf_file);

// Stops the agent and frees it, its meters included. No other thread may use them any more. Ignored
// from inside collect.
void torvasin_agent_destroy(torvasin_agent* agent);

// Reads the file, binds the port, publishes both speeds, and then answers: the first answer has all
// values. Returns 0, or -1: the agent is not started and holds no socket and no thread. It fails
// when
//  - it is started already, or the call comes from inside collect;
//  - the file cannot be read, or an item in it lacks an OID;
//  - the address cannot be bound, or there is no memory or no thread.
// A faulty line of the file is logged and left out.
int torvasin_agent_start(torvasin_agent* agent);

// Stops answering and closes the socket, within 50 ms, but waits for a collect that runs. Values
// and settings stay, and the agent can be started again. Returns 0, also when the agent is not
// started, or -1 from inside collect.
int torvasin_agent_stop(torvasin_agent* agent);

// Reads the file anew: stops and starts the agent, with all its values. Fails, and the agent goes
// on as before, when it is not started, when the call comes from inside collect, or when the file
// cannot be read, has an item without an OID, or asks for an address that cannot be bound. When
// something else prevents the start, the agent is stopped.
int torvasin_agent_reload(torvasin_agent* agent);

// Why the last call for this agent that can fail did so, in words; "" if it did not. The text lies
// in the agent and changes with the next call that can fail: read it on the thread that made the
// call, while no other thread makes one. At most 511 octets.
const char* torvasin_agent_fault(const torvasin_agent* agent);

// Where a started agent answers, such as "127.0.0.1:1161"; "" when it is stopped. The text lies in
// the agent; do not read it while another thread starts, stops or reloads.
const char* torvasin_agent_address(const torvasin_agent* agent);

// ---- Settings ----------------------------------------------------------------------------------

// To be made before the start. Made later, they hold from the next start or reload on.

// The name in messages, cut after 39 octets. Default: "snmp".
void torvasin_agent_set_name(torvasin_agent* agent, const char* name);

// How often the agent publishes for items with "metertype = fast" and "metertype = slow", in
// milliseconds; 0: not by itself. With 0 twice there is no thread "meters". Defaults: 1000, 10000.
void torvasin_agent_set_periods(torvasin_agent* agent, unsigned fast_ms, unsigned slow_ms);

// The processors of the thread "SNMP", bit 0 for the first. 0, or a mask with bit 31, and the
// default: any processor.
void torvasin_agent_set_affinity(torvasin_agent* agent, uint32_t processors);

// What is added to the niceness of the thread "SNMP"; a negative number needs a privilege.
// Default: 0.
void torvasin_agent_set_renice(torvasin_agent* agent, int32_t renice);

// A function of the program that sets meters which are to be read just before they are published.
// It is called before each publication of a speed (1: fast, 0: slow) on the thread that publishes:
// "meters", or the one that calls start, reload or publish. It must not wait for a thread that
// calls a function of this agent. From inside it start, stop, reload and publish fail. An exception
// that leaves it prevents that publication: it is logged, or is the fault of the call that
// publishes. Null, and the default: none.
void torvasin_agent_set_collect(torvasin_agent* agent,
                                void (*collect)(torvasin_agent* agent, int speed, void* user),
                                void* user);

// ---- Meters ------------------------------------------------------------------------------------
//
// A meter belongs to its agent and lives as long; it may be added at any time, also while the agent
// runs. An item of the file refers to it by its name. What "type" of item takes it stands in
// snmpmanager.ini(5).
//
// Name and description are copied. The name has 1 to 127 octets and is no other meter's. It must be
// possible in an ini file: no ']', no control character, no blank at an end, no ';' at the
// beginning or behind a blank. Otherwise the functions return null. The description, for
// torvasin_agent_write_meters, may be null.
//
// A value may be set on any thread at any time, and nobody waits: values set between two
// publications replace one another. Counters, gauges and reals may be set in a signal handler too,
// texts may not. A counter is published from the start, with 0; any other once it was set. A null
// handle does nothing.

typedef struct torvasin_counter torvasin_counter;
typedef struct torvasin_gauge torvasin_gauge;
typedef struct torvasin_real torvasin_real;
typedef struct torvasin_text torvasin_text;

// A number that only grows, and starts again from 0 after 4294967295.
torvasin_counter* torvasin_agent_counter(torvasin_agent* agent, const char* name,
                                         const char* description);
void torvasin_counter_add(torvasin_counter* counter, uint32_t number);
void torvasin_counter_set(torvasin_counter* counter, uint32_t number);

// A number that rises and falls. Additions wrap at the ends of its range; the first one adds to 0.
torvasin_gauge* torvasin_agent_gauge(torvasin_agent* agent, const char* name,
                                     const char* description);
void torvasin_gauge_set(torvasin_gauge* gauge, int32_t number);
void torvasin_gauge_add(torvasin_gauge* gauge, int32_t number);

// A number with a fraction, which the formula of an item scales to an integer.
torvasin_real* torvasin_agent_real(torvasin_agent* agent, const char* name,
                                   const char* description);
void torvasin_real_set(torvasin_real* real, float number);

// A text, which is copied; null is an empty one. Without memory for it the last one stays.
torvasin_text* torvasin_agent_text(torvasin_agent* agent, const char* name,
                                   const char* description);
void torvasin_text_set(torvasin_text* text, const char* value);

// Publishes both speeds now. Returns 0, or -1 when the agent is not started, from inside collect,
// or when collect throws an exception.
int torvasin_agent_publish(torvasin_agent* agent);

// Writes the list of meters that "torvasin_config --meters" reads, with which it checks the agent's
// configuration. The agent need not be started. A description becomes one line of at most 180
// octets. Returns 0, or -1 when the file cannot be written.
int torvasin_agent_write_meters(torvasin_agent* agent, const char* path);

// ---- Log, of the whole process -----------------------------------------------------------------

// Levels: 1 trace, with several lines for each datagram; 2 warning; 3 error; 4 failure.
//
// log is called for one line at a time, on whatever thread logs, with the place in the library that
// does. A text may hold control characters and octets that a client sent. log must not wait, and
// must not call the functions of this header but those that set a meter. An exception that leaves
// it costs the line. When this function returns, the log function before is not called any more.
//
// At first, and with a null log, lines of lowest_level and above (at first: 2) go to standard error
// as "torvasin_agent: LEVEL PLACE:LINE TEXT", with what no terminal can show escaped. A line that
// cannot be written at once is dropped. So is one that repeats the last one of its place, or is
// beyond 20 in 10 seconds there; the next line after that tells how many. Each stop logs two
// warnings that tell of it.
void torvasin_agent_set_log(void (*log)(int level, const char* source, int line, const char* text,
                                        void* user),
                            void* user, int lowest_level);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif  // TORVASIN_AGENT_H
