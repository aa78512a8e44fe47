#!/usr/bin/env python3
"""Fault-injecting HTTP/1.1 file server for the updater's tests.

Usage: fault_server.py ROOT_DIR CONTROL_DIR

Serves the files below ROOT_DIR on 127.0.0.1 with an OS-chosen port, which it prints on
stdout (one line) once it listens, and exits when its stdin ends, so that it never outlives
the test that started it. CONTROL_DIR/rules.json (replaced atomically by the test) maps URL
paths, without the leading "/", to misbehaviours, and is read for every request. Every request
is appended as one JSON line to CONTROL_DIR/requests.jsonl, with its time (seconds since the
epoch), before it is answered.
"""

import collections
import functools
import json
import os
import re
import socket
import struct
import sys
import threading
import time
import urllib.parse
import zlib
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

BLOCK = 65536
FLIP = bytes(b ^ 0xA5 for b in range(256))  # same length, every byte different


@functools.lru_cache(maxsize=None)
def gzip_of_zeros(size):
    # After a full flush deflate starts afresh, so every further 1 MiB of zeros compresses to
    # the same bytes: one block is compressed and repeated, and a gigabyte's body is made in
    # well under a second (the updater must see its first byte within its inactivity time-out).
    block = bytes(min(size, 1 << 20))
    whole, rest = divmod(size, len(block))
    compressor = zlib.compressobj(9, zlib.DEFLATED, -15)
    first = compressor.compress(block) + compressor.flush(zlib.Z_FULL_FLUSH)
    again = compressor.compress(block) + compressor.flush(zlib.Z_FULL_FLUSH)
    crc = functools.reduce(lambda crc, _: zlib.crc32(block, crc), range(whole), 0)
    return b"".join([b"\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff", first, again * (whole - 1),
                     compressor.compress(block[:rest]), compressor.flush(),
                     struct.pack("<II", zlib.crc32(block[:rest], crc), size & 0xFFFFFFFF)])


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_GET(self):
        target = self.path.split("#", 1)[0]
        target = target[1:] if target.startswith("/") else target
        path, file = urllib.parse.unquote(target), urllib.parse.unquote(target.split("?", 1)[0])
        self.server.record({"time": time.time(), "method": self.command, "target": self.path, "path": path,
                            "headers": [[k.lower(), v] for k, v in self.headers.items()]})
        rule = self.server.rule_for(path, file)
        # A server that limits the answers to one client under way at once turns the others
        # away as busy, as nginx's limit_conn does; the first busyFirst GETs of a path too, after
        # busySeconds. Each top directory is a client of its own.
        limit, client = rule.get("answersAtOnce", 0), path.split("/", 1)[0]
        turned_away = rule.get("busyFirst", 0) >= rule.get("use", 1)
        if turned_away:
            time.sleep(rule.get("busySeconds", 0))
        with self.server.lock:
            self.server.answering[client] += bool(limit)
            busy = limit and (self.server.answering[client] > limit or turned_away)
        try:
            return self.send_short(503, b"busy\n") if busy else self.answer(rule, path, file)
        finally:
            with self.server.lock:
                self.server.answering[client] -= bool(limit)

    def answer(self, rule, path, file):
        time.sleep(rule.get("stallBeforeSeconds", 0))
        full = os.path.realpath(os.path.join(self.server.root, file))
        if rule.get("redirectTo"):
            location = rule["redirectTo"]
            return self.send_short(302, b"redirect\n", Location=location if "://" in location
                                   else "/" + location.lstrip("/"))
        if rule.get("status", 0) > 0:
            return self.send_short(rule["status"], b"" if rule.get("emptyBody") else b"status %d\n" % rule["status"])
        if not full.startswith(self.server.root + os.sep) or not os.path.isfile(full):
            return self.send_short(404, b"not found\n")
        if rule.get("endless"):
            return self.send_endless(rule)
        if rule.get("gzipBytes", 0) > 0:
            return self.send_short(200, gzip_of_zeros(int(rule["gzipBytes"])), **{"Content-Encoding": "gzip"})
        # The updater asks for "bytes=N-" or "bytes=N-M"; extraBytes more, not of the file, follow a 206.
        size = os.path.getsize(full)
        status, first, last = 200, 0, size - 1
        asked = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range", "").strip())
        if asked and not rule.get("ignoreRange"):
            if int(asked[1]) >= size:
                return self.send_short(416, b"range not satisfiable\n", **{"Content-Range": "bytes */%d" % size})
            if int(asked[2] or size - 1) >= int(asked[1]):
                status, first, last = 206, int(asked[1]), min(int(asked[2] or size - 1), size - 1)
        elif "Range" not in self.headers and rule.get("partialWithoutRange"):
            status = 206
        extra = rule.get("extraBytes", 0) if status == 206 else 0
        self.send_response(status)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(last - first + 1 + extra))
        self.send_header("Accept-Ranges", "bytes")
        if status == 206:
            self.send_header("Content-Range", rule.get("contentRange") or "bytes %d-%d/%d" % (first, last + extra, size))
        self.end_headers()
        with open(full, "rb") as f:
            f.seek(first)
            self.send_body(f, last - first + 1, rule)
        self.wfile.write(b"\x5a" * extra)

    def send_short(self, status, body, **headers):
        self.send_response(status)
        for name, value in dict(headers, **{"Content-Type": "text/plain", "Content-Length": len(body)}).items():
            self.send_header(name, str(value))
        self.end_headers()
        self.wfile.write(body)

    def send_body(self, f, length, rule):
        stall_at, close_at = rule.get("stallAfterBytes", -1), rule.get("closeAfterBytes", -1)
        chunk, sent = rule.get("chunkBytes", 0) or BLOCK, 0
        while sent < length or sent == close_at:
            if sent == stall_at:
                time.sleep(rule.get("stallSeconds", 0))
            data = f.read(min([length - sent, chunk - sent % chunk] + [e - sent for e in (stall_at, close_at)
                                                                        if e > sent]))
            if sent == close_at or not data:  # not data: the file shrank underneath
                return self.cut_connection()
            self.wfile.write(data.translate(FLIP) if rule.get("corruptBody") else data)
            sent += len(data)
            if sent < length and sent % chunk == 0:
                time.sleep(rule.get("chunkPauseSeconds", 0))

    def send_endless(self, rule):
        # No Content-Length: the body ends only when the connection does, or, chunked, never.
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header(*(("Transfer-Encoding", "chunked") if rule.get("chunked") else ("Connection", "close")))
        self.end_headers()
        self.close_connection = True
        chunk = rule.get("chunkBytes", 0) or BLOCK
        data = (b"%x\r\n" % chunk + b"\x5a" * chunk + b"\r\n") if rule.get("chunked") else b"\x5a" * chunk
        while True:
            self.wfile.write(data)
            time.sleep(rule.get("chunkPauseSeconds", 0))

    def cut_connection(self):
        self.close_connection = True
        try:
            self.wfile.flush()
            self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


class Server(ThreadingHTTPServer):
    def __init__(self, root, control):
        super().__init__(("127.0.0.1", 0), Handler)
        self.root, self.control, self.lock = os.path.realpath(root), control, threading.Lock()
        self.answering = collections.Counter()
        self.uses = {}  # (path, generation) -> requests the rule has matched so far

    def record(self, entry):
        with self.lock, open(os.path.join(self.control, "requests.jsonl"), "a", encoding="utf-8") as log:
            log.write(json.dumps(entry, separators=(",", ":")) + "\n")

    def rule_for(self, path, file):
        """The rule for path (or for file, path without its query), with the request's number
        among those it met as "use"; {} when none applies, or when it applied to its first
        `times` requests already."""
        try:
            with open(os.path.join(self.control, "rules.json"), encoding="utf-8") as f:
                rules = json.load(f)
        except (OSError, ValueError):
            return {}
        key = path if path in rules else file
        rule = rules.get(key, {})
        with self.lock:
            used = (key, rule.get("generation", 0))
            self.uses[used] = self.uses.get(used, 0) + 1
            use = self.uses[used]
        return dict(rule, use=use) if rule.get("times", -1) < 0 or use <= rule["times"] else {}

    def handle_error(self, request, client_address):
        # A client that hangs up mid-answer (abort, time-out) is normal in these tests.
        if not isinstance(sys.exc_info()[1], OSError):
            super().handle_error(request, client_address)


def main():
    server = Server(*sys.argv[1:3])
    # Exits when stdin ends: the test that started it is gone.
    threading.Thread(target=lambda: (sys.stdin.buffer.read(), os._exit(0)), daemon=True).start()
    print(server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
