"""A short soak over TLS on a line, with uploads. script/soak MINUTES --tls --rate 400mbit runs a long one."""

import pytest

from test_soak import soak

pytest_plugins = ["links"]


@pytest.mark.parametrize("rate", ["400mbit"])
def test_mixed_requests_over_tls_on_a_line__none_is_cut_and_no_byte_is_wrong(network, folder, rate):
    status, result = soak(folder, "--tls", "--rate", rate, "--requests", "150")
    assert result["findings"] == [] and status == 0
    assert result["requests"] >= 150


def test_one_wrong_reply_of_the_upstream_over_tls__is_found(folder):
    _, result = soak(folder, "--tls", "--requests", "500", "--wrong", "200")
    assert "1 exchanges with a wrong byte" in result["findings"]
