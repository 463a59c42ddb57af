"""The workloads that need a tool of their own: start-up time, the program's size, system calls, allocations, several
processes on one port, and the microbenchmarks."""

import json
import os
import re
import shlex
import shutil
import signal
import statistics
import struct
import subprocess
import tempfile
from contextlib import ExitStack, closing
from pathlib import Path

import clients
from process import LOAD_CORE, PROXY_CORE, Server
from servers import HOST, PROGRAMS

STARTS = 5
REQUESTS = 2000  # under strace and for the allocations, rounded down to a multiple of the clients
NEW_CONNECTIONS = 500  # under strace
WAITS = ("select", "pselect6", "poll", "epoll_wait", "epoll_pwait", "epoll_pwait2")


def start(bench, server, seconds):
    """Milliseconds from exec() to the first connect() that succeeds."""
    taken = []
    for _ in range(STARTS):
        other = bench.make(server.name, server.job)
        end = str(int(other.end_signal()))
        helper = [str(PROGRAMS / "starter"), str(other.port), PROXY_CORE, end, *other.command]
        taken.append(float(clients.run(helper, other.environment)))
    return {
        "listening_ms": statistics.median(taken),
        "longest_ms": max(taken),
        "command": f"starter PORT CORE SIGNAL {shlex.join(other.command)} ({STARTS} times)",
    }


def program_size(bench, server, seconds):
    program = Path(shutil.which(server.command[0])).resolve()
    with tempfile.TemporaryDirectory() as folder:
        stripped = Path(folder) / "stripped"
        clients.run(["strip", "-s", "-o", str(stripped), str(program)])
        return {"bytes": stripped.stat().st_size, "command": f"strip -s {program.name}"}


class KeptAlive(ExitStack):
    """Several kept-alive clients. In request_all() each of them makes `times` requests."""

    def __init__(self, port, count):
        super().__init__()
        self._clients = []
        with ExitStack() as opened:
            for _ in range(count):
                self._clients.append(opened.enter_context(closing(clients.Client(port, HOST, "/128"))))
            self.push(opened.pop_all())

    def request_all(self, times):
        for _ in range(times):
            for client in self._clients:
                client.ask()
            for client in self._clients:
                client.read_reply()


def count_calls(server, work):
    """Counts the system calls of all the server's processes during work(), by name."""
    pids = server.pids()
    with tempfile.TemporaryDirectory() as folder:
        table = Path(folder) / "calls"
        command = ["strace", "-c", "-f", "-o", str(table), *(word for pid in pids for word in ("-p", str(pid)))]
        with subprocess.Popen(command, stderr=subprocess.PIPE, text=True) as strace:
            try:
                for _ in pids:
                    line = strace.stderr.readline()
                    if "attached" not in line:
                        raise RuntimeError(f"strace: {line}")
                work()
            finally:
                strace.send_signal(signal.SIGINT)
                strace.communicate(timeout=30)
        rows = re.findall(r"^\s*[\d.]+\s+[\d.]+\s+\d+\s+(\d+)\s+(?:\d+\s+)?(\w+)$", table.read_text(), re.M)
    return {name: int(calls) for calls, name in rows if name != "total"}


def calls_per_request(calls, requests, is_mivo):
    """Counts two kinds of calls separately, because many requests share one such call: the waits, and mivo's write()
    of a full buffer of console lines. mivo never sends a response with write()."""
    waits = sum(n for name, n in calls.items() if name in WAITS)
    console = calls.get("write", 0) if is_mivo else 0
    return {
        "calls_per_request": (sum(calls.values()) - waits - console) / requests,
        "waits_per_request": waits / requests,
        "console_writes_per_request": console / requests,
        "by_name": {name: n / requests for name, n in calls.items()},
    }


def system_calls(count):
    """System calls per request. The connections are opened before the count begins. wrk would open its connections
    during the count. strace is so slow that wrk would then make only a few requests, and the calls that open the
    connections would raise the figures."""
    times = REQUESTS // count

    def measure(bench, server, seconds):
        with KeptAlive(server.port, count) as all_clients:
            all_clients.request_all(2)
            calls = count_calls(server, lambda: all_clients.request_all(times))
        requests = times * count
        command = f"strace -c -f -p PID, {requests} requests of {count} kept-alive clients"
        return {**calls_per_request(calls, requests, server.name == "mivo"), "command": command}

    return measure


def new_connection_calls(bench, server, seconds):
    """System calls per request, each on a connection of its own, one after the other."""
    command = ["ab", "-q", "-n", str(NEW_CONNECTIONS), "-H", f"Host: {HOST}", server.url("/128")]
    calls = count_calls(server, lambda: clients.run(command))
    figures = calls_per_request(calls, NEW_CONNECTIONS, server.name == "mivo")
    return {**figures, "command": f"strace -c -f -p PID; {shlex.join(command)}"}


def allocations(bench, server, seconds):
    """Calls of malloc(), calloc() and realloc() per request. A library that is loaded before the others counts them."""
    with tempfile.NamedTemporaryFile() as counter:
        counter.write(bytes(8))
        counter.flush()
        counted = bench.make(server.name, server.job)
        counted.environment = {"LD_PRELOAD": str(PROGRAMS / "libcounted_malloc.so"), "ALLOCATIONS": counter.name}

        def allocated():
            return struct.unpack("Q", Path(counter.name).read_bytes())[0]

        try:
            counted.start()
            if allocated() == 0:
                raise RuntimeError("no allocation is counted, not even at the start")
            with KeptAlive(counted.port, 16) as all_clients:
                all_clients.request_all(50)
                before = allocated()
                all_clients.request_all(REQUESTS // 16)
                after = allocated()
        finally:
            counted.stop()
    requests = REQUESTS // 16 * 16
    return {
        "allocations_per_request": (after - before) / requests,
        "command": f"LD_PRELOAD=libcounted_malloc.so mivo ..., {requests} requests of 16 kept-alive clients",
    }


def processes_on_one_port(bench, server, seconds):
    """Requests per second of one process and of two processes. They run on the two cores of the run, together with
    load and upstream."""
    rates = {}
    for count in (1, 2):
        first = bench.make(server.name, server.job)
        cores = f"{PROXY_CORE},{LOAD_CORE}"
        running = [Server(first.name, first.command, first.port, core=cores) for _ in range(count)]
        own_cores = os.sched_getaffinity(0)
        try:
            for one in running:
                one.start()
            os.sched_setaffinity(0, {int(PROXY_CORE), int(LOAD_CORE)})
            figures = clients.wrk(first.url("/128"), HOST, 64, seconds, threads=2)
        finally:
            os.sched_setaffinity(0, own_cores)
            for one in running:
                one.stop()
        if figures.failed:
            raise RuntimeError(f"{figures.failed} of {figures.requests} requests failed")
        rates[count] = figures.requests / figures.seconds
    return {
        "growth": rates[2] / rates[1],
        "requests_per_second_1": rates[1],
        "requests_per_second_2": rates[2],
        "command": figures.command,
    }


def microbenchmarks(bench, server, seconds):
    """Nanoseconds of processor time by benchmark. Each benchmark checks its result."""
    with tempfile.NamedTemporaryFile() as file:
        command = [str(PROGRAMS / "micro"), f"--benchmark_out={file.name}", "--benchmark_out_format=json"]
        command += [f"--benchmark_min_time={seconds / 30}"]
        clients.run(["taskset", "-c", PROXY_CORE, *command])
        found = json.loads(Path(file.name).read_text())["benchmarks"]
    return {**{one["name"]: one["cpu_time"] for one in found}, "command": shlex.join(["micro", command[-1]])}
