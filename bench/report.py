"""What the benchmarks found, as lines for a terminal and as Markdown between two marks
of a file. The machine is described by its hardware and system, never by its name."""

import datetime
import os
import re
import subprocess
from pathlib import Path

BEGIN, END = "<!-- results: scripts/bench writes this -->", "<!-- end of the results -->"


def ratio_text(row):
    if row["ratio"] is None or row["unit"]:
        return ""  # a size is compared with the bar itself
    if row["at_least"] is not None:
        return f"{row['ratio']:.2f} times faster"
    return f"{row['ratio']:.3f}" if row["ratio"] < 20 else f"{row['ratio']:.0f}"


def bar_text(row):
    unit = f" {row['unit']}" if row["unit"] else ""
    if row["at_most"] is not None:
        return f"at most {row['at_most']:g}{unit}"
    return f"at least {row['at_least']:g} times" if row["at_least"] is not None else ""


def verdict(row):
    return "" if row["met"] is None else "met" if row["met"] else "MISSED"


def cells(row):
    peer = f"{row['peer_name']}: {row['peer']}" if row["peer"] else row["peer_name"]
    return row["what"], row["ours"], peer, ratio_text(row), bar_text(row), verdict(row)


def show(rows):
    for row in rows:
        what, ours, peer, ratio, bar, met = cells(row)
        judged = f"bar {bar}: {met}" if bar else "no bar"
        print(f"{what}\n    ours {ours}" + (f"; {peer}" if peer else "") +
              f"\n    {ratio}{', ' if ratio else ''}{judged}", flush=True)


def first_line(path, pattern):
    found = re.search(pattern, Path(path).read_text(), re.MULTILINE)
    return found.group(1).strip() if found else "unknown"


def machine():
    memory = int(first_line("/proc/meminfo", r"^MemTotal:\s+(\d+) kB")) / 2**20
    packages = subprocess.run(
        ["dpkg-query", "-W", "-f", "${Package} ${Version}, ", "postfix", "ansible-core", "puppet-agent", "augeas-tools", "gawk"],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout.rstrip(", ")
    return [f"- {os.cpu_count()} processors, {first_line('/proc/cpuinfo', '^model name[ 	]*: (.*)')}; {memory:.0f} GB of memory",
            f"- Linux {os.uname().release}, Debian {Path('/etc/debian_version').read_text().strip()}",
            f"- {packages}"]


def markdown(rows, reasons, quick, seconds):
    date = datetime.datetime.now(datetime.timezone.utc).date()
    lines = [f"Measured on {date}, in {seconds / 60:.0f} minutes" + (", with --quick:" if quick else ":"), "", *machine()]
    name = None
    for row in rows:
        if row["name"] != name:
            name = row["name"]
            lines += ["", f"`{name}`", "", "| what | ours | floor or peer | ratio | bar | |", "|---|---|---|---|---|---|"]
        lines.append("| " + " | ".join(cell.replace("|", "\\|") for cell in cells(row)) + " |")
    if reasons:
        lines += ["", *(f"Not measured: {reason}" for reason in reasons)]
    judged = [row["met"] for row in rows if row["met"] is not None]
    return [*lines, "", f"{sum(judged)} of {len(judged)} bars met."]


def write(path, rows, reasons, quick, seconds):
    """Replaces what is between the two marks of the file; a file without them is
    overwritten."""
    block = "\n".join([BEGIN, "", *markdown(rows, reasons, quick, seconds), "", END])
    text = path.read_text() if path.exists() else ""
    head, begin, rest = text.partition(BEGIN)
    _, end, tail = rest.partition(END)
    path.write_text(head + block + tail if begin and end else block + "\n")
