"""The shell commands of the documentation."""

import re
from typing import NamedTuple

from .paths import ROOT

PAGES = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]

FENCED = re.compile(r"(?:^<!-- not run here: (?P<reason>[^\n]+) -->\n)?^```(?P<language>\w*)\n(?P<text>.*?)^```$",
                    re.DOTALL | re.MULTILINE)


class Block(NamedTuple):
    """A fenced block: the name of its page, the chapter that it is in, its language, and why no test runs it."""

    page: str
    chapter: str
    language: str
    reason: str
    text: str


def blocks():
    """Every fenced block of the documentation for users."""
    return [Block(page.name, chapter.partition("\n")[0] if number else "", found["language"], found["reason"] or "",
                  found["text"])
            for page in PAGES
            for number, chapter in enumerate(re.split(r"^## ", page.read_text(encoding="utf-8"), flags=re.MULTILINE))
            for found in FENCED.finditer(chapter)]


def commands():
    """{(page, chapter): script} of what readers are told to type, without the blocks that say why no test runs them."""
    scripts = {}
    for block in blocks():
        if block.language == "sh" and not block.reason:
            key = (block.page, block.chapter)
            scripts[key] = scripts.get(key, "") + block.text
    return scripts
