"""Runs commands as the documents show them, beside an agent that serves the example, and says when
two outputs count as the same. Used by check_docs.py and pictures.py, at the top of the tree."""

import contextlib
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import time

ADDRESS = "127.0.0.1:1161"  # of the agent, in the documents
START = "torvasin_host --conf-file config/snmpmanager.ini &"
END = "-- end of a command --"


def start_agent(scratch):
    for port in random.sample(range(20000, 40000), 20):
        file, log = pathlib.Path(scratch, "agent.ini"), pathlib.Path(scratch, "agent.log")
        file.write_text(f"[General]\ninclude = config/snmpmanager.ini\nport = {port}\n")
        with log.open("w") as out:
            agent = subprocess.Popen(["torvasin_host", "--conf-file", file], stderr=out)
        time.sleep(2)  # for the first values of all meters
        if agent.poll() is None:
            return agent, {ADDRESS: f"127.0.0.1:{port}", "2161": str(port + 1), START: f"cat {log}"}
    sys.exit("scripts/session.py: no agent to ask")


@contextlib.contextmanager
def beside_agent():
    """Yields a scratch directory and, for run(), what stands for the words of a document: the
    address of this agent, a free port, and the log of this agent for the command that starts it."""
    with tempfile.TemporaryDirectory() as scratch:
        pathlib.Path(scratch, "cert_indexes").mkdir()  # net-snmp tells of directories that it makes
        os.environ["SNMP_PERSISTENT_DIR"] = scratch
        os.environ["TMPDIR"] = scratch
        agent, stand_ins = start_agent(scratch)
        try:
            yield scratch, stand_ins
        finally:
            agent.terminate()
            agent.wait()


def run(commands, stand_ins):
    """Returns what each command of the session printed. A command ends with a line feed."""
    script = "".join(f"{command}printf '\\n{END}\\n'\n" for command in commands)
    for shown, real in stand_ins.items():
        script = script.replace(shown, real)
    printed = subprocess.run(["bash", "-c", script], stdout=subprocess.PIPE, timeout=120,
                             stderr=subprocess.STDOUT, text=True, errors="replace").stdout
    outputs = printed.split(f"\n{END}\n") + [""] * len(commands)
    return outputs[:len(commands)]


def comparable(output):
    """Numbers (not OIDs) and texts in quotes may differ."""
    output = re.sub(r'"[^"\n]*"', '""', output)
    output = re.sub(r"(?<![\w.])-?\d+(\.\d+)?(e[+-]?\d+)?(?![\w.])", "0", output)
    return re.sub(r"[ \t]+", " ", output)
