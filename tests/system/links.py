"""A separate network for a test, whose loopback is a line of a chosen rate: a plugin that the test files load.

On the plain loopback, a packet arrives as soon as it is sent. On a line, packets come one by one while the program
works: a new packet may come between any two system calls.
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
MTU = 1500  # bytes, as on Ethernet; burst and latency are chosen for it
RATES = [100, 200, 400, 500, 1000]  # Mbit/s

libc = ctypes.CDLL(None, use_errno=True)


def in_libc(function, *arguments):
    if getattr(libc, function)(*arguments) != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), function)


class Network:
    """Moves this thread into a separate network that has only a loopback. Sockets that the thread opens from now on
    are there, and so are the threads and programs that it starts. `leave` takes the thread back."""

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
        """Makes the loopback a line that carries `mbit` million bits a second."""
        run("tc", "qdisc", "add", "dev", "lo", "root", "tbf", "rate", f"{mbit}mbit", "burst", "3100",
            "latency", "20ms")

    @staticmethod
    def set_outgoing_ports(first, last):
        """Sets the range from which the system chooses the source ports of connections."""
        with open("/proc/sys/net/ipv4/ip_local_port_range", "w", encoding="ascii") as file:
            file.write(f"{first} {last}")

    @staticmethod
    def set_buffers(sending, receiving):
        """Sets the number of bytes that the system holds for each TCP connection."""
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
    """Ask for this fixture before any fixture that listens or connects."""
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
    """The rate of the line of this test, in Mbit/s; None is the machine's own loopback."""
    if request.param is not None:
        request.getfixturevalue("network").shape(request.param)
    return request.param


def on_links(*rates):
    """Runs a test on each of these lines. The test has to ask for `link` first."""
    return pytest.mark.parametrize("link", rates, indirect=True,
                                   ids=[f"{rate}mbit" if rate else "loopback" for rate in rates])


def pace(sock, mbit):
    """Makes the system send the bytes of one socket at this rate, as if this socket alone were on a line."""
    sock.setsockopt(socket.SOL_SOCKET, SO_MAX_PACING_RATE, mbit * 1000000 // 8)
