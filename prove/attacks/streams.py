"""What happens to the standard streams: readers that leave, streams that are closed."""

import signal
import subprocess

from attackworld import MASTER_CF, state

DEBUG = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "TORVA_INSTALLER_DEBUG": "1"}


def shell(world, command):
    """A pipeline of bash; its exit status is that of the tool."""
    return world.run(["bash", "-c", command, "bash", world.program], env=DEBUG,
                     restore_signals=True, preexec_fn=lambda: signal.signal(signal.SIGPIPE, signal.SIG_DFL))


def reader_leaves(world):
    """the reader of the output leaves at once, after a byte, after a few lines"""
    for redirection in world.some("2>&1", rest=["2>&1 >/dev/null"]):
        for reader in world.some("true", "head -c1", rest=["head -n 5", "exec <&-"]):
            world.reset()
            ended = shell(world, f'"$1" {redirection} | {reader} >/dev/null; exit "${{PIPESTATUS[0]}}"')
            world.expect_complete(ended)


def reader_leaves_an_error(world):
    """the reader has left when the run fails"""
    for redirection in ("2>&1", "2>&1 >/dev/null"):
        world.reset()
        MASTER_CF.write_bytes(b"smtp nonsense\n")
        before = state(MASTER_CF)
        ended = shell(world, f'"$1" {redirection} | true; exit "${{PIPESTATUS[0]}}"')
        world.expect(ended.status == 1, f"{redirection}: {ended}")
        world.expect(state(MASTER_CF) == before, "master.cf has changed")


def closed_streams(world):
    """standard input, output and error are closed, each and together"""
    for closed in world.some(">&-", "<&- >&- 2>&-", rest=["<&-", "2>&-", ">&- 2>&-", "<&- 2>&-"]):
        world.reset()
        ended = shell(world, f'"$1" {closed}')
        world.expect_complete(ended)
        world.expect_unharmed()


def full_output(world):
    """standard output and error cannot be written to"""
    world.reset()
    with open("/dev/full", "wb") as full:
        ended = world.run(env=DEBUG, stdout=full, stderr=subprocess.STDOUT)
    world.expect_complete(ended)


ATTACKS = [("standard streams", attack) for attack in (reader_leaves, reader_leaves_an_error, closed_streams, full_output)]
