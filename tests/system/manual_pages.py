"""The pages of docs/ and README.md, as their tests read them: blocks, and what is said of these for the tests.

A block is fenced and names its language. What is in front of it, in comments that readers do not see, says how it is
tested:

    <!-- not run: REASON -->             it cannot be; it is counted
    <!-- run by: ./test --package -->    not here
    <!-- status: 1 -->                   the exit status of commands that do not end with 0
    <!-- finds: TEXT -->                 what --check has to say of settings, instead of OK
    <!-- client: ADDRESS -->             who plays the client of a dialogue

At the top of a page "all not run: REASON" is meant for all of its commands.
"""

import re
from dataclasses import dataclass, field

from processes import REPO

# What is run, and how it is called in the count.
RUN = {"ini": "settings", "sh": "commands", "console": "commands", "smtp": "dialogues"}
# What is only shown.
SHOWN = {"text", "yaml", "json"}
PACKAGE = "./test --package"
# Pages whose tests run all of their blocks, and see to it that none is left over.
TESTED_ELSEWHERE = {"mail-servers.md": "test_mail_server_page.py", "tls-ipv6-addresses.md": "test_transport_page.py"}

_MARKS = {"not run", "run by", "status", "finds", "client"}
_COMMENT = re.compile(r"<!-- ([a-z ]+): (.+) -->")


@dataclass
class Block:
    page: str
    line: int
    heading: str
    language: str
    said: str  # the text between the heading, or the block before, and this one
    text: str
    marks: dict = field(default_factory=dict)  # each a list of texts

    def place(self):
        return f"{self.page}:{self.line}"

    def mark(self, name, default=None):
        return self.marks[name][-1] if name in self.marks else default


class BadPage(AssertionError):
    """A page that is not written as the pages are."""


def pages():
    return [REPO / "README.md", *sorted((REPO / "docs").glob("*.md"))]


def read_blocks(path):
    """All blocks of a page in their order."""
    page = path.name
    blocks, marks, whole, heading, said, fence = [], {}, {}, "", "", None
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if fence is not None:
            if line == "```":
                fence.text = "\n".join(fence.lines) + "\n"
                blocks.append(fence)
                fence = None
            else:
                fence.lines.append(line)
        elif line.startswith("```"):
            language = line[3:].strip()
            if language not in RUN and language not in SHOWN:
                raise BadPage(f"{page}:{number}: which language is {line}?")
            if whole and language in ("sh", "console") and "not run" not in marks:
                marks["not run"] = [whole["all not run"]]
            fence = Block(page, number, heading, language, said, "", marks)
            fence.lines, marks, said = [], {}, ""
        elif line.startswith("<!--"):
            found = _COMMENT.fullmatch(line)
            if found and found.group(1) == "all not run":
                whole[found.group(1)] = found.group(2)
            elif found and found.group(1) in _MARKS:
                marks.setdefault(found.group(1), []).append(found.group(2))
            else:
                raise BadPage(f"{page}:{number}: what does {line} mean?")
        elif line.startswith(("    ", "\t", "~~~")):
            raise BadPage(f"{page}:{number}: a block without a fence: {line}")
        else:
            if marks and line:
                raise BadPage(f"{page}:{number}: nothing that {marks} could be about")
            if line.startswith("#"):
                heading, said = line.lstrip("# "), ""
            elif line:
                said += line + " "
    if fence is not None or marks:
        raise BadPage(f"{page}: a fence or a comment without a block at the end")
    return blocks


def all_blocks():
    return [block for path in pages() for block in read_blocks(path)]


def blocks_of_package_test():
    """Those that ./test --package runs, by page and heading."""
    return [block for block in all_blocks() if block.mark("run by") == PACKAGE]


def read_sections(text):
    """(section, key, value) of the settings in a block; comments and empty lines left out."""
    section = ""
    for line in text.splitlines():
        if line.startswith("["):
            section = line.strip().strip("[]")
        elif line.strip() and not line.startswith((";", "#")):
            key, _, value = line.partition("=")
            yield section, key.strip(), value.strip()


def complete(text, common):
    """The settings of a block as a whole file: with those of `common` in section Common that it does not have itself."""
    own = {key for section, key, _ in read_sections(text) if section == "Common"}
    lines = "".join(f"{key}={value}\n" for key, value in common.items() if key not in own)
    if re.search(r"(?m)^\[Common\]$", text):
        return re.sub(r"(?m)^\[Common\]\n", lambda found: found.group() + lines, text, count=1)
    return f"[Common]\n{lines}\n{text}"


def as_pattern(text):
    """A pattern for the text, in which "…" is any text."""
    return ".*".join(map(re.escape, text.split("…")))
