"""A hash of the program's sources. It tells from which sources the figures were measured. Comments and layout do not
change it.

The hash is kept with the figures. So a tree without a repository can also tell whether the figures are old."""

import hashlib
import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
FOLDERS = ("base", "net", "tls", "http", "proxy", "main")

# Tokens of C++, comments and blanks first. A raw string ends at its own delimiter. A continued line is one line.
TOKEN = re.compile(
    r"""
    (?P<gap> //(?:\\\n|[^\n])* | /\*.*?\*/ | \\\n | [ \t\r\f\v]+ )
  | (?P<line> \n )
  | (?P<text> (?:u8|[uUL])?R"(?P<end>[^(\s\\)]*)\(.*?\)(?P=end)"
            | (?:u8|[uUL])?"(?:\\.|[^"\\\n])*"
            | (?:u8|[uUL])?'(?:\\.|[^'\\\n])*' )
  | (?P<word> \.?[0-9](?:'?[0-9A-Za-z_.])* | [A-Za-z_]\w* )
  | (?P<sign> <<=|>>=|->\*|\.\.\.|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|\#\#|. )
    """,
    re.VERBOSE | re.DOTALL,
)


def code_of(text):
    """The tokens, with a blank between them. A line's end stays only after a directive, which ends with its line."""
    tokens, is_new_line, is_directive = [], True, False
    for found in TOKEN.finditer(text):
        if found.lastgroup == "line" or found["line"]:
            if is_directive:
                tokens.append("\n")
            is_new_line, is_directive = True, False
        elif not found["gap"]:
            is_directive = is_directive or (is_new_line and found[0] == "#")
            is_new_line = False
            tokens.append(found[0])
    return " ".join(tokens)


def sources_hash(root=ROOT):
    """The hash of all sources of the program and of their names."""
    total = hashlib.sha256()
    for folder in FOLDERS:
        for path in sorted((Path(root) / folder).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                code = code_of(path.read_text(encoding="utf-8")).encode()
                total.update(f"{path.relative_to(root).as_posix()} {len(code)}\n".encode() + code)
    return total.hexdigest()


def older_workloads(data, present):
    """The workloads that were not measured with the sources whose hash is `present`."""
    return [name for name, workload in data["workloads"].items() if workload["sources"] != present]
