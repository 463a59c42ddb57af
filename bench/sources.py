"""What the figures are of: a hash over the program's sources that no comment and no layout changes.

It is kept beside the figures, so their age can be told without a repository around them."""

import hashlib
import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
FOLDERS = ("base", "net", "tls", "http", "proxy", "main")

# Tokens of C++, comments and blanks first. A raw string ends at its own delimiter; a line that is continued is one.
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
    """The tokens, a blank between them. A directive ends with its line, so there alone the line's end stays."""
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
    """Of all sources of the program, by their names."""
    total = hashlib.sha256()
    for folder in FOLDERS:
        for path in sorted((Path(root) / folder).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                code = code_of(path.read_text(encoding="utf-8")).encode()
                total.update(f"{path.relative_to(root).as_posix()} {len(code)}\n".encode() + code)
    return total.hexdigest()


def older_workloads(data, present):
    """The workloads whose figures are of other sources than those with the hash `present`."""
    return [name for name, workload in data["workloads"].items() if workload["sources"] != present]
