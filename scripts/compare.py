"""The rounds, the walk and the report of scripts/compare, which starts the servers."""

import glob
import subprocess
import sys
import time
from statistics import median

from matplotlib import figure, rcParams

LOAD, MACHINE, ROUNDS, *SERVED, WALKED = sys.argv[1:]  # PORT:PROCESS each, in the order of SERVERS
SERVERS = ["echo", "agent", "snmpd"]
SECONDS = 2  # of one measurement
# What snmpd is asked for: its system group, and its own counters of the snmp group.
ONE = "1.3.6.1.2.1.1.3.0 1.3.6.1.2.1.1.5.0"
TWENTY = " ".join([f"1.3.6.1.2.1.1.{i}.0" for i in range(1, 7)] +
                  [f"1.3.6.1.2.1.11.{i}.0" for i in [1, 3, 4, 5, 6, *range(8, 17)]])
WORKLOADS = {  # arguments of the load generator, and snmpd's OIDs
    "get1": ("get1 --outstanding 32", ONE), "get20": ("get20 --outstanding 32", TWENTY),
    "bulk20": ("bulk20 --outstanding 32", "1.3.6.1.2.1.1"), "single": ("get1 --outstanding 1", ONE)}
THREE = {"GET of 1": "get1", "GET of 20": "get20", "GETBULK of 20": "bulk20"}
# Title of a chart and its table, figure, divisor, digits, and rows with their workloads.
FIGURES = [("Replies per second, thousands", "replies_per_s", 1e3, 0, THREE),
           ("Processor time of a reply, µs (lower is better)", "processor_ns", 1e3, 1, THREE),
           ("Latency, µs (lower is better)", "p50_us", 1, 1, {"GET of 1": "single"})]


def run(command):
    return subprocess.run(command.split(" "), check=True, stdout=subprocess.PIPE, text=True,
                          timeout=120).stdout


def processor_ns(process):
    """Of all its threads, in their system calls too."""
    total = 0
    for path in glob.glob(f"/proc/{process}/task/*/schedstat"):
        with open(path, encoding="utf-8") as schedstat:
            total += int(schedstat.read().split()[0])
    return total


def measure(number, workload, server):
    arguments, oids = WORKLOADS[workload]
    port, process = SERVED[SERVERS.index(server)].split(":")
    aim = {"echo": " --echo", "agent": "", "snmpd": f" --oid {oids}"}[server]
    before = processor_ns(process)
    line = run(f"{LOAD} {arguments} --port {port} --seconds {SECONDS}{aim}")
    found = dict(pair.split("=") for pair in line.split())
    found["processor_ns"] = round((processor_ns(process) - before) / int(found["replies"]))
    print(f"{workload:6} {server:5} processor_ns={found['processor_ns']} {line}", end="", flush=True)
    return {"round": number, "workload": workload, "server": server, **found}


def rounds_of(workload, name, server):
    return [float(m[name]) for m in measured if (m["workload"], m["server"]) == (workload, server)]


def table(title, name, divisor, digits, rows):
    lines = [f"| {title} | {' | '.join(SERVERS)} | agent/echo | agent/snmpd |\n"
             "| --- | ---: | ---: | ---: | ---: | ---: |\n"]
    for row, workload in rows.items():
        echo, agent, snmpd = [rounds_of(workload, name, server) for server in SERVERS]
        cells = [f"{median(of) / divisor:.{digits}f}" for of in (echo, agent, snmpd)]
        for other in (echo, snmpd):
            ratios = [a / b for a, b in zip(agent, other)]
            cells.append(f"{median(ratios):.2f} ({min(ratios):.2f} to {max(ratios):.2f})")
        lines.append(f"| {row} | {' | '.join(cells)} |\n")
    return "".join(lines)


def draw(axes, title, name, divisor, digits, rows):
    """Bars of the medians, with a line from the least to the greatest of the rounds."""
    for i, (server, colour) in enumerate(zip(SERVERS, ["#b9c4cf", "#74afe0", "#edc283"])):
        of = [[n / divisor for n in rounds_of(w, name, server)] for w in rows.values()]
        tops = [median(ns) for ns in of]
        spread = [[t - min(ns) for t, ns in zip(tops, of)], [max(ns) - t for t, ns in zip(tops, of)]]
        bars = axes.bar([at + (i - 1) * 0.3 for at in range(len(rows))], tops, 0.28, yerr=spread,
                        color=colour, ecolor=rcParams["text.color"], label=server)
        axes.bar_label(bars, fmt=f"%.{digits}f", padding=2)
    axes.set_title(title, fontsize="medium")
    axes.set_xticks(range(len(rows)), rows)
    axes.spines[["top", "right"]].set_visible(False)


# In turn, so that whatever else the machine does meets all servers.
print(MACHINE)
measured = [measure(number, workload, SERVERS[(number + turn) % 3])
            for number in range(int(ROUNDS)) for workload in WORKLOADS for turn in range(3)]
begin = time.monotonic()
walk = run(f"snmpbulkwalk -m  -v2c -c public -On -Cr20 127.0.0.1:{WALKED.split(':')[0]} "
           ".1.3.6.1.4.1.32473")
walked = time.monotonic() - begin
tables = "\n".join(table(*of) for of in FIGURES)
print("\n" + tables)
with open("docs/compare.csv", "w", encoding="utf-8") as out:
    for row in [measured[0], *(m.values() for m in measured)]:
        print(*row, sep=",", file=out)
grey = "#767676"  # can be read on white and on black
rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "compare", "text.color": grey,
                 "axes.edgecolor": grey, "axes.labelcolor": grey, "xtick.color": grey,
                 "ytick.color": grey, "errorbar.capsize": 3})
chart = figure.Figure(figsize=(11, 4.2), layout="constrained")
for axes, of in zip(chart.subplots(1, 3, width_ratios=[3, 3, 1.4]), FIGURES):
    draw(axes, *of)
chart.axes[1].legend(frameon=False, loc="upper left")
chart.savefig("docs/compare.svg", transparent=True, metadata={"Date": None})
BY_HAND = "## What a client can cost\n"  # the section that is not written here
with open("docs/compare.md", encoding="utf-8") as old:
    kept = old.read().partition(BY_HAND)[2]
with open("docs/compare.md", "w", encoding="utf-8") as out:
    out.write(f"""# The agent beside a bare echo and snmpd

![Bars of the figures below](compare.svg)

{tables}
`snmpbulkwalk -Cr20` walked {walk.count(": ")} of 10000 items in {walked:.2f} s. In all measurements
{sum(int(m["lost"]) for m in measured)} requests were lost.

## What was measured

- **The echo** sends every datagram back and does nothing else. It makes the agent's two system
  calls, on a second thread as in a host.
- **The agent** runs in `torvasin_host` with its meters, and serves 100 items: in turn a uint, an
  int, a uint with a formula and a string. The OIDs asked for are spread over all of them.
- **snmpd**, the agent of net-snmp, is asked for objects of its own: the system group, and its
  counters in the snmp group. It has many more objects and does more for each, so the ratios say
  what to expect, not whose code is better.

The GETBULK has one OID and 20 repetitions. 32 requests are outstanding; for the latency, the
median, it is one. Processor time is that of all threads of the server, with their system calls. A
busy neighbour on the machine moves it less than the other figures.

## How

`scripts/compare` measures each figure for {SECONDS} s in each of {ROUNDS} rounds, the servers in turn, over
loopback, servers on one processor and the load on another. The tables and bars have the medians
of the rounds. A ratio is the median of the ratios within the rounds, with the least and the
greatest; the lines on the bars go from the least to the greatest too. [The figures of each
round](compare.csv) are kept.

```
{MACHINE}
```

{BY_HAND}{kept}""")
