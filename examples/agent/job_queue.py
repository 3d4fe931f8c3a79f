"""The queue of job_queue.c in Python, with the same meters and the same queue.ini."""
import ctypes, queue, random, signal, sys, threading, time

lib = ctypes.CDLL("libtorvasin_agent.so.0")
Handle = type("Handle", (ctypes.c_void_p,), {})  # plain c_void_p would come back as an int
for name, result in dict(create=Handle, gauge=Handle, counter=Handle, fault=ctypes.c_char_p).items():
    getattr(lib, f"torvasin_agent_{name}").restype = result

agent = lib.torvasin_agent_create(b"queue.ini")
length = lib.torvasin_agent_gauge(agent, b"queue.length", b"jobs that wait")
done = lib.torvasin_agent_counter(agent, b"queue.done", b"jobs done since the start")
jobs = queue.SimpleQueue()

def work():
    while (seconds := jobs.get()) is not None:
        lib.torvasin_gauge_add(length, -1)
        time.sleep(seconds)
        lib.torvasin_counter_add(done, 1)

if lib.torvasin_agent_start(agent) != 0:
    sys.exit(lib.torvasin_agent_fault(agent).decode())
signal.pthread_sigmask(signal.SIG_BLOCK, ends := {signal.SIGINT, signal.SIGTERM})
workers = [threading.Thread(target=work) for _ in range(2)]
for worker in workers: worker.start()
while signal.sigtimedwait(ends, 0.1) is None:
    lib.torvasin_gauge_add(length, 1)
    jobs.put(random.uniform(0, 0.37))
for worker in workers: jobs.put(None)
for worker in workers: worker.join()
lib.torvasin_agent_destroy(agent)
