"""The documentation says what the code says."""

import re

from support.log_lines import log_lines
from support.paths import ROOT


def explained_lines():
    """{(tag or level, text)} of the rows in docs/log-messages.md."""
    found = set()
    level = None
    for line in (ROOT / "docs/log-messages.md").read_text(encoding="utf-8").splitlines():
        if line.startswith("## "):
            level = {"Warnings": "warning", "Changes": "status", "Notices": "notice", "Details": "detail",
                     "Before": "fatal"}.get(line.split()[1])
        cells = re.findall(r"\| `([^`]*)`", line)
        if cells:
            found.add((level, cells[0]) if level else tuple(cells[:2]))
    return found


def test_every_line_of_the_log_is_explained():
    assert explained_lines() == log_lines()


def test_the_runbook_has_every_tag_and_every_alert():
    runbook = (ROOT / "docs/operate.md").read_text(encoding="utf-8")
    tags = {tag for tag, _ in explained_lines() if tag.isupper() or ":" in tag}
    assert "WATCHDOG" in tags
    assert [tag for tag in sorted(tags) if f"`{tag}`" not in runbook] == []
    alerts = (ROOT / "docs/metrics.md").read_text(encoding="utf-8").split("## What is worth an alert")[1]
    metrics = set(re.findall(r"\bqel_\w+", alerts))
    assert "qel_ready" in metrics
    assert [metric for metric in sorted(metrics) if f"`{metric}`" not in runbook] == []


def test_links_between_pages_lead_somewhere():
    pages = [ROOT / "README.md", ROOT / "CONTRIBUTING.md", *(ROOT / "docs").glob("*.md")]
    links = [(page, target) for page in pages
             for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", page.read_text(encoding="utf-8"))]
    assert links
    assert [(page.name, target) for page, target in links if not (page.parent / target).exists()] == []


def dedented_lines(text):
    return "\n".join(line.strip() for line in text.strip().splitlines())


def test_programs_in_the_documentation_are_those_of_the_examples():
    page = (ROOT / "docs/applications.md").read_text(encoding="utf-8")
    for language, folder in (("cpp", "cpp"), ("python", "python"), ("js", "nodejs")):
        programs = [dedented_lines(file.read_text(encoding="utf-8"))
                    for file in (ROOT / "examples" / folder).iterdir() if file.suffix in (".cpp", ".py", ".js")]
        shown = re.findall(rf"```{language}\n(.*?)```", page, re.DOTALL)
        assert len(shown) == 4
        for part in map(dedented_lines, shown):
            assert any(part in program for program in programs), part
