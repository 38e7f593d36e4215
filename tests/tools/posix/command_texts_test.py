"""Gives the manual and the completions to those that read them: command_texts_test.py CHECK --tool XFER-GET
--writer XFER-GET-TEXTS --texts FOLDER

The checks: manual, bash, zsh, fish, same.  A reader that is not installed is a failure.
"""
import argparse
import contextlib
import os
import pathlib
import pty
import re
import select
import subprocess
import sys
import tempfile
import time

LIMIT = 30 * int(os.environ.get("XFER_TEST_TIMEOUT_FACTOR", "1"))


def run(command, **options):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, stdin=subprocess.DEVNULL,
                            timeout=LIMIT, **options)
    if result.returncode != 0 or result.stderr:
        sys.exit(f"{' '.join(map(str, command))}\nended with {result.returncode}\n{result.stdout}{result.stderr}")
    return result.stdout


def expect_equal(what, found, wanted):
    if found != wanted:
        sys.exit(f"{what}\n  found  {found}\n  wanted {wanted}")


def options(args):
    """Those of --help: their names and their letters, with the dashes."""
    text = run([args.tool, "--help"])
    rows = re.findall(r"^  (?:-(\w), |    )--([\w-]+)(?: ([A-Z][A-Z=]*))?", text, re.MULTILINE)
    names = {f"--{name}" for _, name, _ in rows} | set(re.findall(r"also (--\w+)", text))
    letters = {f"-{letter}" for letter, _, _ in rows if letter}
    if len(names) < 30 or len(letters) < 15:
        sys.exit(f"too few options in the help: {names} {letters}")
    return names, letters


@contextlib.contextmanager
def some_files():
    """A folder with files and a folder whose names begin alike."""
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        (folder / "some file").write_text("")
        (folder / "some folder").mkdir()
        yield folder


# ---- The manual ----


def manual(args):
    page = args.texts / "xfer-get.1"
    expect_equal("mandoc has to say", run(["mandoc", "-Tlint", "-Wwarning", page]), "")
    text = re.sub(r".\x08", "", run(["mandoc", "-Tascii", "-Owidth=100", page]))
    sections = re.findall(r"^[A-Z][A-Z ]+$", text, re.MULTILINE)
    expect_equal("sections", sections,
                 ["NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "ENVIRONMENT", "EXAMPLES"])
    bare = re.findall(r"(?<!\\)-.*", page.read_text().partition("\n")[2])
    expect_equal("hyphens that cannot be copied", bare, [])
    names, letters = options(args)
    found = {word for line in re.findall(r"^ {7}(-.*)", text, re.MULTILINE)
             for word in re.findall(r"(?:^|, )(--?[\w-]+)", line.split("   ")[0])}
    expect_equal("options in the manual", sorted(found), sorted(names | letters))
    groups = re.findall(r"^(\w.*):$", run([args.tool, "--help"]), re.MULTILINE)[:-2]
    expect_equal("groups in the manual", re.findall(r"^   (\w.*)$", text, re.MULTILINE), groups)
    if "       xfer-get - download files" not in text or "\n       6      The server's certificate" not in text:
        sys.exit(text)


# ---- Shells ----


class Shell:
    """An interactive shell on a terminal of its own, with a function in place of xfer-get that tells its arguments."""

    def __init__(self, command, folder, home):
        self.told = home / "told"
        self.seen = b""
        self.awaited = 0  # of what was seen
        environment = {"PATH": os.environ["PATH"], "HOME": str(home), "TERM": "dumb", "LC_ALL": "C.UTF-8"}
        self.id, self.terminal = pty.fork()
        if self.id == 0:
            os.chdir(folder)
            try:
                os.execvpe(command[0], command, environment)
            finally:
                os._exit(127)

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        os.close(self.terminal)
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.id, 9)
        os.waitpid(self.id, 0)

    def type(self, text):
        os.write(self.terminal, text.encode())

    def await_text(self, text):
        """Reads until the shell has written this, behind what was awaited before."""
        end = time.monotonic() + LIMIT
        while text not in self.seen[self.awaited:]:
            ready, _, _ = select.select([self.terminal], [], [], max(0, end - time.monotonic()))
            try:
                piece = os.read(self.terminal, 65536) if ready else b""
            except OSError:
                piece = b""
            if not piece:
                sys.exit(f"the shell is not heard of any more; it wrote:\n{self.seen.decode(errors='replace')}")
            self.seen += piece
        self.awaited = self.seen.index(text, self.awaited) + len(text)

    def set_up(self, lines):
        # The lines themselves do not have the texts that are awaited.
        tell = f"xfer-get() {{ printf '%s\\n' \"$@\" > {self.told}; printf '%s%s\\n' TO LD; }}"
        for line in [*lines, tell, "PS1=PROMPT; PS1=$PS1'>'"]:
            self.type(line + "\n")
        self.await_text(b"PROMPT>")

    def completed(self, typed):
        """The arguments that are there once Tab was hit behind what was typed."""
        self.type(f"xfer-get {typed}\t\n")
        self.await_text(b"TOLD")
        self.await_text(b"PROMPT>")  # what is typed before may be lost
        return self.told.read_text().splitlines()


# What is typed, and the arguments that come of it; in a folder with "some file" and "some folder".
TYPED = {
    "--overw": ["--overwrite"],
    "--max-tr": ["--max-tries"],
    "-o out --no-m": ["-o", "out", "--no-map"],
    "--plan sta": ["--plan", "stated"],
    "-o some\\ fi": ["-o", "some file"],
    "--cacert some\\ fi": ["--cacert", "some file"],
    "-P some": ["-P", "some folder/"],
    "--directory some": ["--directory", "some folder/"],
    "--checksum sha5": ["--checksum", "sha512="],
    "--checksum sha5\tab": ["--checksum", "sha512=ab"],  # goes on where the word ends
    "some\\ fi": ["some file"],
    "-n some": ["-n", "some"],
    "-H some": ["-H", "some"],
    "--wrong": ["--wrong"],
}


def expect_typing(shell, typed):
    for text, wanted in typed.items():
        expect_equal(f"typed: {text}", shell.completed(text), wanted)


def bash(args):
    script = args.texts / "xfer-get.bash"
    names, letters = options(args)

    def offered(*words):
        """What the function offers for the last of the words, as bash calls it."""
        program = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
                   '$(complete -p xfer-get | sed "s/.* -F \\([^ ]*\\) .*/\\1/"); printf "%s\\n" "${COMPREPLY[@]}"')
        text = run(["bash", "--norc", "--noprofile", "-c", program, "bash", script, "xfer-get", *words])
        return sorted(text.split("\n")[:-1]) if text != "\n" else []

    expect_equal("bash has to say", run(["bash", "-n", script]), "")
    expect_equal("for --", offered("--"), sorted(names))
    expect_equal("for -", offered("-"), sorted(names | letters))
    expect_equal("for --ov", offered("--ov"), ["--overwrite"])
    expect_equal("for --plan", offered("--plan", ""), ["adaptive", "stated"])
    expect_equal("for --plan=", offered("--plan", "="), ["adaptive", "stated"])
    expect_equal("for --plan=ad", offered("--plan", "=", "ad"), ["adaptive"])
    expect_equal("for --checksum", offered("--checksum", ""), ["md5=", "sha1=", "sha256=", "sha512="])
    expect_equal("for -j", offered("-j", ""), [])
    with some_files() as folder, tempfile.TemporaryDirectory() as home, \
            Shell(["bash", "--norc", "--noprofile", "-i"], folder, pathlib.Path(home)) as shell:
        shell.set_up([f"source '{script}'"])
        expect_typing(shell, TYPED | {
            "--plan=ada": ["--plan=adaptive"],
            "--output=some\\ fi": ["--output=some file"],
            "-- --overw": ["--", "--overw"],
        })


def zsh(args):
    names, letters = options(args)
    run(["zsh", "-n", args.texts / "_xfer-get"])
    with some_files() as folder, tempfile.TemporaryDirectory() as name:
        home = pathlib.Path(name)
        with Shell(["zsh", "-f", "-i"], folder, home) as shell:
            # Matches are also noted in a file, by a function that hides what offers them.
            shell.set_up([f"fpath=('{args.texts}' $fpath); autoload -Uz compinit; compinit -u -d '{home}/dump'",
                          f"compadd() {{ if [[ ${{@[1,(i)(-|--)]}} != *-[OAD]\\ * ]]; then local -a noted; "
                          f"builtin compadd -A noted \"$@\"; print -rl -- $noted >> '{home}/noted'; fi; "
                          'builtin compadd "$@" }'])
            expect_typing(shell, TYPED | {
                "--plan=ada": ["--plan=adaptive"],
                "--output=some\\ fi": ["--output=some file"],
                "--checksum=md": ["--checksum=md5="],
                "-nsome": ["-nsome"],
                "-P some": ["-P", "some folder"],  # the slash goes with the end of the line
                "--directory some": ["--directory", "some folder"],
                "-- --overw": ["--", "--overw"],
            })
            for start, wanted in (("--", names), ("-", names | letters)):
                (home / "noted").write_text("")
                shell.completed(start)
                noted = {line.removesuffix("=") for line in (home / "noted").read_text().splitlines()}
                expect_equal(f"for {start}", sorted(noted - {""}), sorted(wanted))


def fish(args):
    names, letters = options(args)
    script = args.texts / "xfer-get.fish"
    with some_files() as folder, tempfile.TemporaryDirectory() as home:
        def offered(line):
            program = f"source '{script}'; complete -C '{line}'"
            text = run(["fish", "--no-config", "-c", program], cwd=folder, env=dict(os.environ, HOME=home))
            return sorted(line.split("\t")[0] for line in text.splitlines())

        run(["fish", "--no-execute", script])
        expect_equal("for --ov", offered("xfer-get --ov"), ["--overwrite"])
        expect_equal("for --", offered("xfer-get --"), sorted(names))
        expect_equal("for -", offered("xfer-get -"), sorted(names | letters))
        expect_equal("for --plan", offered("xfer-get --plan "), ["adaptive", "stated"])
        expect_equal("for --plan=ad", offered("xfer-get --plan=ad"), ["--plan=adaptive"])
        expect_equal("for --checksum sha5", offered("xfer-get --checksum sha5"), ["sha512="])
        expect_equal("for -P", offered("xfer-get -P some"), ["some folder/"])
        expect_equal("for -o", offered("xfer-get -o some"), ["some file", "some folder/"])
        expect_equal("for FILE", offered("xfer-get some"), ["some file", "some folder/"])
        expect_equal("for -n", offered("xfer-get -n some"), [])


# ---- The bytes ----


def same(args):
    """The texts depend on nothing but the sources."""
    with tempfile.TemporaryDirectory() as folder:
        run([args.writer, folder], cwd=folder,
            env=dict(os.environ, TZ="Pacific/Auckland", COLUMNS="40", HOME=folder, LC_ALL="C"))
        written = sorted(path.name for path in pathlib.Path(folder).iterdir())
        expect_equal("files", written, ["_xfer-get", "xfer-get.1", "xfer-get.bash", "xfer-get.fish"])
        for name in written:
            bytes_written = (pathlib.Path(folder) / name).read_bytes()
            expect_equal(f"bytes of {name}", bytes_written, (args.texts / name).read_bytes())
            bytes_written.decode("ascii")


CHECKS = {"manual": manual, "bash": bash, "zsh": zsh, "fish": fish, "same": same}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("check", choices=CHECKS)
    for name in ("tool", "writer", "texts"):
        parser.add_argument("--" + name, type=lambda path: pathlib.Path(path).resolve(), required=True)
    args = parser.parse_args()
    CHECKS[args.check](args)


main()
