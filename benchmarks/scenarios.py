#!/usr/bin/env python3
"""Times downloads from difficult servers, as multiples of the least time that each server allows.

    cmake --preset release -DXFER_BUILD_BENCHMARKS=ON
    cmake --build --preset release --target xfer-get scenario_server plain_recv bare_loop measured
    benchmarks/scenarios.py --bin build/release/bin
    benchmarks/scenarios.py --bin build/release/bin --tool "one=build/release/bin/xfer-get -q -n 1" --only latency

--tool LABEL=COMMAND may be repeated; {url} and {file} in the command are replaced, and appended when they are not there.
Without it, xfer-get runs with 8 connections.  Beside them run a bare libcurl loop over 8 equal ranges, curl with one
connection, and aria2c, axel and wget2 with 8; those that are not installed are named and left out.

Scenarios (a rate is 4 MiB/s for each connection, over all its requests)

    latency    256 MiB, 50 ms before each response's first byte
    paced      128 MiB, every connection at the rate
    slow        64 MiB, at the rate, every fourth connection at a sixteenth of it
    silent      64 MiB, at the rate, every fourth connection stays open but stops after its first 64 KiB
    dying       64 MiB, at the rate, of the first eight connections one is reset and one closed halfway through what
                an equal share is
    changing   128 MiB, each connection's rate drawn anew every second, from 1 to 7 MiB/s, in every run the same
    16M, 256M, 1G   of that size, as fast as it goes

The limit is what times are divided by

    paced, slow, silent, dying, changing: arithmetic, the size divided by the sum of what the first eight connections
    carry.  Slow ones count with their own rate, silent ones with none: who opens others in their place can be below 1,
    at the least 0.77 (slow) and 0.75 (silent).  Dying ones count as if replaced at once.  Starting the program and
    asking is in the time and not in the limit, some 0.01 s.  plain_recv, raw sockets of which each receives an equal
    share, runs too and shows what the server really gives: 1.00 where nothing needs to move, the cost of equal shares
    where something does.  Where connections are silent it does not run: it would not end.

    latency, 16M, 256M, 1G: measured in the same rounds, the best of the medians of plain_recv with one connection and
    with eight.  It knows the size beforehand, so latency is in it once.  "splice, 1" is plain_recv whose bytes do not
    pass through the program: what only the kernel can do, shown beside and not counted as the limit.

How it measures

    The programs take turns within each round, and each round begins with another one.  Every download has a server of
    its own, since scenarios count connections.  A time is that of the whole program, from its start to its end; a figure
    is the median, of four times the rounds for 16M.  Each stored file is compared with the original after its time was
    taken, and a wrong one ends the run.  Files lie in memory (--folder chooses another place).  Right before each
    download as many bytes are written and removed again, because a virtual machine's memory that was given back to its
    host is slow at first touch.

    A download is stopped after 20 times the limit, but not before 5 s, and after 60 s at the latest.  A program that was
    stopped, that failed, or that took more than --patience times the limit in its first round runs no more in that
    scenario; its figure is that of one round and marked with *.

The second table says what the server saw, and what the program took: connections (most of them at once), requests, and bytes sent as a multiple of
the file's size.  What a client takes but does not need counts there.
"""
import argparse
import dataclasses
import html
import json
import os
import pathlib
import shlex
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile

MIB = 1 << 20
CONNECTIONS = 8
BLOCK = 4 * MIB
SPLICE = "splice, 1"


@dataclasses.dataclass(frozen=True)
class Scenario:
    name: str
    mib: int
    server: tuple = ()
    plain_recv_ends: bool = True
    rounds_factor: int = 1  # more rounds where one is short

    def is_measured(self):
        """Whether the limit is measured, not arithmetic."""
        return "--rate" not in self.server


RATE = ("--rate", str(4 * MIB))
SCENARIOS = (
    Scenario("latency", 256, ("--latency", "50")),
    Scenario("paced", 128, RATE),
    Scenario("slow", 64, RATE + ("--every-fourth", "slow")),
    Scenario("silent", 64, RATE + ("--every-fourth", "silent"), plain_recv_ends=False),
    Scenario("dying", 64, RATE + ("--dying", str(64 * MIB // CONNECTIONS // 2))),
    Scenario("changing", 128, RATE + ("--changing", "1")),
    Scenario("16M", 16, rounds_factor=4),
    Scenario("256M", 256),
    Scenario("1G", 1024),
)


class Server:
    """scenario_server for one download; it ends when its standard input does, however this program ends."""

    def __init__(self, program, original, options):
        self.process = subprocess.Popen([program, original, *options], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)
        self.port = self.process.stdout.readline().strip()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def seen(self):
        """Ends the server; what it served."""
        return json.loads(self.process.communicate(timeout=10)[0])


@dataclasses.dataclass
class Download:
    outcome: str  # "done", "failed" or "stopped"
    seconds: float
    processor_seconds: float
    peak_kib: int
    connections: int
    most_open: int
    requests: int
    sent: float  # multiples of the file's size


class Bench:
    def __init__(self, folder, bin_folder):
        self.folder = folder
        self.server = bin_folder / "scenario_server"
        self.measured = bin_folder / "measured"
        self.original = folder / "original.bin"
        self.target = folder / "target.bin"

    def write_original(self, mib):
        with open(self.original, "wb") as file:
            for _ in range(mib):
                file.write(os.urandom(MIB))

    def arithmetic_limit(self, scenario):
        words = [self.server, self.original, *scenario.server, "--limit", str(CONNECTIONS)]
        return float(subprocess.run(words, check=True, capture_output=True, text=True).stdout)

    def remove_target(self):
        for file in self.folder.glob(self.target.name + "*"):
            file.unlink()

    def touch_memory(self, mib):
        block = bytes(MIB)
        with open(self.target, "wb", buffering=0) as file:
            for _ in range(mib):
                file.write(block)
        self.target.unlink()

    def is_whole(self):
        if not self.target.exists():
            return False
        with open(self.original, "rb") as original, open(self.target, "rb") as target:
            while True:
                expected = original.read(BLOCK)
                if expected != target.read(BLOCK):
                    return False
                if not expected:
                    return True

    def download(self, label, command, scenario, most_seconds):
        self.touch_memory(scenario.mib)
        with Server(self.server, self.original, scenario.server) as server:
            words = [word.format(url=f"http://127.0.0.1:{server.port}/file.bin", file=self.target, port=server.port,
                                 size=scenario.mib * MIB, folder=self.folder, name=self.target.name)
                     for word in command]
            taken = json.loads(subprocess.run([self.measured, str(most_seconds), *words], check=True,
                                              capture_output=True, text=True).stdout)
            seen = server.seen()
        outcome = "stopped" if taken["stopped"] else "done" if taken["code"] == 0 else "failed"
        if outcome == "done" and not self.is_whole():
            raise SystemExit(f"{label} stored another file in {scenario.name}")
        self.remove_target()
        return Download(outcome, taken["seconds"], taken["processor_seconds"], taken["peak_kib"], seen["connections"], seen["most_open"], seen["requests"],
                        seen["body_bytes"] / (scenario.mib * MIB))


def tools(args):
    """Commands by label, the yardsticks first."""
    everyone = {f"plain recv, {count}": [str(args.bin / "plain_recv"), "{port}", "{size}", str(count), "{file}"]
                for count in (1, CONNECTIONS)}
    everyone[SPLICE] = [*everyone["plain recv, 1"], "splice"]
    for text in args.tool or [f"xfer-get={args.bin / 'xfer-get'} -q -n {CONNECTIONS}"]:
        label, _, command = text.partition("=")
        words = shlex.split(command)
        if not words or shutil.which(words[0]) is None:
            raise SystemExit(f"not a program: {text}")
        everyone[label] = words + [place for place in ("{url}", "{file}") if place not in command]
    peers = {} if args.alone else {
        "bare libcurl": [str(args.bin / "bare_loop"), "{url}", "{file}"],
        "curl": ["curl", "-sf", "-o", "{file}", "{url}"],
        "aria2c": ["aria2c", "-q", "--allow-overwrite=true", "--no-conf", "-x", str(CONNECTIONS), "-s",
                   str(CONNECTIONS), "-k", "1M", "--file-allocation=falloc", "-d", "{folder}", "-o", "{name}", "{url}"],
        "axel": ["axel", "-q", "-n", str(CONNECTIONS), "-o", "{file}", "{url}"],
        "wget2": ["wget2", "-q", "--no-config", f"--max-threads={CONNECTIONS}", "--chunk-size=1M", "-O", "{file}",
                  "{url}"],
    }
    for label, words in peers.items():
        if shutil.which(words[0]):
            everyone[label] = words
        else:
            print(f"not installed, left out: {label}", file=sys.stderr)
    return everyone


def take_part(label, scenario):
    if label in ("plain recv, 1", SPLICE):
        return scenario.is_measured()
    return label != f"plain recv, {CONNECTIONS}" or scenario.plain_recv_ends


def median(downloads):
    done = [download.seconds for download in downloads if download.outcome == "done"]
    return statistics.median(done) if done else None


def rotated(items, by):
    by %= len(items)
    return items[by:] + items[:by]


def run(bench, scenario, everyone, args):
    """Seconds of the limit, and the downloads of each tool."""
    bench.write_original(scenario.mib)
    limit = None if scenario.is_measured() else bench.arithmetic_limit(scenario)
    downloads = {label: [] for label in everyone if take_part(label, scenario)}
    yardsticks = [label for label in downloads if label.startswith("plain recv")]
    given_up = set()
    for number in range(args.rounds * scenario.rounds_factor):
        for label in rotated(list(downloads), number):
            if label in given_up:
                continue
            # The yardsticks come first in the first round: their times bound what follows.
            known = limit or min(filter(None, (median(downloads[other]) for other in yardsticks)), default=None)
            most_seconds = 60 if known is None else min(60, max(5, 20 * known))
            print(f"{scenario.name}, round {number + 1}: {label} ...", end="", file=sys.stderr, flush=True)
            download = bench.download(label, everyone[label], scenario, most_seconds)
            print(f" {download.outcome}, {download.seconds:.3f} s", file=sys.stderr)
            downloads[label].append(download)
            if label in yardsticks and download.outcome != "done":
                raise SystemExit(f"{label} {download.outcome} in {scenario.name}")
            is_yardstick = limit is None and label in yardsticks
            too_long = number == 0 and known is not None and download.seconds > args.patience * known
            if download.outcome != "done" or (too_long and not is_yardstick):
                given_up.add(label)
    if limit is None:
        limit = min(median(downloads[label]) for label in yardsticks)
    return limit, downloads


def figure(downloads, limit, rounds):
    if not downloads:
        return ""
    if len(downloads) < rounds or downloads[-1].outcome != "done":
        last = downloads[-1]
        text = f"{last.seconds / limit:.2f}" if last.outcome == "done" else f"{last.outcome} at {last.seconds:.0f} s"
        return text + "*"
    return f"{median(downloads) / limit:.2f}"


def spread(downloads, limit):
    seconds = [download.seconds / limit for download in downloads]
    return f"{min(seconds):.2f}..{max(seconds):.2f}"


def show(results, labels, rounds):
    def row(cells):
        print("| " + " | ".join(cells) + " |")

    print(f"Multiples of the limit, median of {rounds} rounds, {os.cpu_count()} processors\n")
    row(["scenario", "MiB", "limit, s", *labels])
    print("|" + "---|" * (len(labels) + 3))
    for scenario, limit, downloads in results:
        cells = [figure(downloads.get(label, []), limit, rounds * scenario.rounds_factor) for label in labels]
        row([scenario.name, str(scenario.mib), f"{limit:.3f}", *cells])
    print("\nWhat the server saw and the program took, medians\n")
    row(["scenario", "program", "least and most time", "connections (at once)", "requests", "sent",
         "processor, s a GiB", "peak memory, MiB"])
    print("|" + "---|" * 8)
    for scenario, limit, downloads in results:
        for label, some in downloads.items():
            middle = [statistics.median(getattr(download, name) for download in some)
                      for name in ("connections", "most_open", "requests", "sent", "processor_seconds", "peak_kib")]
            row([scenario.name, label, spread(some, limit), f"{middle[0]:.0f} ({middle[1]:.0f})", f"{middle[2]:.0f}",
                 f"{middle[3]:.3f}", f"{middle[4] * 1024 / scenario.mib:.2f}", f"{middle[5] / 1024:.1f}"])


def write_chart(path, results, labels):
    """A group of bars for each scenario; those that do not fit end in their figure."""
    left, top, width, most, bar, gap = 90, 46, 560, 4.0, 13, 12
    colours = ("#1b6ca8", "#8fb8d6", "#c9a227", "#b5563c", "#7a8f5a", "#8a6fa8", "#999999")
    shapes = []

    def text(x, y, words, extra=""):
        shapes.append(f'<text x="{x:.0f}" y="{y:.0f}" {extra}>{html.escape(words)}</text>')

    text(left, 16, "Time to download, in multiples of the least that each server allows", 'font-weight="bold"')
    for number, label in enumerate(labels):
        x = left + number * 110
        shapes.append(f'<rect x="{x}" y="26" width="10" height="10" fill="{colours[number % len(colours)]}"/>')
        text(x + 14, 35, label)
    y = top
    for scenario, limit, downloads in results:
        text(left - 8, y + bar * len(labels) / 2 + 4, scenario.name, 'text-anchor="end"')
        for number, label in enumerate(labels):
            some = downloads.get(label, [])
            time = median(some)
            if some and some[-1].outcome != "done":
                words, length = some[-1].outcome, most
            elif time is None:
                words, length = "", 0
            else:
                words, length = f"{time / limit:.2f}", min(time / limit, most)
            shapes.append(f'<rect x="{left}" y="{y}" width="{length / most * width:.0f}" height="{bar - 2}" '
                          f'fill="{colours[number % len(colours)]}"/>')
            text(left + length / most * width + 4, y + bar - 4, words)
            y += bar
        y += gap
    limit_x = left + width / most
    shapes.append(f'<line x1="{limit_x:.0f}" y1="{top - 4}" x2="{limit_x:.0f}" y2="{y - gap}" stroke="#333" '
                  'stroke-dasharray="3 3"/>')
    path.write_text(f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 80}" height="{y}" '
                    f'font-family="sans-serif" font-size="11">\n<rect width="100%" height="100%" fill="white"/>\n'
                    + "\n".join(shapes) + "\n</svg>\n")


def write_json(path, results, rounds):
    path.write_text(json.dumps({
        "rounds": rounds,
        "processors": os.cpu_count(),
        "scenarios": [{"name": scenario.name, "mib": scenario.mib, "limit_seconds": limit,
                       "limit_is": "measured" if scenario.is_measured() else "arithmetic",
                       "downloads": {label: [dataclasses.asdict(download) for download in some]
                                     for label, some in downloads.items()}}
                      for scenario, limit, downloads in results]}, indent=1) + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bin", type=pathlib.Path, required=True, help="folder of scenario_server and its neighbours")
    parser.add_argument("--tool", action="append", metavar="LABEL=COMMAND", help="may be repeated; default: xfer-get")
    parser.add_argument("--only", action="append", choices=[scenario.name for scenario in SCENARIOS],
                        help="may be repeated")
    parser.add_argument("--alone", action="store_true", help="leave out the programs beside --tool")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--patience", type=float, default=5, help="see above; default: %(default)s")
    parser.add_argument("--folder", type=pathlib.Path, default=pathlib.Path("/dev/shm"), help="default: %(default)s")
    parser.add_argument("--json", type=pathlib.Path, metavar="FILE", help="write every download's figures there")
    parser.add_argument("--svg", type=pathlib.Path, metavar="FILE", help="draw a chart there")
    args = parser.parse_args()
    everyone = tools(args)

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # so that what was started is stopped
    folder = pathlib.Path(tempfile.mkdtemp(prefix="xfer-scenarios-", dir=args.folder))
    results = []
    try:
        bench = Bench(folder, args.bin)
        for scenario in SCENARIOS:
            if not args.only or scenario.name in args.only:
                results.append((scenario, *run(bench, scenario, everyone, args)))
    finally:
        shutil.rmtree(folder)
        if results:
            show(results, list(everyone), args.rounds)
            if args.json:
                write_json(args.json, results, args.rounds)
            if args.svg:
                yardsticks = ("plain recv", "splice")
                write_chart(args.svg, results, [label for label in everyone if not label.startswith(yardsticks)])


sys.exit(main())
