"""The rounds, the walk and the report of scripts/compare, which starts the servers."""

import subprocess
import sys
import time
from statistics import median

from matplotlib import figure, rcParams

LOAD, ROUNDS, *PORTS, WALKED = sys.argv[1:]  # PORTS in the order of SERVERS
SERVERS = ["echo", "agent", "snmpd"]
SECONDS = 2  # of one measurement
# What snmpd is asked for: its system group, and its own counters of the snmp group.
ONE = "1.3.6.1.2.1.1.3.0 1.3.6.1.2.1.1.5.0"
TWENTY = " ".join([f"1.3.6.1.2.1.1.{i}.0" for i in range(1, 7)] +
                  [f"1.3.6.1.2.1.11.{i}.0" for i in [1, 3, 4, 5, 6, *range(8, 17)]])
WORKLOADS = {  # arguments of the load generator, and snmpd's OIDs
    "get1": ("get1 --outstanding 32", ONE), "get20": ("get20 --outstanding 32", TWENTY),
    "bulk20": ("bulk20 --outstanding 32", "1.3.6.1.2.1.1"), "single": ("get1 --outstanding 1", ONE)}
# Title, workload, figure, and the bars that the ratios to the echo and to snmpd have to meet.
RATES = [("GET of 1", "get1", "replies_per_s", 0.88, 5),
         ("GET of 20", "get20", "replies_per_s", 0.60, 5),
         ("GETBULK of 20", "bulk20", "replies_per_s", 0.48, 5)]
LATENCIES = [("GET of 1, p50", "single", "p50_us", 1.05, None)]


def run(command):
    return subprocess.run(command.split(" "), check=True, stdout=subprocess.PIPE, text=True,
                          timeout=120).stdout


def measure(number, workload, server):
    arguments, oids = WORKLOADS[workload]
    aim = {"echo": " --echo", "agent": "", "snmpd": f" --oid {oids}"}[server]
    line = run(f"{LOAD} {arguments} --port {PORTS[SERVERS.index(server)]} --seconds {SECONDS} "
               f"--spin{aim}")
    print(f"{workload:6} {server:5} {line}", end="", flush=True)
    return {"round": number, "workload": workload, "server": server,
            **dict(pair.split("=") for pair in line.split())}


def of_server(workload, name, server):
    return [float(m[name]) for m in measured if (m["workload"], m["server"]) == (workload, server)]


def table(head, rows, digits):
    lines = [f"| {head} | echo | agent | snmpd | agent/echo | agent/snmpd |\n"
             "| --- | ---: | ---: | ---: | ---: | ---: |\n"]
    for title, workload, name, *bars in rows:
        echo, agent, snmpd = [of_server(workload, name, server) for server in SERVERS]
        cells = [f"{median(of):.{digits}f}" for of in (echo, agent, snmpd)]
        for other, bar in zip((echo, snmpd), bars):
            ratios = [a / b for a, b in zip(agent, other)]
            cells.append(f"{median(ratios):.2f} ({min(ratios):.2f} to {max(ratios):.2f})")
            if bar:
                met = median(ratios) >= bar if name == "replies_per_s" else median(ratios) <= bar
                cells[-1] += f", {bar} {'met' if met else 'MISSED'}"
        lines.append(f"| {title} | {' | '.join(cells)} |\n")
    return "".join(lines)


# In turn, so that whatever else the machine does meets all servers.
measured = [measure(number, workload, SERVERS[(number + turn) % 3])
            for number in range(int(ROUNDS)) for workload in WORKLOADS for turn in range(3)]
begin = time.monotonic()
walk = run(f"snmpbulkwalk -m  -v2c -c public -On -Cr20 127.0.0.1:{WALKED} .1.3.6.1.4.1.32473")
report = f"""{table("replies/s", RATES, 0)}
{table("latency of one outstanding, µs", LATENCIES, 1)}
Requests lost: {sum(int(m["lost"]) for m in measured)}. A walk of 10000 items by snmpbulkwalk -Cr20:
{walk.count(": ")} items in {time.monotonic() - begin:.2f} s.
"""
print("\n" + report)
with open("docs/compare.csv", "w", encoding="utf-8") as out:
    for row in [measured[0], *(m.values() for m in measured)]:
        print(*row, sep=",", file=out)
rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "compare"})
chart = figure.Figure(figsize=(9, 4.2), layout="constrained")
for axes, rows, unit, form, title in zip(
        chart.subplots(1, 2, width_ratios=[2, 1]), [RATES, LATENCIES], [1e3, 1],
        ["%.0f", "%.1f"], ["Thousands of replies per second", "Latency of one outstanding, µs"]):
    for i, (server, colour) in enumerate(zip(SERVERS, ["#a9b4c0", "#1f6fb4", "#e0a458"])):
        heights = [median(of_server(*row[1:3], server)) / unit for row in rows]
        places = [place + (i - 1) * 0.27 for place in range(len(rows))]
        axes.bar_label(axes.bar(places, heights, 0.25, color=colour, label=server), fmt=form)
    axes.set_title(title)
    axes.set_xticks(range(len(rows)), [row[0] for row in rows])
chart.axes[0].legend(frameon=False)
chart.savefig("docs/compare.svg", metadata={"Date": None})
with open("docs/compare.md", "w", encoding="utf-8") as out:
    out.write(f"""# The agent beside a bare echo and snmpd

Medians of {ROUNDS} rounds of {SECONDS} s a figure, over loopback, 32 requests outstanding where not
one. A ratio is the median of those within the rounds, with the least and the greatest; of latencies,
less is better. The echo sends back what the agent is asked; the agent serves 100 items. Written by
`scripts/compare`, with [the figures of each round](compare.csv).

{report}
![Bars of the medians](compare.svg)
""")
