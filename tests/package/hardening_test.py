"""Looks into the built images for what makes a fault in them harder to use, and fails when something is missing."""
import argparse
import re
import subprocess
import sys

ENDBR64 = b"\xf3\x0f\x1e\xfa"


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Image:
    def __init__(self, path):
        self.path = path
        self.kind = re.search(r"Type:\s+(\w+)", output("readelf", "-hW", path)).group(1)
        self.segments = output("readelf", "-lW", path)
        self.dynamic = output("readelf", "-dW", path)
        self.imports = set(re.findall(r" U (\w+)", output("nm", "-D", "--undefined-only", path)))

    def stack_is_executable(self):
        flags = re.search(r"GNU_STACK(?:\s+0x\w+){5}\s+([RWE ]+?)\s+0x", self.segments)
        return flags is None or "E" in flags.group(1)

    def tells(self, tag, flag):
        return re.search(rf"\({tag}\).*\b{flag}\b", self.dynamic) is not None

    def first_bytes(self, function):
        address = int(re.search(rf"^(\w+) T {function}$", output("nm", "--defined-only", self.path), re.M).group(1), 16)
        for line in re.findall(r"LOAD\s+0x(\w+)\s+0x(\w+)\s+0x\w+\s+0x(\w+)", self.segments):
            offset, start, size = (int(number, 16) for number in line)
            if start <= address < start + size:
                with open(self.path, "rb") as file:
                    file.seek(offset + address - start)
                    return file.read(len(ENDBR64))
        raise ValueError(f"{function} is in no segment")


def problems_of(image, args, function, is_program=False, has_buffers=True):
    if image.kind != "DYN" or (is_program and not image.tells("FLAGS_1", "PIE")):
        yield "it has a fixed address"
    if "GNU_RELRO" not in image.segments:
        yield "its tables are never made read-only"
    if not image.tells("FLAGS", "BIND_NOW") or not image.tells("FLAGS_1", "NOW"):
        yield "its functions are bound late, so that their table stays writable"
    if image.stack_is_executable():
        yield "its stack is executable"
    if has_buffers and "__stack_chk_fail" not in image.imports:
        yield "its stack frames are not guarded"
    if has_buffers and args.fortified and not any(re.fullmatch(r"__\w+_chk", name) for name in image.imports):
        yield "it calls no checked function of the C library"
    if args.branch_protection and image.first_bytes(function) != ENDBR64:
        yield f"{function} is no marked target of indirect calls"


def main():
    parser = argparse.ArgumentParser()
    for name in ("library", "keel", "tool"):
        parser.add_argument("--" + name, required=True)
    for name in ("fortified", "branch-protection"):
        parser.add_argument("--" + name, action="store_true")
    args = parser.parse_args()
    found = [f"{path}: {problem}" for path, options in (
        (args.library, {"function": "xfer_version"}),
        (args.keel, {"function": "createLogger", "has_buffers": False}),
        (args.tool, {"function": "main", "is_program": True}),
    ) for problem in problems_of(Image(path), args, **options)]
    print("\n".join(found) or "hardened")
    return 1 if found else 0


sys.exit(main())
