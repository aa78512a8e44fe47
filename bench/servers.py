"""nginx and an rsync daemon on 127.0.0.1, each in its own prefix, as plain child processes, and
a counting proxy in front of nginx."""

import os
import shutil
import socket
import subprocess
import threading
import time

# Tab-separated, so that paths with blanks stay one field. $connection tells which requests
# shared a TCP connection; $body_bytes_sent is what left nginx for the body; $msec is when the
# request ended.
_NGINX_CONF = """\
daemon off;
master_process off;
worker_processes 1;
pid "{prefix}/nginx.pid";
error_log "{prefix}/error.log";
events {{ worker_connections 256; }}
http {{
    types {{ application/json json; }}
    default_type application/octet-stream;
    sendfile on;
    tcp_nopush on;
    log_format bench escape=none
        '$connection\\t$connection_requests\\t$request_method\\t$uri\\t$status\\t$body_bytes_sent\\t$bytes_sent\\t$http_range\\t$request_time\\t$msec';
    access_log "{prefix}/access.log" bench;
    client_body_temp_path "{prefix}/tmp/body";
    proxy_temp_path "{prefix}/tmp/proxy";
    fastcgi_temp_path "{prefix}/tmp/fastcgi";
    uwsgi_temp_path "{prefix}/tmp/uwsgi";
    scgi_temp_path "{prefix}/tmp/scgi";
    server {{
        listen 127.0.0.1:{port};
        root "{root}";
        location / {{ }}
{extra}
    }}
{tls_servers}}}
"""

# One more listener on the same root, with TLS and its own certificate.
_NGINX_TLS_SERVER = """\
    server {{
        listen 127.0.0.1:{port} ssl;
        ssl_certificate "{cert}";
        ssl_certificate_key "{key}";
        root "{root}";
        location / {{ }}
{extra}
    }}
"""


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def _wait_for_port(port, process, log):
    for _ in range(100):
        try:
            socket.create_connection(("127.0.0.1", port), 0.2).close()
            return
        except OSError:
            if process.poll() is not None:
                raise RuntimeError(f"server did not start: {open(log).read() if os.path.exists(log) else ''}")
            time.sleep(0.05)
    raise RuntimeError("server did not start in time")


class Request:
    __slots__ = ("connection", "connection_request", "method", "uri", "status", "body_bytes", "bytes",
                 "range", "request_time", "msec")

    def __init__(self, fields):
        self.connection = int(fields[0])
        self.connection_request = int(fields[1])
        self.method = fields[2]
        self.uri = fields[3]
        self.status = int(fields[4])
        self.body_bytes = int(fields[5])
        self.bytes = int(fields[6])
        self.range = "" if fields[7] == "-" else fields[7]
        self.request_time = float(fields[8])
        self.msec = float(fields[9])


class _Daemon:
    """A server process of the bench, on a free loopback port, with its files below `prefix`."""

    def __init__(self, prefix):
        self.prefix = prefix
        self.process = None
        self.port = None

    def _launch(self, argv, log):
        self.process = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        _wait_for_port(self.port, self.process, log)

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.terminate()
            self.process.wait(10)
        self.process = None


class Nginx(_Daemon):
    """nginx serving `root`; `rate_limited` maps a URI prefix to a per-connection limit_rate.
    Each (certificate, key) of `tls` adds an HTTPS listener on the same root; its port is in
    `tls_ports`, in the same order."""

    def __init__(self, prefix, root, rate_limited=None, tls=()):
        super().__init__(prefix)
        self.root = root
        self.rate_limited = rate_limited or {}
        self.tls = list(tls)
        self.tls_ports = []

    def start(self):
        shutil.rmtree(self.prefix, ignore_errors=True)
        os.makedirs(os.path.join(self.prefix, "tmp"))
        extra = "".join(f"        location {uri} {{ limit_rate {rate}; }}\n" for uri, rate in self.rate_limited.items())
        self.port = free_port()
        self.tls_ports = [free_port() for _ in self.tls]
        tls_servers = "".join(_NGINX_TLS_SERVER.format(port=port, cert=cert, key=key, root=self.root, extra=extra)
                              for port, (cert, key) in zip(self.tls_ports, self.tls))
        conf = os.path.join(self.prefix, "nginx.conf")
        with open(conf, "w") as f:
            f.write(_NGINX_CONF.format(prefix=self.prefix, root=self.root, port=self.port, extra=extra,
                                       tls_servers=tls_servers))
        log = os.path.join(self.prefix, "error.log")
        self._launch(["/usr/sbin/nginx", "-p", self.prefix, "-c", conf, "-e", log], log)
        for port in self.tls_ports:
            _wait_for_port(port, self.process, log)

    def url(self, path, tls=None):
        """The plain HTTP URL of `path`, or with `tls` the HTTPS URL on that listener."""
        if tls is None:
            return f"http://127.0.0.1:{self.port}/{path}"
        return f"https://127.0.0.1:{self.tls_ports[tls]}/{path}"

    def log_mark(self):
        """A position in the access log; requests() returns what was logged after it."""
        path = os.path.join(self.prefix, "access.log")
        return os.path.getsize(path) if os.path.exists(path) else 0

    def requests(self, mark=0):
        # nginx writes a log line when a request ends; a client that was killed may leave a
        # request open for a moment.
        time.sleep(0.05)
        with open(os.path.join(self.prefix, "access.log"), "rb") as f:
            f.seek(mark)
            lines = f.read().decode("utf-8").splitlines()
        return [Request(line.split("\t")) for line in lines if line.count("\t") == 9]


class CountingProxy:
    """Passes TCP connections from a free loopback port on to `upstream_port` and notes the time
    and size of every block it passes back to the client: what the server sent, counted at the
    client's socket. Its own socket buffers are small (BUFFER), so it runs ahead of what the
    client's socket accepts by no more than that, however much the server has already written.

    With `delay`, every block from the client (a request: clients here send one request at a
    time on a connection) waits that many seconds before it goes on, as if the server stood a
    round trip away; the kernel here has no netem."""

    BUFFER = 16384

    def __init__(self, upstream_port, delay=0.0):
        self.upstream_port = upstream_port
        self.delay = delay
        self.events = []  # (time.monotonic(), bytes) of every block passed to a client
        self.lock = threading.Lock()
        self.listener = socket.socket()
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, self.BUFFER)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, self.BUFFER)
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(16)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def url(self, path):
        return f"http://127.0.0.1:{self.port}/{path}"

    def take_events(self):
        with self.lock:
            events, self.events = self.events, []
        return events

    def stop(self):
        self.listener.close()

    def _accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            upstream = socket.socket()
            upstream.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, self.BUFFER)
            upstream.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, self.BUFFER)
            try:
                upstream.connect(("127.0.0.1", self.upstream_port))
            except OSError:
                client.close()
                continue
            threading.Thread(target=self._pipe, args=(client, upstream, False), daemon=True).start()
            threading.Thread(target=self._pipe, args=(upstream, client, True), daemon=True).start()

    def _pipe(self, source, target, counted):
        try:
            while True:
                data = source.recv(self.BUFFER)
                if not data:
                    break
                if not counted and self.delay:
                    time.sleep(self.delay)
                target.sendall(data)
                if counted:
                    with self.lock:
                        self.events.append((time.monotonic(), len(data)))
        except OSError:
            pass
        # Either side's end ends the connection; the other direction's thread then ends too.
        for s in (source, target):
            try:
                s.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            s.close()


def most_in_window(events, seconds):
    """The most bytes of (time, bytes) events, in time order, within any `seconds` long window."""
    most, total, first = 0, 0, 0
    for t, n in events:
        total += n
        while events[first][0] <= t - seconds:
            total -= events[first][1]
            first += 1
        most = max(most, total)
    return most


class RsyncDaemon(_Daemon):
    """rsync --daemon in the foreground with one read-only module `name` serving `path`."""

    def __init__(self, prefix, name, path):
        super().__init__(prefix)
        self.name = name
        self.path = path

    def start(self):
        shutil.rmtree(self.prefix, ignore_errors=True)
        os.makedirs(self.prefix)
        self.port = free_port()
        conf = os.path.join(self.prefix, "rsyncd.conf")
        with open(conf, "w") as f:
            f.write(f"pid file = {self.prefix}/rsyncd.pid\nlog file = {self.prefix}/rsyncd.log\n"
                    f"use chroot = no\nuid = {os.getuid()}\ngid = {os.getgid()}\n"
                    f"[{self.name}]\n    path = {self.path}\n    read only = yes\n")
        log = os.path.join(self.prefix, "rsyncd.log")
        self._launch(["rsync", "--daemon", "--no-detach", f"--config={conf}", f"--port={self.port}",
                      "--address=127.0.0.1"], log)

    def url(self):
        return f"rsync://127.0.0.1:{self.port}/{self.name}/"
