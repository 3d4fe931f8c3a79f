"""What scripts/pictures does when all it needs is there, from the top of the tree: it runs a session
and draws it as a terminal."""

import html
import re
import textwrap

import session

PICTURE = "docs/terminal.svg"
COMMANDS = [f"{session.START}\n",
            f"snmpwalk -v2c -c public -On {session.ADDRESS} .1.3.6.1.4.1.32473.1\n",
            f"snmpget -v2c -c public -On {session.ADDRESS} .1.3.6.1.4.1.32473.4.3.0\n",
            "cat -n examples/faulty.ini\n",
            "torvasin_config check examples/faulty.ini\n"]
COLUMNS, COLUMN, LINE, MARGIN = 100, 7.83, 18, 14  # characters; the rest in pixels
STYLE = """
    text { font: 13px 'DejaVu Sans Mono', 'Liberation Mono', Menlo, Consolas, monospace;
           fill: #d0d7de; white-space: pre }
    .prompt { fill: #56d364 }
    .command { fill: #ffffff; font-weight: bold }
    .error { fill: #ff7b72; font-weight: bold }
    .warning { fill: #e3b341; font-weight: bold }
"""


def lines(stand_ins):
    """The lines of the terminal, as SVG."""
    for command, output in zip(COMMANDS, session.run(COMMANDS, stand_ins)):
        yield ('<tspan class="prompt">$ </tspan>'
               f'<tspan class="command">{html.escape(command.strip(), quote=False)}</tspan>')
        output = output.replace(stand_ins[session.ADDRESS], session.ADDRESS).expandtabs()
        for line in output.rstrip("\n").split("\n"):
            for part in textwrap.wrap(line, COLUMNS, drop_whitespace=False) or [""]:
                yield re.sub(r"(?:\b\d+ )?\b(error|warning)s?\b", r'<tspan class="\1">\g<0></tspan>',
                             html.escape(part, quote=False))


def terminal(stand_ins):
    drawn = list(lines(stand_ins))
    width, height = round(COLUMNS * COLUMN) + 2 * MARGIN, len(drawn) * LINE + 2 * MARGIN
    text = "\n".join(f'  <text xml:space="preserve" x="{MARGIN}" y="{MARGIN + 14 + i * LINE}">'
                     f"{line}</text>" for i, line in enumerate(drawn))
    return f"""<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}"
     viewBox="0 0 {width} {height}" role="img">
  <title>A terminal: the agent starts and answers, and a faulty configuration is checked</title>
  <style>{STYLE}  </style>
  <rect width="{width}" height="{height}" rx="8" fill="#1c2128"/>
{text}
</svg>
"""


if __name__ == "__main__":
    with session.beside_agent() as (_, the_stand_ins), open(PICTURE, "w", encoding="utf-8") as out:
        out.write(terminal(the_stand_ins))
