"""Whether the interfaces that cross between modules have their operations at the right positions for a Microsoft
compiler: clang prints the tables as that compiler lays them.  Needs no Windows headers and no C++ library.

With --variant moved clang sees two operations in each other's place, and that must be noticed."""
import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

TABLES = {
    "sys::IDataBuff": [
        "~IDataBuff()",
        "bool resize(uint64_t)",
        "void clear()",
        "void assign(const std::string &)",
        "void assign(const void *, uint64_t)",
        "uint8_t *data()",
        "void attach(uint8_t *, uint64_t)",
        "void takeFrom(sys::IDataBuff *)",
        "uint8_t *release(uint64_t *)",
        "sys::DataBuff *moveTo(sys::IDataBuff *)",
        "void copyTo(std::wstring &)",
        "void copyTo(std::string &)",
        "std::string toString()",
        "uint64_t size()",
        "bool empty()",
    ],
    "Keel::ILogger": [
        "void addRef()",
        "void release()",
        "void write(std::uint32_t, const char *, const char *, const char *, std::uint32_t)",
        "std::uint32_t threshold()",
    ],
}

# The logger's header includes it, and there is no C++ library here.
CSTDINT = """#pragma once
#include <stdint.h>
namespace std { using ::uint32_t; using ::uint64_t; }
"""


def print_tables(clang, source, includes):
    command = [clang, "--target=x86_64-pc-windows-msvc", "-std=c++20", "-ffreestanding", "-nostdinc++", "-Wall", "-Werror",
               "-Xclang", "-fdump-vtable-layouts", "-c", "-Xclang", "-emit-llvm-only", str(source)]
    for folder in includes:
        command += ["-I", str(folder)]
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def table_of(interface, printed):
    """The operations of one interface as clang printed them, without the interface's name and clang's remarks."""
    found = re.search(rf"^VFTable indices for '{interface}' \((\d+) entries\)\.\n((?: +\d+ \| .*\n)+)", printed, re.M)
    if not found:
        sys.exit(f"clang printed no table of {interface}:\n{printed}")
    lines = [re.fullmatch(r" +(\d+) \| (.*?)(?: \[.*\])?", line).groups() for line in found.group(2).splitlines()]
    if [int(position) for position, _ in lines] != list(range(int(found.group(1)))):
        sys.exit(f"clang's table of {interface} is not complete:\n{found.group(0)}")
    return [operation.replace(interface + "::", "", 1) for _, operation in lines]


def differences(printed):
    for interface, expected in TABLES.items():
        actual = table_of(interface, printed)
        for slot in range(max(len(expected), len(actual))):
            wanted = expected[slot] if slot < len(expected) else "nothing"
            there = actual[slot] if slot < len(actual) else "nothing"
            if wanted != there:
                yield f"{interface}, slot {slot}: {there} instead of {wanted}"


def move_an_operation(header):
    text = header.read_text()
    resize = re.search(r"  virtual bool resize\(.*?;\n", text).group(0)
    clear = re.search(r"  virtual void clear\(.*?;\n", text).group(0)
    header.write_text(text.replace(resize, "@").replace(clear, resize).replace("@", clear))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--clang", nargs="+", required=True, help="names of it; the first one that exists is taken")
    parser.add_argument("--xfer-include", required=True)
    parser.add_argument("--keel-include", required=True)
    parser.add_argument("--variant", choices=("matching", "moved"), default="matching")
    args = parser.parse_args()
    clang = next((name for name in args.clang if shutil.which(name)), None)
    if clang is None:
        sys.exit(f"clang was not found as {' or '.join(args.clang)}: install it")

    with tempfile.TemporaryDirectory() as folder:
        shim = pathlib.Path(folder) / "shim"
        shim.mkdir()
        (shim / "cstdint").write_text(CSTDINT)
        include = pathlib.Path(folder) / "include"
        shutil.copytree(args.xfer_include, include)
        if args.variant == "moved":
            move_an_operation(include / "sys" / "idata_buff.h")
        printed = print_tables(clang, pathlib.Path(__file__).with_name("interfaces.cpp"), (shim, include, args.keel_include))

    found = list(differences(printed))
    print("\n".join(found) or "every operation is at its position")
    if args.variant == "moved":
        return 0 if [re.search(r"slot (\d+)", line).group(1) for line in found] == ["1", "2"] else 1
    return 1 if found else 0


sys.exit(main())
