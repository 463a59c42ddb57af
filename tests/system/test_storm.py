"""Every example in a storm of hostile clients. Polite clients are answered meanwhile, and afterwards descriptors,
threads and memory are back to where they were. MIVO_STORM_SECONDS sets the length of each storm. MIVO_STORM_SEED
repeats a storm."""

import os
import random
import re
import threading

import pytest

from example_process import builds
from mivo_process import Mivo
from storm import Bystander, CapriciousUpstream, Storm
from wire import request, until

SECONDS = float(os.environ.get("MIVO_STORM_SECONDS", "3"))
SEED = os.environ.get("MIVO_STORM_SEED", "1")
MOST_KIB_LEFT = 100000  # more resident memory after the second storm than after the first
EXAMPLES = ["chat", "file_server", "forward_proxy", "slow_job"]
RUNS = [(name, build) for name in EXAMPLES for build in builds(name)]


def resident_kib(mivo):
    with open(f"/proc/{mivo.pid}/status") as status:
        return int(re.search(r"VmRSS:\s+(\d+) kB", status.read())[1])


def threads(mivo):
    return len(os.listdir(f"/proc/{mivo.pid}/task"))


class Files:
    """A folder with files of several sizes. One of them grows and shrinks all the time."""

    def __init__(self, folder):
        self.folder = folder
        for name, size in {"index.html": 5, "empty": 0, "exact": 1 << 20, "big": 20 << 20}.items():
            folder.joinpath(name).write_bytes(bytes(size))
        self.is_over = threading.Event()
        self.thread = threading.Thread(target=self._change, daemon=True)
        self.thread.start()

    def _change(self):
        with open(self.folder / "log", "wb") as log:
            while not self.is_over.wait(0.01):
                log.truncate(random.randrange(3 << 20))

    def close(self):
        self.is_over.set()
        self.thread.join()


@pytest.fixture
def files(tmp_path):
    made = Files(tmp_path)
    yield made
    made.close()


@pytest.fixture
def upstream():
    made = CapriciousUpstream(SEED)
    yield made
    made.close()


@pytest.mark.parametrize("name, build", RUNS, ids=[f"{name}-{build}" for name, build in RUNS])
def test_storm__harms_nobody_and_leaves_nothing(folder, files, upstream, name, build):
    arguments = {"file_server": [str(files.folder)], "forward_proxy": ["blocked.example"]}.get(name, [])
    mivo = Mivo.serve(folder, arguments=arguments, program=builds(name)[build])
    try:
        question, answer = {
            "chat": (request("h"), b"HTTP/1.1 200 "),
            "file_server": (request("h"), b"HTTP/1.1 200 "),
            "forward_proxy": (request("h", "http://blocked.example/"), b"HTTP/1.1 404 "),
            "slow_job": (request("h", "/none"), b"HTTP/1.1 400 "),
        }[name]
        far, near = f"127.0.0.1:{upstream.port}", f"127.0.0.1:{mivo.port}"
        targets = {
            "chat": ["/", "/none"],
            "file_server": ["/", "/empty", "/exact", "/big", "/log", "/none", "/../../etc/passwd", "/%00"],
            "forward_proxy": [f"http://{far}/", f"http://{far}/x?y", far, f"http://{near}//{near}/", near,
                              f"{near}//{far}/", "http://blocked.example/", "http://a..b/", "/", ""],
            "slow_job": ["/1", "/1000", "/100000", "/1000000000000", "/none"],
        }[name]
        storm = Storm(mivo.port, targets, SEED)
        bystander = Bystander(mivo.port, question, answer)
        storm.blow(SECONDS / 2)  # memory that stays after this storm is used again by the next
        wait_until_over(mivo)
        first_threads, first_kib = threads(mivo), resident_kib(mivo)
        storm.blow(SECONDS / 2)
        bystander.stop()
        mivo.wait_until_idle()
        until(lambda: threads(mivo) <= first_threads, "the threads of jobs that nobody waits for have ended")
        if build == "release":  # the sanitizers keep freed memory, and look for leaks themselves
            until(lambda: resident_kib(mivo) < first_kib + MOST_KIB_LEFT, "the memory is back")
        print(f"{name} {build}: {storm.connections} connections, {storm.actions} actions, {bystander.answers} "
              f"answers beside them, {first_kib} KiB resident, then {resident_kib(mivo)}")
        mivo.interrupt()
    finally:
        mivo.kill()


def wait_until_over(mivo):
    """Waits until only the bystander is left."""
    until(lambda: len(mivo.descriptors() - mivo.idle_descriptors) <= 1, "the storm's connections are closed", 30)
