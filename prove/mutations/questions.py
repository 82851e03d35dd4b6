"""Which tests are run on a mistake in a file, in which order, and how."""

import os
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time
from concurrent.futures import ThreadPoolExecutor, as_completed
from dataclasses import dataclass

from workcopy import target_name

# What links to a layer, nearest first; the whole program is run last.
ABOVE = {
    "torva/libc": ["torva/util", "torva/process", "torva/maildb", "torva/postfix/params", "torva/postfix/mastercf", "torva/postfix/tables", "app"],
    "torva/util": ["torva/process", "torva/postfix/params", "torva/postfix/mastercf", "torva/postfix/tables", "app"],
    "torva/process": ["torva/postfix/params", "torva/postfix/tables", "app"],
    "torva/maildb": ["torva/postfix/tables", "app"],
    "torva/postfix/params": ["torva/postfix/mastercf", "torva/postfix/tables", "app"],
    "torva/postfix/mastercf": ["app"],
    "torva/postfix/tables": ["app"],
    "app": [],
}
WHOLE_RUNS = ["run.fake.transcript|run.fake.commands", "run.fake", "run.real"]
# Parts of a program of sandbox tests that run at the same time: most of its tests wait.
SHARDS = 3
# A mistake may fill the memory, or write for ever.
LIMITS = ["prlimit", "--core=0", f"--data={3 << 30}", f"--fsize={1 << 30}"]


@dataclass(frozen=True)
class Question:
    label: str
    targets: tuple  # what it runs
    command: tuple


class Asker:
    def __init__(self, copy, reach="runs"):
        """Which tests to run: "nearest", those of the mistake's own layer; "layers", those of the
        layers above, too; "runs", the whole runs as well."""
        self.copy, self.reach = copy, reach
        self.passed = {}  # label -> seconds without a mistake

    def waves(self, file, first=None):
        """The questions in order; those of one wave are asked at the same time, each in its own
        sandbox. The test that is known to notice goes first."""
        folder = os.path.dirname(file)
        above = [] if self.reach == "nearest" else ABOVE[folder]
        waves = [self._programs(layer) for layer in [folder, *above]]
        if self.reach == "runs":
            waves += [[self._whole_run(regex)] for regex in WHOLE_RUNS]
        if first is not None:
            known = [one for wave in waves for one in wave if first in one.targets] or [self._whole_run(first)]
            waves = [known] + [[one for one in wave if one not in known] for wave in waves]
        return [wave for wave in waves if wave]

    def _programs(self, layer):
        """Unit tests, too, run in the sandbox: a mistake may end processes or remove files."""
        name = target_name(layer)
        found = [self._program(f"test_{name}", "", ["env", "-u", "TORVA_SANDBOX"])]
        for index in range(SHARDS):
            part = ["env", f"GTEST_TOTAL_SHARDS={SHARDS}", f"GTEST_SHARD_INDEX={index}"]
            found.append(self._program(f"sandbox_test_{name}", f", part {index + 1} of {SHARDS}", part))
        return [question for question in found if question.targets[0] in self.copy.targets]

    def _program(self, program, part, environment):
        sandbox = ["scripts/sandbox", "--with", str(self.copy.build), "--", *environment]
        return Question(program + part, (program,), (*LIMITS, *sandbox, str(self.copy.build / "bin" / program),
                                                     "--gtest_brief=1", "--gtest_fail_fast=1"))

    def _whole_run(self, regex):
        return Question(regex, ("torva-postfix-setup", "faketool"),
                        (*LIMITS, "ctest", "--test-dir", str(self.copy.build), "-R", f"^({regex})", "-j", str(self.copy.jobs),
                         "--stop-on-failure", "--no-tests=error", "--progress"))

    def require_passing(self, wave):
        """A test that fails without a mistake proves nothing."""
        for question in wave:
            if question.label not in self.passed:
                self.copy.make_right(*question.targets)
                begin = time.monotonic()
                if answer := self.ask([question], lambda _: 1800):
                    sys.exit(f"{answer} without any mistake")
                self.passed[question.label] = time.monotonic() - begin

    def patience(self, question):
        """In seconds, far longer than the test takes: a busy machine must not count as a catch."""
        return 30 + 5 * self.passed[question.label]

    def ask(self, wave, patience):
        """None when all pass, otherwise which one does not, and how; the others are ended then."""
        running, lock, answered = [], threading.Lock(), threading.Event()

        def run(question):
            with tempfile.TemporaryFile() as output:
                with lock:
                    if answered.is_set():
                        return None
                    process = subprocess.Popen(question.command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                               cwd=self.copy.tree, start_new_session=True)
                    running.append(process)
                try:
                    if process.wait(patience(question)) == 0:
                        return None
                    output.seek(0)
                    return f"{question.label} fails{named_failure(output.read())}"
                except subprocess.TimeoutExpired:
                    return f"{question.label} does not end"
                finally:
                    with lock:
                        end(process)

        def end_all():
            with lock:
                answered.set()
                for process in running:
                    end(process)

        with ThreadPoolExecutor(len(wave)) as pool:
            try:
                for done in as_completed([pool.submit(run, question) for question in wave]):
                    if answer := done.result():
                        return answer
            finally:
                end_all()  # also when this script is told to end
        return None


def end(process):
    """Ends a test with all that it has started: the sandbox ends with its first process."""
    if process.poll() is None:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()


def named_failure(output):
    """The test that failed, as the program has named it."""
    found = re.search(rb"^\[  FAILED  \] (\S+)|\*\*\*(?:Failed|Timeout|Exception)[^\n]*|Test +#\d+: (\S+) \.+\*", output, re.MULTILINE)
    name = found and (found.group(1) or found.group(2))
    return f" ({name.decode()})" if name else ""
