"""Runs every block of code of every page of the project, as a reader would.

    docs_test.py --build DIR --prefix DIR --work DIR --cxx COMPILER --cc COMPILER [--launcher PROGRAM] [PAGE...]

Each block has a language; a comment on the line before it, which no reader sees, says what to do where the language alone
does not:

    <!-- run -->                           the default with cpp, c, python, cmake and sh
    <!-- run: fragment NAME -->            a part of a program: inside of programs/NAME.LANGUAGE.in
    <!-- run: makes FILE FILE -->          the block leaves these files
    <!-- run: without TEXT -->             but for its lines that begin with TEXT
    <!-- checked by: NAME, NAME -->        tests of ctest, or files of the project that test it
    <!-- not run: WHY -->                  a picture, an output, or what cannot run here

cpp and c are compiled with all warnings and run.  cmake is configured and built as a project with one program.  sh runs in
a folder of its own with the built xfer-get, app.c, app.cpp, the examples, and $prefix, where xfer is installed.  In all of
them https://host/ is a server on the loopback interface, and no other address may be there; /opt/xfer is the prefix."""
import argparse
import concurrent.futures
import contextlib
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parents[1]
sys.dont_write_bytecode = True
sys.path.insert(0, str(PROJECT / "tests" / "examples"))

import server  # noqa: E402: found by the path above

LANGUAGES = ("cpp", "c", "python", "cmake", "sh")
CLAUSES = ("fragment", "makes", "without")
LONGEST = 60  # s, of one block
BODY = server.text(2 << 20)
# The oldest languages that the headers serve, and all that a compiler can say about a host's program.
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror", "-O0"]
STANDARDS = {"cpp": "-std=c++17", "c": "-std=c99"}
IN_PROJECT = re.compile(r"(?<![\w./-])(?:scripts|benchmarks|tests|examples|docs|bindings|tools|cmake|modules)/[\w./-]*\w")


class Problem(Exception):
    pass


class Files(dict):
    """The server has every file but one."""

    def get(self, path, default=None):
        return default if path == "/gone" else BODY


class Block:
    def __init__(self, page, line, language, mark, text):
        self.page = page
        self.line = line
        self.language = language
        self.text = text
        self.kind, _, rest = (mark or "run").partition(":")
        self.rest = rest.strip()
        self.clauses = {}

    def check(self, names):
        """Raises a Problem for a block that nothing is done about."""
        if self.kind == "not run":
            if not self.rest:
                raise Problem("does not say why it is not run")
        elif self.kind == "checked by":
            for name in self.rest.split(","):
                if name.strip() not in names and not (PROJECT / name.strip()).is_file():
                    raise Problem(f"is checked by {name.strip()!r}, which is neither a test nor a file")
        elif self.kind != "run":
            raise Problem(f"has an unknown mark: {self.kind}")
        elif self.language not in LANGUAGES:
            raise Problem(f"has no mark, and its language {self.language!r} is none of {', '.join(LANGUAGES)}")
        else:
            for clause in filter(None, map(str.strip, self.rest.split(","))):
                word, _, value = clause.partition(" ")
                if word not in CLAUSES or not value:
                    raise Problem(f"has an unknown mark: {clause}")
                self.clauses[word] = value
        if self.language == "sh" or self.kind == "checked by":
            for path in IN_PROJECT.findall(self.text if self.language == "sh" else ""):
                if not (PROJECT / path).exists():
                    raise Problem(f"names {path}, which does not exist")
            presets = (PROJECT / "CMakePresets.json").read_text(encoding="utf-8")
            for preset in re.findall(r"--preset (\S+)", self.text):
                if f'"name": "{preset}"' not in presets:
                    raise Problem(f"names the preset {preset}, which does not exist")


def blocks_of(page):
    """Every fenced block.  Raises a Problem for one that does not end, and for a mark without a block."""
    blocks = []
    mark = None
    lines = iter(enumerate(page.read_text(encoding="utf-8").splitlines(), 1))
    for number, line in lines:
        fence = re.match(r" *(`{3,}|~{3,})(.*)", line)
        marked = re.fullmatch(r" *<!-- (run|checked by|not run)\b(.*?) ?-->", line)
        if fence:
            text = []
            for _, inside in lines:
                if inside.strip() == fence[1]:
                    break
                text.append(inside)
            else:
                raise Problem(f"{page}:{number}: the block does not end")
            blocks.append(Block(page, number, fence[2].strip(), mark, "\n".join(text) + "\n"))
        elif mark is not None:
            raise Problem(f"{page}:{number}: a mark has no block behind it")
        mark = marked[1] + marked[2] if marked else None
    return blocks


class Runner:
    def __init__(self, args, served):
        self.args = args
        self.served = served
        self.library = args.build / "lib" / "libxfer.so"
        packages = next(args.prefix.rglob("pkgconfig"), None)
        if packages is None:
            sys.exit(f"xfer is not installed in {args.prefix}")
        self.environment = {
            **{name: value for name, value in os.environ.items() if not name.lower().endswith("_proxy")},
            "prefix": str(args.prefix), "PATH": f"{args.build / 'bin'}:{os.environ['PATH']}",
            "PKG_CONFIG_PATH": str(packages), "XFER_LIBRARY": str(self.library),
            "PYTHONPATH": str(PROJECT / "bindings" / "python"), "PYTHONDONTWRITEBYTECODE": "1",
            "CMAKE_CXX_COMPILER": str(args.cxx), "CXX": str(args.cxx), "CC": str(args.cc)}
        if args.launcher:
            self.environment["CMAKE_CXX_COMPILER_LAUNCHER"] = self.environment["CMAKE_C_COMPILER_LAUNCHER"] = args.launcher

    def run(self, block):
        text = block.text.replace("https://host/", self.served.url("/")).replace("/opt/xfer", str(self.args.prefix))
        foreign = re.search(r"\b(?:https?|ftp)://(?!127\.0\.0\.1:)\S+", text)
        if foreign:
            raise Problem(f"names another server: {foreign[0]}")
        if "fragment" in block.clauses:
            program = HERE / "programs" / f"{block.clauses['fragment']}.{block.language}.in"
            whole = program.read_text(encoding="utf-8").replace("https://host/", self.served.url("/"))
            where = re.search(r"^( *)@block@\n", whole, re.MULTILINE)
            inside = "".join(where[1] + line if line.strip() else line for line in text.splitlines(keepends=True))
            text = whole[:where.start()] + inside + whole[where.end():]
        if "without" in block.clauses:
            lines = text.splitlines(keepends=True)
            kept = [line for line in lines if not line.startswith(block.clauses["without"])]
            if len(kept) == len(lines):
                raise Problem(f"has no line that begins with {block.clauses['without']!r}")
            text = "".join(kept)
        with tempfile.TemporaryDirectory(dir=self.args.work) as name:
            folder = pathlib.Path(name)
            getattr(self, block.language)(text, folder)
            for file in block.clauses.get("makes", "").split():
                if not (folder / file).exists():
                    raise Problem(f"leaves no {file}")

    def command(self, folder, *command):
        """Runs it, and ends it and all that it has started when it takes too long."""
        process = subprocess.Popen(list(map(str, command)), cwd=folder, env=self.environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, start_new_session=True)
        try:
            said, _ = process.communicate(timeout=LONGEST)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            said, _ = process.communicate()
            raise Problem(f"takes more than {LONGEST} s\n{said}") from None
        if process.returncode != 0:
            raise Problem(f"ends with {process.returncode}: {shlex.join(map(str, command))}\n{said}")
        return said

    def compiled(self, language, text, folder):
        source = folder / f"block.{language}"
        source.write_text(text, encoding="utf-8")
        includes = [f"-I{PROJECT / 'modules' / module / 'include'}" for module in ("xfer", "keel")]
        library = self.library.parent
        compiler = self.args.cxx if language == "cpp" else self.args.cc
        self.command(folder, compiler, STANDARDS[language], *WARNINGS, *includes, source, "-o", folder / "block",
                     f"-L{library}", "-lxfer", f"-Wl,-rpath,{library}", "-pthread")
        self.command(folder, folder / "block")

    def cpp(self, text, folder):
        self.compiled("cpp", text, folder)

    def c(self, text, folder):
        self.compiled("c", text, folder)

    def python(self, text, folder):
        (folder / "block.py").write_text(text, encoding="utf-8")
        self.command(folder, sys.executable, "-X", "dev", "-W", "error", "block.py")

    def cmake(self, text, folder):
        shutil.copy(HERE / "programs" / "app.cpp", folder)
        (folder / "CMakeLists.txt").write_text(
            f"cmake_minimum_required(VERSION 3.25)\nproject(app LANGUAGES CXX)\nadd_executable(app app.cpp)\n{text}",
            encoding="utf-8")
        self.command(folder, "cmake", "-S", ".", "-B", "build", "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={self.args.prefix}")
        self.command(folder, "cmake", "--build", "build")
        self.command(folder, folder / "build" / "app")

    def sh(self, text, folder):
        for name in ("app.c", "app.cpp"):
            shutil.copy(HERE / "programs" / name, folder)
        shutil.copytree(PROJECT / "examples", folder / "examples")
        scripts = folder / "scripts"
        scripts.mkdir()
        (scripts / "get").write_text('#!/bin/sh\nexec xfer-get "$@"\n', encoding="utf-8")  # which it would build first
        (scripts / "get").chmod(0o755)
        self.command(folder, "bash", "-euo", "pipefail", "-c", text)


def pages():
    """Every page but those of builds, and those that are wrong on purpose."""
    built = [PROJECT / name for name in ("build", ".git", ".cache", "bindings/python/build")]
    return sorted(page for page in PROJECT.rglob("*.md") if not {*built, HERE / "wrong"} & set(page.parents))


def names_of_tests(build):
    return {name for file in build.rglob("CTestTestfile.cmake")
            for name in re.findall(r"^add_test\(\[=\[(.*?)\]=\]", file.read_text(encoding="utf-8"), re.MULTILINE)}


def outcome(runner, names, block):
    """What is wrong with it, and the seconds that it took."""
    begin = time.monotonic()
    problem = None
    try:
        block.check(names)
        if block.kind == "run":
            runner.run(block)
    except Problem as error:
        problem = str(error)
    return problem, time.monotonic() - begin


def main():
    parser = argparse.ArgumentParser()
    for name in ("build", "prefix", "work"):
        parser.add_argument(f"--{name}", type=lambda text: pathlib.Path(text).resolve(), required=True)
    for name in ("cxx", "cc"):
        parser.add_argument(f"--{name}", required=True)
    parser.add_argument("--launcher", default="")
    parser.add_argument("pages", nargs="*", type=pathlib.Path)
    args = parser.parse_args()
    args.work.mkdir(parents=True, exist_ok=True)

    problems = []
    blocks = []
    for page in args.pages or pages():
        try:
            blocks += blocks_of(page)
        except Problem as error:
            problems.append(str(error))
    names = names_of_tests(args.build)
    with contextlib.ExitStack() as stack:
        runner = Runner(args, stack.enter_context(server.serving(Files())))
        pool = stack.enter_context(concurrent.futures.ThreadPoolExecutor(os.cpu_count()))
        for block, (problem, seconds) in zip(blocks, pool.map(lambda block: outcome(runner, names, block), blocks)):
            where = f"{block.page.resolve().relative_to(PROJECT)}:{block.line}"
            print(f"{where}: {block.language or '-'}, {block.kind}, {seconds:.1f} s", flush=True)
            if problem is not None:
                problems.append(f"{where}: the block {problem}")
    print(f"{len(blocks)} blocks, of which {sum(block.kind == 'run' for block in blocks)} were run")
    if problems or not blocks:
        sys.exit("\n".join(problems) or "there is no block")


main()
