"""The shells' completions: what they offer after a command line."""

import subprocess

import pytest

from mivo_process import REPOSITORY

PACKAGING = REPOSITORY / "packaging"
FILES = {"key.pem", "crt.pem"}
OPTIONS = {"-ssl", "-map"}

# The words already there, the beginning of the next word, and the offers for it: files, options or neither.
LINES = {
    "after_the_port": ("8080", "-", OPTIONS),
    "beginning_of_an_option": ("8080", "-s", {"-ssl"}),
    "after_an_option_with_its_values": ("8080 -map a 3000", "-m", {"-map"}),
    "tls_port": ("8080 -ssl", "k", set()),
    "key": ("8080 -ssl 8443", "k", {"key.pem"}),
    "certificate": ("8080 -ssl 8443 key.pem", "", FILES),
    "after_the_certificate": ("8080 -ssl 8443 key.pem crt.pem", "-", OPTIONS),
    "host": ("8080 -map", "c", set()),
    "local_port": ("8080 -map a", "k", set()),
    "local_port_before_its_first_digit": ("8080 -map a", "", set()),
    "echo_page": ("8080 -map a", "-", {"-1"}),
    "option_as_a_value": ("8080 -map -ssl 3000", "-", OPTIONS),
    "local_port_of_a_host_with_its_port": ("8080 -map localhost:8080", "-s", set()),
    "after_a_host_with_its_port": ("8080 -map localhost:8080 3000", "-", OPTIONS),
}

# bash splits the words for a completion also at ":", so "localhost:8080" becomes three words.
BASH = """source "$0"; COMP_LINE="mivo {words} {prefix}"; COMP_POINT=${{#COMP_LINE}}
COMP_WORDS=($(printf '%s' "$COMP_LINE" | sed 's/:/ : /g') {empty}); COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1))
_mivo; printf '%s\\n' "${{COMPREPLY[@]}}"
"""

# The completion system's own commands need a terminal. These functions replace them and print what they are asked for.
ZSH = """words=(mivo {words} "{prefix}"); CURRENT=$#words; PREFIX="{prefix}"
_message() {{ }}
_files() {{ print -l $PREFIX*(N) }}
compadd() {{ shift; print -l -- ${{(M)@:#$PREFIX*}} }}
source "$0"
"""

FISH = "source {file}; complete -C 'mivo {words} {prefix}'"


def offered(shell, words, prefix, folder):
    if shell == "fish":
        script = FISH.format(file=PACKAGING / "mivo.fish", words=words, prefix=prefix)
        command = ["fish", "--no-config", "-c", script]
    else:
        script = (BASH if shell == "bash" else ZSH).format(words=words, prefix=prefix,
                                                           empty="" if prefix else '""')
        plain = ["--norc"] if shell == "bash" else ["-f"]
        command = [shell, *plain, "-c", script, PACKAGING / f"mivo.{shell}"]
    result = subprocess.run(command, cwd=folder, capture_output=True, text=True, env={
        "PATH": "/usr/bin:/bin", "HOME": str(folder), "LC_ALL": "C.UTF-8"})
    assert result.stderr == ""
    return {line.split("\t")[0] for line in result.stdout.splitlines() if line}


@pytest.mark.parametrize("shell", ["bash", "zsh", "fish"])
@pytest.mark.parametrize("name", LINES)
def test_next_word__is_what_the_option_before_it_still_needs(shell, name, tmp_path):
    words, prefix, expected = LINES[name]
    for file in FILES:
        (tmp_path / file).touch()
    assert offered(shell, words, prefix, tmp_path) == expected
