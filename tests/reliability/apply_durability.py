#!/usr/bin/env python3
"""The real updater's apply against nginx on 127.0.0.1, killed or traced.

  apply_durability.py --updater U --publish P --scratch DIR crash|trace [--trials N] [--seed S]

crash: build 1 is updated to build 2 and the updater killed with SIGKILL, half of the trials spread
over the run, half over its apply (from the log line that ends the download). Every file then
holds its build-1 or build-2 bytes, or exists only as its ".bak" with the build-1 bytes, nothing
else is there, and the next run leaves exactly build 2. One kill at least lands inside the apply.

trace: in strace's record of real runs, every rename or link into the installation (not into
".staging", into ".update-cache" only of state.json) follows an fsync of the moved file when the
run wrote it (or a syncfs, which syncs everything written before it), and every directory that such a move gave or took a name is synced after its last
move and before the record of the build (manifest.json) is moved in, the run's last log line is
written and the run ends; exactly the row's final names are moved in. The checker's own rows show
that it flags what breaks a rule.
"""

import argparse
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path[:0] = [os.path.join(SOURCE_DIR, "tests", "support"), os.path.join(SOURCE_DIR, "bench")]
from harness import (bare, files_below, install, log_lines, logged_at, publish, read, run_rows, spawn,  # noqa: E402
                     tree_problems, updater_env)
from servers import Nginx  # noqa: E402

RUN_FILES = {"updater", "updater.conf", "updater.log"}
APPLY_FROM = "file tu kho tam"  # "[Update] dung N / M file tu kho tam" ends the download
BACKUP = re.compile(r"\.bak(?=/|$)")  # "<path>.bak", or a directory moved aside as "<dir>.bak"


def data(size, seed):
    return random.Random(seed).randbytes(size)


class Site:
    """Builds published by corvanta-publish below one nginx, and installations of them."""

    def __init__(self, options):
        self.options, self.www, self.runs = options, os.path.join(options.scratch, "www"), 0
        shutil.rmtree(options.scratch, ignore_errors=True)
        self.nginx = Nginx(os.path.join(options.scratch, "nginx"), self.www)
        self.nginx.start()

    def publish(self, name, files, version, number):
        return publish(self.options.publish, files, os.path.join(self.www, name), version, number)

    def install(self, files, serves):
        self.runs += 1
        inst = os.path.realpath(os.path.join(self.options.scratch, "runs", str(self.runs), "inst"))
        install(inst, files, self.options.updater, manifestUrl=self.nginx.url(serves + "/manifest.json"))
        return inst

    def run(self, inst, args=(), wrap=(), wait=True):
        process = spawn([*wrap, os.path.join(inst, "updater"), *args], cwd=inst, stdout=subprocess.DEVNULL,
                        stderr=subprocess.DEVNULL, env=updater_env(os.path.join(inst, "..", "locks")))
        if wait and process.wait(180) != 0:
            raise RuntimeError(f"updater {' '.join(args)} ended with {process.returncode}")
        return process


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
    found = {p: c for p, c in files_below(inst).items()
             if not p.startswith((".staging/", ".update-cache/")) and p not in RUN_FILES}
    problems = [] if found.pop("manifest.json", None) in manifests else ["manifest.json torn or missing"]
    backups = {BACKUP.sub("", p): p for p in found if BACKUP.search(p)}
    for path, content in found.items():
        of = BACKUP.sub("", path)
        if of not in one and of not in two:
            problems.append(f"stray file {path}")
        elif content not in ((one.get(of),) if of != path else (one.get(of), two.get(of))):
            problems.append(f"{path} holds content of {'neither build' if of == path else 'build 2 or none'}")
    for path in one:
        parts = path.split("/")
        # Gone with the old shape: build 2 has a directory here, or a file above it.
        new_shape = path not in two and (os.path.isdir(os.path.join(inst, path)) or any(
            "/".join(parts[:i]) in found for i in range(1, len(parts))))
        if path not in found and path not in backups and not new_shape:
            problems.append(f"{path} missing without a backup")
    changes = [p for p in two if two[p] != one.get(p)]
    new = sum(found.get(p) == two[p] for p in changes)
    only_backup = any(p in backups and p not in found for p in one)
    return problems, "download" if new == len(backups) == 0 else \
        "after apply" if new == len(changes) and not only_backup else "apply"


def crash(site, options):
    one, two = crash_builds(options.large_mib)
    manifests = site.publish("b1", one, "5.0.1", 1), site.publish("b2", two, "5.1.0", 2)
    installed, expected = dict(one, **{"manifest.json": manifests[0]}), dict(two, **{"manifest.json": manifests[1]})

    def finished(inst):
        left = [".update-cache is left"] * os.path.exists(os.path.join(inst, ".update-cache"))
        return tree_problems(inst, expected, RUN_FILES.__contains__) + left

    # An uninterrupted run places the apply inside the run.
    inst, began = site.install(installed, "b2"), time.time()
    site.run(inst)
    total, problems = time.time() - began, [f"uninterrupted run: {p}" for p in finished(inst)]
    times = {bare(line): logged_at(line).timestamp() - began for line in log_lines(inst)}
    apply_from = next(t for text, t in times.items() if APPLY_FROM in text)
    apply_span = next(t for text, t in times.items() if "CAP NHAT THANH CONG" in text) - apply_from + 0.02
    seed = options.seed if options.seed is not None else random.randrange(1 << 32)
    print(f"run {total:.2f} s, apply from {apply_from:.2f} s for {apply_span:.3f} s; {options.trials} trials, "
          f"seed {seed}", flush=True)
    rng, half, phases, rows = random.Random(seed), (options.trials + 1) // 2, {}, []
    for i in range(options.trials):
        in_apply = i >= half
        slot, slots = (i - half, options.trials - half) if in_apply else (i, half)
        delay = (slot + rng.random()) / slots * (apply_span if in_apply else total)
        rows.append({"name": f"{i + 1:4} kill {delay * 1000:6.0f} ms {'into the apply' if in_apply else 'after start'}",
                     "delay": delay, "in_apply": in_apply})

    def trial(r, _):
        inst = site.install(installed, "b2")
        process, began = site.run(inst, wait=False), time.monotonic()
        while r["in_apply"] and process.poll() is None and time.monotonic() - began < 180 and not any(
                APPLY_FROM in line for line in log_lines(inst)):
            time.sleep(0.001)
        began = time.monotonic() if r["in_apply"] else began
        time.sleep(max(0.0, r["delay"] - (time.monotonic() - began)))
        process.send_signal(signal.SIGKILL)
        ended = process.wait() == 0
        found, phase = after_kill(inst, one, two, manifests)
        phase = "already finished" if ended else phase
        phases[phase] = phases.get(phase, 0) + 1
        site.run(inst)
        found += [f"next run: {p}" for p in finished(inst)]
        shutil.rmtree(os.path.dirname(inst))
        return [f"({phase}) {p}" for p in found]
    code = run_rows(rows, 1, trial)
    print(f"kills landed: {phases}")
    return problems + ([] if phases.get("apply") else ["no kill landed inside the apply"]), code


# ---------------------------------------------------------------------------------------------
# Write-through

CALL = re.compile(r"^\d+\s+(\w+)\((.*)\)\s+=\s+(-?\d+)(?:<(.*)>)?")
NAMED = re.compile(r'(?:<([^>]*)>, )?"((?:[^"\\]|\\.)*)"')  # a name below the descriptor's directory before it


def events_of(trace, cwd, done):
    """The record of strace -f -y as ("write", path), ("sync", path), ("move", source,
    destination, renamed) and ("done",) events, the last where the log line done is written."""
    pending, events = {}, []
    for line in trace.splitlines():
        pid = line.split(" ", 1)[0]
        if line.endswith("<unfinished ...>"):
            pending[pid] = line[:-len(" <unfinished ...>")]
            continue
        resumed = re.match(r"^\d+\s+<\.\.\. \w+ resumed>(.*)$", line)
        m = CALL.match(pending.pop(pid) + resumed.group(1) if resumed else line)
        if not m or int(m.group(3)) < 0:
            continue
        call, args, _, opened = m.groups()
        if call == "openat" and re.search(r"O_WRONLY|O_RDWR|O_CREAT|O_TRUNC", args):
            events.append(("write", opened))
        elif call in ("fsync", "fdatasync"):
            events.append(("sync", re.search(r"<(.*)>", args).group(1)))
        elif call == "syncfs":  # everything written before it, data and names
            events.append(("syncfs",))
        elif call.startswith(("rename", "link")):
            paths = [os.path.normpath(os.path.join(d or cwd, n)) for d, n in NAMED.findall(args)]
            events.append(("move", *paths, call.startswith("rename")))
        elif call == "write" and "/updater.log>" in args and done.replace('"', '\\"') in args:
            events.append(("done",))
    return events


def write_through_problems(events, inst):
    """Every broken rule, and the destinations moved into the installation."""
    def in_scope(path):
        rel = os.path.relpath(path, inst)
        return not rel.startswith(("..", ".staging/")) and (not rel.startswith(".update-cache/")
                                                            or rel.endswith("/state.json"))
    problems, moved, unsynced, unsynced_dirs = [], [], set(), {}  # directory -> a move that changed it

    def all_synced(before):
        problems.extend(f"{move} not followed by an fsync of {d} before {before}" for d, move in unsynced_dirs.items())
        unsynced_dirs.clear()
    for kind, *args in events:
        if kind == "done":
            all_synced("the last log line")
        elif kind == "write":
            unsynced.add(args[0])
        elif kind == "sync":
            unsynced.discard(args[0])
            unsynced_dirs.pop(args[0], None)
        elif kind == "syncfs":
            unsynced.clear()
            unsynced_dirs.clear()
        if kind != "move":
            continue
        path, target, renamed = args
        written = path in unsynced
        (unsynced.add if written else unsynced.discard)(target)
        if renamed:
            unsynced.discard(path)
        if not in_scope(target):
            continue
        if target == os.path.join(inst, "manifest.json"):
            all_synced("the record of the build")
        moved.append(os.path.relpath(target, inst))
        if written:
            problems.append(f"{path} -> {moved[-1]} without an fsync of the file after it was written")
        for directory in {os.path.dirname(target), os.path.dirname(path) if renamed else os.path.dirname(target)}:
            unsynced_dirs[directory] = f"{path} -> {moved[-1]}"
    all_synced("the end")
    return problems, moved


# The checker on hand-written records of an installation in /i: (record, how many broken rules).
WRITTEN = '1 openat(AT_FDCWD</>, "/i/.staging/a", O_WRONLY|O_CREAT|O_TRUNC, 0666) = 5</i/.staging/a>\n'
FILE_SYNC = '1 fsync(5</i/.staging/a>) = 0\n'
REPLACE = ('1 link("/i/a", "/i/a.bak") = 0\n1 rename("/i/.staging/a" <unfinished ...>\n'
           '2 openat(AT_FDCWD</>, "/etc/hosts", O_RDWR) = 9</etc/hosts>\n1 <... rename resumed>, "/i/a") = 0\n'
           '1 rename("/i/x", "/i/y") = -1 EACCES (Permission denied)\n')
SECOND = ('1 openat(3</i/.staging>, "b", O_WRONLY|O_CREAT, 0666) = 5</i/.staging/b>\n1 fsync(5</i/.staging/b>) = 0\n'
          '1 renameat2(3</i/.staging>, "b", 4</i>, "b", 0) = 0\n')
DIR_SYNC = '1 fsync(7</i>) = 0\n'
SYNCFS = '1 syncfs(6</i/.staging/a>) = 0\n'
STAGING_SYNC = '1 fsync(8</i/.staging>) = 0\n'
RECORD = ('1 openat(AT_FDCWD</>, "/i/.staging/manifest.json", O_WRONLY|O_CREAT, 0666) = 5</i/.staging/manifest.json>\n'
          '1 fsync(5</i/.staging/manifest.json>) = 0\n1 rename("/i/.staging/manifest.json", "/i/manifest.json") = 0\n')
DONE = '1 write(2</i/updater.log>, "... [I] [apply] [Update] CAP NHAT THANH CONG -> \\"2.0\\"\\n", 60) = 60\n'
CHECKER_ROWS = [
    (WRITTEN + FILE_SYNC + REPLACE + SECOND + DIR_SYNC + STAGING_SYNC + RECORD + DIR_SYNC + STAGING_SYNC + DONE, 0),
    (WRITTEN + REPLACE + DIR_SYNC + STAGING_SYNC + DONE, 1),  # the data not synced
    (WRITTEN + SYNCFS + REPLACE + SECOND + DIR_SYNC + STAGING_SYNC + RECORD + DIR_SYNC + STAGING_SYNC + DONE, 0),
    (WRITTEN + REPLACE + SYNCFS + DIR_SYNC + STAGING_SYNC + DONE, 1),  # the filesystem synced after the move
    (FILE_SYNC + WRITTEN + REPLACE + DIR_SYNC + STAGING_SYNC + DONE, 1),
    (WRITTEN + FILE_SYNC + REPLACE + SECOND + STAGING_SYNC + DONE, 1),  # the directory not synced
    (WRITTEN + FILE_SYNC + REPLACE + STAGING_SYNC + RECORD + DIR_SYNC + STAGING_SYNC + DONE, 1),  # the record first
    (WRITTEN + FILE_SYNC + REPLACE + STAGING_SYNC + DONE + DIR_SYNC, 1),  # the success line before the sync
    ('1 openat(AT_FDCWD</>, "/i/.update-cache/v/files/x.part", O_WRONLY|O_CREAT, 0666) = 5</i/.update-cache/v/files/x.part>\n'
     '1 rename("/i/.update-cache/v/files/x.part", "/i/.update-cache/v/files/x") = 0\n'
     '1 openat(3</i/.update-cache/v>, "state.json.tmp", O_WRONLY|O_CREAT, 0666) = 5</i/.update-cache/v/state.json.tmp>\n'
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
# (build served, arguments of an untraced run first, of the traced run, moved in, last log line,
# whether build one is installed with its record)
TRACE_ROWS = [
    ("two", None, [], APPLIED, UPDATED, True),
    ("two", ["--prefetch-only"], [], APPLIED, UPDATED, True),
    # Every file as served, the record missing: only the record is written.
    ("one", None, [], ["manifest.json"], '[Update] hash khop het, dong bo manifest -> "1.0"', False),
    # state.json is rewritten whole, so at most once a second; the last save has every file done.
    ("small", None, ["--prefetch-only"], [".update-cache/2.0/state.json"],
     "[UpdatePrefetch] xong toan bo - 80 file ok, 0 bo lai cho updater", True),
]
STRACE = ["strace", "-f", "-y", "-s", "4096", "-e", "trace=fsync,fdatasync,syncfs,rename,renameat,renameat2,link,linkat,openat,write",
          "-o"]


def trace(site, options):
    record_one = site.publish("one", ONE, "1.0", 1)
    site.publish("two", TWO, "2.0", 2)
    site.publish("small", SMALL, "2.0", 2)

    def traced(r, _):
        if "text" in r:
            found = write_through_problems(events_of(r["text"], "/", UPDATED), "/i")[0]
            return [] if len(found) == r["broken"] else [f"{len(found)} broken rules, not {r['broken']}: {found}"]
        served, first, args, moved_in, last, recorded = r["row"]
        inst = site.install(dict(ONE, **({"manifest.json": record_one} if recorded else {})), served)
        if first:
            site.run(inst, first)
            os.remove(os.path.join(inst, "updater.log"))
        record, began = os.path.join(inst, "..", "trace"), time.monotonic()
        site.run(inst, args, STRACE + [record])
        seconds = time.monotonic() - began
        found, moved = write_through_problems(events_of(read(record).decode("latin-1"), inst, last), inst)
        found += [] if sorted(set(moved)) == moved_in else [f"moved in {sorted(set(moved))}, not {moved_in}"]
        found += [] if bare(log_lines(inst)[-1]) == last else [f"last log line {log_lines(inst)[-1]!r}"]
        if "--prefetch-only" in args:
            state = json.loads(read(os.path.join(inst, moved_in[0])))["files"]
            found += [] if len(moved) <= seconds + 2 else [f"{len(moved)} saves of state.json in {seconds:.1f} s"]
            found += [] if state and all(f["done"] for f in state) else ["the last state.json has files not done"]
        return found
    rows = [{"name": f"checker row {n}", "text": text, "broken": broken}
            for n, (text, broken) in enumerate(CHECKER_ROWS, 1)]
    rows += [{"name": f"{r[0]} {' '.join(r[2])}{' after ' + ' '.join(r[1]) if r[1] else ''}", "row": r}
             for r in TRACE_ROWS]
    return [], run_rows(rows, 1, traced)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for option in ("--updater", "--publish", "--scratch"):  # --publish: corvanta-publish; --scratch: emptied first
        parser.add_argument(option, type=os.path.abspath, required=True)
    parser.add_argument("mode", choices=["crash", "trace"])
    parser.add_argument("--trials", type=int, default=12)
    parser.add_argument("--seed", type=int)
    parser.add_argument("--large-mib", type=int, nargs="*", default=[8, 6, 4, 12], help="the large files' sizes")
    options = parser.parse_args()
    site = Site(options)
    try:
        problems, code = (crash if options.mode == "crash" else trace)(site, options)
    finally:
        site.nginx.stop()
    print("\n".join(problems))
    return 1 if problems else code


if __name__ == "__main__":
    sys.exit(main())
