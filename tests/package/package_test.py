"""Installs the build into a prefix of its own, and looks at it as a host's build would.

The checks: install (the others but "symbols" need it), headers, compile, cmake, pkgconfig, symbols.
"""

import argparse
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys

HERE = pathlib.Path(__file__).parent
CXX_FLAGS = ["-std=c++20", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror"]
C_FLAGS = ["-std=c11", "-Wall", "-Wextra", "-Wpedantic", "-Werror"]


def run(command, **options):
    result = subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL, **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}\nended with {result.returncode}\n{result.stdout}{result.stderr}")
    return result.stdout


def listed(name):
    lines = (HERE / name).read_text(encoding="utf-8").splitlines()
    return {line for line in lines if line and not line.startswith("#")}


def expect_equal(what, found, wanted):
    problems = [f"{what}, but not listed: {entry}" for entry in sorted(found - wanted)]
    problems += [f"listed, but not {what}: {entry}" for entry in sorted(wanted - found)]
    if problems or not found:
        sys.exit("\n".join(problems) or f"nothing is {what}")
    print(f"{len(found)} {what}")


def compiler_of_c(cxx):
    """The C compiler that belongs to a C++ compiler: g++-12 and gcc-12, clang++ and clang, c++ and cc."""
    name = pathlib.Path(cxx).name
    for plus, plain in (("clang++", "clang"), ("g++", "gcc"), ("c++", "cc")):
        if plus in name:
            return str(pathlib.Path(cxx).with_name(name.replace(plus, plain)))
    sys.exit(f"no C compiler is known for {cxx}")


def fresh(folder):
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    return folder


def install(args):
    fresh(args.prefix)
    run(["cmake", "--install", args.build, "--prefix", args.prefix])
    for text in list(args.prefix.rglob("*.pc")) + list(args.prefix.rglob("*.cmake")):
        if str(args.prefix) in text.read_text() or str(args.build) in text.read_text():
            sys.exit(f"{text} names a folder of the build")


def headers(args):
    include = args.prefix / "include"
    found = {str(path.relative_to(include)) for path in include.rglob("*") if path.is_file()}
    expect_equal("installed headers", found, listed("installed_headers.txt"))


def compile_alone(args):
    include = args.prefix / "include"
    source = fresh(args.work / "compile")
    for header in sorted(listed("installed_headers.txt")):
        program = source / "alone.cpp"
        program.write_text(f"#include <{header}>\n#include <{header}>\n")
        run([args.cxx, *CXX_FLAGS, "-fsyntax-only", "-I", include, program])
    program = source / "alone.c"
    for header in ("xfer/xfer.h", "xfer/xfer_download.h", "xfer/xfer_request.h"):
        program.write_text(f"#include <{header}>\n#include <{header}>\n")
        for standard in ("-std=c99", "-std=c11"):
            run([compiler_of_c(args.cxx), *C_FLAGS, standard, "-fsyntax-only", "-I", include, program])
    program = source / "without_library.cpp"
    program.write_text("#define XFER_NO_CXX_LIBRARY\n#include <xfer/xfer.h>\n")
    run([args.cxx, *CXX_FLAGS, "-nostdinc++", "-fsyntax-only", "-I", include, program])


def run_consumers(args, folder, environment):
    # Bound and not listening: it refuses.
    with socket.socket() as unused:
        unused.bind(("127.0.0.1", 0))
        for name in ("from_c", "from_cxx"):
            run([folder / name, str(unused.getsockname()[1])], cwd=args.work, timeout=60, env=environment)


def consume_with_cmake(args):
    folder = fresh(args.work / "cmake")
    flags = " ".join(args.flags)
    run(
        ["cmake", "-S", HERE / "consumer", "-B", folder, f"-DCMAKE_PREFIX_PATH={args.prefix}"]
        + [f"-DCMAKE_CXX_COMPILER={args.cxx}", f"-DCMAKE_C_COMPILER={compiler_of_c(args.cxx)}"]
        + [f"-DCMAKE_CXX_FLAGS={flags}", f"-DCMAKE_C_FLAGS={flags}"]
    )
    run(["cmake", "--build", folder])
    # The consumers find the library by themselves, and the library what lies beside it.
    run_consumers(args, folder, {key: value for key, value in os.environ.items() if key != "LD_LIBRARY_PATH"})


def consume_with_pkg_config(args):
    folder = fresh(args.work / "pkgconfig")
    packages = list(args.prefix.rglob("pkgconfig"))
    if len(packages) != 1:
        sys.exit(f"pkgconfig folders: {packages}")
    environment = dict(os.environ, PKG_CONFIG_PATH=str(packages[0]))

    def ask(*options):
        return run(["pkg-config", *options, "xfer"], env=environment).split()

    compile_flags, link_flags = ask("--cflags"), ask("--libs")
    for compiler, options, source in (
        (args.cxx, CXX_FLAGS, "from_cxx.cpp"),
        (compiler_of_c(args.cxx), C_FLAGS, "from_c.c"),
    ):
        program = folder / source.split(".")[0]
        command = [compiler, *options, *args.flags, *compile_flags, HERE / "consumer" / source]
        run([*command, "-o", program, *link_flags])
    environment["LD_LIBRARY_PATH"] = str(packages[0].parent)
    run_consumers(args, folder, environment)


def symbols(args):
    found = set()
    for line in run(["nm", "-DC", "--defined-only", args.library]).splitlines():
        name = line.split(maxsplit=2)[2]
        found.add(re.sub(r"std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> ?>", "std::string", name))
    expect_equal("exported symbols", found, listed("exported_symbols.txt"))


CHECKS = {
    "install": install,
    "headers": headers,
    "compile": compile_alone,
    "cmake": consume_with_cmake,
    "pkgconfig": consume_with_pkg_config,
    "symbols": symbols,
}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("check", choices=CHECKS)
    for name in ("build", "prefix", "work", "library"):
        parser.add_argument("--" + name, type=pathlib.Path, required=True)
    parser.add_argument("--cxx", required=True)
    parser.add_argument("--flags", type=str.split, default=[])
    args = parser.parse_args()
    CHECKS[args.check](args)


main()
