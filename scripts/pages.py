"""What a Markdown page consists of: headings with the anchors that the web shows them under, links, and blocks of
code."""

import re
import typing


class Block(typing.NamedTuple):
    language: str
    text: str
    line: int  # of its first line of text, counted from 1


def blocks(text):
    """The fenced blocks of a page, in order."""
    for match in re.finditer(r"^```(\w*)\n(.*?)^```$", text, flags=re.DOTALL | re.MULTILINE):
        yield Block(match[1], match[2], text[:match.start(2)].count("\n") + 1)


def without_code(text):
    """The page with the same number of lines, and no code in it, neither blocks nor quoted."""
    text = re.sub(r"^```.*?^```$", lambda match: "\n" * match[0].count("\n"), text, flags=re.DOTALL | re.MULTILINE)
    return re.sub(r"`[^`]*`", lambda match: "`" + "\n" * match[0].count("\n") + "`", text)


def slug(heading):
    """The anchor of a heading: its letters and digits, in lower case, with hyphens for blanks."""
    return re.sub(r"[^\w\- ]", "", heading.strip().lower()).replace(" ", "-")


def headings(text):
    """Each heading of a page: the number of its line from 0, its level and its text."""
    fenced = False
    for number, line in enumerate(text.split("\n")):
        fenced ^= line.startswith("```")
        match = re.fullmatch(r"(#+) (.*)", line)
        if match and not fenced:
            yield number, len(match[1]), match[2]


LINK = re.compile(r"\]\(([^)\s:#]*)(?:#([^)\s]*))?\)")


def links(text):
    """The relative links of a page: file and anchor, either of which may be empty."""
    for match in LINK.finditer(without_code(text)):
        yield match[1], match[2] or ""
