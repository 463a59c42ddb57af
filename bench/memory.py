"""Resident memory: of idle connections, after the start, and while a slow client lets bytes pile up."""

from contextlib import ExitStack, closing

from clients import Client, tls_context
from process import settled
from servers import COUNTED, HOST

IDLE_CLIENTS = 200
SLOW_BODY = 256 << 20  # bytes
READ_FIRST = 64 << 20  # bytes that the slow client reads before it pauses
STEP_KIB = 64  # memory that moves by less counts as settled


def resident(server):
    return settled(server.resident, STEP_KIB)


def per_client(bench, name, tls, ask):
    """KiB that each of IDLE_CLIENTS adds to a server that has served one before."""
    with bench.fresh(name) as fresh, ExitStack() as stack:
        server = fresh.tls if tls else fresh
        port = server.tls_port if tls else server.port
        context = tls_context() if tls else None

        def connect():
            client = Client(port, HOST, "/128", context)
            if ask:
                client.ask()
                client.read_reply()
            return client

        connect().close()
        before = resident(server)
        for _ in range(IDLE_CLIENTS):
            stack.enter_context(closing(connect()))
        after = resident(server)
    what = "one request each" if ask else "nothing sent"
    return {
        "kib_per_client": (after - before) / IDLE_CLIENTS,
        "command": f"{IDLE_CLIENTS} connections, {what}; growth of Rss in /proc/PID/smaps_rollup",
    }


def idle(bench, server, seconds):
    return per_client(bench, server.name, tls=False, ask=False)


def idle_proxied(bench, server, seconds):
    return per_client(bench, server.name, tls=False, ask=True)


def idle_proxied_tls(bench, server, seconds):
    return per_client(bench, server.name, tls=True, ask=True)


def after_start(bench, server, seconds):
    with bench.fresh(server.name) as fresh:
        return {
            "plain_kib": resident(fresh),
            "tls_kib": resident(fresh.tls),
            "private_kib": fresh.private(),
            "command": "Rss in /proc/PID/smaps_rollup of a server that has accepted one connection",
        }


def read_until(client, received, wanted):
    buffer = bytearray(1 << 18)
    while received < wanted:
        n = client.sock.recv_into(buffer)
        if n == 0:
            raise RuntimeError(f"the reply ends after {received} bytes")
        received += n
    return received


def slow_client(bench, server, seconds):
    """A client reads a part, pauses until nothing moves any more, and reads the rest. Bytes waiting are those
    that the upstream has sent and the client has not read; a few MiB of them stand in the system's buffers."""
    with bench.fresh(server.name) as fresh:
        before = resident(fresh)
        with closing(Client(fresh.port, COUNTED, f"/counted/{SLOW_BODY}", receive=65536)) as client:
            client.ask()
            length, start = client.read_head()
            received = read_until(client, len(start), READ_FIRST)
            settled(lambda: bench.counted.sent, 1)
            growth = resident(fresh) - before
            waiting = (bench.counted.sent - received) / 1024
            if read_until(client, received, length) != SLOW_BODY:
                raise RuntimeError("the slow client got too much")
        after = resident(fresh)
    return {
        "growth_per_waiting": growth / waiting,
        "growth_kib": growth,
        "waiting_kib": waiting,
        "kept_kib": after - before,
        "command": f"GET of {SLOW_BODY >> 20} MiB, with a pause after {READ_FIRST >> 20} MiB",
    }
