"""Installs the build into a prefix of its own, and looks at it as a host's build would.

The checks: install, headers, texts, compile, move, cmake, static, pkgconfig; symbols and embed, which do without the
prefix.
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
# Hosts may be older than the library's own sources.
CXX_STANDARDS = ["-std=c++17", "-std=c++20"]
C_STANDARDS = ["-std=c99", "-std=c11"]
CXX_FLAGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror"]
C_FLAGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror"]
C_HEADERS = ["xfer/version.h", "xfer/export.h", "xfer/xfer.h", "xfer/xfer_download.h", "xfer/xfer_request.h"]


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


def texts(args):
    share = args.prefix / "share"
    found = {str(path.relative_to(share)) for path in share.rglob("*") if path.is_file() and path.stat().st_size > 0}
    expect_equal("texts of the tool", found, {
        "man/man1/xfer-get.1", "bash-completion/completions/xfer-get", "zsh/site-functions/_xfer-get",
        "fish/vendor_completions.d/xfer-get.fish"})


def compile_alone(args):
    include = args.prefix / "include"
    source = fresh(args.work / "compile")

    def check(program, text, command):
        program.write_text(text)
        run([*command, *args.flags, "-fsyntax-only", "-I", include, program])

    for standard in CXX_STANDARDS:
        command = [args.cxx, standard, *CXX_FLAGS]
        for header in sorted(listed("installed_headers.txt")):
            check(source / "alone.cpp", f"#include <{header}>\n#include <{header}>\n", command)
        text = "#define XFER_NO_CXX_LIBRARY\n#include <xfer/xfer.h>\n"
        check(source / "without_library.cpp", text, [*command, "-nostdinc++"])
    for standard in C_STANDARDS:
        for header in C_HEADERS:
            text = f"#include <{header}>\n#include <{header}>\nextern int unused;\n"
            check(source / "alone.c", text, [compiler_of_c(args.cxx), standard, *C_FLAGS])


def run_consumers(args, folder, environment):
    # Bound and not listening: it refuses.
    with socket.socket() as unused:
        unused.bind(("127.0.0.1", 0))
        for name in ("from_c", "from_cxx"):
            run([folder / name, str(unused.getsockname()[1])], cwd=folder, timeout=60, env=environment)


def configure(args, source, folder, *options):
    flags = " ".join(args.flags)
    run(
        ["cmake", "-S", HERE / source, "-B", folder, *options]
        + [f"-DCMAKE_CXX_COMPILER={args.cxx}", f"-DCMAKE_C_COMPILER={compiler_of_c(args.cxx)}"]
        + [f"-DCMAKE_CXX_FLAGS={flags}", f"-DCMAKE_C_FLAGS={flags}"]
    )


def without_library_path():
    """The programs find the library by themselves, and the library what lies beside it."""
    return {key: value for key, value in os.environ.items() if key != "LD_LIBRARY_PATH"}


def consume_with_cmake(args):
    folder = fresh(args.work / "cmake")
    configure(args, "consumer", folder, f"-DCMAKE_PREFIX_PATH={args.prefix}", "-DCMAKE_CXX_STANDARD=17")
    run(["cmake", "--build", folder])
    run_consumers(args, folder, without_library_path())


def needed(program):
    return set(re.findall(r"\(NEEDED\).*\[(.*)\]", run(["readelf", "-dW", program])))


def expect_no_library_of_ours(program):
    ours = {name for name in needed(program) if name.startswith(("libxfer", "libkeel"))}
    if ours:
        sys.exit(f"{program} needs {ours}")


def consume_static_with_cmake(args):
    folder = fresh(args.work / "static")
    configure(args, "static_consumer", folder, f"-DCMAKE_PREFIX_PATH={args.prefix}", "-DCMAKE_CXX_STANDARD=17")
    run(["cmake", "--build", folder])
    for name in ("from_c", "from_cxx"):
        expect_no_library_of_ours(folder / name)
    run_consumers(args, folder, without_library_path())


def move(args):
    moved = fresh(args.work / "moved") / "prefix"
    shutil.copytree(args.prefix, moved, symlinks=True)
    tool = moved / "bin" / "xfer-get"
    found = re.findall(r"lib(?:xfer|keel)\S* => (\S+)", run(["ldd", tool], env=without_library_path()))
    if len(found) != 2 or not all(os.path.normpath(path).startswith(f"{moved}/") for path in found):
        sys.exit(f"{tool} takes {found}")
    run([tool, "--help"], timeout=60, env=without_library_path())


def embed(args):
    folder = fresh(args.work / "embedding")
    options = [f"-DXFER_SOURCE={HERE.parent.parent}", "-DCMAKE_BUILD_TYPE=Debug", "-G", "Ninja"]
    if args.launcher:
        options.append(f"-DCMAKE_CXX_COMPILER_LAUNCHER={args.launcher}")
    configure(args, "embedding", folder, *options)
    run(["cmake", "--build", folder])
    for name in ("own_parts", "own_parts_static"):
        run([folder / name], timeout=60, env=without_library_path())
    expect_no_library_of_ours(folder / "own_parts_static")
    run_consumers(args, folder, without_library_path())


def consume_with_pkg_config(args):
    folder = fresh(args.work / "pkgconfig")
    folder_of_static = fresh(folder / "static")
    packages = list(args.prefix.rglob("pkgconfig"))
    if len(packages) != 1:
        sys.exit(f"pkgconfig folders: {packages}")
    environment = dict(os.environ, PKG_CONFIG_PATH=str(packages[0]))

    for package, target in (("xfer", folder), ("xfer-static", folder_of_static)):
        compile_flags, link_flags = (run(["pkg-config", option, package], env=environment).split()
                                     for option in ("--cflags", "--libs"))
        for compiler, options, name, suffix in (
            (args.cxx, [CXX_STANDARDS[0], *CXX_FLAGS], "from_cxx", ".cpp"),
            (compiler_of_c(args.cxx), [C_STANDARDS[0], *C_FLAGS], "from_c", ".c"),
        ):
            source = HERE / "consumer" / (name + suffix)
            run([compiler, *options, *args.flags, *compile_flags, source, "-o", target / name, *link_flags])
    for name in ("from_c", "from_cxx"):
        expect_no_library_of_ours(folder_of_static / name)
    run_consumers(args, folder_of_static, without_library_path())
    run_consumers(args, folder, dict(environment, LD_LIBRARY_PATH=str(packages[0].parent)))


def listed_symbols():
    """Of exported_symbols.txt, as nm writes them: each with the version in brackets above it."""
    found, version = set(), None
    for line in (HERE / "exported_symbols.txt").read_text(encoding="utf-8").splitlines():
        if line.startswith("["):
            version = line.strip("[]")
            found.add(version)  # a symbol of its own
        elif line and not line.startswith("#"):
            found.add(f"{line}@@{version}")
    return found


def symbols(args):
    found = set()
    for line in run(["nm", "-DC", "--defined-only", args.library]).splitlines():
        name = line.split(maxsplit=2)[2]
        found.add(re.sub(r"std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> ?>", "std::string", name))
    expect_equal("exported symbols", found, listed_symbols())


CHECKS = {
    "install": install,
    "headers": headers,
    "texts": texts,
    "compile": compile_alone,
    "move": move,
    "cmake": consume_with_cmake,
    "static": consume_static_with_cmake,
    "embed": embed,
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
    parser.add_argument("--launcher", default="")
    args = parser.parse_args()
    CHECKS[args.check](args)


main()
