"""The memory, descriptors and processor time of a mivo that has nothing to do, before and after hostile clients."""

import pathlib
import re

from mivo_process import PROGRAM
from wire import request

# Afterwards the resident memory may be higher by this much: mivo keeps buffers for the next connections (1 MiB to
# read into, 4 MiB of queue blocks, a few pages for each of 128 connection objects), and the allocator keeps freed
# memory that it has not returned to the system.
RESIDENT_TOLERANCE_KIB = 8 * 1024


class Calm:
    """Make it before the hostile clients come, when nobody is connected. `echo` has to be mapped to the echo page."""

    def __init__(self, mivo, connect, tolerance_kib=RESIDENT_TOLERANCE_KIB):
        self.mivo = mivo
        self.connect = lambda: connect(mivo.port)
        self.tolerance_kib = tolerance_kib
        self.expect_service()
        mivo.wait_until_idle()
        self.resident_kib = self._resident_kib()

    def taken_kib(self):
        """The resident memory (RSS) beyond what was resident before."""
        return self._resident_kib() - self.resident_kib

    def _resident_kib(self):
        status = pathlib.Path(f"/proc/{self.mivo.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+) kB", status)[1])

    def expect_service(self):
        client = self.connect()
        assert client.ask(request("echo", "/calm")).startswith(b"GET /calm ")
        client.close()

    def expect_again(self):
        """Checks, when all clients have left, that descriptors, memory and processor time are as before, and that
        new clients are served."""
        self.mivo.wait_until_idle()
        self.mivo.expect_idle()
        if self.mivo.process.args[2] == PROGRAM:  # the sanitizers keep freed memory on purpose
            taken = self.taken_kib()
            assert taken <= self.tolerance_kib, f"{taken} KiB more than the {self.resident_kib} before"
        self.expect_service()
