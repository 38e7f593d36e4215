#!/usr/bin/env python3
"""Runs real HTTP servers and proxies on loopback ports for the tests.

    fixture.py start DIR    starts them, waits until all answer, and writes DIR/servers.env
    fixture.py stop DIR     ends what start began, and removes DIR
    fixture.py relay PORT HTTP_PORT TLS_PORT
                            a part of start: a proxy that reaches one host on the ports 80 and 443 of every name

DIR/servers.env has a "key=value" a line; tests/support/real_servers.h reads it and tells what is served.
DIR/processes.json has what stop needs.  A start first stops what an earlier run, perhaps an aborted one, left in DIR.

What the servers read and write is in a folder of its own in the system's folder for temporary files: servers that give
up root must reach it, and DIR may lie in a home.  Every server writes to a log there, never to the streams of this
script: ctest would wait for them.
"""

import array
import base64
import hashlib
import json
import os
import pathlib
import pwd
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

HOST = "127.0.0.1"
USER = "tester"
PASSWORD = "s3cret:pass word"
START_SECONDS = 60
STOP_SECONDS = 10

MASK = (1 << 64) - 1


def pattern(size):
    """The first bytes of the pattern of tests/support/pattern.h."""

    def word(index):
        value = (index + 1) * 0x9E3779B97F4A7C15 & MASK
        value = (value ^ (value >> 32)) * 0xD6E8FEB86659FD93 & MASK
        return value ^ (value >> 29)

    words = array.array("Q", (word(index) for index in range((size + 7) // 8)))
    if sys.byteorder == "big":
        words.byteswap()
    return words.tobytes()[:size]


# ---- The processes ----


def start_time(pid):
    """When a process began, in the kernel's own unit; None when it has ended.  With it a pid is unique."""
    try:
        stat = pathlib.Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return None
    state, *fields = stat[stat.rindex(")") + 2 :].split()
    return None if state == "Z" else int(fields[18])


class Run:
    """The processes and the folder of one run, always on disk as far as it has come."""

    def __init__(self, folder):
        self.record = folder / "processes.json"
        self.data = {"work": None, "processes": []}

    @classmethod
    def load(cls, folder):
        run = cls(folder)
        if run.record.exists():
            run.data = json.loads(run.record.read_text())
        return run

    def save(self):
        unfinished = self.record.with_suffix(".new")
        unfinished.write_text(json.dumps(self.data, indent=2))
        unfinished.replace(self.record)

    def make_work_folder(self):
        work = pathlib.Path(tempfile.mkdtemp(prefix="xfer-servers-"))
        work.chmod(0o755)
        self.data["work"] = str(work)
        self.save()
        return work

    def spawn(self, name, command):
        work = pathlib.Path(self.data["work"])
        with open(work / f"{name}.log", "wb") as log:
            child = subprocess.Popen(
                command,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                cwd=work,
                start_new_session=True,
            )
        self.data["processes"].append({"name": name, "pid": child.pid, "started": start_time(child.pid)})
        self.save()
        return child

    def stop(self):
        alive = [process for process in self.data["processes"] if self.is_alive(process)]
        for process in alive:
            os.kill(process["pid"], signal.SIGTERM)
        deadline = time.monotonic() + STOP_SECONDS
        while alive and time.monotonic() < deadline:
            time.sleep(0.02)
            alive = [process for process in alive if self.is_alive(process)]
        for process in alive:
            # Each leads a process group of its own, which its helpers are in.
            print(f"{process['name']} does not end by itself: killing it", file=sys.stderr)
            os.killpg(process["pid"], signal.SIGKILL)
        if self.data["work"]:
            shutil.rmtree(self.data["work"], ignore_errors=True)

    @staticmethod
    def is_alive(process):
        try:
            os.waitpid(process["pid"], os.WNOHANG)  # our own child, when start fails
        except OSError:
            pass
        return process["started"] is not None and start_time(process["pid"]) == process["started"]


def free_ports(count):
    """Ports that the system does not give out by itself, or the tests that run beside this script would get them before
    the servers bind them."""
    first_given_out = int(pathlib.Path("/proc/sys/net/ipv4/ip_local_port_range").read_text().split()[0])
    candidates = list(range(first_given_out // 2, first_given_out))
    random.shuffle(candidates)
    ports = []
    for port in candidates:
        with socket.socket() as probe:
            try:
                probe.bind((HOST, port))
            except OSError:
                continue
        ports.append(port)
        if len(ports) == count:
            return ports
    raise SystemExit("no free ports")


def program(*names):
    """The path of the first program that is installed."""
    for name in names:
        found = shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin:/usr/local/sbin")
        if found:
            return found
    raise SystemExit(f"not installed: {' or '.join(names)}")


# ---- What is served ----


def write_documents(root):
    root.mkdir()
    big = pattern((16 << 20) + 7)
    for name, size in {"empty.bin": 0, "one.bin": 1, "1m.bin": 1 << 20, "16m.bin": len(big)}.items():
        (root / name).write_bytes(big[:size])
    (root / "page.txt").write_text("".join(f"line {number}: plain text, \u00fc and \u20ac\n" for number in range(1, 101)))


def write_certificate(work):
    subprocess.run(
        [program("openssl"), "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", "/CN=localhost"]
        + ["-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1"]
        + ["-keyout", work / "key.pem", "-out", work / "certificate.pem"],
        check=True,
        stdin=subprocess.DEVNULL,
        capture_output=True,
    )


# Whom the certificates of the servers "Tls..." are for, and for how many days; all but the last one are from one
# authority.
LOOPBACK = f"DNS:localhost,IP:{HOST}"
CERTIFICATES = {
    "Valid": (LOOPBACK, 30),
    "Expired": (LOOPBACK, -1),
    "OtherHost": ("DNS:other.test", 30),
    "SelfSigned": (LOOPBACK, 30),
}


def write_authorities_and_certificates(work):
    """ca.pem is the authority of the certificates; other-ca.pem has signed nothing, and empty.pem holds nothing."""
    (work / "openssl.conf").write_text("[req]\ndistinguished_name=name\n[name]\n")

    def openssl(*arguments):
        subprocess.run(
            [program("openssl"), *arguments], check=True, cwd=work, stdin=subprocess.DEVNULL, capture_output=True
        )

    def request(name, *more):
        new_key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", f"{name}.key"]
        openssl("req", "-config", "openssl.conf", "-subj", f"/CN={name}", *new_key, *more)

    for name in ("ca", "other-ca"):
        extensions = ["-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign"]
        request(name, "-x509", "-days", "30", *extensions, "-out", f"{name}.pem")
    for name, (names, days) in CERTIFICATES.items():
        extensions = ["-addext", "basicConstraints=critical,CA:FALSE", "-addext", f"subjectAltName={names}"]
        request(name, *extensions, "-out", f"{name}.csr")
        signer = ["-key", f"{name}.key"] if name == "SelfSigned" else ["-CA", "ca.pem", "-CAkey", "ca.key"]
        signed = ["-in", f"{name}.csr", "-copy_extensions", "copyall", "-days", str(days), "-out", f"{name}.pem"]
        openssl("x509", "-req", *signed, *signer)
    openssl("pkey", "-in", "Valid.key", "-pubout", "-outform", "DER", "-out", "Valid.public")
    (work / "empty.pem").touch()


def pin_of_valid(work):
    """Names the public key of the valid certificate as libcurl does."""
    return "sha256//" + base64.b64encode(hashlib.sha256((work / "Valid.public").read_bytes()).digest()).decode()


def write_passwords(work):
    hashed = subprocess.run(
        [program("openssl"), "passwd", "-apr1", "-stdin"],
        input=PASSWORD + "\n",
        check=True,
        capture_output=True,
        text=True,
    ).stdout.strip()
    (work / "passwords").write_text(f"{USER}:{hashed}\n")


# ---- The servers: each gets a configuration and one process ----


def nginx_configuration(work, ports):
    statuses = "".join(f"location = /status/{code} {{ return {code}; }}\n" for code in (403, 404, 416, 429, 500, 503))
    redirects = "".join(
        f"location ~ ^/redirect/{code}(/.*)$ {{ return {code} $1; }}\n" for code in (301, 302, 303, 307, 308)
    )
    echo = f"http://{HOST}:{ports['Nginx']}/echo-header"
    common = f"""
      root {work}/documents;
      {statuses}
      {redirects}
      location = /redirect/loop {{ return 302 /redirect/loop; }}
      location ~ ^/to-python(/.*)$ {{ return 302 http://{HOST}:{ports['Python']}$1; }}
      location = /unsatisfied {{ if ($http_range) {{ add_header Content-Range "bytes */0" always; return 416; }}
                                 return 200; }}
      location = /secrets {{ return 200 "$http_cookie|$http_authorization"; }}
      location ~ ^/to-https(/.*)$ {{ return 302 https://$host$1; }}
      location ~ ^/to-http(/.*)$ {{ return 302 http://$host$1; }}
      location = /method {{ return 200 $request_method; }}
      location = /echo {{ proxy_method GET; proxy_set_body ""; proxy_set_header X-Echo $request_body;
                          proxy_pass {echo}; }}
      location = /echo-header {{ return 200 $http_x_echo; }}
      location /private/ {{ alias {work}/documents/; auth_basic "private"; auth_basic_user_file {work}/passwords; }}
    """

    def server(name, more="", listen=""):
        return f"server {{ listen {HOST}:{ports[name]} {listen}; {more} {common} }}\n"

    # Their log tells which connection each request came over.
    with_certificates = ""
    for name in CERTIFICATES:
        files = f"ssl_certificate {work}/{name}.pem; ssl_certificate_key {work}/{name}.key;"
        with_certificates += server(f"Tls{name}", f"{files} access_log {work}/tls.log asked;", listen="ssl")
    temporary = "".join(
        f"{kind}_temp_path {work}/nginx-{kind};\n" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
    )
    return f"""
    daemon off;
    master_process off;
    pid {work}/nginx.pid;
    error_log stderr warn;
    events {{ worker_connections 4096; }}
    http {{
      {temporary}
      access_log off;
      log_format asked "$connection $request_uri";
      default_type application/octet-stream;
      types {{ text/plain txt; }}
      charset utf-8;
      client_max_body_size 64m;
      client_body_buffer_size 1m;
      large_client_header_buffers 4 64k;
      keepalive_requests 100000;
      ssl_certificate {work}/certificate.pem;
      ssl_certificate_key {work}/key.pem;
      {server("Nginx")}
      {server("NginxTls", listen="ssl")}
      {server("NginxH2", listen="ssl http2")}
      {server("NginxShortH2", "keepalive_requests 20; http2_max_concurrent_streams 3;", listen="ssl http2")}
      {server("NginxWithoutRanges", "max_ranges 0;")}
      {server("NginxSlow", "limit_rate 1m;")}
      {with_certificates}
    }}
    """


def start_nginx(run, work, ports):
    (work / "nginx.conf").write_text(nginx_configuration(work, ports))
    run.spawn("nginx", [program("nginx"), "-e", "stderr", "-p", work, "-c", work / "nginx.conf"])


def unprivileged_user():
    """For servers that do not serve as root: who they are to be; None when this script is nobody special anyway."""
    return pwd.getpwnam("nobody") if os.geteuid() == 0 else None


def start_apache(run, work, ports):
    user = unprivileged_user()
    (work / "apache.conf").write_text(
        f"""
        ServerName localhost
        ServerRoot {work}
        PidFile {work}/apache.pid
        DefaultRuntimeDir {work}
        Mutex sem
        Listen {HOST}:{ports["Apache"]}
        LoadModule mpm_event_module /usr/lib/apache2/modules/mod_mpm_event.so
        LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
        {f'User #{user.pw_uid}' if user else ''}
        {f'Group #{user.pw_gid}' if user else ''}
        StartServers 1
        ErrorLog {work}/apache-errors.log
        MaxKeepAliveRequests 0
        DocumentRoot {work}/documents
        <Directory {work}/documents>
          Require all granted
        </Directory>
        """
    )
    run.spawn("apache", [program("apache2", "httpd"), "-DFOREGROUND", "-f", work / "apache.conf"])


def start_lighttpd(run, work, ports):
    (work / "lighttpd.conf").write_text(
        f"""
        server.bind = "{HOST}"
        server.port = {ports["Lighttpd"]}
        server.document-root = "{work}/documents"
        server.upload-dirs = ("{work}")
        mimetype.assign = (".txt" => "text/plain", "" => "application/octet-stream")
        """
    )
    run.spawn("lighttpd", [program("lighttpd"), "-D", "-f", work / "lighttpd.conf"])


def start_python(run, work, ports):
    run.spawn(
        "python",
        [sys.executable, "-m", "http.server", str(ports["Python"]), "--bind", HOST]
        + ["--directory", work / "documents"],
    )


def start_squid(run, work, ports):
    (work / "squid.conf").write_text(
        f"""
        http_port {HOST}:{ports["proxy"]} name=open
        http_port {HOST}:{ports["authProxy"]} name=closed
        auth_param basic program /usr/lib/squid/basic_ncsa_auth {work}/passwords
        auth_param basic children 1 startup=1
        auth_param basic realm proxy
        acl throughClosed myportname closed
        acl known proxy_auth REQUIRED
        http_access allow !throughClosed
        http_access allow known
        http_access deny all
        cache deny all
        cache_mem 8 MB
        max_filedescriptors 4096
        access_log none
        cache_log /dev/null
        cache_store_log none
        logfile_rotate 0
        pid_filename none
        coredump_dir none
        pinger_enable off
        shutdown_lifetime 0 seconds
        visible_hostname localhost
        """
    )
    # A service name of its own keeps its shared memory apart from that of another squid on this machine.
    service = "x" + work.name.rsplit("-", 1)[1].replace("_", "0")
    run.spawn("squid", [program("squid"), "-N", "-n", service, "-d", "1", "-f", work / "squid.conf"])


def start_relay(run, work, ports):
    run.spawn(
        "relay",
        [sys.executable, __file__, "relay"] + [str(ports[name]) for name in ("relayProxy", "Nginx", "NginxTls")],
    )


def relay(port, http_port, tls_port):
    """Tests cannot bind the standard ports: to the client of this proxy every name has a server there."""

    def copy(source, sink):
        try:
            while data := source.recv(65536):
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    def serve(client):
        head = b""
        while b"\r\n\r\n" not in head:
            data = client.recv(65536)
            if not data:
                return
            head += data
        tunnel = head.startswith(b"CONNECT ")
        with socket.create_connection((HOST, tls_port if tunnel else http_port)) as server:
            if tunnel:
                client.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
            else:
                server.sendall(head)
            back = threading.Thread(target=copy, args=(server, client), daemon=True)
            back.start()
            copy(client, server)
            back.join()

    def serve_and_close(client):
        with client:
            serve(client)

    with socket.create_server((HOST, port)) as listener:
        while True:
            client, _ = listener.accept()
            threading.Thread(target=serve_and_close, args=(client,), daemon=True).start()


def wait_until_all_answer(children_alive, ports):
    """Until every port accepts; a server that has ended is not waited for."""
    deadline = time.monotonic() + START_SECONDS
    for name, port in ports.items():
        while True:
            try:
                socket.create_connection((HOST, port), timeout=1).close()
                break
            except OSError:
                children_alive()
                if time.monotonic() > deadline:
                    raise SystemExit(f"{name} does not accept on port {port}")
                time.sleep(0.02)


# ---- The two commands ----

TLS_SERVERS = ("NginxTls", "NginxH2", "NginxShortH2", *(f"Tls{name}" for name in CERTIFICATES))
SERVERS = (*TLS_SERVERS, "Nginx", "NginxWithoutRanges", "NginxSlow", "Apache", "Lighttpd", "Python")
PORT_NAMES = (*SERVERS, "proxy", "authProxy", "relayProxy")


def start(folder):
    if (folder / "processes.json").exists():
        stop(folder)
    folder.mkdir(parents=True, exist_ok=True)
    if any(folder.iterdir()):
        raise SystemExit(f"{folder} holds something else")

    run = Run(folder)
    work = run.make_work_folder()
    try:
        ports = dict(zip(PORT_NAMES, free_ports(len(PORT_NAMES))))
        write_documents(work / "documents")
        write_certificate(work)
        write_authorities_and_certificates(work)
        write_passwords(work)
        for starter in (start_nginx, start_apache, start_lighttpd, start_python, start_squid, start_relay):
            starter(run, work, ports)

        def all_alive():
            for process in run.data["processes"]:
                if not run.is_alive(process):
                    raise SystemExit(f"{process['name']} has ended at once")

        wait_until_all_answer(all_alive, ports)
        all_alive()
    except BaseException:
        for log in sorted(work.glob("*.log")):
            print(f"---- {log.name}\n{log.read_text(errors='replace')[-2000:]}", file=sys.stderr)
        stop(folder)
        raise

    lines = [f"documentRoot={work}/documents", f"certificate={work}/certificate.pem"]
    lines += [f"ca={work}/ca.pem", f"otherCa={work}/other-ca.pem", f"emptyFile={work}/empty.pem"]
    lines += [f"pin={pin_of_valid(work)}", f"tlsLog={work}/tls.log"]
    lines += [f"user={USER}", f"password={PASSWORD}"]
    lines += [f"proxyPort={ports['proxy']}", f"authProxyPort={ports['authProxy']}"]
    lines.append(f"relayProxyPort={ports['relayProxy']}")
    for name in SERVERS:
        scheme = "https" if name in TLS_SERVERS else "http"
        lines.append(f"{name}.origin={scheme}://{HOST}:{ports[name]}")
    (folder / "servers.env").write_text("\n".join(lines) + "\n")


def stop(folder):
    if not (folder / "processes.json").exists():
        return
    Run.load(folder).stop()
    for name in ("servers.env", "processes.json", "processes.new"):
        (folder / name).unlink(missing_ok=True)
    folder.rmdir()


def main():
    if len(sys.argv) == 5 and sys.argv[1] == "relay":
        relay(*map(int, sys.argv[2:]))
    commands = {"start": start, "stop": stop}
    if len(sys.argv) != 3 or sys.argv[1] not in commands:
        raise SystemExit(__doc__)
    commands[sys.argv[1]](pathlib.Path(sys.argv[2]).absolute())


if __name__ == "__main__":
    main()
