"""The lines that the agent can log, read from its sources."""

import re

from .paths import SOURCE_ROOT

STRING = r'"((?:[^"\\]|\\.)*)"'
CALL = re.compile(rf"\bQEL_LOG(?:_ERROR)?\(\s*(?:{STRING}|vtx::Level(\w+))\s*,\s*((?:{STRING}\s*)+)")
REPEATED = re.compile(r"\bWarnings\(\)\.Write\((.*?)\);", re.DOTALL)
PLACEHOLDER = re.compile(r"%[-+ 0#]*\d*(?:\.\d+)?(?:hh|h|ll|l|z)?[a-zA-Z]")


def log_lines():
    """{(tag or level, text with … for what varies)} of every line whose text is not all variable."""
    found = set()
    for path in sorted(SOURCE_ROOT.rglob("*.cpp")):
        source = path.read_text(encoding="utf-8")
        for expression in REPEATED.findall(source):
            found.add(("warning", _text_of(expression)))
        for tag, level, strings, _ in CALL.findall(source):
            text = "".join(re.findall(STRING, strings))
            text = PLACEHOLDER.sub("…", text).replace("\\n", "").replace('\\"', '"').strip()
            if text.strip("…; "):
                found.add((tag or level.lower(), text))
    return found


def _text_of(expression):
    """A concatenation of literals and other things: "a " + b + " c" is "a … c"."""
    text = ""
    for literal, other in re.findall(rf"{STRING}|([^\s\"+][^\"+]*)", expression):
        text += literal if literal or not other.strip() else "…"
    return text.strip()
