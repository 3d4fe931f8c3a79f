"""The measurements and the report of scripts/compare, which starts the servers."""

import glob
import json
import subprocess
import sys
import textwrap
import time
from statistics import median

from matplotlib import figure, rcParams

BIN, MACHINE, COMMIT, ROUNDS, *SERVED, WALKED = sys.argv[1:]  # PORT:PROCESS, in SERVERS' order
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
FIGURES = [("Replies per second, thousands (higher is better)", "replies_per_s", 1e3, 0, THREE),
           ("Processor time of a reply, µs (lower is better)", "processor_ns", 1e3, 1, THREE),
           ("Latency, µs (lower is better)", "p50_us", 1, 1, {"GET of 1": "single"})]
# What the benchmark answers in process from tables of several sizes, and its names for it.
REQUESTS = {"GET of 1": "get1", "GETNEXT of 1": "next1", "20 × GETNEXT of 1.3": "first20"}
SIZES = [10, 100, 1000, 10000]
REPETITIONS = 7

grey = "#767676"  # can be read on white and on black
rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "compare", "text.color": grey,
                 "axes.edgecolor": grey, "axes.labelcolor": grey, "xtick.color": grey,
                 "ytick.color": grey, "errorbar.capsize": 3})
SAVING = {"transparent": True, "metadata": {"Date": None}}


def run(command):
    return subprocess.run(command.split(" "), check=True, stdout=subprocess.PIPE, text=True,
                          timeout=600).stdout


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
    line = run(f"{BIN}/load {arguments} --port {port} --seconds {SECONDS}{aim}")
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
    axes.set_title(title.replace(" (", "\n("), fontsize="medium")
    axes.set_xticks(range(len(rows)), rows)
    axes.spines[["top", "right"]].set_visible(False)


def chart_bars(file, size, panels, legend):
    chart = figure.Figure(figsize=size, layout="constrained")
    ratios = [len(panel[-1]) + 0.1 for panel in panels]  # a group of bars is as wide in each panel
    chart.subplots(1, len(panels), width_ratios=ratios)
    for axes, panel in zip(chart.axes, panels):
        draw(axes, *panel)
    chart.axes[legend].legend(frameon=False, loc="upper left")
    chart.savefig(file, **SAVING)


def times_us():
    """The least processor time of the repetitions, by request and size."""
    found = json.loads(run(f"{BIN}/agent_bench --benchmark_format=json --benchmark_min_time=0.1 "
                           f"--benchmark_repetitions={REPETITIONS} "
                           f"--benchmark_filter=^pipeline/({'|'.join(REQUESTS.values())})/10+$"))
    return {request: [min(one["cpu_time"] for one in found["benchmarks"]
                          if one["name"] == f"pipeline/{name}/{size}") / 1e3 for size in SIZES]
            for request, name in REQUESTS.items()}


def readable(number):
    """With two or three digits that count."""
    return f"{number:,.{2 if number < 1 else 1 if number < 10 else 0}f}"


def chart_items(times):
    chart = figure.Figure(figsize=(7.6, 4), layout="constrained")
    axes = chart.subplots()
    looks = [("#4a94d0", "o", -15), ("#3fa372", "s", 6), ("#d98f3a", "D", 6)]
    for (request, of), (colour, mark, above) in zip(times.items(), looks):
        axes.loglog(SIZES, of, color=colour, marker=mark, label=request)
        for at in zip(SIZES, of):
            axes.annotate(readable(at[1]), at, (0, above), textcoords="offset points", ha="center")
    axes.set_title("Processor time of a request, µs (lower is better)", fontsize="medium")
    axes.set_xlabel("items in the table")
    for axis in axes.xaxis, axes.yaxis:
        axis.set_major_formatter("{x:,g}")
    axes.set_ylim(min(map(min, times.values())) / 3, max(map(max, times.values())) * 3)
    axes.spines[["top", "right"]].set_visible(False)
    axes.legend(frameon=False, loc="upper left")
    chart.savefig("docs/items.svg", **SAVING)


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
times = times_us()
few, many = ({request: of[at] for request, of in times.items()} for at in (0, -1))
items = "".join(f"| {' | '.join([request, *map(readable, of)])} |\n"
                for request, of in times.items())
print(items)
large = textwrap.fill(
    f"With {SIZES[-1]:,} items instead of {SIZES[0]}, a GET of 1 takes "
    f"{readable(many['GET of 1'] - few['GET of 1'])} µs longer and a GETNEXT of 1 "
    f"{readable(many['GETNEXT of 1'] - few['GETNEXT of 1'])} µs longer. `snmpbulkwalk -Cr20` walked "
    f"{walk.count(': '):,} of {SIZES[-1]:,} items in {walked:.2f} s.", 100, break_on_hyphens=False)
with open("docs/compare.csv", "w", encoding="utf-8") as out:
    for row in [measured[0], *(m.values() for m in measured)]:
        print(*row, sep=",", file=out)
chart_bars("docs/compare.svg", (11, 4.2), FIGURES, 1)
chart_bars("docs/compare-cpu.svg", (6.5, 3.4), FIGURES[1:2], 0)
chart_items(times)
with open("docs/compare.md", "w", encoding="utf-8") as out:
    out.write(f"""# The agent beside a bare echo and snmpd

Measured on {time.strftime("%Y-%m-%d", time.gmtime())}, at commit {COMMIT}.

![Bars of the figures in the tables below](compare.svg)

- **Echo** is a server that only sends each datagram back: it shows what the system itself costs.
- A **GET of 1** or **20** asks for that many OIDs in one request. A **GETBULK of 20** asks for one
  OID with 20 repetitions.
- A bar is the median of {ROUNDS} rounds. Its **whisker** runs from the lowest round to the highest.

{tables}
In all measurements, {sum(int(m["lost"]) for m in measured)} requests were lost.

## What was measured

- **The echo** makes the same two system calls as the agent, on a second thread as in a host.
- **The agent** runs in `torvasin_host` with its meters and serves 100 items: in turn a uint, an
  int, a uint with a formula and a string. The requests are spread over all of them.
- **snmpd**, the agent of net-snmp, is asked for objects of its own: the system group, and its
  counters in the snmp group. It has many more objects and does more for each, so the ratios say
  what to expect, not whose code is better.

The load keeps 32 requests outstanding, or a single one to measure latency, which is given as a
median. Processor time covers all threads of the server, including their system calls. A busy
neighbour on the machine affects it less than the other figures.

## How

`scripts/compare` measures each figure for {SECONDS} s in each round and takes the servers in turn.
Everything runs over loopback, the servers on one processor and the load on another. The tables
show medians of the rounds. Each ratio is the median of the ratios within the rounds, followed by
the lowest and the highest. [compare.csv](compare.csv) lists the figures of each round.

```
{MACHINE}
```

## What a client can cost

![Lines: the times in the table below rise with the number of items](items.svg)

A lookup scans the whole table, so a request takes longer the more items there are. This is the
processor time inside the agent, without system calls:

| Processor time of a request, µs | {' | '.join(f"{size:,} items" for size in SIZES)} |
| --- | ---: | ---: | ---: | ---: |
{items}
{large}

A GETNEXT costs most when every item may be its answer, as for 1.3, where many walks begin. The
last row has 20 of them in one request. A GETBULK of 20 OIDs can make up to 40 lookups; the most
expensive one that we found takes 1.3 times as long. Meter callbacks wait meanwhile. The order of
the items in the file does not matter. These are the lowest of {REPETITIONS} runs of `scripts/bench`.
""")
