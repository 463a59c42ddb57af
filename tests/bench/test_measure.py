"""The workloads of a run, and the order of the servers in it."""

from measure import chosen_workloads, rotated, whole_seconds
from workloads import WORKLOADS


def test_workloads__are_chosen_by_a_part_of_their_names():
    assert list(chosen_workloads(["new-connections, 64"])) == ["new connections, 64 at once"]
    assert list(chosen_workloads(["idle", "stripped"])) == ["idle client", "TLS idle client", "stripped program"]
    assert chosen_workloads([]) == WORKLOADS
    assert chosen_workloads(["no such"]) == {}


def test_order_of_the_servers__changes_with_each_round():
    assert [rotated(("a", "b", "c"), n)[0] for n in (1, 2, 3, 4)] == ["a", "b", "c", "a"]
    assert sorted(rotated(("a", "b", "c"), 2)) == ["a", "b", "c"]


def test_seconds__are_whole_and_at_least_one():
    assert [whole_seconds(text) for text in ("0.5", "1", "2.5", "3")] == [1, 1, 3, 3]
