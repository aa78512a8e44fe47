#!/usr/bin/env python3
"""Runs the rows of updater_rows.py against the real updater, natively or as updater.exe under
Wine, with the same expectations, so that both builds are held to the same log lines.

  updater_blackbox.py --target native --updater build/bin/updater --publish build/bin/corvanta-publish
                      --lock-holder build/bin/tests/lock_holder --scratch build/blackbox
  updater_blackbox.py --target wine --updater build-win/bin/updater.exe --publish build/bin/corvanta-publish
                      --helper build/tests/windows/win32_test_helper.exe --scratch build-win/blackbox

Every row gets a fresh installation, its own published build below one nginx on 127.0.0.1
(plain HTTP, HTTPS with a certificate of a private CA that the installation's system trusts,
HTTPS with one of a CA nobody trusts), and runs on one of --jobs workers. A worker has its own
Xvfb display and, under Wine, its own prefix (made once with wineboot and kept in --scratch)
and so its own wineserver: Windows' named mutexes are per wineserver, so rows in two workers
never see each other's locks. Natively each row has its own lock directory (XDG_RUNTIME_DIR),
and the CA is made trusted by mounting a certificate directory over /etc/ssl/certs in a mount
namespace of the updater's own (root only).
"""

import argparse
import base64
import concurrent.futures
import datetime
import json
import os
import re
import shutil
import subprocess
import sys
import threading
import time
import types

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.dirname(os.path.dirname(HERE))
sys.path[:0] = [HERE, os.path.join(SOURCE_DIR, "tests", "support"), os.path.join(SOURCE_DIR, "bench")]
from harness import (DEV_KEY, RUN_LIMIT_S, files_below, install, log_lines, logged_at,  # noqa: E402
                     log_problems, publish, read, run_rows, sign, spawn, tree_problems, updater_env, wait_all, write,
                     written_beside)
from servers import Nginx  # noqa: E402
from updater_rows import BUILDS, BUILD_NUMBERS, ROWS  # noqa: E402

WINE_ENV = {"WINEDEBUG": "-all", "WINEDLLOVERRIDES": "mscoree,mshtml="}
BOX_TITLE = "Corvanta — Cập nhật"
# The status window: 360 x 90, centred on the 1024 x 768 screen of Xvfb.
STATUS_WINDOW = ((1024 - 1) // 2 - (360 - 1) // 2, (768 - 1) // 2 - (90 - 1) // 2, 360, 90)


def files_in_any_order(paths):
    """The requests with each run of file requests between two document requests sorted: files
    are fetched several at a time, the manifest and its signature one after the other."""
    out, files = [], []
    for p in paths + [None]:
        if p is None or p.rstrip("+") in ("manifest.json", "manifest.json.sig"):
            out += sorted(files)
            files = []
            if p is not None:
                out.append(p)
        else:
            files.append(p)
    return out


def sh(argv, **kwargs):
    return subprocess.run(argv, check=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **kwargs).stdout


def quiet(argv, **kwargs):
    """For commands that leave a daemon behind (wineserver), which would keep a pipe open."""
    subprocess.run(argv, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **kwargs)


class Pki:
    """A private CA with a server certificate for 127.0.0.1, made with openssl at test time."""

    def __init__(self, top, name):
        os.makedirs(top, exist_ok=True)
        p = lambda f: os.path.join(top, f)  # noqa: E731
        self.ca, self.ca_der, self.cert, self.key = p("ca.pem"), p("ca.der"), p("server.pem"), p("server.key")
        sh(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", p("ca.key"), "-out", self.ca,
            "-days", "2", "-subj", f"/CN={name}", "-addext", "basicConstraints=critical,CA:TRUE",
            "-addext", "keyUsage=critical,keyCertSign,cRLSign"])
        sh(["openssl", "x509", "-in", self.ca, "-outform", "der", "-out", self.ca_der])
        sh(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", self.key, "-out", self.cert,
            "-CA", self.ca, "-CAkey", p("ca.key"), "-days", "2", "-subj", "/CN=127.0.0.1",
            "-addext", "subjectAltName=IP:127.0.0.1", "-addext", "extendedKeyUsage=serverAuth",
            "-addext", "basicConstraints=CA:FALSE"])
        # A certificate directory as OpenSSL looks things up: the CA under its subject hash.
        self.dir = p("certs")
        os.makedirs(self.dir, exist_ok=True)
        subject_hash = sh(["openssl", "x509", "-hash", "-noout", "-in", self.ca]).decode().strip()
        shutil.copy(self.ca, os.path.join(self.dir, subject_hash + ".0"))


class Xvfb:
    """One virtual X display."""

    def __init__(self):
        read_end, write_end = os.pipe()
        self.process = subprocess.Popen(
            ["Xvfb", "-displayfd", str(write_end), "-screen", "0", "1024x768x24", "-nolisten", "tcp"],
            pass_fds=[write_end], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(write_end)
        with os.fdopen(read_end) as f:
            self.display = ":" + f.readline().strip()

    def stop(self):
        self.process.terminate()
        self.process.wait(10)


class MapRecorder:
    """Every top-level window mapped and unmapped on a display, as xev sees it, so that even a
    window shown for a moment is seen."""

    PLACED = re.compile(r"window (0x[0-9a-f]+), \((-?\d+),(-?\d+)\), width (\d+), height (\d+)")
    MAPPED = re.compile(r"event 0x[0-9a-f]+, window (0x[0-9a-f]+)")

    def __init__(self, display):
        self.env = dict(os.environ, DISPLAY=display)
        self.output, self.marks, self.hidden, self.starts = [], 0, [], 0
        self.start()

    def start(self):
        self.starts += 1
        self.xev = spawn(["xev", "-root", "-event", "substructure", "-event", "property"], env=self.env,
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        threading.Thread(target=lambda xev=self.xev: self.output.extend(xev.stdout), daemon=True).start()

    def sync(self):
        """Sets a root property and waits until xev reports it: every window event before it has
        then been printed. False when xev never does."""
        self.marks += 1
        marker = f"CORV_SYNC_{self.marks}"
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            sh(["xprop", "-root", "-f", marker, "8s", "-set", marker, "1"], env=self.env)
            # A busy machine has seen xev fail to connect now and then: it is started again.
            if self.xev.poll() is not None and not self.output and self.starts < 3:
                self.start()
            for _ in range(20):
                if any(f"({marker})" in line for line in self.output):
                    return True
                time.sleep(0.05)
        return False

    def mappings(self, names):
        """The real (not synthetic) maps and unmaps so far: "map NAME" and "unmap NAME", a window
        named by names(window id, (x, y, width, height))."""
        geometry, events = {}, []
        shown = [line for i, line in enumerate(self.output) if not any(a <= i < b for a, b in self.hidden)]
        for block in "".join(shown).split("\n\n"):
            event = block.strip().split(" ")[0]
            if "synthetic YES" in block:
                continue
            placed, mapped = self.PLACED.search(block), self.MAPPED.search(block)
            if event in ("CreateNotify", "ConfigureNotify") and placed:
                geometry[placed.group(1)] = tuple(int(g) for g in placed.groups()[1:])
            elif event in ("MapNotify", "UnmapNotify") and mapped:
                window = mapped.group(1)
                events.append(f"{'map' if event == 'MapNotify' else 'unmap'} {names(window, geometry.get(window))}")
        return events

    def hide(self, action):
        """Does action(); the windows it shows are not the updater's and are left out."""
        self.sync()
        start = len(self.output)
        result = action()
        self.sync()
        self.hidden.append((start, len(self.output)))
        return result

    def stop(self):
        self.xev.kill()
        self.xev.wait()


class Native:
    name = "native"
    self_name = "updater"

    def __init__(self, options):
        self.updater, self.lock_holder = options.updater, options.lock_holder

    def start_worker(self, worker, trusted_ca):
        pass

    def stop_worker(self, worker):
        pass

    def env(self, worker, row_dir):
        return updater_env(os.path.join(row_dir, "locks"), QT_QPA_PLATFORM="xcb", DISPLAY=worker.display.display)

    def break_locks(self, row_dir, how):
        """Leaves the row's lock directory as a run must refuse it."""
        locks = os.path.join(row_dir, "locks", "corvanta")
        os.makedirs(locks, mode=0o755 if how == "mode 0755" else 0o700)
        os.chmod(locks, 0o755 if how == "mode 0755" else 0o700)
        if how == "another owner":
            os.chown(locks, 65534, 65534)
        elif how.startswith("FIFO "):
            os.mkfifo(os.path.join(locks, how[5:] + ".lock"))
        return locks

    def updater_argv(self, worker, exe, args, trusted_ca):
        if trusted_ca is None:
            return [exe] + args
        # The system's certificate store, as this one process sees it, is the private CA alone.
        return ["unshare", "-m", "--propagation", "private", "sh", "-c",
                'mount --bind "$0" /etc/ssl/certs && exec "$@"', trusted_ca.dir, exe] + args

    def helper_argv(self, kind, arg, inst):
        if kind == "mutex":
            return [self.lock_holder] + arg.split()
        if kind == "live":
            return ["sh", "-c", 'echo ready $$; exec sleep "$0"', str(int(arg) / 1000)]
        raise ValueError(f"no native helper for {kind}")

    def inst_in_log(self, inst):
        return inst


class Wine:
    name = "wine"
    self_name = "updater.exe"

    def __init__(self, options):
        self.updater, self.helper, self.scratch = options.updater, options.helper, options.scratch
        self.prefix_lock = threading.Lock()

    def make_prefix(self, index):
        """The worker's prefix: the first is made with wineboot, the others are copies of it."""
        path = os.path.join(self.scratch, f"wineprefix-{index}")
        if os.path.exists(os.path.join(path, "ready")):
            return path
        partial = path + ".partial"
        shutil.rmtree(partial, ignore_errors=True)
        if index == 0:
            env = dict(os.environ, WINEPREFIX=partial, **WINE_ENV)
            quiet(["wineboot", "-i"], env=env)
            # Xvfb has no window manager: Wine then places and focuses its windows itself and
            # draws their title bars, so that a key pressed on the display reaches the box.
            quiet(["wine", "reg", "add", r"HKCU\Software\Wine\X11 Driver", "/v", "Managed", "/d", "N", "/f"], env=env)
            quiet(["wineserver", "-w"], env=env)
        else:
            sh(["cp", "-a", self.make_prefix(0), partial])
        write(os.path.join(partial, "ready"), b"")
        os.rename(partial, path)
        return path

    def start_worker(self, worker, trusted_ca):
        with self.prefix_lock:
            worker.prefix = self.make_prefix(worker.index)
        env = self.env(worker, None)
        # Kept until stop_worker, so that every run starts quickly; it ends by itself a minute
        # after the last Windows process when the harness is killed.
        quiet(["wineserver", "-p60"], env=env)
        # Read one line, not to the end: Wine's own services may inherit the pipe.
        helper = spawn(["wine", self.helper, "trust", trusted_ca.ca_der], env=env, stdout=subprocess.PIPE, text=True)
        answer = helper.stdout.readline()
        helper.wait(60)
        if not answer.startswith("ready"):
            raise RuntimeError(f"the prefix did not take the CA: {answer}")

    def stop_worker(self, worker):
        quiet(["wineserver", "-k"], env=self.env(worker, None))

    def env(self, worker, row_dir):
        return dict(os.environ, WINEPREFIX=worker.prefix, DISPLAY=worker.display.display, **WINE_ENV)

    def updater_argv(self, worker, exe, args, trusted_ca):
        return ["wine", exe] + args

    def helper_argv(self, kind, arg, inst):
        if kind == "hold":
            arg = "Z:" + os.path.join(inst, arg).replace("/", "\\")
        return ["wine", self.helper, kind, arg]

    def inst_in_log(self, inst):
        return "Z:" + inst


class Harness:
    def __init__(self, options, target):
        self.options, self.target = options, target
        self.scratch = options.scratch
        self.rows = [r for r in ROWS if target.name in r.get("targets", ("native", "wine"))
                     and re.search(options.rows, r["name"])]
        shutil.rmtree(os.path.join(self.scratch, "run"), ignore_errors=True)
        self.run_dir = os.path.join(self.scratch, "run")
        self.www = os.path.join(self.run_dir, "www")
        self.trusted = Pki(os.path.join(self.run_dir, "pki-trusted"), "Corvanta Test CA")
        self.rogue = Pki(os.path.join(self.run_dir, "pki-rogue"), "Corvanta Rogue CA")
        self.keys = os.path.join(self.run_dir, "keys")
        sh([options.publish, "keygen", "--out-dir", self.keys])
        # Each row's builds go to directories of its own: published side by side.
        with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
            list(pool.map(self.publish, self.rows))
        self.nginx = Nginx(os.path.join(self.run_dir, "nginx"), self.www,
                           rate_limited={f"/{r['name']}/": r["rate"] for r in self.rows if "rate" in r},
                           tls=[(self.trusted.cert, self.trusted.key), (self.rogue.cert, self.rogue.key)])

    def own_name(self, path):
        return path.replace("{self}", self.target.self_name).replace("{SELF}", self.target.self_name.upper())

    def build_files(self, build):
        return {self.own_name(path): data for path, data in BUILDS[build].items()}

    def publish_as(self, spec, out, delta_from=None):
        """Publishes a build named by a row ("2.0", or a dict with `build`, `version`, `number`,
        `key`, `patches`, and `manifest`: keys set in the published manifest, None removing one,
        a callable changing it; the result is signed again with the same key)."""
        spec = spec if isinstance(spec, dict) else {"build": spec}
        build = spec["build"]
        key = DEV_KEY if spec.get("key", "dev") == "dev" else os.path.join(self.keys, "private.pem")
        # Whole files only, unless the row asks for compressed copies and patches from delta_from.
        manifest = publish(self.options.publish, self.build_files(build), out, spec.get("version", build.split("+")[0]),
                           spec.get("number", BUILD_NUMBERS[build]), key,
                           *[["--delta-from", delta_from]] if spec.get("patches") else [])
        edit = spec.get("manifest")
        if edit:
            manifest = json.loads(manifest)
            if callable(edit):
                edit(manifest)
            else:
                for name, value in edit.items():
                    manifest.pop(name) if value is None else manifest.__setitem__(name, value)
            data = json.dumps(manifest, indent=2, ensure_ascii=False).encode()
            write(os.path.join(out, "manifest.json"), data)
            write(os.path.join(out, "manifest.json.sig"), sign(data, key))
        return spec

    def publish(self, r):
        # The installed build, published the same way for its manifest.json.
        installed = os.path.join(self.run_dir, "installed", r["name"])
        self.publish_as(r["installed"], installed)
        out = os.path.join(self.www, r["name"])
        published = self.publish_as(r["publish"], out, installed)
        for path in r.get("unpublish", []):
            os.remove(os.path.join(out, path))
        if published.get("tamper") == "signature":
            sig_path = os.path.join(out, "manifest.json.sig")
            der = bytearray(base64.b64decode(read(sig_path)))
            der[-1] ^= 0x01  # still a well-formed signature, of nothing that was signed
            write(sig_path, base64.b64encode(bytes(der)))

    def url(self, r):
        if r["server"] == "refused":
            return f"http://127.0.0.1:1/{r['name']}/"
        return self.nginx.url(r["name"] + "/", tls={"http": None, "https": 0, "https-rogue": 1}[r["server"]])

    def install(self, r, inst):
        installed = files_below(os.path.join(self.run_dir, "installed", r["name"]))
        expected = {path: data for path, data in installed.items() if path != "manifest.json.sig"}
        url = self.url(r)
        install(inst, expected, self.options.updater, self.target.self_name,
                **({"manifestUrl": url + "manifest.json", "baseUrl": url} if r.get("config", True) else {}))
        for path, change in r.get("damage", {}).items():
            full = os.path.join(inst, path)
            if change is None:
                os.remove(full)
            elif isinstance(change, str):
                os.rename(full, os.path.join(inst, change[2:]))
            else:
                write(full, change)
        for path in r.get("read_only", []):
            os.chmod(os.path.join(inst, path), 0o444)  # Wine shows it as FILE_ATTRIBUTE_READONLY
        for path, data in r.get("cache", {}).items():
            write(os.path.join(inst, ".update-cache", path), data)
        return expected

    def expected_tree(self, r, installed):
        """The installation afterwards but updater.conf and updater.log; the running updater's
        own file stays as it was."""
        tree = dict(installed) if r["tree"] == "installed" else dict(
            self.build_files(r["tree"]), **{"manifest.json": read(os.path.join(self.www, r["name"], "manifest.json"))})
        tree.update({self.own_name(path): data for path, data in r.get("tree_extra", {}).items()})
        tree.update({".update-cache/" + path: data for path, data in r.get("cache_after", {}).items()})
        return dict(tree, **{self.target.self_name: read(self.options.updater)})

    def run_row(self, r, worker):
        """Runs one row; returns the list of what did not hold, or why it cannot run here."""
        row_dir = os.path.join(self.run_dir, "rows", r["name"])
        inst = os.path.join(row_dir, "inst")
        installed = self.install(r, inst)
        exe = os.path.join(inst, self.target.self_name)
        env = self.target.env(worker, row_dir)
        trusted_ca = self.trusted if r["server"] == "https" and self.target.name == "native" else None
        if os.geteuid() != 0 and (trusted_ca or r.get("locks")):
            return "needs root: to mount the certificate directory, or to give the lock directory away"
        locks = self.target.break_locks(row_dir, r["locks"]) if r.get("locks") else None
        dead = spawn(["true"])
        dead.wait()
        mark = self.nginx.log_mark()
        problems = []
        recorder = MapRecorder(worker.display.display) if "windows" in r and self.target.name == "native" else None
        if recorder and not recorder.sync():
            problems.append("xev did not start")
        boxes = []
        helpers, live_pid, live_end = [], None, {}
        for kind, arg in r.get("helpers", []):
            helper = spawn(self.target.helper_argv(kind, arg, inst), env=env, stdin=subprocess.PIPE,
                           stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            answer = helper.stdout.readline().split()
            if not answer or answer[0] not in ("ready", "held"):
                problems.append(f"helper {kind} {arg} did not start: {answer}")
            helpers.append(helper)
            if kind == "live":
                live_pid = answer[1]
                threading.Thread(target=lambda h=helper: live_end.update(at=(h.wait(), datetime.datetime.now())[1]),
                                 daemon=True).start()
        for run in r["runs"]:
            args = [a.replace("{pid}", str(live_pid)).replace("{dead}", str(dead.pid)) for a in run["args"]]
            argv = self.target.updater_argv(worker, exe, args, trusted_ca)
            started = [spawn(argv, env=env, cwd=row_dir, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                       for _ in range(run.get("copies", 1))]
            if run.get("box"):
                problems += self.close_box(worker, started[0], r, run["box"], boxes, recorder)
            began = time.monotonic()
            codes, ends = wait_all(started, RUN_LIMIT_S)
            problems += [f"run {' '.join(args) or 'without arguments'}: exit code {code}" for code in codes if code != 0]
            least, most = r.get("lasts", (0, RUN_LIMIT_S))
            problems += [f"a run took {end - began:.1f} s, not {least}-{most} s" for end in ends
                         if not least <= end - began <= most]
            # The copy that was refused must have ended well before the one that ran.
            if len(ends) > 1 and not sorted(ends)[0] < sorted(ends)[-1] - 1:
                problems.append("the updaters did not overlap: they ended less than 1 s apart")
        for (kind, _), helper in zip(r.get("helpers", []), helpers):
            helper.stdin.close()
            if kind == "live":
                helper.kill()  # its part was to be alive while the runs ran
            helper.wait(30)

        if recorder:
            if not recorder.sync():
                problems.append("xev stopped reporting")
            windows = recorder.mappings(lambda window, geometry: "box" if int(window, 16) in boxes
                                        else "status" if geometry == STATUS_WINDOW else f"window at {geometry}")
            recorder.stop()
            if windows != r["windows"]:
                problems.append(f"windows {windows}, expected {r['windows']}")
        raw = log_lines(inst)
        lines = [self.normalize(line[24:], r, inst).replace(locks or "{locks}", "{locks}") for line in raw]
        expected_lines = r["lines"] + (r.get("wine_adds", []) if self.target.name == "wine" else [])
        problems += log_problems(lines, expected_lines)
        problems += tree_problems(inst, self.expected_tree(r, installed),
                                  lambda path: path in ("updater.conf", "updater.log"))
        problems += written_beside(row_dir, ["inst", "locks"])
        requests = files_in_any_order(
            [q.uri[len(r["name"]) + 2:] for q in self.nginx.requests(mark) if q.uri.startswith(f"/{r['name']}/")])
        expected_requests = files_in_any_order([self.own_name(p) for p in r["requests"]])
        one_or_more = (re.escape(p[:-1]) + f"(?:\n{re.escape(p[:-1])})*" if p.endswith("+") else re.escape(p)
                       for p in expected_requests)
        if not re.fullmatch("\n".join(one_or_more), "\n".join(requests)):
            problems.append(f"requests {requests}, expected {expected_requests}")
        if r.get("waits"):
            first = logged_at(raw[0]) if raw else None
            if not first or "at" not in live_end or first < live_end["at"] - datetime.timedelta(seconds=0.5):
                problems.append(f"first log line at {first}, the waited-for process ended at {live_end.get('at')}")
        return problems

    def normalize(self, line, r, inst):
        for name in (self.target.inst_in_log(inst), inst):
            line = line.replace(name, "{inst}")
        return line.replace(self.url(r), "{url}")

    def close_box(self, worker, process, r, box, boxes, recorder):
        """Finds the closing message box and presses Return in it. A box given
        as (kind, text) must look exactly like a box of that kind and text drawn by x11_probe
        (natively), and the updater's lock must be free while it is up."""
        env = dict(os.environ, DISPLAY=worker.display.display)
        deadline = time.monotonic() + RUN_LIMIT_S
        window = ""
        while not window and time.monotonic() < deadline and process.poll() is None:
            time.sleep(0.2)
            window = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", BOX_TITLE], env=env,
                                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout.split()
        if not window:
            return [f"no window named {BOX_TITLE} appeared (updater exit code {process.poll()})"]
        sh(["xdotool", "mousemove", "0", "0"], env=env)  # no pointer in the picture
        time.sleep(1.0)  # let it paint
        problems = [] if process.poll() is None else ["the updater ended before the box was closed"]
        boxes.append(int(window[0]))
        if isinstance(box, tuple) and self.target.name == "native":
            kind, text = box
            diff = os.path.join(self.run_dir, "boxes", r["name"] + ".png")
            os.makedirs(os.path.dirname(diff), exist_ok=True)
            compare = [self.options.x11_probe, "compare-box", window[0], kind, BOX_TITLE, text, diff]
            run = lambda: subprocess.run(compare, env=env, stdout=subprocess.DEVNULL,  # noqa: E731
                                         stderr=subprocess.DEVNULL).returncode
            if (recorder.hide(run) if recorder else run()) != 0:
                problems.append(f"the box does not look like a {kind} box with its text: see {diff}")
            # The updater lock is free while the box waits (unless a helper of the row holds it).
            if not any("Corvanta_Updater" in arg for _, arg in r.get("helpers", [])):
                lock_env = self.target.env(worker, os.path.join(self.run_dir, "rows", r["name"]))
                probe = subprocess.run([self.options.lock_holder, "--release-after", "0", "Corvanta_Updater"],
                                       env=lock_env, stdout=subprocess.PIPE).stdout
                if probe.strip() != b"held":
                    problems.append(f"the updater lock is not free while the box is up: {probe}")
        sh(["xdotool", "windowfocus", window[0]], env=env)
        time.sleep(0.3)
        sh(["xdotool", "key", "Return"], env=env)
        return problems

    def run(self):
        self.nginx.start()
        try:
            return run_rows(self.rows, self.options.jobs, self.run_row, self.open_worker, self.close_worker,
                            self.target.name)
        finally:
            self.nginx.stop()

    def open_worker(self, index):
        worker = types.SimpleNamespace(index=index, display=Xvfb(), prefix=None)
        self.target.start_worker(worker, self.trusted)
        return worker

    def close_worker(self, worker):
        self.target.stop_worker(worker)
        worker.display.stop()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--target", choices=["native", "wine"], required=True)
    parser.add_argument("--updater", type=os.path.abspath, required=True, help="the updater (updater.exe for wine)")
    parser.add_argument("--publish", type=os.path.abspath, required=True, help="the native corvanta-publish")
    parser.add_argument("--lock-holder", type=os.path.abspath, help="native: tests' lock_holder")
    parser.add_argument("--helper", type=os.path.abspath, help="wine: win32_test_helper.exe")
    parser.add_argument("--x11-probe", type=os.path.abspath, help="native: tests' x11_probe (compares boxes)")
    parser.add_argument("--scratch", type=os.path.abspath, required=True, help="kept between runs (Wine prefixes)")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--rows", default="", help="only the rows whose name matches this expression")
    options = parser.parse_args()
    os.makedirs(options.scratch, exist_ok=True)
    target = (Native if options.target == "native" else Wine)(options)
    return Harness(options, target).run()


if __name__ == "__main__":
    sys.exit(main())
