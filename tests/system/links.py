"""A network of the test's own, whose loopback is a line of a chosen rate: a plugin that the test files load.

On the plain loopback a packet is never on its way. On a line, packets come one by one while the program works:
between any two calls of the system there may be a new one.
"""

import ctypes
import errno
import os
import socket
import subprocess

import pytest

CLONE_NEWNET = 0x40000000  # sched.h
SO_MAX_PACING_RATE = 47  # asm-generic/socket.h
NOT_ALLOWED = "a network namespace is not allowed here"
MTU = 1500  # bytes, as on an Ethernet; what burst and latency are made for
RATES = [100, 200, 400, 500, 1000]  # Mbit/s

libc = ctypes.CDLL(None, use_errno=True)


def in_libc(function, *arguments):
    if getattr(libc, function)(*arguments) != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), function)


class Network:
    """What this thread opens from now on, and the threads and programs that it starts, is in a network of its
    own, with a loopback and nothing else. `leave` takes the thread back."""

    def __init__(self):
        self.outside = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        try:
            in_libc("unshare", CLONE_NEWNET)
        except OSError:
            os.close(self.outside)
            raise
        run("ip", "link", "set", "lo", "up", "mtu", str(MTU))

    @staticmethod
    def shape(mbit):
        """Makes the loopback a line that carries so many million bits a second."""
        run("tc", "qdisc", "add", "dev", "lo", "root", "tbf", "rate", f"{mbit}mbit", "burst", "3100",
            "latency", "20ms")

    @staticmethod
    def set_outgoing_ports(first, last):
        """The ports that connections come from which have not chosen one."""
        with open("/proc/sys/net/ipv4/ip_local_port_range", "w", encoding="ascii") as file:
            file.write(f"{first} {last}")

    @staticmethod
    def set_buffers(sending, receiving):
        """The bytes that the system holds for each TCP connection."""
        for name, size in (("tcp_wmem", sending), ("tcp_rmem", receiving)):
            with open(f"/proc/sys/net/ipv4/{name}", "w", encoding="ascii") as file:
                file.write(f"4096 {size} {size}")

    def leave(self):
        in_libc("setns", self.outside, CLONE_NEWNET)
        os.close(self.outside)


def run(*command):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False)
    assert done.returncode == 0, f"{command}: {done.stdout!r}"


@pytest.fixture
def network():
    """To be asked for before whatever listens or connects."""
    try:
        entered = Network()
    except OSError as error:
        if error.errno not in (errno.EPERM, errno.EACCES, errno.ENOSYS, errno.EINVAL, errno.ENOSPC):
            raise
        pytest.skip(f"{NOT_ALLOWED}: {error}")
    yield entered
    entered.leave()


@pytest.fixture
def link(request):
    """The rate in Mbit/s of the line that the test is on; None is the loopback that everybody shares."""
    if request.param is not None:
        request.getfixturevalue("network").shape(request.param)
    return request.param


def on_links(*rates):
    """Runs a test on each of these lines. It has to ask for `link` first."""
    return pytest.mark.parametrize("link", rates, indirect=True,
                                   ids=[f"{rate}mbit" if rate else "loopback" for rate in rates])


def pace(sock, mbit):
    """Has the system send what is written to one socket at this rate, as if it alone were on a line."""
    sock.setsockopt(socket.SOL_SOCKET, SO_MAX_PACING_RATE, mbit * 1000000 // 8)
