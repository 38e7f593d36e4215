"""Installs the build, and lets hosts in C and in C++ link the static library: they run without xfer.dll."""
import argparse
import pathlib
import shutil
import socket
import subprocess
import sys


def run(command, **options):
    result = subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL, timeout=120, **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}\nended with {result.returncode}\n{result.stdout}{result.stderr}")
    return result.stdout


def main():
    parser = argparse.ArgumentParser()
    for name in ("build", "work", "objdump", "source", "toolchain", "dependencies", "keel", "emulator"):
        parser.add_argument("--" + name, required=True)
    args = parser.parse_args()
    work = pathlib.Path(args.work)
    shutil.rmtree(work, ignore_errors=True)
    prefix, built = work / "prefix", work / "build"
    run(["cmake", "--install", args.build, "--prefix", prefix])
    run(["cmake", "-S", args.source, "-B", built, "-G", "Ninja", f"-DCMAKE_TOOLCHAIN_FILE={args.toolchain}",
         f"-DXFER_WINDOWS_DEPS={args.dependencies}", f"-Dxfer_DIR={prefix}/lib/cmake/xfer",
         "-DCMAKE_EXE_LINKER_FLAGS=-static"])
    run(["cmake", "--build", built])
    shutil.copy(args.keel, built)
    # Bound and not listening: it refuses.
    with socket.socket() as unused:
        unused.bind(("127.0.0.1", 0))
        for name in ("from_c.exe", "from_cxx.exe"):
            if "xfer.dll" in run([args.objdump, "-p", built / name]):
                sys.exit(f"{name} needs xfer.dll")
            run([args.emulator, built / name, str(unused.getsockname()[1])], cwd=built)


main()
