"""A private copy of the tree, its build folder, and what a mistake in it does to them."""

import hashlib
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
BUILD_OPTIONS = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS=-O0 -g0", "-DCMAKE_CXX_FLAGS_DEBUG=",
                 # What the compiler warns of is noticed before any test runs.
                 "-DTORVA_WERROR=ON"]


def target_name(folder):
    """The name by which cmake/TorvaTargets.cmake calls the targets of a folder."""
    return folder.removeprefix("torva/").replace("/", "_")


class WorkCopy:
    def __init__(self, work, jobs):
        self.tree, self.build, self.jobs = work / "tree", work / "build", jobs
        listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=TREE, check=True,
                                stdout=subprocess.PIPE).stdout.decode().split("\0")
        names = set(filter(None, listed))
        for name in names:
            self._copy(name)
        self._forget_others(names, work / "copied")
        subprocess.run(["cmake", "-S", self.tree, "-B", self.build, *BUILD_OPTIONS], check=True, stdout=subprocess.DEVNULL)
        self.targets = set(re.findall(r"^(\S+):", self._ninja("-t", "targets", "all").stdout.decode(), re.MULTILINE))
        self.right = {}  # file -> its hash without any mistake

    def _copy(self, name):
        """Only what differs: an unchanged file is not built again."""
        source, target = TREE / name, self.tree / name
        if not source.exists():
            return target.unlink(missing_ok=True)
        if target.exists() and target.read_bytes() == source.read_bytes():
            return None
        target.parent.mkdir(parents=True, exist_ok=True)
        return shutil.copy(source, target)

    def _forget_others(self, names, record):
        """Removes what was copied the last time and is no longer part of the tree."""
        for name in record.read_text().split("\0") if record.exists() else ():
            if name not in names:
                (self.tree / name).unlink(missing_ok=True)
        record.write_text("\0".join(sorted(names)))

    def _ninja(self, *words):
        return subprocess.run(["ninja", "-C", self.build, *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def make(self, *targets):
        """None, or what the compiler says."""
        done = self._ninja("-j", str(self.jobs), *targets)
        return None if done.returncode == 0 else done.stdout.decode(errors="replace")[-2000:]

    def make_right(self, *targets):
        """The same without a mistake: must succeed, and remembers what was built."""
        if error := self.make(*targets):
            sys.exit(error)
        for target in targets:
            self.right[target] = self._hash(target)

    def is_changed(self, *targets):
        """Whether any of them differs from the file without the mistake."""
        return any(self._hash(target) != self.right[target] for target in targets)

    def _hash(self, target):
        path = self.build / (f"lib{target}.a" if target.startswith("torva_") else f"bin/{target}")
        return hashlib.sha256(path.read_bytes()).digest()

    def library_of(self, file):
        """The target of the library that the source is compiled into; None for a header."""
        name = "torva_" + target_name(os.path.dirname(file))
        return name if file.endswith(".cpp") and file != "app/main.cpp" and name in self.targets else None
