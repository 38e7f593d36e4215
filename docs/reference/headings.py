"""How headings of Markdown pages become anchors, as the sites that show repositories make them."""

import re


def lines_outside_of_code(text):
    """The numbers (from 0 on) and texts of the lines that no fence encloses."""
    fenced = False
    for number, line in enumerate(text.splitlines()):
        if line.lstrip().startswith("```"):
            fenced = not fenced
        elif not fenced:
            yield number, line


def anchor(heading):
    """Of a heading's text, without the signs that mark it as one."""
    shown = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading)
    return re.sub(r"[^\w\- ]", "", shown.lower()).strip().replace(" ", "-")


def headings(text):
    """The number of its line, its level and its anchor, of each heading.  Of equal ones the later ones are counted."""
    seen = {}
    for number, line in lines_outside_of_code(text):
        found = re.match(r"(#{1,6}) +(.*?)\s*$", line)
        if found:
            base = anchor(found[2])
            count = seen.get(base, 0)
            seen[base] = count + 1
            yield number, len(found[1]), base if count == 0 else f"{base}-{count}"
