#!/usr/bin/env python3
"""Fault-injecting HTTP/1.1 file server for the updater's tests.

Usage: fault_server.py ROOT_DIR CONTROL_DIR

Serves the files below ROOT_DIR on 127.0.0.1 with an OS-chosen port, which it prints on
stdout (one line) once it listens. It exits when its stdin reaches end of file, so it never
outlives the test process that started it.

CONTROL_DIR/rules.json (replaced atomically by the test) maps URL paths, without the leading
"/", to misbehaviours; it is read again for every request. Every request is appended as one
JSON line to CONTROL_DIR/requests.jsonl, with the time it came (seconds since the epoch),
and flushed, before it is answered.
"""

import json
import os
import socket
import struct
import sys
import threading
import time
import urllib.parse
import zlib
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

BLOCK = 65536
# Same length, every byte different.
FLIP = bytes(b ^ 0xA5 for b in range(256))

# inflated size -> gzip body of that many zero bytes, made once per size.
GZIP_BODIES = {}
GZIP_LOCK = threading.Lock()


def gzip_of_zeros(size):
    # After a full flush deflate starts afresh, so every further 1 MiB of zeros compresses to
    # the same bytes: one block is compressed and repeated, and a gigabyte's body is made in
    # well under a second (the updater must see its first byte within its inactivity time-out).
    with GZIP_LOCK:
        if size not in GZIP_BODIES:
            block = bytes(min(size, 1 << 20))
            compressor = zlib.compressobj(9, zlib.DEFLATED, -15)
            first = compressor.compress(block) + compressor.flush(zlib.Z_FULL_FLUSH)
            again = compressor.compress(block) + compressor.flush(zlib.Z_FULL_FLUSH)
            whole, rest = divmod(size, len(block))
            crc = 0
            for _ in range(whole):
                crc = zlib.crc32(block, crc)
            crc = zlib.crc32(block[:rest], crc)
            parts = [b"\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff", first, again * (whole - 1),
                     compressor.compress(block[:rest]), compressor.flush(),
                     struct.pack("<II", crc & 0xFFFFFFFF, size & 0xFFFFFFFF)]
            GZIP_BODIES[size] = b"".join(parts)
        return GZIP_BODIES[size]


class Control:
    def __init__(self, control_dir):
        self.rules_path = os.path.join(control_dir, "rules.json")
        self.log_path = os.path.join(control_dir, "requests.jsonl")
        self.lock = threading.Lock()
        # (path, generation) -> number of requests the rule has matched so far
        self.uses = {}

    def record(self, entry):
        line = json.dumps(entry, separators=(",", ":")) + "\n"
        with self.lock:
            with open(self.log_path, "a", encoding="utf-8") as log:
                log.write(line)
                log.flush()

    def rule_for(self, path, path_without_query):
        try:
            with open(self.rules_path, "r", encoding="utf-8") as f:
                rules = json.load(f)
        except (OSError, ValueError):
            return None
        key = path if path in rules else path_without_query
        rule = rules.get(key)
        if rule is None:
            return None
        times = rule.get("times", -1)
        if times < 0:
            return rule
        with self.lock:
            used_key = (key, rule.get("generation", 0))
            used = self.uses.get(used_key, 0)
            self.uses[used_key] = used + 1
        return rule if used < times else None


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "FaultServer"
    sys_version = ""

    def log_message(self, fmt, *args):
        pass

    def do_GET(self):
        self.answer(send_body=True)

    def do_HEAD(self):
        self.answer(send_body=False)

    def answer(self, send_body):
        control = self.server.control
        raw_path = self.path.split("#", 1)[0]
        target = raw_path[1:] if raw_path.startswith("/") else raw_path
        decoded = urllib.parse.unquote(target)
        decoded_no_query = urllib.parse.unquote(target.split("?", 1)[0])
        control.record({
            "time": time.time(),
            "method": self.command,
            "target": self.path,
            "path": decoded,
            "headers": [[k.lower(), v] for k, v in self.headers.items()],
        })
        rule = control.rule_for(decoded, decoded_no_query) or {}

        if rule.get("stallBeforeSeconds", 0) > 0:
            time.sleep(rule["stallBeforeSeconds"])

        if rule.get("redirectTo"):
            location = rule["redirectTo"]
            if "://" not in location:
                location = "/" + location.lstrip("/")
            self.send_short(302, b"redirect\n", [("Location", location)], send_body)
            return
        if rule.get("status", 0) > 0:
            self.send_short(rule["status"], b"status %d\n" % rule["status"], [], send_body)
            return

        file_path = self.resolve(decoded_no_query)
        if file_path is None:
            self.send_short(404, b"not found\n", [], send_body)
            return

        if rule.get("endless"):
            self.send_endless(rule, send_body)
            return
        if rule.get("gzipBytes", 0) > 0:
            body = gzip_of_zeros(int(rule["gzipBytes"]))
            self.send_short(200, body, [("Content-Encoding", "gzip")], send_body)
            return

        size = os.path.getsize(file_path)
        status, first, last = 200, 0, size - 1
        range_header = self.headers.get("Range")
        if range_header is not None and not rule.get("ignoreRange"):
            parsed = parse_range(range_header, size)
            if parsed == "unsatisfiable":
                self.send_short(416, b"range not satisfiable\n",
                                [("Content-Range", "bytes */%d" % size)], send_body)
                return
            if parsed is not None:
                status, (first, last) = 206, parsed
        elif range_header is None and rule.get("partialWithoutRange"):
            status = 206

        length = last - first + 1
        self.send_response(status)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(length))
        self.send_header("Accept-Ranges", "bytes")
        if status == 206:
            self.send_header("Content-Range", "bytes %d-%d/%d" % (first, last, size))
        self.end_headers()
        if send_body:
            with open(file_path, "rb") as f:
                f.seek(first)
                self.send_body(f, length, rule)

    def resolve(self, rel):
        root = self.server.root
        full = os.path.realpath(os.path.join(root, rel))
        if full != root and not full.startswith(root + os.sep):
            return None
        return full if os.path.isfile(full) else None

    def send_short(self, status, body, headers, send_body):
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if send_body:
            self.wfile.write(body)

    def send_body(self, f, length, rule):
        stall_at = rule.get("stallAfterBytes", -1)
        stall_seconds = rule.get("stallSeconds", 0)
        close_at = rule.get("closeAfterBytes", -1)
        chunk = rule.get("chunkBytes", 0)
        pause = rule.get("chunkPauseSeconds", 0)
        corrupt = rule.get("corruptBody", False)
        sent = 0
        while True:
            if sent == stall_at and stall_seconds > 0:
                time.sleep(stall_seconds)
            if sent == close_at:
                self.cut_connection()
                return
            if sent >= length:
                return
            piece = min(length - sent, chunk - sent % chunk if chunk > 0 else BLOCK)
            for event in (stall_at, close_at):
                if event > sent:
                    piece = min(piece, event - sent)
            data = f.read(piece)
            if not data:
                # The file shrank underneath us: end the connection rather than hang.
                self.cut_connection()
                return
            if corrupt:
                data = data.translate(FLIP)
            self.wfile.write(data)
            sent += len(data)
            if chunk > 0 and pause > 0 and sent < length and sent % chunk == 0:
                time.sleep(pause)

    def send_endless(self, rule, send_body):
        # No Content-Length: the body ends only when the connection does, or, chunked, never.
        chunked = rule.get("chunked", False)
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        if chunked:
            self.send_header("Transfer-Encoding", "chunked")
        else:
            self.send_header("Connection", "close")
        self.end_headers()
        self.close_connection = True
        if not send_body:
            return
        chunk = rule.get("chunkBytes", 0) or BLOCK
        pause = rule.get("chunkPauseSeconds", 0)
        data = b"\x5a" * chunk
        if chunked:
            data = b"%x\r\n" % chunk + data + b"\r\n"
        while True:
            self.wfile.write(data)
            if pause > 0:
                time.sleep(pause)

    def cut_connection(self):
        self.close_connection = True
        try:
            self.wfile.flush()
            self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def parse_range(header, size):
    """(first, last) for a single satisfiable byte range, "unsatisfiable", or None to ignore it."""
    unit, _, spec = header.partition("=")
    if unit.strip().lower() != "bytes" or "," in spec:
        return None
    start, dash, end = spec.strip().partition("-")
    if not dash:
        return None
    try:
        if start == "":
            suffix = int(end)
            if suffix <= 0 or size == 0:
                return "unsatisfiable"
            return max(0, size - suffix), size - 1
        first = int(start)
        last = int(end) if end != "" else size - 1
    except ValueError:
        return None
    if first >= size:
        return "unsatisfiable"
    if last < first:
        return None
    return first, min(last, size - 1)


class Server(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def handle_error(self, request, client_address):
        # A client that hangs up mid-answer (abort, timeout) is normal in these tests.
        if isinstance(sys.exc_info()[1], (ConnectionError, socket.timeout, OSError)):
            return
        super().handle_error(request, client_address)


def exit_on_stdin_eof():
    try:
        while sys.stdin.buffer.read(4096):
            pass
    finally:
        os._exit(0)


def main():
    if len(sys.argv) != 3:
        sys.stderr.write("usage: fault_server.py ROOT_DIR CONTROL_DIR\n")
        return 2
    server = Server(("127.0.0.1", 0), Handler)
    server.root = os.path.realpath(sys.argv[1])
    server.control = Control(sys.argv[2])
    threading.Thread(target=exit_on_stdin_eof, daemon=True).start()
    print(server.server_address[1], flush=True)
    server.serve_forever()
    return 0


if __name__ == "__main__":
    sys.exit(main())
