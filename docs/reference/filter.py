"""filter.py FILE: writes a header or a Markdown page as Doxygen is to read it.

The headers keep the plain comments that people read.  Here they become Doxygen's, line for line, so that its warnings
name the right lines:
  - the opening comment is the file's, and each comment before a declaration, or behind one, is the declaration's;
  - "Threads:", "Errors:" and the like are list items, and indented text stays as it is;
  - what is marked internal, special member functions without a comment of their own, and macros whose names end with an
    underscore, are left out.
Pages get labels, and their links lead to what the reference holds of the repository; of the others the text stays.
"""

import pathlib
import re
import sys

from headings import headings, lines_outside_of_code

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
ITEM = re.compile(r"(Threads|Errors|Units|Texts|Layout|Ownership):\s+(.*)")
C_NAME = re.compile(r"(?<![\w/.])(xfer_[a-z]\w*|XFER_(?!API|STATIC|NO_CXX)[A-Z]\w*[A-Z])(?![\w./(*]|\.\.\.)")
SPECIAL = re.compile(r"\s*(XFER_API )?(explicit )?(?:(~?\w+)\((?:(const )?\3&{1,2} \w+)?\)|~\w+\(\)"
                     r"|\w+& operator=\([^)]*\)|(\w+)\((const )?\5&{1,2} ?\w*\))( noexcept)?( = delete)?;$")


def escaped(line):
    """Words, which Doxygen is not to take for anything else; names of the C interface become links.  What stands in
    quotes is taken as it is."""
    parts = line.split('"')
    whole = len(parts) % 2 == 1
    return '"'.join(part if whole and number % 2 == 1 else words(part) for number, part in enumerate(parts))


def words(text):
    text = text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
    return C_NAME.sub(r"#\1", re.sub(r"([\\@#%*$~|`])", r"\\\1", text))


def documentation(lines):
    """Lines of a comment's text, without the signs of the comment."""
    result = []
    verbatim = 0  # what the block that stays as it is is indented by
    item = False
    for number, line in enumerate(lines):
        indent = len(line) - len(line.lstrip())
        text = line.strip()
        if verbatim:
            ends = not goes_on(lines, number)
            result.append(line[verbatim:] + (" \\endverbatim" if ends else ""))
            verbatim = 0 if ends else verbatim
            continue
        found = ITEM.match(text) if indent == 0 else None
        if not text:
            result.append("")
            item = False
        elif found:
            result.append(f"- **{found[1]}:** {escaped(found[2])}")
            item = True
        elif text.startswith("- "):
            result.append(" " * indent + "- " + escaped(text[2:]))
            item = True
        elif item and indent > 0:
            result.append(("  " if indent > 6 else " " * indent) + escaped(text))
        elif indent >= 2:
            ends = not goes_on(lines, number)
            result.append("\\verbatim " + text + (" \\endverbatim" if ends else ""))
            verbatim = 0 if ends else indent
        else:
            result.append(escaped(text))
            item = False
    return result


def goes_on(lines, number):
    """Whether indented text goes on behind this line, beyond empty lines too."""
    following = [line for line in lines[number + 1:] if line.strip()]
    return bool(following) and following[0].startswith("  ")


def comment(body, indent, opening):
    rows = documentation(body)
    rows[0] = f"{indent}/** " + ("\\opening " if opening else "") + rows[0]
    rows[-1] += " */"
    return rows


def declaration(line, before):
    if re.search(r"///< internal$", line):
        return ""
    if re.match(r"#define \w+_\(", line):  # what another macro is made of
        return ""
    if SPECIAL.match(line) and not before.lstrip().startswith("///"):
        return ""
    behind = re.match(r"(.*?)///< (.*)$", line) or re.match(r"(\s*[^\s#}/].*?)/\* (.*) \*/$", line)
    if behind:
        return f"{behind[1]}/**< {escaped(behind[2])} */"
    # The macros of sys/export.h that order the functions of a table.
    if "SYS_OVERLOADS_IN_ORDER(" in line and "#define" not in line:
        return ""
    return re.sub(r"\) = 0(,|\);)$", ") = 0;", line)


def header(text):
    lines = text.splitlines()
    result = []
    at = 0
    while at < len(lines):
        begin = at
        line = lines[at]
        indent = re.match(r"\s*", line)[0]
        sign = next((sign for sign in ("/*", "///", "//") if line[len(indent):].startswith(sign)), "")
        if sign == "/*":
            at = next(number for number in range(at, len(lines)) if "*/" in lines[number]) + 1
            block = [lines[begin].replace("/*", "  ", 1).strip(), *lines[begin + 1:at]]
            block[-1] = block[-1].rsplit("*/", 1)[0]
            body = [re.sub(r"^\s*\* ?", "", row) for row in block]
            result += comment(body, indent, begin == 0)
        elif sign == "///" or (sign == "//" and begin == 0):
            while at < len(lines) and lines[at].lstrip().startswith(sign):
                at += 1
            body = [re.sub(rf"^\s*{sign} ?", "", row) for row in lines[begin:at]]
            result += comment(body, indent, begin == 0)
        else:
            at += 1
            result.append(declaration(line, lines[begin - 1] if begin else ""))
    return "\n".join(result) + "\n"


def label(path, anchor=""):
    """What Doxygen calls a page, or a heading of it."""
    if path.stem == "guide" and not anchor:
        return "index"
    return f"page-{path.stem}-{anchor}" if anchor else f"page-{path.stem}"


def page(path, text):
    lines = text.splitlines()
    for number, level, anchor in headings(text):
        title = "mainpage" if path.stem == "guide" else label(path)
        lines[number] += f" {{#{title if level == 1 else label(path, anchor)}}}"

    def link(found):
        file, _, anchor = found[2].partition("#")
        if re.match(r"\w+:", file):
            return found[0]
        to = (path.parent / file).resolve() if file else path
        if to.parent != ROOT / "docs" or to.suffix != ".md":
            return found[1]
        return f"[{found[1]}](@ref {label(to, anchor)})"

    for number, line in lines_outside_of_code("\n".join(lines)):
        lines[number] = re.sub(r"(?<!!)\[([^\]]*)\]\(([^)\s]+)\)", link, line)
    return "\n".join(lines) + "\n"


def main():
    path = pathlib.Path(sys.argv[1]).resolve()
    text = path.read_text(encoding="utf-8")
    sys.stdout.reconfigure(encoding="utf-8", newline="\n")
    read = {".md": lambda: page(path, text), ".dox": lambda: text}.get(path.suffix, lambda: header(text))
    sys.stdout.write(read())


main()
