"""mivo reports the number of connections. This test has its own file, so that it can run while test_idle.py waits."""

import re
import time

from wire import request, until

TOLERANCE = 2.5  # seconds; covers the rounding to whole seconds, and one turn
REPORT = r"\d+ connections"


def test_number_of_connections__is_reported_while_there_are_any_and_once_when_the_last_has_gone(
        start_mivo, connect, listen):
    upstream = listen()
    mivo = start_mivo({"up": upstream.port})
    start = time.monotonic()
    client = connect(mivo.port)
    client.send(request("up"))
    upstream.accept()

    def reports(count):
        until(lambda: len(mivo.lines(REPORT)) >= count, f"{count} reports")
        return time.monotonic()
    assert 5 < reports(2) - start < 5 + TOLERANCE
    client.close()
    reports(3)
    time.sleep(7)  # longer than from one report to the next
    assert mivo.lines(REPORT) == ["0 connections", "2 connections", "0 connections"]
    connect(mivo.port)
    reports(4)
    assert re.search(r"\n0 connections\n\[up\] .*\n2 connections\n0 connections\n1 connections\n$",
                     mivo.console())
