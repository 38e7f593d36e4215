"""Uses the packages of scripts/package as their users do: release_test.py CHECK --packages FOLDER --work FOLDER

same       --other FOLDER: both folders have the same packages, byte for byte
archive    the .tar.gz in any folder: the tool, and consumers by CMake and pkg-config, in C and C++, dynamic and static
debian     the Debian packages in the bare system --root: first what programs need, then what builds need; then they are
           removed.  As root.  The system lacks all but apt.
microsoft  the .zip: a host in C with Microsoft's ABI links the .lib; others use MinGW with the CMake package and with
           docs/install.md's commands; with --system-libraries, --toolchain, --dependencies and --emulator
contents   what each package brings besides, the notices and the bill of materials

archive, debian and microsoft also fetch a file with each program of README.md's "In ten lines"; microsoft leaves Python's
out, since there is no Python for Windows here.
"""
import argparse
import contextlib
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tarfile
import zipfile

HERE = pathlib.Path(__file__).resolve().parent
TESTS = HERE.parents[1]
PROJECT = TESTS.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(TESTS / "examples"))

import server  # noqa: E402: found by the path above

CONSUMER, STATIC_CONSUMER = HERE.parent / "consumer", HERE.parent / "static_consumer"
PROGRAMS = ("from_c", "from_cxx")
# Below share.
TEXTS = ("man/man1/xfer-get.1", "bash-completion/completions/xfer-get", "fish/vendor_completions.d/xfer-get.fish")
LENGTH = 300000
BODY = bytes(i % 251 for i in range(LENGTH))


def run(command, timeout=600, **options):
    result = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True, stdin=subprocess.DEVNULL, timeout=timeout, errors="replace", **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}\nended with {result.returncode}\n{result.stdout}")
    return result.stdout


def expect(condition, problem):
    if not condition:
        sys.exit(problem)


def fresh(folder):
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    return folder


def one(folder, pattern):
    found = sorted(folder.glob(pattern))
    expect(len(found) == 1, f"{pattern} in {folder}: {found}")
    return found[0]


@contextlib.contextmanager
def refusing_port():
    with socket.socket() as unused:  # bound and not listening
        unused.bind(("127.0.0.1", 0))
        yield str(unused.getsockname()[1])


@contextlib.contextmanager
def serving():
    with server.serving({"/body": BODY}) as served:
        yield served.url("/body")


def expect_body(file):
    expect(file.is_file() and file.read_bytes() == BODY, f"{file} was not fetched, or something else was")
    file.unlink()


def write_ten_lines(folder, url):
    """README.md's programs: in folder app.py, and projects c and cpp of a program app.  Each fetches url into big.bin."""
    section = (PROJECT / "README.md").read_text(encoding="utf-8").partition("\n## In ten lines\n")[2].partition("\n## ")[0]
    blocks = dict(re.findall(r"^```(\w+)\n(.*?)^```$", section.replace("https://host/big.bin", url),
                             re.MULTILINE | re.DOTALL))
    expect(set(blocks) == {"cpp", "c", "python", "cmake"}, f"README.md has {set(blocks)} in ten lines")
    for language, name in (("c", "C"), ("cpp", "CXX")):
        project = fresh(folder / language)
        whole = (TESTS / "docs" / "programs" / f"download.{language}.in").read_text(encoding="utf-8")
        (project / f"app.{language}").write_text(whole.replace("@block@", blocks[language]), encoding="utf-8")
        (project / "CMakeLists.txt").write_text(f"cmake_minimum_required(VERSION 3.25)\nproject(app LANGUAGES {name})\n"
                                                f"add_executable(app app.{language})\n{blocks['cmake']}", encoding="utf-8")
    (folder / "app.py").write_text(blocks["python"], encoding="utf-8")


# ---- The same bytes ----


def same(args):
    names = [{path.name for path in folder.iterdir()} for folder in (args.packages, args.other)]
    expect(names[0] == names[1] and len(names[0]) >= 2, f"other packages: {names}")
    different = [name for name in sorted(names[0])
                 if (args.packages / name).read_bytes() != (args.other / name).read_bytes()]
    expect(not different, f"not the same bytes: {', '.join(different)}")
    print("the same:", *sorted(names[0]))


# ---- What is in them ----


def files_of(package):
    """The names of the files that a package brings, without the folder that archives put around them, and a reader."""
    if package.suffix == ".zip":
        archive = zipfile.ZipFile(package)
        return {name.partition("/")[2]: (lambda name=name: archive.read(name)) for name in archive.namelist()
                if not name.endswith("/")}
    archive = tarfile.open(package)
    return {member.name.partition("/")[2]: (lambda member=member: archive.extractfile(member).read())
            for member in archive.getmembers() if not member.isdir()}


def contents(args):
    for package in (one(args.packages, "*.tar.gz"), one(args.packages, "*.zip")):
        files = files_of(package)
        windows = package.suffix == ".zip"
        wanted = {"include/xfer/xfer.h", "lib/cmake/xfer/xfer-config.cmake", "lib/pkgconfig/xfer.pc"}
        python = {f"python/xfer/{path.name}" for path in (PROJECT / "bindings/python/xfer").iterdir() if path.is_file()}
        found = {name for name in files if name.startswith("python/xfer/")}
        expect(found == python, f"{package} has of the Python package {found}")
        if windows:
            wanted |= {"bin/xfer.dll", "bin/keel.dll", "bin/xfer-get.exe"}
            wanted |= {f"lib/{name}.{kind}" for name in ("xfer", "keel") for kind in ("dll.a", "def", "lib")}
        else:
            wanted |= {"lib/libxfer.so.1", "lib/libxfer.so", "lib/libkeel.so.1", "lib/libxfer.a", "bin/xfer-get"}
            wanted |= {f"share/{name}" for name in (*TEXTS, "zsh/site-functions/_xfer-get")}
        expect(not wanted - set(files), f"{package} lacks {wanted - set(files)}")
        places = [str(folder).encode() for folder in (args.built_in, pathlib.Path.home())]
        named = [name for name, read in files.items() if any(place in (read() or b"") for place in places)]
        expect(not named, f"{package}: these name a folder of this machine: {named}")
        bill = json.loads(files["share/doc/xfer/xfer.spdx.json"]())
        notices = files["share/doc/xfer/THIRD-PARTY-NOTICES.txt"]().decode()
        linked = {entry["relatedSpdxElement"] for entry in bill["relationships"]
                  if entry["relationshipType"] == "STATIC_LINK"}
        records = {entry["SPDXID"]: entry for entry in bill["packages"]}
        expect(linked <= set(records) and "SPDXRef-cli11" in linked, f"{package}: {linked}")
        for identifier in linked:
            title = f"{records[identifier]['name']} {records[identifier]['versionInfo']}, in "
            expect(title in notices, f"{package}: no notice of {title}")
        if windows:
            # Those that tell their version in the image.
            library = files["bin/xfer.dll"]()
            for name in ("openssl", "nghttp2", "libz-mingw-w64"):
                upstream = re.match(r"[\d.]+", records[f"SPDXRef-{name}"]["versionInfo"]).group()
                expect(upstream.encode() in library, f"{name} in {package} is not {upstream}")
            for text in ("COPYRIGHT AND PERMISSION NOTICE", "Apache License", "Tatsuhiro Tsujikawa", "Jean-loup Gailly",
                         "GCC RUNTIME LIBRARY EXCEPTION", "mingw-w64"):
                expect(text.lower() in notices.lower(), f"{package}: the notices lack '{text}'")
        print(f"{package.name}: {len(files)} files, {len(linked)} notices")


# ---- The archive ----


def unpacked(package, folder):
    run(["tar", "-xf", package, "-C", fresh(folder)]) if package.suffix == ".gz" else \
        run(["unzip", "-q", package, "-d", fresh(folder)])
    return one(folder, "*")


def archive(args):
    environment = {key: value for key, value in os.environ.items() if key != "LD_LIBRARY_PATH"}
    for place in ("first", "another place"):
        prefix = unpacked(one(args.packages, "*.tar.gz"), args.work / place)
        with serving() as url:
            run([prefix / "bin" / "xfer-get", url, args.work / place / "file"], env=environment)
            expect_body(args.work / place / "file")
            use_ten_lines(prefix, fresh(args.work / place / "readme"), url, environment)
        for source, name in ((CONSUMER, "dynamic"), (STATIC_CONSUMER, "static")):
            folder = args.work / place / name
            run(["cmake", "-S", source, "-B", folder, f"-DCMAKE_PREFIX_PATH={prefix}"])
            run(["cmake", "--build", folder])
            with refusing_port() as port:
                for program in PROGRAMS:
                    run([folder / program, port], cwd=folder, env=environment)
    prefix = one(args.work / "first", "xfer-*")
    environment["PKG_CONFIG_PATH"] = str(prefix / "lib" / "pkgconfig")
    environment["LD_LIBRARY_PATH"] = str(prefix / "lib")
    for package in ("xfer", "xfer-static"):
        flags = run(["pkg-config", "--cflags", "--libs", package], env=environment).split()
        with refusing_port() as port:
            for compiler, source in (("gcc", "from_c.c"), ("g++", "from_cxx.cpp")):
                program = args.work / f"{package}-{source}.out"
                run([compiler, CONSUMER / source, "-o", program, *flags])
                run([program, port], cwd=args.work, env=environment)
    print("used from two folders")


def use_ten_lines(prefix, folder, url, environment):
    write_ten_lines(folder, url)
    for language in ("c", "cpp"):
        run(["cmake", "-S", folder / language, "-B", folder / language / "build", f"-DCMAKE_PREFIX_PATH={prefix}"])
        run(["cmake", "--build", folder / language / "build"])
        run([folder / language / "build" / "app"], cwd=folder, env=environment)
        expect_body(folder / "big.bin")
    python = {**environment, "PYTHONPATH": str(prefix / "python")}
    run(["python3", "app.py"], cwd=folder, env=python)
    expect_body(folder / "big.bin")
    version, *loaded = run(["python3", "-c", "import importlib.metadata, xfer; print(importlib.metadata.version('xfer')); "
                            "xfer.load_library(); print(open('/proc/self/maps').read())"], env=python).splitlines()
    expect(f"xfer-{version}-" in prefix.name, f"{prefix} has Python's package {version}")
    for library in ("libxfer.so", "libkeel.so"):
        expect({f"{prefix}/lib/{library}"} == {line[line.index("/"):].partition(".so")[0] + ".so" for line in loaded
                                              if f"/{library}" in line}, f"Python has not loaded {prefix}'s {library}")


# ---- The Debian packages ----


class System:
    """A Debian system in a folder, with this machine's network."""

    def __init__(self, root):
        self.root = root

    def run(self, *command, timeout=900):
        # With a /proc of its own, which goes when the command ends.
        script = 'mount -t proc proc "$1/proc" && root=$1 && shift && exec chroot "$root" "$@"'
        return run(["unshare", "--mount", "sh", "-c", script, "sh", self.root, "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                    "DEBIAN_FRONTEND=noninteractive", "LC_ALL=C.UTF-8", "HOME=/root", *command], timeout=timeout)

    def install(self, *packages):
        return self.run("apt-get", "-q", "install", "-y", "--no-install-recommends", *packages)


def debian(args):
    system = System(args.root)
    packages = fresh(args.root / "packages")
    for package in args.packages.glob("*.deb"):
        shutil.copy(package, packages)
    shutil.copytree(HERE.parent, args.root / "consumers", dirs_exist_ok=True)
    readme = fresh(args.root / "readme")

    # What programs need, and nothing more.
    system.run("apt-get", "-q", "update")
    system.install(*(f"/packages/{one(packages, pattern).name}" for pattern in ("libxfer1_*.deb", "xfer-get_*.deb")))
    expect(not (args.root / "usr/include/xfer").exists(), "the headers came with the library")
    expect(not (args.root / "usr/bin/python3").exists(), "Python came with the library")
    with serving() as url:
        system.run("xfer-get", url, "/tmp/file")
    expect_body(args.root / "tmp/file")
    for name in (*TEXTS, "zsh/vendor-completions/_xfer-get"):
        expect((args.root / "usr/share" / name).is_file(), f"the tool came without {name}")

    system.install(f"/packages/{one(packages, 'python3-xfer_*_all.deb').name}")
    modules = args.root / "usr/lib/python3/dist-packages/xfer"
    expect((modules / "__pycache__").is_dir(), "what Python compiles is left to whoever imports it first")
    with serving() as url:
        write_ten_lines(readme, url)
        system.run("sh", "-ec", "cd /readme && exec python3 app.py")
    expect_body(readme / "big.bin")
    version = system.run("python3", "-c", "import importlib.metadata; print(importlib.metadata.version('xfer'))").strip()
    expect(system.run("dpkg-query", "-W", "-f", "${Version}", "python3-xfer") == version, f"the package says {version}")

    # What builds need: without libcurl's headers at first, which only the static library asks for.
    system.install(f"/packages/{one(packages, 'libxfer-dev_*.deb').name}", "g++", "cmake", "make", "pkg-config")
    with serving() as url:
        write_ten_lines(readme, url)
        for language in ("c", "cpp"):
            system.run("cmake", "-S", f"/readme/{language}", "-B", f"/readme/{language}/build")
            system.run("cmake", "--build", f"/readme/{language}/build")
            system.run("sh", "-ec", f"cd /readme && exec {language}/build/app")
            expect_body(readme / "big.bin")
    build_in(system, "/consumers/consumer", "xfer")
    system.install("libcurl4-openssl-dev")
    build_in(system, "/consumers/static_consumer", "xfer-static")

    depends = system.run("dpkg-query", "-W", "-f", "${Depends}", "libxfer1")
    expect("libcurl4 (>= 7.87" in depends and "libc6" in depends, f"libxfer1 depends on {depends}")
    depends = system.run("dpkg-query", "-W", "-f", "${Depends}", "xfer-get")
    expect("libssl3" in depends and "libxfer1 (= 1" in depends, f"xfer-get depends on {depends}")
    depends = system.run("dpkg-query", "-W", "-f", "${Depends}", "python3-xfer")
    expect("python3 (>= 3.9)" in depends and "libxfer1 (= 1" in depends, f"python3-xfer depends on {depends}")
    expect("libxfer 1 libxfer1 (>= 1" in (args.root / "var/lib/dpkg/info/libxfer1.shlibs").read_text(), "no shlibs")
    system.run("dpkg", "--purge", "python3-xfer", "libxfer-dev", "xfer-get", "libxfer1")
    left = [path for path in (args.root / "usr").rglob("*") if path.name == "xfer" or
            "xfer-get" in path.name or path.name.startswith(("libxfer", "libkeel", "xfer-"))]
    expect(not left, f"left behind: {left}")
    print("installed, used and removed")


def build_in(system, source, package):
    folder = f"/built-{package}"
    system.run("cmake", "-S", source, "-B", folder)
    system.run("cmake", "--build", folder)
    programs = [f"{folder}/{program}" for program in PROGRAMS]
    for compiler, file in (("gcc", "from_c.c"), ("g++", "from_cxx.cpp")):
        programs.append(f"{folder}/pkg-config-{file}")
        system.run("sh", "-ec", f"{compiler} /consumers/consumer/{file} -o {programs[-1]} "
                   f"$(pkg-config --cflags --libs {package})")
    with refusing_port() as port:
        for program in programs:
            system.run("sh", "-ec", f"cd /tmp && exec {program} {port}")


# ---- The archive for Windows ----


def tool(*names):
    found = [name for name in names if shutil.which(name)]
    expect(found, f"none of {', '.join(names)} was found")
    return found[0]


def microsoft(args):
    prefix = unpacked(one(args.packages, "*.zip"), args.work / "zip")
    built = fresh(args.work / "host")
    run([tool("clang", "clang-14"), "--target=x86_64-pc-windows-msvc", "-std=c99", "-O1", "-ffreestanding",
         "-fno-stack-protector", "-Wall", "-Wextra", "-Werror", "-I", prefix / "include", "-c", HERE / "microsoft_host.c",
         "-o", built / "host.obj"])
    run([tool("lld-link", "lld-link-14"), "/nodefaultlib", "/entry:mainCRTStartup", "/subsystem:console",
         f"/out:{built}/host.exe", built / "host.obj", prefix / "lib" / "xfer.lib", f"{args.system_libraries}/libkernel32.a"])
    for library in (prefix / "bin").glob("*.dll"):
        shutil.copy(library, built)
    with serving() as url:
        run([args.emulator, built / "host.exe", url, LENGTH], timeout=120)
        run([args.emulator, prefix / "bin" / "xfer-get.exe", url, "file"], cwd=built, timeout=120)
    expect_body(built / "file")

    # Python looks for names of its own system.
    found = run(["python3", "-c", "from xfer import _native; _native._NAMES = ('xfer.dll',); "
                 "print(_native._candidates()[0])"], env={**os.environ, "PYTHONPATH": str(prefix / "python")}).strip()
    expect(found == str(prefix / "bin" / "xfer.dll"), f"Python would load {found} first")

    folder = args.work / "mingw"
    build_with_mingw(prefix, CONSUMER, folder, args.toolchain, f"-DXFER_WINDOWS_DEPS={args.dependencies}")
    with refusing_port() as port:
        for program in PROGRAMS:
            run([args.emulator, folder / f"{program}.exe", port], cwd=folder, timeout=120)
    with serving() as url:
        use_ten_lines_with_mingw(args, prefix, args.work / "readme", url)
    print("linked and run")


def build_with_mingw(prefix, source, folder, toolchain, *options):
    run(["cmake", "-S", source, "-B", folder, "-G", "Ninja", f"-DCMAKE_TOOLCHAIN_FILE={toolchain}", *options,
         f"-Dxfer_DIR={prefix}/lib/cmake/xfer", "-DCMAKE_EXE_LINKER_FLAGS=-static"])
    run(["cmake", "--build", folder])
    for library in (prefix / "bin").glob("*.dll"):
        shutil.copy(library, folder)


def use_ten_lines_with_mingw(args, prefix, folder, url):
    """Built with the tool chain of docs/install.md, and with its commands."""
    write_ten_lines(folder, url)
    page = (PROJECT / "docs" / "install.md").read_text(encoding="utf-8")
    toolchain = folder / "toolchain.cmake"
    toolchain.write_text(re.search(r"^```cmake\n(set\(CMAKE_SYSTEM_NAME Windows\)\n.*?)^```$", page, re.M | re.S)[1])
    commands = re.findall(r"^x86_64-w64-mingw32-.* app\.(c|cpp) .*$", page, re.MULTILINE)
    expect(sorted(commands) == ["c", "cpp"], f"docs/install.md compiles {commands}")
    for language in ("c", "cpp"):
        project = folder / language
        build_with_mingw(prefix, project, project / "build", toolchain)
        command = re.search(rf"^x86_64-w64-mingw32-.* app\.{language} .*$", page, re.MULTILINE)[0]
        run([word.replace("<folder>", str(prefix)) for word in command.split()], cwd=project)
        shutil.move(project / "app.exe", project / "build" / "direct.exe")
        for program in ("app.exe", "direct.exe"):
            run([args.emulator, project / "build" / program], cwd=project / "build", timeout=120)
            expect_body(project / "build" / "big.bin")


CHECKS = {"same": same, "contents": contents, "archive": archive, "debian": debian, "microsoft": microsoft}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("check", choices=CHECKS)
    parser.add_argument("--packages", type=pathlib.Path, required=True)
    parser.add_argument("--work", type=pathlib.Path, required=True)
    for name in ("other", "built-in", "root", "system-libraries", "toolchain", "dependencies", "emulator"):
        parser.add_argument("--" + name, type=pathlib.Path)
    args = parser.parse_args()
    for name, value in vars(args).items():
        if isinstance(value, pathlib.Path):
            setattr(args, name, value.resolve())
    fresh(args.work)
    CHECKS[args.check](args)


main()
