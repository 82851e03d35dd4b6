"""Counts the changes in directories, so that a test can act at a certain moment of a program's
work, however fast the machine is: inotify(7), which Python's own library does not have."""

import ctypes
import os
import struct
import time

LIBC = ctypes.CDLL(None, use_errno=True)
# IN_ATTRIB, IN_CLOSE_WRITE, IN_MOVED_FROM, IN_MOVED_TO, IN_CREATE, IN_DELETE. Not IN_MODIFY, of
# which the kernel makes one where it finds several waiting.
CHANGES = 0x4 | 0x8 | 0x40 | 0x80 | 0x100 | 0x200
HEADER = struct.Struct("iIII")  # struct inotify_event: the last member is the length of the name


class FileWatch:
    def __init__(self, *directories):
        self.count = 0
        self.queue = LIBC.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        for directory in directories:
            if LIBC.inotify_add_watch(self.queue, os.fsencode(directory), CHANGES) < 0:
                raise OSError(ctypes.get_errno(), "inotify_add_watch", directory)

    def __enter__(self):
        return self

    def __exit__(self, *error):
        os.close(self.queue)

    def changes(self):
        """How many changes there were so far."""
        try:
            events = os.read(self.queue, 1 << 20)
        except BlockingIOError:
            return self.count
        while events:
            length = HEADER.unpack_from(events)[3]
            events = events[HEADER.size + length:]
            self.count += 1
        return self.count

    def wait_for(self, number, process):
        """Until there were so many changes, or the process has ended."""
        while self.changes() < number and process.poll() is None:
            time.sleep(0.0005)
