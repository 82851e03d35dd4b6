"""Other programs that bring Postfix to the same state as a first run, generated from the
commands that such a run started, so that none of them is ever out of date.

Each is written the way its users write it, and is as fast as that allows: none of them
waits for Postfix, whose programs sleep while main.cf is younger than two seconds.
"""

import json
import pprint
import re
import shlex

MAIN_CF = "/etc/postfix/main.cf"
MASTER_CF = "/etc/postfix/master.cf"
DIRECTORY = "/var/spool/postfix/torva"
COLUMNS = ("type", "private", "unprivileged", "chroot", "wakeup", "limit", "command")


class Wish:
    """The state to reach. commands: (argument vector, input) of each command of a run;
    before, after: the texts of master.cf."""

    def __init__(self, commands, before, after):
        self.commands, self.before, self.after = commands, before, after
        self.settings = dict(argv[2].split("=", 1) for argv, _ in commands if argv[1] == "-e")
        # A command that occurs twice is needed only once by somebody who knows the end state.
        self.builds = [(argv, given) for number, (argv, given) in enumerate(commands)
                       if argv[0].endswith(("postmap", "postalias")) and (argv, given) not in commands[:number]]
        self.tables = sorted({argv[-1].split(":", 1)[1] for argv, _ in self.builds if DIRECTORY in argv[-1]})

    def new_services(self):
        """The services that a run changes or adds: (name, type, line, whether it is there)."""
        old = services_of(self.before)
        return [(name, kind, text, (name, kind) in old) for (name, kind), text in services_of(self.after).items()
                if old.get((name, kind)) != text]


def services_of(text):
    """The services of a master.cf by name and type, each on one line."""
    found = {}
    for line in re.sub(r"\n[ \t]+", " ", text).splitlines():
        if line and line[0] not in "# \t":
            found[tuple(line.split()[:2])] = line
    return found


def shell(wish):
    lines = ["#!/bin/sh", "set -e", f"mkdir -p {DIRECTORY}"]
    lines += [f": >{table}" for table in wish.tables]
    for argv, given in wish.commands:
        line = shlex.join(argv)
        lines.append(f"{line} <<'END'\n{given}END" if given else f"{line} >/dev/null </dev/null")
        if argv[1] == "-e":
            lines.append(f"touch -d '-10 seconds' {MAIN_CF}")
    lines.append(f"cat >{MASTER_CF}.new <<'END'\n{wish.after}END\nmv {MASTER_CF}.new {MASTER_CF}\n")
    return {"peer.sh": "\n".join(lines)}


PYTHON = '''import os, subprocess, time
from pathlib import Path

def run(argv, given):
    subprocess.run(argv, input=given, text=True, check=True, stdout=subprocess.PIPE)
    if argv[1] == "-e":
        past = time.time() - 10
        os.utime({main_cf!r}, (past, past))

os.makedirs({directory!r}, exist_ok=True)
for table in {tables}:
    Path(table).write_text("")
for argv, given in {commands}:
    run(argv, given)
Path({master_cf!r} + ".new").write_text({after!r})
os.rename({master_cf!r} + ".new", {master_cf!r})
'''


def python(wish):
    return {"peer.py": PYTHON.format(main_cf=MAIN_CF, master_cf=MASTER_CF, directory=DIRECTORY, tables=wish.tables,
                                     commands=pprint.pformat(wish.commands), after=wish.after)}


def ansible(wish):
    """A play of one task for each table, command, setting and service."""
    tasks = [{"ansible.builtin.file": {"path": DIRECTORY, "state": "directory"}}]
    tasks += [{"ansible.builtin.copy": {"dest": table, "content": ""}} for table in wish.tables]
    for argv, given in wish.builds:
        command = {"argv": argv}
        if given:
            command |= {"stdin": given, "stdin_add_newline": False}
        tasks.append({"ansible.builtin.command": command})
    for name, value in wish.settings.items():
        tasks.append({"ansible.builtin.lineinfile":
                      {"path": MAIN_CF, "regexp": rf"^{name}\s*=", "line": f"{name} = {value}"}})
    for name, kind, text, there in wish.new_services():
        pattern = rf"(?m)^{re.escape(name)}\s+{kind}\s.*(\n[ \t].*)*"
        tasks.append({"ansible.builtin.replace": {"path": MASTER_CF, "regexp": pattern, "replace": text}} if there else
                     {"ansible.builtin.lineinfile": {"path": MASTER_CF, "line": text}})
    # JSON is YAML, too.
    play = {"hosts": "localhost", "gather_facts": False, "tasks": tasks}
    return {"peer.yml": json.dumps([play], indent=1)}


def quoted(text):
    """A string in Puppet's language."""
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


def puppet(wish):
    """A manifest of one resource for each table, command and setting, and master.cf
    as a file: a line of file_line cannot take the place of several."""
    files = {}
    lines = [f"file {{ {quoted(DIRECTORY)}: ensure => directory }}"]
    lines += [f"file {{ {quoted(table)}: content => '' }}" for table in wish.tables]
    for number, (argv, given) in enumerate(wish.builds):
        command = shlex.join(argv)
        if given:
            files[f"records.{number}"] = given
            command = shlex.join(["/bin/sh", "-c", f"{command} </run/bench/records.{number}"])
        lines.append(f"exec {{ {quoted(command)}: }}")
    for name, value in wish.settings.items():
        lines.append(f"file_line {{ {quoted(name)}: path => {quoted(MAIN_CF)}, match => {quoted(f'^{name}[ ]*=')}, "
                     f"line => {quoted(f'{name} = {value}')} }}")
    lines.append(f"file {{ {quoted(MASTER_CF)}: content => {quoted(wish.after)} }}")
    return {"peer.pp": "\n".join(lines) + "\n", **files}


def augtool(wish):
    """The commands that augtool cannot replace, and its script for the two files."""
    lines = ["#!/bin/sh", "set -e", f"mkdir -p {DIRECTORY}"]
    lines += [f": >{table}" for table in wish.tables]
    for argv, given in wish.builds:
        lines.append(shlex.join(argv) + (f" <<'END'\n{given}END" if given else ""))
    lines.append("exec augtool --noautoload -t 'Postfix_Main incl /etc/postfix/main.cf' "
                 "-t 'Postfix_Master incl /etc/postfix/master.cf' -f /run/bench/peer.aug\n")
    script = [f'set /files{MAIN_CF}/{name} "{value}"' for name, value in wish.settings.items()]
    for name, kind, text, there in wish.new_services():
        fields = text.split(None, 1)[1].split(None, len(COLUMNS) - 1)
        node = f"/files{MASTER_CF}/*[label()='{name}'][type='{kind}']"
        if not there:
            script.append(f"set /files{MASTER_CF}/{name}[last()+1]/type {kind}")
        script += [f'set "{node}/{column}" "{field}"' for column, field in zip(COLUMNS, fields)]
    return {"peer.augtool.sh": "\n".join(lines), "peer.aug": "\n".join([*script, "save", ""])}


# Name, files, command, the bar, rounds.
PEERS = (
    ("a shell script of the same commands", shell, ("/bin/sh", "/run/bench/peer.sh"), {"at_least": 1}, 15),
    ("a Python script of the same commands", python, ("/usr/bin/python3", "/run/bench/peer.py"), {"at_least": 1}, 15),
    ("Ansible", ansible, ("/usr/bin/ansible-playbook", "-i", "localhost,", "-c", "local",
                          "-e", "ansible_python_interpreter=/usr/bin/python3", "/run/bench/peer.yml"), {"at_least": 25}, 3),
    ("puppet", puppet, ("/usr/bin/puppet", "apply", "--modulepath", "/usr/share/puppet/modules",
                        "/run/bench/peer.pp"), {"at_least": 5}, 5),
    ("augtool and the commands for the tables", augtool, ("/bin/sh", "/run/bench/peer.augtool.sh"), {}, 10),
)
