"""What scripts/check-docs does when all it needs is there, from the top of the tree.

- docs/messages.md has each message of level 2 to 4 that the module logs, under its source and
  level, and no other. Messages of the request decoder are explained there as a group.
- docs/configuration.md has a row for each key of the configuration.
- Files, headings and paths that a document refers to exist.
- The commands of ```console blocks print what the block shows. Those of a document are one session,
  which begins at the top of the tree, beside an agent that serves the example. 127.0.0.1:1161 in a
  command stands for this agent, 2161 for a free port. Numbers (not OIDs) and texts in quotes may
  differ. "..." stands for anything, alone on a line for any lines.
- docs/terminal.svg shows what its commands print, by the same rule.
"""

import itertools
import os
import pathlib
import re
import subprocess
import sys

import pictures
import session

DOCUMENTS = [*pathlib.Path(".").glob("*.md"), *pathlib.Path(".").glob("docs/*.md"),
             *pathlib.Path(".").glob("examples/**/*.md")]
LITERALS = r'(?:\s*"(?:[^"\\]|\\.)*")+'


def logged():
    for path in pathlib.Path("src/module/snmp").glob("**/*.cpp"):
        code = path.read_text()
        key_line = re.search(rf'#define KEY_LOG.*\\\s+SNMP_LOG\(level, ({LITERALS})', code)
        code = re.sub(r"// -+ Request decoder.*?(?=\n// -+ )", "", code, flags=re.S)
        for call, level, literals in re.findall(
                rf"(SNMP_LOG|KEY_LOG|REFUSE)\((?:(\w+),)?(?: line,)?({LITERALS})", code):
            if level not in ("TRACE", "level"):
                literals = (key_line.group(1) if call == "KEY_LOG" else "") + literals
                text = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals))
                yield f"{path.with_suffix('')}: {(level or 'ERROR').lower()} `{text}`"


def documented():
    for section in re.split(r"^## ", pathlib.Path("docs/messages.md").read_text(), flags=re.M)[1:]:
        for level, text in re.findall(r"^\| (warning|error|failure) \| (`[^`]*`)", section, re.M):
            yield f"{section.split('`')[1]}: {level} {text}"


def message_faults():
    code, text = set(logged()), set(documented())
    yield from (f"docs/messages.md lacks {message}" for message in sorted(code - text))
    yield from (f"docs/messages.md is alone with {message}" for message in sorted(text - code))


def key_faults():
    text = pathlib.Path("docs/configuration.md").read_text()
    tables = re.findall(r"^\| Key \|.*\n((?:\|.*\n)*)", text, re.M)
    rows = re.findall(r"^\| `(\w+)` \|", "".join(tables), re.M)
    code = pathlib.Path("src/module/snmp/config_keys.h").read_text()
    names = " ".join(re.findall(r"_key_names\[\] = \{(.*?)\}", code, re.S))
    yield from (f"docs/configuration.md lacks the key {key}"
                for key in re.findall(r'"(\w+)"', names) if key not in rows)


def anchors(document):
    for heading in re.findall(r"^#+ (.*)", document.read_text(), re.M):
        yield re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def reference_faults(document):
    prose = re.sub(r"^```.*?^```", "", document.read_text(), flags=re.M | re.S)
    for link, anchor in re.findall(r"\]\(([^)#:\s]*)#?([^)\s]*)\)", prose):
        target = document.parent / link if link else document
        if not target.exists() or anchor and anchor not in anchors(target):
            yield f"{document} links to {link}#{anchor}, which does not exist"
    for path in re.findall(r"`([\w.-]+(?:/[\w.-]+)+)/?`", prose):
        if not path.startswith("build/") and not any(pathlib.Path(".").glob(path + "*")):
            yield f"{document} names {path}, which does not exist"


def pattern(shown):
    shown = re.escape(re.sub(r"\s*\n", "\n", session.comparable(shown)))
    return re.sub(r"(?m)^\\\.\\\.\\\.\\\n", "(?s:.*)", shown).replace(r"\.\.\.", ".*")


def command_faults(document, stand_ins):
    blocks = re.findall(r"^```console\n(.*?)^```", document.read_text(), re.M | re.S)
    commands = re.findall(r"^\$ ((?:.*\\\n)*.*\n)((?:(?!\$ ).*\n)*)", "".join(blocks), re.M)
    outputs = session.run([command for command, _ in commands], stand_ins)
    for (command, shown), output in zip(commands, outputs):
        if not re.fullmatch(pattern(shown), re.sub(r"\s*\n", "\n", session.comparable(output))):
            yield f"{document}: {command}prints\n{output}"


def picture_faults(stand_ins):
    shown = pathlib.Path(pictures.PICTURE).read_text().split("\n")
    for line, now in itertools.zip_longest(shown, pictures.terminal(stand_ins).split("\n")):
        if session.comparable(line or "") != session.comparable(now or ""):
            yield f"{pictures.PICTURE} is stale, scripts/pictures draws it anew:\n{line}\n{now}"
            return


def all_faults():
    yield from message_faults()
    yield from key_faults()
    with session.beside_agent() as (scratch, stand_ins):
        subprocess.run(["cmake", "--install", "build/default", "--prefix", f"{scratch}/usr"],
                       stdout=subprocess.DEVNULL, check=True)
        os.environ["PKG_CONFIG_PATH"] = str(*pathlib.Path(scratch).glob("usr/**/pkgconfig"))
        os.environ["LD_LIBRARY_PATH"] = os.path.dirname(os.environ["PKG_CONFIG_PATH"])
        yield from picture_faults(stand_ins)
        for document in DOCUMENTS:
            yield from reference_faults(document)
            yield from command_faults(document, stand_ins)


faults = list(all_faults())
sys.exit("\n".join(faults) if faults else 0)
