#!/usr/bin/env python3
"""Runs the rows of hostile_rows.py: the real updater against support/fault_server.py, which
serves every row's build below /r<index>/ and misbehaves as the rows' rules say.

  hostile_runner.py --updater build/bin/updater --scratch build/hostile [--slow] [--jobs N] [--rows RE]

Every row runs once, in an installation that is the only entry of its own TMPDIR, with a HOME
and a lock directory of its own, and must keep every invariant besides its log lines:
  - the updater ends by itself within 90 s with exit code 0, its resident memory (sampled every
    50 ms) stays below 256 MiB, and no file grows beyond 4 MiB (prlimit: SIGXFSZ beyond);
  - the installation is as it was, or exactly the published build when the row updates, and no
    ".staging" is left;
  - the cache holds only the published files and artifacts, and ".part" files that are prefixes
    of them;
  - nothing is written outside the installation: its TMPDIR holds nothing else, HOME stays
    empty, and what a link planted in the installation points to is unchanged.
A row may also ask for the exact cache and requests, and a pace (the fault server records the
time of every request).
"""

import argparse
import io
import json
import os
import re
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.join(os.path.dirname(HERE), "support")]
from harness import (bare, files_below, install, log_lines, log_problems, read, run_rows, sign, spawn,  # noqa: E402
                     tree_differences, tree_problems, updater_env, wait_all, write, written_beside)
from hostile_rows import BUILD1, BUILD2, C2, F, PACKED_PATH, PATCH_PATH, ROWS, C1, sha256  # noqa: E402

FAULT_SERVER = os.path.join(os.path.dirname(HERE), "support", "fault_server.py")
PEAK_RSS_LIMIT_KIB, FILE_SIZE_LIMIT = 262144, 4194304
CACHE = ".update-cache/2.0/files/"


def manifest_of(files, **keys):
    entries = [{"path": path, "size": len(data), "sha256": sha256(data)} for path, data in sorted(files.items())]
    return dict({"buildNumber": 11, "fullVersion": "2.0", "product": "Corvanta", "arch": "x64", "files": entries},
                **keys)


def publish(r, out, other_key):
    """Writes the row's build below out; returns what its installation must hold afterwards
    when it updates, and the bytes its cache may hold."""
    p = r.get("publish", {})
    fill = {f"fill/f{i:02d}.txt": b"fill %d" % i for i in range(30)} if "hostile_path" in p else {}
    files = dict(p.get("build", BUILD2), **fill)
    manifest = manifest_of(files, **p.get("manifest", {}))
    entries = manifest["files"]
    artifacts, c_entry = {}, next(e for e in entries if e["path"] == F)
    if p.get("zstd"):
        artifacts[PACKED_PATH] = p["zstd"]
        c_entry["zstd"] = {"size": len(p["zstd"]), "sha256": sha256(p["zstd"])}
    if p.get("patch"):
        artifacts[PATCH_PATH] = p["patch"]
        c_entry["zstdPatches"] = [{"from": sha256(C1), "size": len(p["patch"]), "sha256": sha256(p["patch"])}]
    if fill:  # one unsafe entry among 35 good ones
        entries.insert(len(entries) // 2, {"path": p["hostile_path"], "size": 4, "sha256": sha256(b"evil")})
    for i, size in enumerate(p.get("extra_sizes", [])):
        entries.append({"path": f"more/f{i:04d}.bin", "sha256": sha256(b"more")})
        if size is not None:
            entries[-1]["size"] = size
    data = json.dumps(manifest, indent=1).encode()
    for path, content in dict(files, **{"mirror/c.bin": files[F]}, **artifacts).items():
        write(os.path.join(out, path), content)
    write(os.path.join(out, "manifest.json"), data)
    if p.get("signature") == "of another manifest":
        signature = sign(json.dumps(manifest_of(files, fullVersion="2.1", buildNumber=12)).encode())
    else:
        signature = sign(data, *[other_key] if p.get("signature") == "by another key" else [])
    write(os.path.join(out, "manifest.json.sig"), signature.ljust(p.get("sig_size", 0), b"\n"))
    for path, content in p.get("serve", {}).items():
        write(os.path.join(out, path), content)
    return dict(files, **{"manifest.json": data}), dict(files, **artifacts)


def plant(kind, path, inst, outside):
    """Plants a link (or a FIFO) at path in the installation, pointing outside it."""
    full, target = os.path.join(inst, path), os.path.join(outside, "target")
    if kind in ("file", "hard"):  # a ".part" that would be resumed, unless the installation has the file
        write(target, read(full) if os.path.exists(full) else C2[:1000])
    elif kind == "dir":
        write(os.path.join(target, "keep.txt"), b"outside")
    if os.path.lexists(full):
        os.remove(full)
    os.makedirs(os.path.dirname(full), exist_ok=True)
    if kind == "fifo":
        os.mkfifo(full)
    elif kind == "hard":
        os.link(target, full)
    else:
        os.symlink("/dev/zero" if kind == "zero" else target, full)


def ignored(path):
    """Not the installation's files: the log and the cache."""
    return path == "updater.log" or path.startswith(".update-cache/")


def matches(expected, lines):
    """The lines match the expected ones: "*" is any text of a line, " ||| " separates
    alternatives, a compiled expression stands for the lines it matches."""
    def line(p):
        return p.pattern if isinstance(p, re.Pattern) else "|".join(
            "[^\n]*".join(map(re.escape, text.split("*"))) for text in p.split(" ||| "))
    return re.fullmatch("\n".join(f"(?:{line(p)})" for p in expected), "\n".join(lines)) is not None


def run_bounded(argv, env, tick):
    """Runs the updater with its file size bounded, sampling its resident high-water mark and
    calling tick() every 50 ms; returns what went wrong."""
    process, peak = spawn(["prlimit", f"--fsize={FILE_SIZE_LIMIT}", "--"] + argv, env=env,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL), [0]

    def sample():
        tick()
        try:
            with open(f"/proc/{process.pid}/status") as f:
                peak[0] = max(peak[0], int(re.search(r"VmHWM:\s+(\d+) kB", f.read()).group(1)))
        except (OSError, AttributeError):
            pass
        if peak[0] > PEAK_RSS_LIMIT_KIB:
            process.kill()
    code = wait_all([process], tick=sample)[0][0]
    if peak[0] > PEAK_RSS_LIMIT_KIB:
        return [f"resident memory grew beyond {PEAK_RSS_LIMIT_KIB} KiB"]
    if isinstance(code, str) or code == 0:
        return [code] if code else []
    return [f"ended by signal {-code} (SIGXFSZ: a file grew beyond {FILE_SIZE_LIMIT} bytes)" if code < 0
            else f"exit code {code}"]


class Runner:
    def __init__(self, options, rows):
        self.options, self.rows = options, rows
        self.top = os.path.join(options.scratch, "slow" if options.slow else "rows")
        shutil.rmtree(self.top, ignore_errors=True)
        self.www, control = os.path.join(self.top, "www"), os.path.join(self.top, "control")
        os.makedirs(control)
        self.other_key = os.path.join(self.top, "other_private.pem")
        subprocess.run(["openssl", "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out",
                        self.other_key], check=True)
        self.published, rules = {}, {}
        for r in self.rows:
            base = r["base"] + "/"
            self.published[base] = publish(r, os.path.join(self.www, base), self.other_key)
            for path, rule in r.get("rules", {}).items():
                target = rule.get("redirectTo", "://")
                rules[base + path] = rule if "://" in target else dict(rule, redirectTo=base + target)
        write(os.path.join(control, "rules.json"), json.dumps(rules))
        self.server = subprocess.Popen([sys.executable, FAULT_SERVER, self.www, control], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, text=True)
        self.url = f"http://127.0.0.1:{self.server.stdout.readline().strip()}/"

    def run_row(self, r, _):
        tmp = os.path.join(self.top, "runs", r["base"], "tmp")
        if r.get("volume"):
            os.makedirs(tmp, exist_ok=True)  # a run killed before its umount cannot remove it
            # A small filesystem needs root and a working mount; without them the row is skipped.
            if subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={r['volume']}", "tmpfs", tmp]).returncode:
                return f"cannot mount a {r['volume']} tmpfs"
        try:
            return self.run_installation(r["base"], r)
        finally:
            if r.get("volume"):
                subprocess.run(["umount", tmp], check=True)

    def run_installation(self, base, r):
        url = self.url + base + "/"
        row_dir = os.path.join(self.top, "runs", base)
        tmp, home, outside = (os.path.join(row_dir, d) for d in ("tmp", "home", "outside"))
        inst = os.path.join(tmp, "inst")
        for d in (home, outside):
            os.makedirs(d, mode=0o700)
        install(inst, dict(BUILD1, **{"manifest.json": json.dumps(manifest_of(BUILD1, fullVersion="1.0",
                                                                              buildNumber=10))}),
                self.options.updater, manifestUrl=url + "manifest.json")
        seed = r.get("seed", {})
        for path, data in ({"2.0/files/" + F + ".part": C2[:seed]} if isinstance(seed, int) else seed).items():
            write(os.path.join(inst, ".update-cache", path), data)
        if r.get("link"):
            plant(*r["link"], inst, outside)
        outside_before = list(os.walk(outside)), files_below(outside)
        before = {p: d for p, d in files_below(inst).items() if not ignored(p)}

        env = updater_env(os.path.join(row_dir, "locks"), TMPDIR=tmp, HOME=home)
        modes, problems = [r["mode"]] + ([r["then"]] if r.get("then") else []), []
        for run, mode in enumerate(modes):
            args = ["--prefetch-only"] if mode == "prefetch" else []
            app, tick = self.application(r, inst, base) if run == 0 and "app_ends" in r else (None, lambda: None)
            problems += run_bounded([os.path.join(inst, "updater")] + args
                                    + (["--wait-pid", str(app.pid)] if app else []), env, tick)
            if app:
                app.kill()
                app.wait()
        tags = tuple("[UpdatePrefetch] " if mode == "prefetch" else "[Update] " for mode in modes)
        lines = [bare(line).replace(url, "{url}") for line in log_lines(inst) if bare(line).startswith(tags)]
        if not any(matches(expected, lines) for expected in [r["lines"]] + r.get("alternatives", [])):
            problems += log_problems(lines, r["lines"])

        problems += written_beside(tmp, ["inst"]) + written_beside(home, [])
        if (list(os.walk(outside)), files_below(outside)) != outside_before:
            problems.append(f"written through the link at {r['link'][1]}")
        tree, truth = self.published[base + "/"]
        problems += tree_problems(inst, dict(before, **tree) if r.get("updates") else before, ignored)
        planted = {".update-cache/" + p: d for p, d in r["seed"].items()} if isinstance(r.get("seed"), dict) else {}
        for path, data in files_below(inst).items():
            rel = path[len(CACHE):]
            part = rel.endswith(".part")
            right = truth.get(rel[:-5] if part else rel)
            if path.startswith(CACHE) and planted.get(path) != data and (right is None or data is None
                                           or not (right.startswith(data) if part else data == right)):
                problems.append(f"cache holds bad bytes in {rel} ({len(data or b'')} bytes)")
        if "cache" in r:
            problems += self.cache_differences(r, base, url, files_below(os.path.join(inst, ".update-cache")))
        requests = self.requests_of(base)
        if "requests" in r and not matches(r["requests"], [q for q, _ in requests]):
            problems.append(f"requests {[q for q, _ in requests]}, expected {r['requests']}")
        if "paced" in r:
            path, least, most = r["paced"]
            asked = [t for q, t in requests if q.split(" ")[0] == path][:1]
            took = [t - asked[0] for q, t in requests if asked and t > asked[0] and q.split(" ")[0] != path][:1]
            if not took or not least <= took[0] <= most:
                problems.append(f"{took} s from the request of {path} to the next of another, not {least}-{most} s")
        return problems

    def application(self, r, inst, base):
        """The process --wait-pid names, and what ends it: once the server saw a request for the
        path app_ends names, or once the installation's file (path, size) holds that many bytes."""
        app, ends = spawn(["sleep", "600"]), r["app_ends"]

        def tick():
            if isinstance(ends, tuple):
                path = os.path.join(inst, ends[0])
                due = os.path.isfile(path) and os.path.getsize(path) >= ends[1]
            else:
                due = ends in [q.split(" ")[0] for q, _ in self.requests_of(base)]
            if due and app.poll() is None:
                app.kill()
        return app, tick

    def cache_differences(self, r, base, url, actual):
        """The cache against the row's `cache`: bytes, a published file's name, or a JSON document."""
        expected = {}
        for path, value in r["cache"].items():
            if isinstance(value, str):
                value = read(os.path.join(self.www, base, value))
            elif isinstance(value, dict):
                value = json.loads(json.dumps(value).replace("{url}", url))
                if actual.get(path):
                    actual[path] = json.loads(actual[path])
            expected[path] = value
        return ["cache: " + p for p in tree_differences(expected, actual)]

    def requests_of(self, base):
        """The row's requests, "path" or "path bytes=N-M" with a Range header, and their times."""
        log = os.path.join(self.top, "control", "requests.jsonl")
        with open(log, encoding="utf-8") if os.path.exists(log) else io.StringIO() as f:
            records = [json.loads(line) for line in f if line.endswith("\n")]
        return [(" ".join([q["path"][len(base) + 1:]] + [v for k, v in q["headers"] if k == "range"]), q["time"])
                for q in records if q["path"].startswith(base + "/")]

    def run(self):
        # The slow rows only wait, on the server and the updater's timers: all of them at once.
        jobs = self.options.jobs or (len(self.rows) if self.options.slow else 2)
        code = run_rows(self.rows, max(jobs, 1), self.run_row)
        self.server.stdin.close()
        self.server.wait(30)
        return code


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--updater", type=os.path.abspath, required=True)
    parser.add_argument("--scratch", type=os.path.abspath, required=True)
    parser.add_argument("--slow", action="store_true", help="the rows that wait out time limits, and only those")
    parser.add_argument("--jobs", type=int, help="rows at once (default 2, with --slow all)")
    parser.add_argument("--rows", default="", help="only the rows whose name matches this expression")
    options = parser.parse_args()
    rows = [dict(r, base=f"r{i:03d}") for i, r in enumerate(ROWS)
            if r.get("slow", False) == options.slow and re.search(options.rows, r["name"])]
    return Runner(options, rows).run()


if __name__ == "__main__":
    sys.exit(main())
