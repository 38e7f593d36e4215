"""Compares the export table of a DLL with a list, and its imports with what every Windows has; the file must tell its
version."""
import argparse
import re
import subprocess
import sys

SYSTEM = {"advapi32.dll", "bcrypt.dll", "crypt32.dll", "kernel32.dll", "msvcrt.dll", "normaliz.dll", "user32.dll",
          "ws2_32.dll"}


def main():
    parser = argparse.ArgumentParser()
    for name in ("objdump", "dll", "exports", "version"):
        parser.add_argument("--" + name, required=True)
    args = parser.parse_args()
    dump = subprocess.run([args.objdump, "-p", args.dll], check=True, capture_output=True, text=True).stdout

    names = dump[dump.index("[Ordinal/Name Pointer] Table"):]
    exported = set(re.findall(r"^\s*\[\s*\d+\]\s+(\S+)$", names, re.M))
    with open(args.exports, encoding="utf-8") as file:
        wanted = {line.strip() for line in file if line.strip() and not line.startswith("#")}
    imported = {name.lower() for name in re.findall(r"DLL Name: (\S+)", dump)}

    problems = [f"exported, not wanted: {name}" for name in sorted(exported - wanted)]
    problems += [f"wanted, not exported: {name}" for name in sorted(wanted - exported)]
    problems += [f"imported: {name}" for name in sorted(imported - SYSTEM - {"keel.dll"})]
    for flag in ("DYNAMIC_BASE", "NX_COMPAT", "HIGH_ENTROPY_VA"):
        if flag not in dump:
            problems.append(f"image flag missing: {flag}")
    with open(args.dll, "rb") as file:
        resource = file.read().partition("ProductVersion\0".encode("utf-16-le"))[2]
    if not resource.lstrip(b"\0").startswith((args.version + "\0").encode("utf-16-le")):
        problems.append(f"version resource missing, or not {args.version}")
    print(f"{len(exported)} exports, {len(imported)} imported libraries")
    print("\n".join(problems))
    return 1 if problems or not exported or not imported else 0


sys.exit(main())
