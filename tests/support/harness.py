"""What the Python harnesses that run the real updater share: files and trees, signed manifests
and published builds, installations, the updater's environment and log, and the pool that runs
rows (a failed row never stops the others)."""

import base64
import concurrent.futures
import datetime
import hashlib
import json
import os
import queue
import re
import shutil
import stat
import subprocess
import tempfile
import threading
import time

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DEV_KEY = os.path.join(SOURCE_DIR, "keys", "dev_private.pem")
RUN_LIMIT_S = 90


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


def read(path):
    with open(path, "rb") as f:
        return f.read()


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def zstd(args, data, source=None):
    """What Debian's zstd tool makes of data with args ("-19", "-d", ...), as a patch from source
    if one is given: an encoder independent of the updater's own code."""
    with tempfile.NamedTemporaryFile() as earlier:
        write(earlier.name, source or b"")
        # From a pipe the tool knows no size to shrink its window to: --stream-size tells it.
        patch = [f"--stream-size={len(data)}", "--long=31", f"--patch-from={earlier.name}"] if source else []
        return subprocess.run(["zstd", "-q", "-c", *args, *patch], input=data, capture_output=True, check=True).stdout


def sign(data, key=DEV_KEY):
    """The manifest signature: base64 of the DER ECDSA signature over SHA-256."""
    return base64.b64encode(subprocess.run(["openssl", "dgst", "-sha256", "-sign", key], input=data, check=True,
                                           stdout=subprocess.PIPE).stdout)


def publish(publisher, files, out, version, number, key=DEV_KEY, smaller=("--zstd-level", "0")):
    """files published below out by corvanta-publish, whole files only unless smaller says
    otherwise; returns the manifest."""
    for path, data in files.items():
        write(os.path.join(out + ".input", path), data)
    subprocess.run([publisher, "build", "--input", out + ".input", "--out", out, "--version", version,
                    "--build-number", str(number), "--key", key, *smaller], check=True, capture_output=True)
    return read(os.path.join(out, "manifest.json"))


# A child forked while another thread still has a fresh copy of an executable open for writing
# keeps that descriptor until its exec, and exec of the copy then fails with ETXTBSY: copies
# of executables and starts of processes take turns.
SPAWN_LOCK = threading.Lock()


def spawn(argv, **kwargs):
    with SPAWN_LOCK:
        return subprocess.Popen(argv, **kwargs)


def install(inst, files, updater, self_name="updater", **config):
    """An installation of files, a copy of the updater and, given its keys, updater.conf."""
    for path, data in files.items():
        write(os.path.join(inst, path), data)
    with SPAWN_LOCK:
        shutil.copy(updater, os.path.join(inst, self_name))
    if config:
        write(os.path.join(inst, "updater.conf"), json.dumps(config))


def updater_env(locks, **more):
    """A run's environment: a lock directory of its own, no display, a UTF-8 locale."""
    os.makedirs(locks, mode=0o700, exist_ok=True)
    return {**os.environ, "XDG_RUNTIME_DIR": locks, "QT_QPA_PLATFORM": "offscreen", "LC_ALL": "C.UTF-8", **more}


def wait_all(processes, limit_s=RUN_LIMIT_S, tick=lambda: None):
    """Waits for every process, calling tick() every 50 ms and killing those still running after
    limit_s; returns their exit codes (a text for those killed) and the moments they ended."""
    ends, deadline = [None] * len(processes), time.monotonic() + limit_s
    while None in ends:
        tick()
        for i, process in enumerate(processes):
            if ends[i] is None and (process.poll() is not None or time.monotonic() > deadline):
                if process.poll() is None:
                    process.kill()
                    process.wait()
                    process.returncode = f"still running after {limit_s} s"
                ends[i] = time.monotonic()
        time.sleep(0.05)
    return [p.returncode for p in processes], ends


def log_lines(inst):
    """updater.log's lines; none when there is no log."""
    path = os.path.join(inst, "updater.log")
    return open(path, encoding="utf-8").read().splitlines() if os.path.isfile(path) else []


def logged_at(line):
    return datetime.datetime.strptime(line[:23], "%Y-%m-%d %H:%M:%S.%f")


def bare(line):
    """A log line without its time, level and mode: "[Update] ..."."""
    return re.sub(r"^\S+ \S+ \[\w\] \[[^\]]*\] ", "", line)


def files_below(top):
    """relative path -> bytes of every file below top (links to files followed), None for what
    is no regular file (a FIFO, a device, a dangling link), which is never opened."""
    found = {}
    for base, _, names in os.walk(top):
        for name in names:
            path = os.path.join(base, name)
            found[os.path.relpath(path, top).replace(os.sep, "/")] = read(path) if os.path.isfile(path) else None
    return found


def tree_differences(expected, actual):
    """What differs between two maps of files_below."""
    return ([f"missing {p}" for p in sorted(set(expected) - set(actual))]
            + [f"unexpected {p}" for p in sorted(set(actual) - set(expected))]
            + [f"{p} differs from the expected bytes" for p in sorted(set(expected) & set(actual))
               if expected[p] != actual[p]])


def read_umask():
    """This process's umask, read without changing it (other threads create files meanwhile)."""
    with open("/proc/self/status") as f:
        return next(int(line.split()[1], 8) for line in f if line.startswith("Umask:"))


UMASK = read_umask()


def tree_problems(inst, expected, ignored):
    """What differs between expected and the installation but its paths for which ignored holds,
    a ".staging" left, and a file that the umask would not have let others write (a file that
    replaced a link must not take the link's permission bits)."""
    actual = {p: d for p, d in files_below(inst).items() if not ignored(p)}
    modes = {p: os.lstat(os.path.join(inst, p)).st_mode for p in sorted(actual)}
    loose = [p for p, mode in modes.items() if not stat.S_ISLNK(mode) and mode & 0o022 & UMASK]
    return (tree_differences(expected, actual) + [f"{p} may be written by other users" for p in loose]
            + [".staging is left"] * os.path.lexists(os.path.join(inst, ".staging")))


def log_problems(lines, expected):
    return [] if lines == expected else ["log lines:\n      " + "\n      ".join(lines) + "\n    expected:\n      "
                                         + "\n      ".join(map(str, expected))]


def written_beside(top, own):
    """What a run left in top besides the entries it owns."""
    extra = sorted(set(os.listdir(top)) - set(own))
    return [f"written beside the installation: {extra} in {top}"] if extra else []


def run_rows(rows, jobs, run_row, open_worker=lambda index: None, close_worker=lambda worker: None, label=""):
    """run_row(row, worker) for every row on jobs threads, each row with one of jobs workers; it
    returns the row's problems, or why the row cannot run here. Prints a line a row; returns
    the exit code."""
    began, workers = time.monotonic(), queue.SimpleQueue()
    for index in range(jobs):
        workers.put(open_worker(index))

    def one(r):
        worker, started = workers.get(), time.monotonic()
        try:
            return run_row(r, worker), time.monotonic() - started
        except Exception as e:  # a broken row is a failed row, the others go on
            return [f"{type(e).__name__}: {e}"], time.monotonic() - started
        finally:
            workers.put(worker)
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        results = list(pool.map(one, rows))
    for _ in range(jobs):
        close_worker(workers.get())
    failed = skipped = 0
    for r, (outcome, seconds) in zip(rows, results):
        skip = isinstance(outcome, str)
        skipped, failed = skipped + skip, failed + (bool(outcome) and not skip)
        print(f"{f'skip ({outcome})' if skip else 'FAIL' if outcome else 'ok':4} {label}{seconds:5.1f} s  {r['name']}")
        for problem in [] if skip else outcome:
            print("    " + problem)
    print(f"{len(rows) - failed - skipped} of {len(rows)} rows passed{f' {label}' if label else ''}"
          f"{f', {skipped} skipped' if skipped else ''} in {time.monotonic() - began:.1f} s")
    return 1 if failed else 0
