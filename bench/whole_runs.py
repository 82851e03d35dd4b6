"""Whole runs of torva-postfix-setup: compared with only the commands that it starts, with
other programs that configure the same, with many descriptors; and their memory."""

import json
import shutil
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "run"))
import runworld
from peers import generate
from rounds import BENCH, NotMeasured, by_turns, compare, memory, note, timed
from runworld import FAKE, MAIN_CF, MASTER_CF, TABLES, TORVA, RealWorld, remove

TOOLS = ("postconf", "postmap", "postalias")
ASIDE = Path("/run/aside")


class Runs:
    """A world in which every side finds the same state. kind: "real" or "stub", which
    tools of Postfix are in it."""

    def __init__(self, programs, kind):
        runworld.refuse_outside_sandbox()
        self.program, self.floor = programs / "torva-postfix-setup", programs / "run_floor"
        self.faketool = programs / "faketool"
        ASIDE.mkdir(exist_ok=True)
        for name in (*TOOLS, "hostname"):
            if not (ASIDE / f"real-{name}").exists():
                shutil.copy2(shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin"), ASIDE / f"real-{name}")
            shutil.copy2(programs / "stub_tool", ASIDE / f"stub-{name}")
        self.tools = str(ASIDE / (kind + "-{}"))
        self.world = RealWorld()
        self.record()

    def reset(self):
        self.put_tools(str(ASIDE / "real-{}"))
        self.world.reset()
        self.world.shelter()
        self.world.settle()
        self.put_tools(self.tools)

    def put_tools(self, pattern):
        for name in TOOLS:
            path = Path("/usr/sbin") / name
            remove(path)
            shutil.copy2(pattern.format(name), path)

    def record(self):
        """Which commands a first and a second run start, written for run_floor."""
        self.reset()
        self.commands = {}
        for number in ("first", "second"):
            remove(FAKE)
            FAKE.mkdir()
            rules = (f"tool={name}\texec={self.tools.format(name)}\n" for name in TOOLS)
            (FAKE / "rules").write_text("".join(rules) + f"tool=hostname\texec={ASIDE / 'real-hostname'}\n")
            for path in [*(Path("/usr/sbin") / name for name in TOOLS), Path("/usr/bin/hostname")]:
                remove(path)
                shutil.copy(self.faketool, path)
            timed(self.program)
            calls = [json.loads(line) for line in (FAKE / "log").read_text().splitlines()]
            self.commands[number] = [(call["argv"], call["stdin"]) for call in calls]
            self.write_commands(number)
            note(f"{number} run: {len(calls)} commands")
            self.world.settle()
        remove("/usr/bin/hostname")
        shutil.copy2(ASIDE / "real-hostname", "/usr/bin/hostname")
        self.master_cf = MASTER_CF.read_bytes()

    def write_commands(self, number):
        with open(BENCH / number, "wb") as file:
            for words, given in self.commands[number]:
                if words[0].endswith(("postalias", "hostname")):
                    words = ["/bin/sh", "-c", " ".join(words)]  # as the program starts these
                for field in (str(len(words)), *words, given):
                    file.write(field.encode("latin-1") + b"\0")

    def program_side(self):
        self.reset()
        return timed(self.program), timed(self.program)

    def floor_side(self):
        self.reset()
        TORVA.mkdir()
        for name in TABLES:
            (TORVA / name).touch()
        first = timed(self.floor, BENCH / "first", MAIN_CF)
        MASTER_CF.write_bytes(self.master_cf)
        return first, timed(self.floor, BENCH / "second", MAIN_CF)

    def first_run(self, **how):
        self.reset()
        return timed(self.program, **how)


def against_floor(programs, rounds, kind, name, bar):
    runs = Runs(programs, kind)
    ours, theirs = by_turns(rounds, runs.program_side, runs.floor_side)
    for index, number in enumerate(("first", "second")):
        compare(f"{number} run, {name}", "the same commands by posix_spawn",
                [pair[index] for pair in ours], [pair[index] for pair in theirs], at_most=bar)


def whole_run(programs, quick):
    against_floor(programs, 5 if quick else 25, "real", "Postfix's tools", 1.10)


def stub_run(programs, quick):
    against_floor(programs, 5 if quick else 40, "stub", "static stubs as tools", 1.5)


def descriptors(programs, quick):
    for kind, name, rounds in (("real", "Postfix's tools", 25), ("stub", "static stubs as tools", 40)):
        runs = Runs(programs, kind)
        sides = (lambda: runs.first_run(descriptors=20000), lambda: runs.first_run(descriptors=1024))
        compare(f"first run at RLIMIT_NOFILE 20,000, {name}", "at 1,024",
                *by_turns(5 if quick else rounds, *sides), at_most=1.05)


def peak_memory(programs, quick):
    """With stubs, whose memory is next to nothing: time(1) counts the highest peak of
    the program and of all that it starts."""
    for kind, name in (("stub", "of the run alone"), ("real", "of the run and its tools, the largest of them")):
        runs = Runs(programs, kind)
        runs.reset()
        out = BENCH / "peak"
        timed("/usr/bin/time", "-f", "%M", "-o", out, runs.program)
        memory(f"peak memory {name}", int(out.read_text()), 12)


class EndState:
    """What a run leaves behind, as Postfix reads it."""

    def __init__(self, world):
        world.settle()
        self.settings = world.values()
        services = world.tool("/usr/sbin/postconf", "-M").stdout.replace("\n ", " ").splitlines()
        self.services = sorted(" ".join(line.split()) for line in services)
        self.tables = {name: sorted(world.tool("/usr/sbin/postmap", "-s", f"hash:{TORVA / name}").stdout.splitlines())
                       for name in TABLES}
        aliases = world.tool("/usr/sbin/postalias", "-s", "hash:/etc/aliases").stdout.splitlines()
        self.aliases = sorted(line for line in aliases if not line.startswith("YP_"))  # by whom and when

    def difference(self, other):
        """What differs between this state and the other; None: nothing."""
        for name, own in vars(self).items():
            wanted = getattr(other, name)
            if own != wanted:
                pick = (lambda state: sorted(map(str, state.items() if isinstance(state, dict) else state)))
                return f"{name}: {sorted(set(pick(own)) ^ set(pick(wanted)))[:4]}"
        return None


def peers(programs, quick):
    runs = Runs(programs, "real")
    runs.first_run()
    wanted = EndState(runs.world)
    runs.reset()
    wish = generate.Wish(runs.commands["first"], MASTER_CF.read_text(), runs.master_cf.decode())
    reasons = []
    for peer in generate.PEERS:
        try:
            against_peer(runs, wish, wanted, quick, *peer)
        except NotMeasured as error:
            reasons.append(str(error))
    if reasons:
        raise NotMeasured("; ".join(reasons))


def against_peer(runs, wish, wanted, quick, name, files, argv, bar, rounds):
    for path, text in files(wish).items():
        (BENCH / path).write_text(text)

    def side():
        runs.reset()
        return timed(*argv)

    side()
    difference = EndState(runs.world).difference(wanted)
    if difference:
        raise NotMeasured(f"{name} ends with another {difference}")
    note(f"{name}: the end state is the same")
    compare("first run, Postfix's tools", name, *by_turns(2 if quick else rounds, runs.first_run, side), **bar)
