"""Compares the export table of a DLL with a list, and its imports with what every Windows has; the file must tell its
version.  The DLL and the images beside it must have the flags that let Windows protect them."""
import argparse
import re
import subprocess
import sys

SYSTEM = {"advapi32.dll", "bcrypt.dll", "crypt32.dll", "kernel32.dll", "msvcrt.dll", "normaliz.dll", "user32.dll",
          "ws2_32.dll"}


def dump_of(objdump, image):
    return subprocess.run([objdump, "-p", image], check=True, capture_output=True, text=True).stdout


def missing_flags(objdump, image):
    characteristics = dump_of(objdump, image).partition("DllCharacteristics")[2].partition("SizeOfStackReserve")[0]
    return [flag for flag in ("DYNAMIC_BASE", "NX_COMPAT", "HIGH_ENTROPY_VA") if flag not in characteristics]


def main():
    parser = argparse.ArgumentParser()
    for name in ("objdump", "dll", "exports", "version"):
        parser.add_argument("--" + name, required=True)
    parser.add_argument("--beside", nargs="+", required=True)
    args = parser.parse_args()
    dump = dump_of(args.objdump, args.dll)

    names = dump[dump.index("[Ordinal/Name Pointer] Table"):]
    exported = set(re.findall(r"^\s*\[\s*\d+\]\s+(\S+)$", names, re.M))
    with open(args.exports, encoding="utf-8") as file:
        wanted = {line.strip() for line in file if line.strip() and not line.startswith("#")}
    imported = {name.lower() for name in re.findall(r"DLL Name: (\S+)", dump)}

    problems = [f"exported, not wanted: {name}" for name in sorted(exported - wanted)]
    problems += [f"wanted, not exported: {name}" for name in sorted(wanted - exported)]
    problems += [f"imported: {name}" for name in sorted(imported - SYSTEM - {"keel.dll"})]
    for image in (args.dll, *args.beside):
        problems += [f"{image}: flag missing: {flag}" for flag in missing_flags(args.objdump, image)]
    with open(args.dll, "rb") as file:
        resource = file.read().partition("ProductVersion\0".encode("utf-16-le"))[2]
    if not resource.lstrip(b"\0").startswith((args.version + "\0").encode("utf-16-le")):
        problems.append(f"version resource missing, or not {args.version}")
    print(f"{len(exported)} exports, {len(imported)} imported libraries")
    print("\n".join(problems))
    return 1 if problems or not exported or not imported else 0


sys.exit(main())
