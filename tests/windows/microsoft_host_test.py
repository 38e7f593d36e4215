"""Builds a host with the Microsoft ABI, lets it fetch a body through its own buffer class, and checks what it says.

With --variant moved the host sees two of the interface's operations in each other's place, and must not be served."""
import argparse
import http.server
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import threading

LENGTH = 300000
BODY = bytes(i % 251 for i in range(LENGTH))


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_response(200)
        self.send_header("Content-Length", str(LENGTH))
        self.end_headers()
        self.wfile.write(BODY)

    def log_message(self, *args):
        pass


def tool(*names):
    for name in names:
        if shutil.which(name):
            return name
    sys.exit(f"none of {', '.join(names)} was found: install clang and lld")


def main():
    parser = argparse.ArgumentParser()
    for name in ("variant", "source", "include", "import-library", "system-libraries", "bin", "emulator"):
        parser.add_argument("--" + name, required=True)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        include = pathlib.Path(folder) / "include"
        shutil.copytree(args.include, include)
        if args.variant == "moved":
            header = include / "sys" / "idata_buff.h"
            text = header.read_text()
            resize = re.search(r"  virtual bool resize\(.*?;\n", text).group(0)
            clear = re.search(r"  virtual void clear\(.*?;\n", text).group(0)
            header.write_text(text.replace(resize, "@").replace(clear, resize).replace("@", clear))
        built = pathlib.Path(folder) / "host.obj"
        program = pathlib.Path(args.bin) / f"microsoft-host-{args.variant}.exe"
        subprocess.run([tool("clang++", "clang++-14"), "--target=x86_64-pc-windows-msvc", "-std=c++20", "-O1",
                        "-ffreestanding", "-fno-rtti", "-fno-exceptions", "-fno-stack-protector", "-Wall", "-Werror",
                        "-I", str(include), "-c", args.source, "-o", str(built)], check=True)
        subprocess.run([tool("lld-link", "lld-link-14"), "/nodefaultlib", "/entry:mainCRTStartup", "/subsystem:console",
                        f"/out:{program}", str(built), args.import_library, f"{args.system_libraries}/libkernel32.a"],
                       check=True)
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        try:
            url = f"http://127.0.0.1:{server.server_address[1]}/body"
            run = subprocess.run([args.emulator, str(program), url, str(LENGTH)], stdin=subprocess.DEVNULL,
                                 capture_output=True, text=True, timeout=90)
        finally:
            server.shutdown()
            program.unlink()
    served = run.returncode == 0 and "served" in run.stdout
    print(f"exit code {run.returncode}: {run.stdout.strip()}")
    return 0 if served == (args.variant == "matching") else 1


sys.exit(main())
