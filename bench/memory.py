"""Resident memory (RSS): of idle connections, after the start, and while bytes pile up for a slow client."""

from contextlib import ExitStack, closing

from clients import Client, tls_context
from process import settled
from servers import COUNTED, HOST

IDLE_CLIENTS = 200
SLOW_BODY = 256 << 20  # bytes
READ_FIRST = 64 << 20  # bytes that the slow client reads before it pauses
STEP_KIB = 64  # memory that changes by less counts as settled


def resident(server):
    return settled(server.resident, STEP_KIB, quiet=0.3)


def connected(stack, server, context=None):
    """Opens IDLE_CLIENTS connections, which the stack closes."""
    return [stack.enter_context(closing(Client(server.port, HOST, "/128", context))) for _ in range(IDLE_CLIENTS)]


def ask_once(opened):
    for client in opened:
        client.ask()
        client.read_reply()


def idle(bench, server, seconds):
    """KiB that each of IDLE_CLIENTS adds to a server that has already served one client. There are two figures.
    The first is measured when the clients have only connected. The second is measured when one request of each client
    has been relayed and the clients stay connected. Over TLS, only the second is measured."""
    context = tls_context() if server.tls else None
    with bench.fresh(server.name, server.job) as fresh, ExitStack() as stack:
        with closing(Client(fresh.port, HOST, "/128", context)) as first:
            ask_once([first])
        before = resident(fresh)
        opened = connected(stack, fresh, context)
        figures = {} if server.tls else {"kib_per_silent_client": (resident(fresh) - before) / IDLE_CLIENTS}
        ask_once(opened)
        return {
            "kib_per_client": (resident(fresh) - before) / IDLE_CLIENTS,
            **figures,
            "command": f"{IDLE_CLIENTS} connections, then a request on each; growth of Rss in /proc/PID/smaps_rollup",
        }


def after_start(bench, server, seconds):
    with bench.fresh(server.name, server.job) as fresh:
        settled(fresh.resident, STEP_KIB)
        return {
            "resident_kib": fresh.distinct(),
            "private_kib": fresh.private(),
            "command": "pages mapped in (/proc/PID/pagemap) by all processes of a server that has accepted one "
            "connection",
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
    """A client reads a part, pauses until no byte moves any more, and reads the rest. The waiting bytes are those that
    the upstream has sent and the client has not read. A few MiB of them are in the system's buffers."""
    with bench.fresh(server.name, server.job) as fresh:
        before = resident(fresh)
        with closing(Client(fresh.port, COUNTED, f"/{SLOW_BODY}", receive=65536)) as client:
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
