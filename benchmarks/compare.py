#!/usr/bin/env python3
"""Times xfer-get beside other downloaders on the same file, from an nginx that it starts on the loopback interface.

    benchmarks/compare.py --xfer-get build/release/bin/xfer-get [--mib 512] [--rounds 7]

Plain HTTP and TLS, over 1, 8 and 64 connections, into a memory file system and into the folder for temporary files, which
should be on a disk; --folder, which may be repeated, chooses others.

The programs take turns within each round, and each round begins with another one, so that what else the machine does
falls on all of them.  A figure is the median of a program's times as a multiple of curl's in the same situation.  Every
file is compared with the original before its time counts.  Programs that are not installed are left out and named.  Needs
nginx, openssl and curl.
"""
import argparse
import filecmp
import os
import pathlib
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class Nginx:
    """Serves folder/www plainly and with TLS."""

    def __init__(self, folder):
        self.ports = [free_port() for _ in range(2)]
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
             "-keyout", folder / "key.pem", "-out", folder / "certificate.pem"],
            check=True, capture_output=True)
        temporary = " ".join(f"{kind}_temp_path {folder}/{kind};"
                             for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        (folder / "nginx.conf").write_text(f"""
            daemon off; worker_processes 2; pid {folder}/nginx.pid; error_log stderr crit;
            events {{ worker_connections 512; }}
            http {{
              {temporary} access_log off; sendfile on; root {folder}/www; keepalive_requests 100000;
              ssl_certificate {folder}/certificate.pem; ssl_certificate_key {folder}/key.pem;
              server {{ listen 127.0.0.1:{self.ports[0]}; }}
              server {{ listen 127.0.0.1:{self.ports[1]} ssl; }}
            }}""")
        os.chmod(folder, 0o755)
        nginx = shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin")
        self.process = subprocess.Popen([nginx, "-e", "stderr", "-p", folder, "-c", folder / "nginx.conf"])
        for port in self.ports:
            while True:
                try:
                    socket.create_connection(("127.0.0.1", port), timeout=1).close()
                    break
                except OSError:
                    if self.process.poll() is not None:
                        raise SystemExit("nginx has ended at once")
                    time.sleep(0.02)

    def situations(self):
        plain, tls = self.ports
        return (("plain", f"http://127.0.0.1:{plain}/big.bin"), ("TLS", f"https://127.0.0.1:{tls}/big.bin"))

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(timeout=10)


def competitors(xfer_get):
    everyone = {
        "curl": ["curl", "-sk", "-o", "{file}", "{url}"],
        **{f"xfer-get -n {count}": [xfer_get, "-qk", "-n", str(count), "{url}", "{file}"] for count in (1, 8, 64)},
        "aria2c -x 8": ["aria2c", "-q", "--check-certificate=false", "--allow-overwrite=true", "--no-conf", "-x", "8",
                        "-s", "8", "-k", "1M", "--file-allocation=falloc", "-d", "{folder}", "-o", "{name}", "{url}"],
        "wget": ["wget", "-q", "--no-check-certificate", "-O", "{file}", "{url}"],
    }
    missing = [name for name, command in everyone.items() if shutil.which(command[0]) is None]
    if "curl" in missing or not os.access(xfer_get, os.X_OK):
        raise SystemExit("curl and xfer-get are needed")
    if missing:
        print("not installed, left out: " + ", ".join(missing))
    return {name: command for name, command in everyone.items() if name not in missing}


def timed(command, url, target):
    words = [str(word).format(url=url, file=target, folder=target.parent, name=target.name) for word in command]
    begin = time.perf_counter()
    process = subprocess.Popen(words)
    watchdog = threading.Timer(600, process.kill)  # wait(timeout) would look only every 50 ms
    watchdog.start()
    code = process.wait()
    seconds = time.perf_counter() - begin
    watchdog.cancel()
    if code != 0:
        raise SystemExit(f"{words[0]} ended with {code}")
    return seconds


def measure(programs, url, original, target, rounds):
    """Seconds by program."""
    times = {name: [] for name in programs}
    for number in range(rounds):
        first = number % len(programs)
        for name in (list(programs) * 2)[first:first + len(programs)]:
            target.unlink(missing_ok=True)
            seconds = timed(programs[name], url, target)
            if not filecmp.cmp(original, target, shallow=False):
                raise SystemExit(f"{name} stored another file")
            times[name].append(seconds)
    return times


def show(columns, programs, args):
    print(f"{args.mib} MiB, median of {args.rounds} rounds, multiples of curl's time, {os.cpu_count()} processors\n")
    print("| | " + " | ".join(columns) + " |")
    print("|" + "---|" * (len(columns) + 1))
    base = {name: statistics.median(times["curl"]) for name, times in columns.items()}
    print("| curl, s | " + " | ".join(f"{seconds:.3f}" for seconds in base.values()) + " |")
    for program in programs:
        print(f"| {program} | " + " | ".join(
            f"{statistics.median(times[program]) / base[name]:.2f}" for name, times in columns.items()) + " |")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--xfer-get", required=True)
    parser.add_argument("--mib", type=int, default=512)
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--folder", action="append", type=pathlib.Path)
    args = parser.parse_args()
    programs = competitors(args.xfer_get)
    folders = args.folder or [pathlib.Path("/dev/shm"), pathlib.Path(tempfile.gettempdir())]

    home = pathlib.Path(tempfile.mkdtemp(prefix="xfer-benchmark-"))
    targets = [pathlib.Path(tempfile.mkdtemp(prefix="xfer-benchmark-", dir=folder)) / "target.bin" for folder in folders]
    nginx = None
    try:
        (home / "www").mkdir()
        original = home / "www" / "big.bin"
        with open(original, "wb") as file:
            for _ in range(args.mib):
                file.write(os.urandom(1 << 20))
        nginx = Nginx(home)
        columns = {}
        for situation, url in nginx.situations():
            for target in targets:
                columns[f"{situation}, {target.parent.parent}"] = measure(programs, url, original, target, args.rounds)
        show(columns, programs, args)
    finally:
        if nginx:
            nginx.stop()
        for folder in (home, *(target.parent for target in targets)):
            shutil.rmtree(folder)


sys.exit(main())
