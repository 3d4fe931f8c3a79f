// A queue with two workers that answers SNMP as queue.ini says. "job_queue FILE" lists the meters.
#define _XOPEN_SOURCE 700
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <torvasin_agent.h>
#include <unistd.h>

static int jobs[2];  // a pipe of jobs; each is the milliseconds that it takes
static torvasin_gauge* length;
static torvasin_counter* done;

static void* work(void* nothing) {
  for (int job; read(jobs[0], &job, sizeof job) == sizeof job; torvasin_counter_add(done, 1)) {
    torvasin_gauge_add(length, -1);
    nanosleep(&(struct timespec){.tv_nsec = job * 1000000L}, NULL);
  }
  return nothing;
}

int main(int count, char** arguments) {
  torvasin_agent* snmp = torvasin_agent_create("queue.ini");
  length = torvasin_agent_gauge(snmp, "queue.length", "jobs that wait");
  done = torvasin_agent_counter(snmp, "queue.done", "jobs done since the start");
  if (count > 1 ? torvasin_agent_write_meters(snmp, arguments[1]) : torvasin_agent_start(snmp))
    return fprintf(stderr, "%s\n", torvasin_agent_fault(snmp)), 1;
  if (count > 1 || pipe(jobs) != 0) return count == 1;
  sigset_t ends;
  sigemptyset(&ends), sigaddset(&ends, SIGINT), sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, NULL);
  pthread_t worker[2];
  for (int i = 0; i < 2; ++i) pthread_create(&worker[i], NULL, work, NULL);
  do torvasin_gauge_add(length, 1);
  while (write(jobs[1], &(int){rand() % 370}, sizeof(int)) > 0 &&
         sigtimedwait(&ends, NULL, &(struct timespec){.tv_nsec = 100000000}) < 0);
  close(jobs[1]);  // the workers finish the remaining jobs and end
  for (int i = 0; i < 2; ++i) pthread_join(worker[i], NULL);
  torvasin_agent_destroy(snmp);
}
