"""The manual compared with the program: the same options, the same console lines, and no fault of form.
test_manual_modes.py checks in which mode each line appears."""

import os
import re
import subprocess

import pytest

from manual import BLANK, MANUAL, manual_messages, section
from mivo_process import PROGRAM, REPOSITORY

LAYERS = ["base", "net", "tls", "http", "proxy", "main"]
SECTIONS = ["NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "CONSOLE OUTPUT", "SIGNALS", "FILES",
            "EXIT STATUS", "EXAMPLES", "LIMITS", "BUGS", "SECURITY"]


# The lines that the program prints. If the text of an expression is elsewhere, it is given here by hand, once. An
# expression that is not listed fails the test.

OTHER_MEANS = re.compile(r"\b(f?puts|putchar|perror|fwrite|[dv]f?printf)\(|\b(cout|cerr|clog)\b")
USAGE = {"usage"}  # compared with the options, not with the console lines
INFO = f"{BLANK}:{BLANK} {BLANK} {BLANK} {BLANK} [{BLANK}]"
EXPRESSIONS = {
    "info(true).c_str()": INFO,
    "line.c_str()": f"[{BLANK}] {INFO}",  # the line of a request, which is put together above the call
    "error.c_str()": None,  # the assignments to `error` are read below
    "text.c_str()": None,   # the text that was thrown is `error`
}

# Calls that print only a part of a line, by their arguments. The line with an adapter's address is printed in parts.
PARTS = {'"%s%s", between, host': BLANK, '"\\n"': None}


def closing_bracket(code, start):
    """The position of the bracket that ends the call whose arguments begin at `start`."""
    depth, at = 1, start
    while depth:
        literal = re.compile(r'"(\\.|[^"\\])*"').match(code, at)
        if literal:
            at = literal.end()
            continue
        depth += {"(": 1, ")": -1}.get(code[at], 0)
        at += 1
    return at - 1


def joined_text(expression):
    """Literals joined with + or side by side, with BLANK in place of everything that is no literal."""
    text = ""
    for literal, other in re.findall(r'"((?:\\.|[^"\\])*)"|([^"]+)', expression):
        if other.strip(" +\n"):
            text += BLANK
        text += literal
    return text


def printed_by_call(function, arguments):
    """The text that one call prints, or None if that text is found in another way."""
    if arguments in PARTS:
        return PARTS[arguments]
    if function == "fprintf":
        stream, arguments = arguments.split(",", 1)
        assert stream in ("stdout", "stderr")
    found = re.match(r'\s*((?:"(?:\\.|[^"\\])*"\s*)+)(?:,\s*(.*))?$', arguments, re.S)
    assert found, f"not understood: {arguments}"
    pattern = joined_text(found[1])
    assert pattern.endswith(r"\n"), f"not a whole line: {arguments}"
    if pattern != r"%s\n":
        return re.sub(r"%[a-z]+", BLANK, pattern[:-2])
    expression = found[2].strip()
    if expression in USAGE:
        return None
    if expression in EXPRESSIONS:
        return EXPRESSIONS[expression]
    text = joined_text(re.sub(r"^\((.*)\)\.c_str\(\)$", r"\1", expression, flags=re.S))
    assert text.strip(BLANK), f"what does this print? {expression}"
    return text


def program_messages():
    messages = set()
    calls = 0
    for layer in LAYERS:
        for path in sorted((REPOSITORY / layer).glob("*.[hc]*")):
            code = re.sub(r"^\s*//[^\n]*|/\*.*?\*/", "", path.read_text(), flags=re.M | re.S)
            assert not OTHER_MEANS.search(code), f"{path} prints by other means than printf"
            for call in re.finditer(r"\b(f?printf)\(", code):
                calls += 1
                arguments = code[call.end():closing_bracket(code, call.end())]
                messages.add(printed_by_call(call[1], arguments))
            if layer == "tls":
                # `error` gathers what cannot be opened or is missing: a heading, then names.
                for value in re.findall(r"\berror \+?= ([^;]+);", code):
                    messages.add(joined_text(value).removeprefix(r"\n"))
    assert calls > 30
    return messages - {None}


def test_every_line_of_the_program_is_in_the_manual_and_no_other():
    program, manual = program_messages(), manual_messages()
    assert program - manual == set(), "not in the manual"
    assert manual - program == set(), "not in the program"


def test_options_are_those_of_the_usage_text():
    usage = subprocess.run([PROGRAM], capture_output=True, text=True, check=True).stdout
    synopsis = usage.split("\n")[1].split()
    assert synopsis[0] == "mivo"
    options, current = {"": []}, ""
    for word in synopsis[1:]:
        if word.startswith("-"):
            options[(current := word)] = []
        else:
            options[current].append(word.strip("[]"))
    documented = {"": []}
    for line in section("OPTIONS"):
        if line.startswith(".It Fl "):
            flag, *values = line.removeprefix(".It Fl ").replace(" Ar ", " ").split()
            documented["-" + flag] = values
        elif line.startswith(".It Ar "):
            documented[""].append(line.removeprefix(".It Ar "))
    assert documented == options
    shown = " ".join(section("SYNOPSIS"))
    assert {"-" + flag for flag in re.findall(r"Fl (\w+)", shown)} == set(options) - {""}


def test_sections_are_there():
    titles = re.findall(r"^\.Sh (.+)$", MANUAL.read_text(), re.M)
    assert [title for title in SECTIONS if title not in titles] == []


def test_sections_that_are_referred_to_are_there():
    text = MANUAL.read_text()
    titles = set(re.findall(r"^\.Sh (.+)$", text, re.M))
    assert set(re.findall(r"^\.Sx (.+?)(?: [.,;])?$", text, re.M)) <= titles


@pytest.mark.parametrize("command", [
    ["mandoc", "-T", "lint", "-W", "style"],
    ["man", "--warnings", "-E", "UTF-8", "-l"],
    ["groff", "-mandoc", "-Tutf8", "-ww", "-z"],
])
def test_form_has_no_faults(command):
    # man obeys MANROFFOPT, and the width of the terminal, if there is one.
    environment = {"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "MANWIDTH": "80"}
    result = subprocess.run([*command, str(MANUAL)], capture_output=True, text=True, env=environment)
    assert result.returncode <= 1 if command[0] == "mandoc" else result.returncode == 0
    output = result.stdout + result.stderr if command[0] == "mandoc" else result.stderr
    # Which other manuals are installed and indexed depends on this machine.
    faults = [line for line in output.splitlines()
              if "mandoc.db" not in line and "referenced manual not found" not in line]
    assert faults == []
