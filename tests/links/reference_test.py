"""reference_test.py TAGS: whether the API reference has every function that the library exports and every enumerator with a
number.  TAGS is the list of what it holds that Doxygen wrote."""
import pathlib
import re
import sys
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).parent.parent.parent
INTERNAL = {"xfer::DownloadOptions::values", "xfer::FetchOptions::values"}


def told(tags):
    found = set()
    for compound in xml.etree.ElementTree.parse(tags).getroot():
        scope = f"{compound.findtext('name')}::" if compound.get("kind") in ("class", "struct", "namespace") else ""
        for member in compound.findall("member"):
            found.add(scope + member.findtext("name"))
            found |= {value.text for value in member.findall("enumvalue")}
            if member.get("kind") == "enumvalue":
                found.add(member.findtext("name"))
    return found


def wanted():
    lines = (ROOT / "tests/package/exported_symbols.txt").read_text(encoding="utf-8").splitlines()
    for name in (re.split(r"[(\[]", line)[0] for line in lines if line and line[0] not in "#["):
        parts = name.split("::")
        # What every class has is told where there is something to tell.
        if not (name.endswith("operator=") or parts[-1].startswith("~") or parts[-1:] == parts[-2:-1]):
            yield name
    for header in sorted((ROOT / "modules/xfer/include").rglob("*.h")):
        yield from re.findall(r"^ +([A-Z]\w+) = \d+[, ]", header.read_text(encoding="utf-8"), re.MULTILINE)


def main():
    names = set(wanted()) - INTERNAL
    missing = sorted(names - told(sys.argv[1]))
    print("\n".join(f"not in the reference: {name}" for name in missing), f"{len(names)} names", sep="\n")
    return 1 if missing or len(names) < 100 else 0


sys.exit(main())
