"""Shows every page of this folder's "wrong" to docs_test.py, which is to refuse each with what is wrong.

    wrong_pages_test.py COMMAND..."""
import concurrent.futures
import os
import pathlib
import subprocess
import sys

WRONG = pathlib.Path(__file__).resolve().parent / "wrong"
WHY = {
    "no_mark": "wrong/no_mark.md:3: the block has no mark, and its language '' is none of",
    "no_end": "no_end.md:3: the block does not end",
    "lonely_mark": "lonely_mark.md:4: a mark has no block behind it",
    "unknown_test": "is checked by 'Example.thatIsNotThere', which is neither a test nor a file",
    "unknown_mark": "has an unknown mark: fragments job",
    "no_reason": "does not say why it is not run",
    "fails": "ends with 1: bash",
    "warns": "unused",
    "ends_badly": "ends with 3: ",
    "raises": "xfer._errors.DownloadError: HTTP 404: not found (404)",
    "not_found": 'with requested version "99"',
    "other_server": "names another server: https://127.0.0.1.example/big.bin",
    "makes_nothing": "leaves no big.bin",
    "no_such_script": "names scripts/none, which does not exist",
    "no_such_preset": "names the preset none, which does not exist",
    "no_such_line": "has no line that begins with 'scripts/test'",
    "none": "there is no block",
}


def problem_of(name):
    ended = subprocess.run([*sys.argv[1:], str(WRONG / f"{name}.md")], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           text=True, timeout=120)
    if ended.returncode == 1 and WHY[name] in ended.stdout:
        return None
    return f"{name}.md: exit code {ended.returncode}, and not {WHY[name]!r}:\n{ended.stdout}"


def main():
    pages = {page.stem for page in WRONG.glob("*.md")}
    problems = [f"{name}: is a page or has a reason, not both" for name in pages ^ set(WHY)]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        problems += filter(None, pool.map(problem_of, sorted(pages & set(WHY))))
    if problems:
        sys.exit("\n".join(problems))
    print(f"{len(pages)} pages were refused")


main()
