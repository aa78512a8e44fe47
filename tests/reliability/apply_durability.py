#!/usr/bin/env python3
"""The real updater's apply against nginx on 127.0.0.1, killed or traced.

  apply_durability.py --updater U --publish P --scratch DIR crash [--trials N] [--seed S]
  apply_durability.py --updater U --publish P --scratch DIR trace

crash: an installation of build 1 is updated to build 2 and the updater killed with SIGKILL at a
moment of the run, half of them spread over the whole run, half over its apply (timed from the
log line that ends the download). After the kill every file holds its build-1 or its build-2
bytes, or exists only as its ".bak" with the build-1 bytes, and nothing else is there; the next
run leaves exactly build 2. At least one kill must land inside the apply.

trace: strace records real runs. Every rename or link into the installation (outside ".staging",
and in ".update-cache" only state.json) comes after an fsync of the moved file, when the run
wrote it, and is followed by an fsync of its directory before the next move (moves without an
fsync between them are one group) or the end. Only final names are moved in, exactly those of
the row. The checker's own rows show that it flags what breaks a rule.
"""

import argparse
import itertools
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.dirname(os.path.dirname(HERE))
sys.path[:0] = [os.path.join(SOURCE_DIR, "tests", "support"), os.path.join(SOURCE_DIR, "bench")]
from harness import (bare, files_below, install, log_lines, logged_at, publish, read, tree_problems,  # noqa: E402
                     updater_env)
from servers import Nginx  # noqa: E402

RUN_FILES = {"updater", "updater.conf", "updater.log"}
APPLY_FROM = "file tu kho tam"  # "[Update] dung N / M file tu kho tam" ends the download


def data(size, seed):
    return random.Random(seed).randbytes(size)


class Site:
    """Builds published by corvanta-publish below one nginx, and installations of them."""

    def __init__(self, options):
        self.options, self.www = options, os.path.join(options.scratch, "www")
        shutil.rmtree(options.scratch, ignore_errors=True)
        self.nginx = Nginx(os.path.join(options.scratch, "nginx"), self.www)
        self.nginx.start()
        self.runs = 0

    def publish(self, name, files, version, number):
        return publish(self.options.publish, files, os.path.join(self.www, name), version, number)

    def install(self, files, serves):
        self.runs += 1
        inst = os.path.join(self.options.scratch, "runs", str(self.runs), "inst")
        install(inst, files, self.options.updater, manifestUrl=self.nginx.url(serves + "/manifest.json"))
        return inst

    def run(self, inst, args=(), wrap=(), wait=True):
        process = subprocess.Popen([*wrap, os.path.join(inst, "updater"), *args], cwd=inst, stdout=subprocess.DEVNULL,
                                   env=updater_env(os.path.join(inst, "..", "locks")), stderr=subprocess.DEVNULL)
        if wait and process.wait(180) != 0:
            raise RuntimeError(f"updater {' '.join(args)} ended with {process.returncode}")
        return process

    def log(self, inst):
        return [(logged_at(line).timestamp(), bare(line)) for line in log_lines(inst)]


# ---------------------------------------------------------------------------------------------
# Crash trials

def crash_builds(large_mib):
    """About fifty small files in a few directories (nine in ten change, one becomes empty),
    large files that all change, six files only build 2 has, and a directory that becomes a
    file and a file that becomes a directory."""
    one, two = {}, {}
    for i in range(50):
        path = f"file{i}.txt" if i < 4 else f"data/d{i % 5}/file{i}.bin"
        size = 37 + i * 7919 % 200000
        one[path] = data(size, 1000 + i)
        two[path] = one[path] if i % 10 == 3 else data(0 if i == 17 else max(0, size + (i % 3 - 1) * 1000), 2000 + i)
    for k, mib in enumerate(large_mib):
        one[f"packs/large{k}.pak"] = data(mib << 20, 3000 + k)
        two[f"packs/large{k}.pak"] = data((mib << 20) + 4096 * k, 4000 + k)
    two.update({f"added/new{j}.bin": data(1000 * (j + 1), 5000 + j) for j in range(5)})
    two["data/d0/extra.bin"] = data(77777, 6000)
    one.update({"shape/dir/x.bin": data(5000, 7000), "shape/dir/y.bin": data(6000, 7001), "shape/file": data(8000, 7003)})
    two.update({"shape/dir": data(7000, 7002), "shape/file/a.bin": data(9000, 7004)})
    return one, two


def after_kill(inst, one, two, manifests):
    """What breaks the rules in what a killed run left, and where the kill landed."""
    found = {p: c for p, c in files_below(inst).items() if not p.startswith((".staging/", ".update-cache/"))}
    problems, new, backups, only_bak = [], 0, 0, 0
    for path in sorted(set(one) | set(two)):
        parts = path.split("/")
        # The old content waits as "<path>.bak", or inside a directory moved aside as "<dir>.bak".
        moved = [i for i in range(1, len(parts)) if os.path.isdir(os.path.join(inst, *parts[:i]) + ".bak")]
        bak = "/".join(parts[:moved[0]]) + ".bak/" + "/".join(parts[moved[0]:]) if moved else path + ".bak"
        if bak in found:
            backups += 1
            if found[bak] != one.get(path):
                problems.append(f"{bak} holds {'build-2' if found[bak] == two.get(path) else 'foreign'} content")
        if path not in found:
            # Gone with the old shape: build 2 has a directory here, or a file above it.
            new_shape = path not in two and (os.path.isdir(os.path.join(inst, path)) or any(
                "/".join(parts[:i]) in found for i in range(1, len(parts))))
            only_bak += path in one and bak in found
            if path in one and bak not in found and not new_shape:
                problems.append(f"{path} missing without a backup")
        elif found[path] not in (one.get(path), two.get(path)):
            problems.append(f"{path} has content of neither build")
        else:
            new += path in two and found[path] == two[path] != one.get(path)
    known = set(one) | set(two) | RUN_FILES | {"manifest.json"}
    problems += [f"stray file {p}" for p in found if re.sub(r"\.bak(?=/|$)", "", p) not in known]
    if found.get("manifest.json") not in manifests:
        problems.append("manifest.json torn or missing")
    changes = sum(two[p] != one.get(p) for p in two)
    phase = "download" if new == backups == only_bak == 0 else \
        "after apply" if new == changes and only_bak == 0 else "apply"
    return problems, phase


def crash(site, options):
    one, two = crash_builds(options.large_mib)
    manifest_one = site.publish("b1", one, "5.0.1", 1)
    manifest_two = site.publish("b2", two, "5.1.0", 2)
    installed = dict(one, **{"manifest.json": manifest_one})
    expected = dict(two, **{"manifest.json": manifest_two})

    def finished(inst, stage):
        left = [".update-cache is left"] * os.path.exists(os.path.join(inst, ".update-cache"))
        return [f"{stage}: {p}" for p in tree_problems(inst, expected, RUN_FILES.__contains__) + left]

    # An uninterrupted run places the apply inside the run.
    inst = site.install(installed, "b2")
    began = time.time()
    site.run(inst)
    problems = finished(inst, "uninterrupted run")
    times = {text: at - began for at, text in site.log(inst)}
    apply_from = next(t for text, t in times.items() if APPLY_FROM in text)
    apply_span = next(t for text, t in times.items() if "CAP NHAT THANH CONG" in text) - apply_from + 0.02
    total = time.time() - began
    seed = options.seed if options.seed is not None else random.randrange(1 << 32)
    print(f"run {total:.2f} s, apply from {apply_from:.2f} s for {apply_span:.3f} s; {options.trials} trials, "
          f"seed {seed}", flush=True)
    rng, half = random.Random(seed), (options.trials + 1) // 2
    phases = {}
    for i in range(options.trials):
        in_apply = i >= half
        slot, slots = (i - half, options.trials - half) if in_apply else (i, half)
        delay = (slot + rng.random()) / slots * (apply_span if in_apply else total)
        inst = site.install(installed, "b2")
        process, began = site.run(inst, wait=False), time.monotonic()
        log = os.path.join(inst, "updater.log")
        while in_apply and process.poll() is None and time.monotonic() - began < 180 and not (
                os.path.exists(log) and APPLY_FROM in open(log, encoding="utf-8").read()):
            time.sleep(0.001)
        began = time.monotonic() if in_apply else began
        time.sleep(max(0.0, delay - (time.monotonic() - began)))
        process.send_signal(signal.SIGKILL)
        ended = process.wait() == 0
        found, phase = after_kill(inst, one, two, (manifest_one, manifest_two))
        phase = "already finished" if ended else phase
        phases[phase] = phases.get(phase, 0) + 1
        site.run(inst)
        found += finished(inst, "next run")
        moment = f"{delay * 1000:6.0f} ms {'into the apply' if in_apply else 'after start'}"
        print(f"{i + 1:4} kill {moment}: {phase}" + "".join(f"\n      {p}" for p in found), flush=True)
        problems += [f"kill {moment}: {p}" for p in found]
        shutil.rmtree(os.path.dirname(inst))
    print(f"kills landed: {phases}")
    if not phases.get("apply"):
        problems.append("no kill landed inside the apply")
    return problems


# ---------------------------------------------------------------------------------------------
# Write-through

CALL = re.compile(r"^(\d+)\s+(\w+)\((.*)\)\s+=\s+(-?\d+)")
QUOTED = re.compile(r'"((?:[^"\\]|\\.)*)"')


def events_of(trace, cwd):
    """The trace as ("open", path, file, writing), ("sync", path, file) and ("move", destination,
    file, source) events; a file is followed through its renames and links by a number."""
    pending, paths, fds, files, events, numbers = {}, {}, {}, {}, [], itertools.count()

    def file_of(path):
        return files[path] if path in files else files.setdefault(path, next(numbers))
    for line in trace.splitlines():
        pid = line.split(" ", 1)[0]
        if line.endswith("<unfinished ...>"):
            pending[pid] = line[:-len(" <unfinished ...>")]
            continue
        resumed = re.match(r"^\d+\s+<\.\.\. \w+ resumed>(.*)$", line)
        m = CALL.match(pending.pop(pid) + resumed.group(1) if resumed else line)
        if not m or int(m.group(4)) < 0:
            continue
        call, args, result = m.group(2), m.group(3), int(m.group(4))
        names = [n.encode("latin-1").decode("unicode_escape").encode("latin-1").decode()
                 for n in QUOTED.findall(args)]
        dirs = [a for a in args.split(", ") if a == "AT_FDCWD" or a.isdigit()]

        def absolute(name, i):
            base = paths.get(int(dirs[i]), cwd) if call.endswith(("at", "at2")) and dirs[i:] and dirs[i].isdigit() \
                else cwd
            return os.path.normpath(os.path.join(base, name))
        if call == "openat":
            path = absolute(names[0], 0)
            paths[result] = path
            fds[result] = next(numbers) if "O_TMPFILE" in args else file_of(path)
            events.append(("open", path, fds[result], bool(re.search(r"O_WRONLY|O_RDWR|O_CREAT|O_TRUNC", args))))
        elif call in ("fsync", "fdatasync") and int(args) in paths:
            events.append(("sync", paths[int(args)], fds[int(args)]))
        elif call.startswith(("rename", "link")):
            source, target = absolute(names[0], 0), absolute(names[1], 1)
            via_fd = re.fullmatch(r"/proc/self/fd/(\d+)", source)
            moved = fds.get(int(via_fd.group(1))) if via_fd else file_of(source)
            events.append(("move", target, moved, source))
            files[target] = moved
            if call.startswith("rename"):
                files.pop(source, None)
    return events


def write_through_problems(events, inst):
    """Every broken rule, and the destinations moved into the installation."""
    def in_scope(path):
        rel = os.path.relpath(path, inst)
        return not rel.startswith(("..", ".staging/")) and (not rel.startswith(".update-cache/")
                                                            or rel.endswith("/state.json"))
    problems, moved = [], []
    for i, (kind, path, file, *rest) in enumerate(events):
        if kind != "move" or not in_scope(path):
            continue
        moved.append(os.path.relpath(path, inst))
        writes = [j for j, e in enumerate(events[:i]) if e[0] == "open" and e[3] and e[2] == file]
        if writes and not any(e[0] == "sync" and e[2] == file for e in events[writes[-1]:i]):
            problems.append(f"{rest[0]} -> {moved[-1]} without an fsync of the file after it was written")
        group_end = next((j for j in range(i + 1, len(events)) if events[j][0] == "move" and in_scope(events[j][1])
                          and any(e[0] == "sync" for e in events[i + 1:j])), len(events))
        if not any(e[0] == "sync" and e[1] == os.path.dirname(path) for e in events[i + 1:group_end]):
            problems.append(f"{rest[0]} -> {moved[-1]} not followed by an fsync of {os.path.dirname(path)}")
    return problems, moved


# The checker on hand-written traces of an installation in /i: (trace, how many broken rules).
WRITTEN = '1 openat(AT_FDCWD, "/i/.staging/a", O_WRONLY|O_CREAT|O_TRUNC, 0666) = 5\n'
FILE_SYNC = '1 openat(AT_FDCWD, "/i/.staging/a", O_RDONLY) = 6\n1 fsync(6) = 0\n'
REPLACE = ('1 link("/i/a", "/i/a.bak.link") = 0\n1 rename("/i/a.bak.link", "/i/a.bak") = 0\n'
           '1 rename("/i/.staging/a" <unfinished ...>\n2 openat(AT_FDCWD, "/etc/hosts", O_RDONLY) = 9\n'
           '1 <... rename resumed>, "/i/a") = 0\n')
DIR_SYNC = '1 openat(AT_FDCWD, "/i", O_RDONLY|O_DIRECTORY) = 7\n1 fsync(7) = 0\n'
SECOND = ('1 openat(AT_FDCWD, "/i/.staging/b", O_WRONLY|O_CREAT, 0666) = 5\n1 fsync(5) = 0\n'
          '1 renameat2(AT_FDCWD, "/i/.staging/b", AT_FDCWD, "/i/b", 0) = 0\n')
CHECKER_ROWS = [
    (WRITTEN + FILE_SYNC + REPLACE + DIR_SYNC, 0),
    (WRITTEN + REPLACE + DIR_SYNC, 1),
    (FILE_SYNC + WRITTEN + REPLACE + DIR_SYNC, 1),
    (WRITTEN + FILE_SYNC + REPLACE + SECOND + DIR_SYNC, 3),
    ('1 openat(AT_FDCWD, "/i/.staging", O_RDWR|O_TMPFILE, 0600) = 8\n'
     '1 linkat(AT_FDCWD, "/proc/self/fd/8", AT_FDCWD, "/i/.staging/c", AT_SYMLINK_FOLLOW) = 0\n'
     '1 rename("/i/.staging/c", "/i/c") = 0\n1 rename("/i/x", "/i/y") = -1 EACCES (Permission denied)\n' + DIR_SYNC, 1),
    ('1 openat(AT_FDCWD, "/i/.update-cache/v/files/x.part", O_WRONLY|O_CREAT, 0666) = 5\n'
     '1 rename("/i/.update-cache/v/files/x.part", "/i/.update-cache/v/files/x") = 0\n'
     '1 openat(AT_FDCWD, "/i/.update-cache/v/state.json.tmp", O_WRONLY|O_CREAT|O_TRUNC, 0666) = 5\n'
     '1 rename("/i/.update-cache/v/state.json.tmp", "/i/.update-cache/v/state.json") = 0\n', 2),
]

ONE = {"bin/app.bin": data(300000, 1), "data/a.txt": b"alpha 1", "data/b.txt": b"bravo", "top.txt": b"top 1"}
# Three files change, one is added in a new directory, one stays, and the updater's own file comes.
TWO = dict(ONE, **{"bin/app.bin": data(310000, 2), "data/a.txt": b"alpha 2", "new/dir/c.txt": b"charlie",
                   "top.txt": b"top 2", "updater": b"the next updater"})
SMALL = {f"small/file_{i:02}.txt": f"small {i}".encode() for i in range(80)}  # a prefetch does ten a second
APPLIED = ["bin/app.bin", "bin/app.bin.bak", "data/a.txt", "data/a.txt.bak", "manifest.json", "new/dir/c.txt",
           "top.txt", "top.txt.bak", "updater.new"]
UPDATED = '[Update] CAP NHAT THANH CONG -> "2.0"'
# (build served, arguments of an untraced run first, of the traced run, moved in, last log line)
TRACE_ROWS = [
    ("two", None, [], APPLIED, UPDATED),
    ("two", ["--prefetch-only"], [], APPLIED, UPDATED),
    # state.json is rewritten whole, so at most once a second; the last save has every file done.
    ("small", None, ["--prefetch-only"], [".update-cache/2.0/state.json"],
     "[UpdatePrefetch] xong toan bo - 80 file ok, 0 bo lai cho updater"),
]


def trace(site, options):
    problems = []
    for number, (text, broken) in enumerate(CHECKER_ROWS):
        found = write_through_problems(events_of(text, "/"), "/i")[0]
        if len(found) != broken:
            problems.append(f"checker row {number + 1}: {len(found)} broken rules, not {broken}: {found}")
    installed = dict(ONE, **{"manifest.json": site.publish("one", ONE, "1.0", 1)})
    site.publish("two", TWO, "2.0", 2)
    site.publish("small", SMALL, "2.0", 2)
    for served, first, args, moved_in, last in TRACE_ROWS:
        name = f"{served} {' '.join(args)}{' after ' + ' '.join(first) if first else ''}"
        inst = os.path.realpath(site.install(installed, served))
        if first:
            site.run(inst, first)
            os.remove(os.path.join(inst, "updater.log"))
        record = os.path.join(inst, "..", "trace")
        began = time.monotonic()
        site.run(inst, args, ["strace", "-f", "-s", "4096", "-o", record, "-e",
                              "trace=fsync,fdatasync,rename,renameat,renameat2,link,linkat,openat"])
        seconds = time.monotonic() - began
        found, moved = write_through_problems(events_of(read(record).decode("latin-1"), inst), inst)
        found += [] if sorted(set(moved)) == moved_in else [f"moved in {sorted(set(moved))}, not {moved_in}"]
        found += [] if site.log(inst)[-1][1] == last else [f"last log line {site.log(inst)[-1][1]!r}"]
        if "--prefetch-only" in args:
            state = json.loads(read(os.path.join(inst, moved_in[0])))["files"]
            found += [] if len(moved) <= seconds + 2 else [f"{len(moved)} saves of state.json in {seconds:.1f} s"]
            found += [] if state and all(f["done"] for f in state) else ["the last state.json has files not done"]
        print(f"{'ok' if not found else 'FAIL'}: {name}" + "".join(f"\n      {p}" for p in found), flush=True)
        problems += [f"{name}: {p}" for p in found]
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--updater", type=os.path.abspath, required=True)
    parser.add_argument("--publish", type=os.path.abspath, required=True, help="corvanta-publish")
    parser.add_argument("--scratch", type=os.path.abspath, required=True, help="working directory, emptied first")
    parser.add_argument("mode", choices=["crash", "trace"])
    parser.add_argument("--trials", type=int, default=12)
    parser.add_argument("--seed", type=int)
    parser.add_argument("--large-mib", type=int, nargs="*", default=[8, 6, 4, 12], help="the large files' sizes")
    options = parser.parse_args()
    site = Site(options)
    try:
        problems = (crash if options.mode == "crash" else trace)(site, options)
    finally:
        site.nginx.stop()
    print("\n".join(["", *problems, f"{len(problems)} problems"]))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
