#!/usr/bin/env python3
"""The updater's apply and prefetch runs measured beside the physical limit of the same work on
the same machine: curl over one keep-alive connection, openssl and sha256sum over the same
tree, cp, and rsync as a peer. Started by bench/run.sh, which builds the programs."""

import argparse
import ctypes
import datetime
import json
import os
import platform
import re
import shutil
import signal
import subprocess
import sys
import time

import tree
from datasets import Dataset, VERSION2, verify_installed
from measure import kill_quietly, run_plain, run_timed
from servers import CountingProxy, Nginx, RsyncDaemon, most_in_window

MIB = tree.MIB
PREFETCH_CAP = 524288000          # the largest prefetch the updater accepts
PREFETCH_RATE_CAP = 1024000       # bytes a second
# The cap as a server sees it: in any 2 s, two seconds' worth plus the budget's burst.
CAP_WINDOW, CAP_WINDOW_BYTES = 2.0, 2 * PREFETCH_RATE_CAP + 204800
LATENCY = 0.050                   # seconds the delaying proxy adds before every answer
CURL_PARALLEL = 6                 # curl --parallel-max, the connections a browser opens to a host
UPDATER_TIMEOUT = 900


class Sizes:
    """Data set sizes and repetitions of a full run and of the smoke run."""

    def __init__(self, smoke):
        self.smoke = smoke
        if smoke:
            self.reps = 1
            self.real_bytes, self.real_files = 8 * MIB, 60
            self.small_counts = [10, 50]
            self.latency_counts = [10, 50]
            self.big_bytes = 16 * MIB
            self.prefetch_bytes, self.prefetch_window = 8 * MIB, 1.0
            self.prefetch_small_files = 6
            self.prefetch_race_bytes, self.cap_runs = 1 * MIB, 1
            # nginx's rate limit keeps even a prefetch that ignores its own cap from finishing the
            # file before the stand-in application is closed.
            self.resume_bytes, self.resume_part, self.resume_rate = 16 * MIB, 256 * 1024, "8m"
        else:
            self.reps = 5
            self.real_bytes, self.real_files = tree.GIB, 2000
            self.small_counts = [100, 1000, 10000]
            self.latency_counts = [100, 10000]
            self.big_bytes = 2 * tree.GIB
            self.prefetch_bytes, self.prefetch_window = PREFETCH_CAP, 25.0
            self.prefetch_small_files = 70
            self.prefetch_race_bytes, self.cap_runs = 4 * MIB, 20
            self.resume_bytes, self.resume_part, self.resume_rate = 256 * MIB, 8 * MIB, "64m"


class Bench:
    def __init__(self, args):
        self.args = args
        self.sizes = Sizes(args.smoke)
        if args.reps:
            self.sizes.reps = self.sizes.cap_runs = args.reps
        if args.latency_counts:
            self.sizes.latency_counts = [int(n) for n in args.latency_counts.split(",")]
        self.data_dir = os.path.abspath(args.data_dir)
        self.work = os.path.join(self.data_dir, "work")
        self.updater = os.path.abspath(args.updater)
        self.publish_tool = os.path.abspath(args.publish)
        self.key = os.path.abspath(args.key)
        self.results = {"smoke": args.smoke, "reps": self.sizes.reps, "source": args.source}
        self.failures = []
        self.nginx = None
        self.locks = os.path.join(self.data_dir, "locks")

    # ---------------------------------------------------------------- plumbing

    def say(self, text):
        print(f"[bench {time.strftime('%H:%M:%S')}] {text}", flush=True)

    def expect(self, condition, what):
        """A property the measurement rests on; a broken one fails the run (and the smoke test)."""
        if not condition:
            self.failures.append(what)
            self.say(f"FAILED: {what}")
        return condition

    def env(self):
        env = dict(os.environ)
        env.update(QT_QPA_PLATFORM="offscreen", XDG_RUNTIME_DIR=self.locks, LC_ALL="C.UTF-8")
        return env

    def log_lines(self, install, since=0):
        path = os.path.join(install, "updater.log")
        if not os.path.exists(path):
            return [], 0
        with open(path, "rb") as f:
            f.seek(since)
            data = f.read()
        return data.decode("utf-8", "replace").splitlines(), since + len(data)

    def log_size(self, install):
        path = os.path.join(install, "updater.log")
        return os.path.getsize(path) if os.path.exists(path) else 0

    def run_updater(self, install, args=(), expect_line=None, **kwargs):
        since = self.log_size(install)
        run = run_timed([os.path.join(install, "updater")] + list(args), env=self.env(), cwd=install,
                        timeout=UPDATER_TIMEOUT, **kwargs)
        run.log, _ = self.log_lines(install, since)
        run.phases = apply_phases(run.log)
        if expect_line is not None:
            self.expect(any(line.endswith(expect_line) for line in run.log),
                        f"updater log of {install} ends a line with {expect_line!r}: {run.log[-5:]}")
        return run

    def dataset(self, name, build1, build2):
        ds = Dataset(self, name, build1, build2)
        ds.prepare()
        return ds

    def file_requests(self, requests, ds):
        prefix = f"/{ds.name}/"
        return [r for r in requests if r.uri.startswith(prefix)
                and r.uri not in (prefix + "manifest.json", prefix + "manifest.json.sig")]

    # ---------------------------------------------------------------- 1. apply, realistic

    def real_dataset(self):
        s = self.sizes
        build1 = tree.realistic_tree(s.real_bytes, s.real_files, seed=1)
        changed = tree.pick_changed(build1, 0.10, ["bin/Corvanta.core.dll"], seed=2)
        return self.dataset("real", build1, tree.change(build1, changed, seed=3))

    def curl_config(self, ds, entries, out_dir, url=None):
        path = os.path.join(self.work, f"curl-{ds.name}.cfg")
        with open(path, "w") as f:
            for e in entries:
                f.write(f'url = "{(url or ds.url)(e.path)}"\noutput = "{os.path.join(out_dir, e.path)}"\n')
        return path

    def curl_fetch(self, ds, entries, url=None, options=()):
        """One curl process fetching entries in order over one keep-alive connection (unless
        `options` say otherwise), from nginx or from `url(path)`."""
        out_dir = os.path.join(self.work, "curl-out")
        shutil.rmtree(out_dir, ignore_errors=True)
        config = self.curl_config(ds, entries, out_dir, url)
        # Like every apply, curl starts with nothing of an earlier step left to write back.
        os.sync()
        mark = self.nginx.log_mark()
        wall = run_plain(["curl", "--silent", "--show-error", "--fail", "--create-dirs", *options, "--config", config])
        requests = self.nginx.requests(mark)
        return wall, out_dir, requests

    def bench_apply(self, ds):
        self.say("1. apply of a realistic installation, beside curl + openssl dgst + cp")
        install = os.path.join(self.work, "install")
        manifest2 = ds.manifest2()
        changed_paths = [e.path for e in ds.changed]
        all_paths = [e.path for e in ds.build1]
        changed_bytes = ds.changed_bytes()
        rows = []
        for rep in range(self.sizes.reps):
            # The updater.
            ds.install(install)
            mark = self.nginx.log_mark()
            run = self.run_updater(install, expect_line='[Update] CAP NHAT THANH CONG -> "2.0.0"')
            requests = self.nginx.requests(mark)
            files = self.file_requests(requests, ds)
            served = sum(r.body_bytes for r in files)
            if rep == self.sizes.reps - 1:
                self.expect(verify_installed(install, manifest2, changed_paths), "installation holds build 2")
            # The limit, on the same installation of build 1.
            ds.install(install)
            dgst = run_plain(["openssl", "dgst", "-sha256"] + all_paths, cwd=install)
            fetch, out_dir, curl_requests = self.curl_fetch(ds, ds.changed)
            copy = run_plain(["cp", "-r", out_dir + "/.", install])
            # Not part of the limit: what it costs to make the copied files durable (fsync of
            # each), as the updater's write-through replacement does before each rename.
            flush = run_plain(["sync"] + changed_paths, cwd=install)
            self.expect(len(files) == len(ds.changed), f"{len(ds.changed)} file requests, got {len(files)}")
            self.expect(len({r.connection for r in curl_requests}) == 1, "curl used one connection")

            rows.append(dict(updater=run.wall, phases=run.phases, peak_kib=run.peak_kib, cpu=run.cpu, served=served,
                             requests=len(requests), connections=len({r.connection for r in requests}),
                             wire=sum(r.bytes for r in requests), curl=fetch, dgst=dgst, copy=copy, flush=flush,
                             limit=fetch + dgst + copy))
            self.say(f"   rep {rep + 1}: updater {run.wall:.2f} s, limit {fetch + dgst + copy:.2f} s "
                     f"(curl {fetch:.2f}, dgst {dgst:.2f}, cp {copy:.2f}; sync {flush:.2f}), served/changed "
                     f"{served / changed_bytes:.4f}, peak {run.peak_kib / 1024:.0f} MiB")
        self.expect(all(r["served"] == changed_bytes for r in rows), "nginx served exactly the changed bytes")
        sizes = sorted(e.size for e in ds.build1)
        self.results["apply"] = dict(files=len(ds.build1), bytes=tree.total_size(ds.build1),
                                     changed_files=len(ds.changed), changed_bytes=changed_bytes, rows=rows,
                                     largest=sizes[-3:], median_size=sizes[len(sizes) // 2],
                                     largest_changed=max(e.size for e in ds.changed),
                                     syscalls=self.syscall_profile(ds, install))

    # ---------------------------------------------------------------- 2. no-op runs

    def opens_of_installed_files(self, install, args=()):
        """The installed build files (regular files) and the directories that one run opens,
        counted with strace; the updater's own files and the cache do not count."""
        trace = os.path.join(self.work, "strace-open.txt")
        subprocess.run(["strace", "-f", "-qq", "-e", "trace=open,openat,openat2", "-o", trace,
                        os.path.join(install, "updater")] + list(args),
                       env=self.env(), cwd=install, check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        own = {"updater", "updater.conf", "updater.log", "manifest.json"}
        files, dirs = set(), set()
        with open(trace) as f:
            for line in f:
                m = re.search(r'open(?:at2?)?\((?:[^,"]+, )?"([^"]*)"', line)
                if not m or "ENOENT" in line:
                    continue
                path = os.path.normpath(os.path.join(install, m.group(1)))
                if not path.startswith(install + "/"):
                    continue
                rel = os.path.relpath(path, install)
                if rel in own or rel.startswith(".update-cache") or rel.startswith(".staging"):
                    continue
                (dirs if "O_DIRECTORY" in line else files).add(rel)
        return files, dirs

    def bench_noop(self, ds):
        self.say("2. no-op runs: up to date by build number, and all hashes matching")
        install = os.path.join(self.work, "install")
        ds.install(install, build=2)
        paths = [e.path for e in ds.build2]
        uptodate, matching, sha256sum, dgst = [], [], [], []
        for rep in range(self.sizes.reps):
            uptodate.append(self.run_updater(install, expect_line='[Update] da moi nhat: "2.0.0"').wall)
            os.remove(os.path.join(install, "manifest.json"))
            matching.append(self.run_updater(
                install, expect_line='[Update] hash khop het, dong bo manifest -> "2.0.0"').wall)
            sha256sum.append(run_plain(["sha256sum"] + paths, cwd=install))
            dgst.append(run_plain(["openssl", "dgst", "-sha256"] + paths, cwd=install))
            self.say(f"   rep {rep + 1}: up to date {uptodate[-1]:.2f} s, hashes match {matching[-1]:.2f} s, "
                     f"sha256sum {sha256sum[-1]:.2f} s, openssl dgst {dgst[-1]:.2f} s")
        opened, dirs = self.opens_of_installed_files(install)
        self.expect(not opened, f"an up-to-date run opens no installed file, opened {sorted(opened)[:5]}")
        os.remove(os.path.join(install, "manifest.json"))
        opened_hashing, _ = self.opens_of_installed_files(install)
        self.expect(opened_hashing == set(paths), "the hash pass opens every installed file")
        self.results["noop"] = dict(files=len(paths), bytes=tree.total_size(ds.build2), uptodate=uptodate,
                                    matching=matching, sha256sum=sha256sum, dgst=dgst,
                                    uptodate_file_opens=len(opened), uptodate_dir_opens=len(dirs),
                                    dirs=len(ancestor_dirs(paths)),
                                    hashing_file_opens=len(opened_hashing))

    # ---------------------------------------------------------------- 3. scaling

    def bench_scaling(self):
        self.say("3. scaling with the number of small changed files")
        install = os.path.join(self.work, "install-small")
        out = []
        for count in self.sizes.small_counts:
            ds = self.small_dataset(count)
            apply_s, curl_s, apply_conns, curl_conns, phases, manager, file_work = [], [], [], [], [], [], []
            for rep in range(self.sizes.reps):
                ds.install(install)
                run, files = self.apply_small(ds, install)
                apply_s.append(run.wall)
                phases.append(run.phases)
                apply_conns.append(len({r.connection for r in files}))
                wall, _, requests = self.curl_fetch(ds, ds.changed)
                curl_s.append(wall)
                curl_conns.append(len({r.connection for r in requests}))
                manager.append(self.manager_alone(ds))
                file_work.append(self.file_work_alone(ds, install))
                self.say(f"   {count} files, rep {rep + 1}: apply {run.wall:.2f} s, curl {wall:.2f} s, "
                         f"connections {apply_conns[-1]} / {curl_conns[-1]}, Qt's manager alone "
                         f"{manager[-1]['wall']:.2f} s, file work alone {sum(file_work[-1].values()):.2f} s")
            out.append(dict(count=count, bytes=ds.changed_bytes(), apply=apply_s, curl=curl_s, phases=phases,
                            apply_connections=apply_conns, curl_connections=curl_conns, manager=manager,
                            file_work=file_work))
            if count == self.sizes.small_counts[-1]:
                out[-1]["syscalls"] = self.syscall_profile(ds, install)
        self.results["scaling"] = out

    def apply_small(self, ds, install):
        """One apply of a small-files set, each changed file fetched once: the run and nginx's
        records of the files."""
        mark = self.nginx.log_mark()
        run = self.run_updater(install, expect_line='[Update] CAP NHAT THANH CONG -> "2.0.0"')
        files = self.file_requests(self.nginx.requests(mark), ds)
        self.expect(len(files) == len(ds.changed) and sum(r.body_bytes for r in files) == ds.changed_bytes(),
                    f"{len(ds.changed)} files of {ds.name} fetched once each")
        return run, files

    def manager_alone(self, ds):
        """Qt's network access manager with nothing else to do: the changed files fetched into
        memory and dropped, six GETs in flight, as the updater keeps them (bench/qnam_fetch.cpp)."""
        urls = os.path.join(self.work, f"urls-{ds.name}.txt")
        with open(urls, "w") as f:
            f.writelines(ds.url(e.path) + "\n" for e in ds.changed)
        done = subprocess.run([self.args.qnam_fetch, urls, "6"], capture_output=True, text=True, check=True)
        result = json.loads(done.stdout)
        self.expect(result["files"] == len(ds.changed) and result["bytes"] == ds.changed_bytes(),
                    f"Qt's manager alone fetched the {len(ds.changed)} files of {ds.name}")
        return result

    def file_work_alone(self, ds, install):
        """The file work of an apply with nothing else around it, in seconds per step: build 2's
        changed files written into a staging directory and synced, each installed file linked to a
        backup and its staged file renamed over it, the directories synced, the backups removed."""
        ds.install(install)
        staging = os.path.join(install, ".staging")
        bodies = {}
        for e in ds.changed:
            with open(os.path.join(ds.input2, e.path), "rb") as f:
                bodies[e.path] = f.read()
        dirs = sorted({os.path.dirname(e.path) for e in ds.changed})
        for d in dirs:
            os.makedirs(os.path.join(staging, d), exist_ok=True)
        steps = {}
        started = time.monotonic()

        def step(name):
            nonlocal started
            now = time.monotonic()
            steps[name] = now - started
            started = now

        for e in ds.changed:
            fd = os.open(os.path.join(staging, e.path), os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644)
            os.write(fd, bodies[e.path])
            os.close(fd)
        step("write")
        fd = os.open(staging, os.O_RDONLY)
        ctypes.CDLL(None, use_errno=True).syncfs(fd)  # as the updater syncs its staged files
        os.close(fd)
        step("sync")
        for e in ds.changed:
            target = os.path.join(install, e.path)
            os.link(target, target + ".bak")
            os.rename(os.path.join(staging, e.path), target)
        for d in dirs:
            fd = os.open(os.path.join(install, d), os.O_RDONLY)
            os.fsync(fd)
            os.close(fd)
        step("replace")
        for e in ds.changed:
            os.unlink(os.path.join(install, e.path) + ".bak")
        step("remove_backups")
        return steps

    # ---------------------------------------------------------------- 3l. latency

    def small_dataset(self, count):
        build1 = tree.small_files_tree(count, seed=10 + count)
        return self.dataset(f"small{count}", build1, tree.change(build1, [e.path for e in build1], seed=20 + count))

    def bench_latency(self):
        """The small-files applies of item 3 with a round trip of LATENCY before every answer
        (a delaying proxy in front of nginx), beside curl --parallel over as many connections as
        a browser opens, through the same proxy."""
        self.say(f"3l. small changed files, {LATENCY * 1000:.0f} ms before every answer, beside "
                 f"curl --parallel --parallel-max {CURL_PARALLEL}")
        install = os.path.join(self.work, "install-latency")
        proxy = CountingProxy(self.nginx.port, delay=LATENCY)
        out = []
        try:
            for count in self.sizes.latency_counts:
                ds = self.small_dataset(count)
                apply_s, curl_s, apply_conns = [], [], []
                # The largest set takes minutes a repetition: three of them.
                for rep in range(min(self.sizes.reps, 3) if count >= 10000 else self.sizes.reps):
                    ds.install(install)
                    with open(os.path.join(install, "updater.conf"), "w") as f:
                        json.dump({"manifestUrl": proxy.url(f"{ds.name}/manifest.json")}, f)
                    run, files = self.apply_small(ds, install)
                    apply_s.append(run.wall)
                    apply_conns.append(len({r.connection for r in files}))
                    url = lambda path, name=ds.name: proxy.url(f"{name}/{path}")
                    curl_s.append(self.curl_fetch(ds, ds.changed, url,
                                                  ["--parallel", "--parallel-max", str(CURL_PARALLEL)])[0])
                    self.say(f"   {count} files, rep {rep + 1}: apply {run.wall:.2f} s "
                             f"({apply_conns[-1]} connections), curl --parallel {curl_s[-1]:.2f} s")
                out.append(dict(count=count, bytes=ds.changed_bytes(), apply=apply_s, curl=curl_s,
                                apply_connections=apply_conns))
        finally:
            proxy.stop()
        self.results["latency"] = dict(seconds=LATENCY, curl_parallel=CURL_PARALLEL, sets=out)

    def syscall_profile(self, ds, install):
        """strace -c -w of the main thread of one apply run (not timed): which system calls its
        wall-clock time goes to; `poll` is the event loop waiting for the network thread."""
        ds.install(install)
        summary = os.path.join(self.work, f"strace-c-{ds.name}.txt")
        since = self.log_size(install)
        subprocess.run(["strace", "-c", "-w", "-o", summary, os.path.join(install, "updater")],
                       env=self.env(), cwd=install, check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        rows = []
        with open(summary) as f:
            for line in f:
                parts = line.split()
                if len(parts) >= 5 and re.match(r"^\d+\.\d+$", parts[0]) and parts[-1] != "total":
                    rows.append(dict(name=parts[-1], percent=float(parts[0]), seconds=float(parts[1]),
                                     calls=int(parts[3])))
        rows.sort(key=lambda r: -r["seconds"])
        log, _ = self.log_lines(install, since)
        return dict(rows=rows[:8], phases=apply_phases(log))

    # ---------------------------------------------------------------- 4. streaming

    def bench_streaming(self):
        s = self.sizes
        self.say(f"4. streaming: apply of one {s.big_bytes / MIB:.0f} MiB file, prefetch memory")
        big_path = "data/world.pak"
        build1 = tree.one_big_file_tree(big_path, s.big_bytes, seed=30)
        ds = self.dataset("big", build1, tree.change_with_size(build1, big_path, s.big_bytes, seed=31))
        install = os.path.join(self.work, "install-big")
        walls, peaks, curves, phases, refs = [], [], [], [], []
        for rep in range(s.reps):
            ds.install(install)
            run = self.run_updater(install, expect_line='[Update] CAP NHAT THANH CONG -> "2.0.0"',
                                   sample_interval=0.25)
            if rep == 0:
                self.expect(verify_installed(install, ds.manifest2(), [big_path]), "big file applied")
            walls.append(run.wall)
            phases.append(run.phases)
            peaks.append(run.peak_kib)
            curves.append(resident_curve(run.samples))
            # The same bytes through curl and openssl, for where the time goes.
            ds.install(install)
            dgst = run_plain(["openssl", "dgst", "-sha256", big_path], cwd=install)
            fetch, out_dir, _ = self.curl_fetch(ds, [e for e in ds.changed])
            shutil.rmtree(out_dir, ignore_errors=True)
            refs.append(dict(curl=fetch, dgst=dgst))
            self.say(f"   apply rep {rep + 1}: {run.wall:.2f} s, peak {run.peak_kib / 1024:.1f} MiB; "
                     f"curl {fetch:.2f} s, openssl dgst {dgst:.2f} s")
        # The same build offered to the prefetcher: refused by its cap before any transfer (the
        # smoke run's file is too small for the cap).
        refusals = []
        ds.install(install)
        for rep in range(s.reps if s.big_bytes > PREFETCH_CAP else 0):
            run = self.run_updater(install, ["--prefetch-only"], expect_line=(
                f"[UpdatePrefetch] can tai {s.big_bytes // MIB} MB > tran 500 MB -> de updater lo"))
            refusals.append(run.peak_kib)
        self.results["streaming"] = dict(bytes=s.big_bytes, apply=walls, phases=phases, peak_kib=peaks, curves=curves,
                                         reference=refs,
                                         refusal_peak_kib=refusals)
        shutil.rmtree(install, ignore_errors=True)

    def prefetch_dataset(self):
        s = self.sizes
        path = "data/content.pak"
        build1 = tree.one_big_file_tree(path, s.prefetch_bytes * 4 // 5, seed=40)
        return self.dataset("prefetch", build1, tree.change_with_size(build1, path, s.prefetch_bytes, seed=41)), path

    def bench_prefetch(self):
        s = self.sizes
        ds, path = self.prefetch_dataset()
        self.say(f"4/5. prefetch of one {s.prefetch_bytes} byte file: {s.prefetch_window:.0f} s of transfer, "
                 f"then the application closes")
        install = os.path.join(self.work, "install-prefetch")
        part = os.path.join(install, ".update-cache", VERSION2, "files", path + ".part")
        rows = []
        for rep in range(s.reps):
            ds.install(install)
            app = subprocess.Popen(["sleep", "3600"])
            first = {}

            def close_app_after_window(sampler):
                size = sampler.samples[-1][2] if sampler.samples else None
                now = time.monotonic()
                if size and "t" not in first:
                    first["t"] = now
                if "t" in first and now - first["t"] >= s.prefetch_window and app.poll() is None:
                    first["closed"] = now - sampler.start_time
                    kill_quietly(app, signal.SIGTERM)

            try:
                run = self.run_updater(install, ["--prefetch-only", "--wait-pid", str(app.pid)],
                                       sample_interval=0.1, watch_file=part, on_sample=close_app_after_window)
            finally:
                kill_quietly(app)
            # A transfer that ignored the cap may have finished the file before the window ended.
            stopped = any("[UpdatePrefetch] app da dong -> dung tai" in line for line in run.log)
            self.expect(stopped or any("xong toan bo" in line for line in run.log), "the prefetch ended cleanly")
            rate, transferred = transfer_rate(run.samples, first.get("closed"))
            rows.append(dict(wall=run.wall, peak_kib=run.peak_kib, cpu=run.cpu, user=run.user, sys=run.sys,
                             transferred=transferred, rate=rate, stopped=stopped,
                             curve=resident_curve(run.samples)))
            self.say(f"   rep {rep + 1}: {transferred / 1e6:.1f} MB at {rate:.0f} B/s "
                     f"({rate / PREFETCH_RATE_CAP:.3f} of the cap), cpu {run.cpu:.2f} s, "
                     f"peak {run.peak_kib / 1024:.1f} MiB")
        # The verification of a complete .part: 4 MiB hashed per 100 ms tick.
        verify = []
        for rep in range(s.reps):
            ds.install(install)
            os.makedirs(os.path.dirname(part), exist_ok=True)
            shutil.copyfile(os.path.join(ds.www, path), part)
            os.sync()
            run = self.run_updater(install, ["--prefetch-only"],
                                   expect_line="[UpdatePrefetch] xong toan bo - 1 file ok, 0 bo lai cho updater")
            self.expect(any(line.endswith("da du byte tu luot truoc -> chi verify") for line in run.log),
                        "the complete .part was only verified")
            verify.append(dict(wall=run.wall, peak_kib=run.peak_kib, cpu=run.cpu))
            self.say(f"   verify rep {rep + 1}: {run.wall:.2f} s, peak {run.peak_kib / 1024:.1f} MiB")
        self.results["prefetch"] = dict(bytes=s.prefetch_bytes, window=s.prefetch_window, rows=rows,
                                        verify=verify)
        shutil.rmtree(install, ignore_errors=True)
        self.bench_prefetch_small_files()

    def bench_prefetch_small_files(self):
        """A build whose changed files are small (64 KiB-1 MiB, as most files of an installation
        are): the prefetch runs to its end; its rate is taken from updater.log, from "bat dau"
        to "xong toan bo", hashing included."""
        s = self.sizes
        rng_count = s.prefetch_small_files
        build1 = tree.sized_files_tree(rng_count, 64 * tree.KIB, 1 * MIB, seed=70)
        ds = self.dataset("prefetchsmall", build1, tree.change(build1, [e.path for e in build1], seed=71))
        total = ds.changed_bytes()
        self.say(f"5. prefetch of {rng_count} small files, {total} bytes, to the end")
        install = os.path.join(self.work, "install-prefetch-small")
        rows = []
        for rep in range(s.reps):
            ds.install(install)
            mark = self.nginx.log_mark()
            run = self.run_updater(install, ["--prefetch-only"], expect_line=(
                f"[UpdatePrefetch] xong toan bo - {rng_count} file ok, 0 bo lai cho updater"))
            started = next((_log_time(l) for l in run.log if "[UpdatePrefetch] bat dau" in l), None)
            ended = next((_log_time(l) for l in run.log if "[UpdatePrefetch] xong toan bo" in l), None)
            served = sum(r.body_bytes for r in self.file_requests(self.nginx.requests(mark), ds))
            if started is None or ended is None or ended <= started:
                self.expect(False, "prefetch log has its start and end lines")
                continue
            rate = total / (ended - started)
            rows.append(dict(wall=run.wall, seconds=ended - started, rate=rate, cpu=run.cpu,
                             peak_kib=run.peak_kib, served=served))
            self.say(f"   rep {rep + 1}: {ended - started:.2f} s, {rate:.0f} B/s ({rate / PREFETCH_RATE_CAP:.3f} "
                     f"of the cap), peak {run.peak_kib / 1024:.1f} MiB")
        self.results["prefetch_small"] = dict(files=rng_count, bytes=total, rows=rows)
        shutil.rmtree(install, ignore_errors=True)

    def bench_prefetch_cap(self):
        """The cap as the server sees it, in every run: prefetches of one 4 MiB file and of the
        small-files set, each to its end, through a proxy in front of nginx that counts what it
        passes to the updater's socket (the kernel's socket buffers on loopback hold megabytes,
        so the size of the .part says little about what the server sent). Per run: the most
        bytes passed in any 2 s window (the cap allows 2 x 1,024,000 plus the 204,800 burst),
        and the run's duration from "bat dau" to "xong toan bo" against size / cap. nginx's
        access log gives the same window from its per-request totals ($msec, the end of each
        request), which only means something when the requests are small."""
        s = self.sizes
        path = "data/content.pak"
        build1 = tree.one_big_file_tree(path, s.prefetch_race_bytes // 2, seed=80)
        big = self.dataset("prefetchrace", build1, tree.change_with_size(build1, path, s.prefetch_race_bytes, seed=81))
        build1 = tree.sized_files_tree(s.prefetch_small_files, 64 * tree.KIB, 1 * MIB, seed=70)
        small = self.dataset("prefetchsmall", build1, tree.change(build1, [e.path for e in build1], seed=71))
        proxy = CountingProxy(self.nginx.port)
        install = os.path.join(self.work, "install-prefetch-cap")
        self.results["prefetch_cap"] = result = dict(source=self.args.source, window=CAP_WINDOW,
                                                     allowed=CAP_WINDOW_BYTES, sets=[])
        try:
            for name, ds in ((f"one {s.prefetch_race_bytes // MIB} MiB file", big),
                             (f"{len(small.changed)} small files", small)):
                size, count = ds.changed_bytes(), len(ds.changed)
                self.say(f"5c. {s.cap_runs} prefetches of {name} ({size} bytes) through the counting proxy")
                runs = []
                for rep in range(s.cap_runs):
                    ds.install(install)
                    with open(os.path.join(install, "updater.conf"), "w") as f:
                        json.dump({"manifestUrl": proxy.url(f"{ds.name}/manifest.json")}, f)
                    mark = self.nginx.log_mark()
                    proxy.take_events()
                    run = self.run_updater(install, ["--prefetch-only"], expect_line=(
                        f"[UpdatePrefetch] xong toan bo - {count} file ok, 0 bo lai cho updater"))
                    events = proxy.take_events()
                    files = self.file_requests(self.nginx.requests(mark), ds)
                    started = next((_log_time(l) for l in run.log if "[UpdatePrefetch] bat dau" in l), None)
                    ended = next((_log_time(l) for l in run.log if "[UpdatePrefetch] xong toan bo" in l), None)
                    x = dict(most=most_in_window(events, CAP_WINDOW), passed=sum(n for _, n in events),
                             most_logged=most_in_window(sorted((q.msec, q.bytes) for q in files), CAP_WINDOW),
                             seconds=ended - started if started and ended else None,
                             requests=len(files), connections=len({q.connection for q in files}),
                             largest_request=max((q.bytes for q in files), default=0))
                    x["held"] = x["most"] <= CAP_WINDOW_BYTES and (x["seconds"] or 0) >= size / PREFETCH_RATE_CAP
                    runs.append(x)
                    self.say(f"   run {rep + 1}: most in {CAP_WINDOW:.0f} s {x['most']} bytes (nginx log "
                             f"{x['most_logged']}), {x['seconds'] or 0:.2f} s (size / cap "
                             f"{size / PREFETCH_RATE_CAP:.2f} s), {x['requests']} requests on "
                             f"{x['connections']} connections{'' if x['held'] else ', CAP NOT HELD'}")
                result["sets"].append(dict(name=name, files=count, bytes=size, runs=runs))
        finally:
            proxy.stop()
            shutil.rmtree(install, ignore_errors=True)

    # ---------------------------------------------------------------- 6. resume

    def bench_resume(self):
        s = self.sizes
        path = "data/content.pak"
        build1 = tree.one_big_file_tree(path, s.resume_bytes - 4096, seed=50)
        ds = self.dataset("resume", build1, tree.change_with_size(build1, path, s.resume_bytes, seed=51))
        self.say(f"6. resume: prefetch cut at {s.resume_part} bytes, apply killed halfway through the "
                 f"{s.resume_bytes} byte file, apply again")
        install = os.path.join(self.work, "install-resume")
        part = os.path.join(install, ".update-cache", VERSION2, "files", path + ".part")
        staged = os.path.join(install, ".staging", path)
        uri = f"/{ds.name}/{path}"
        rows = []
        for rep in range(s.reps):
            ds.install(install)
            mark = self.nginx.log_mark()
            # A prefetch that the closing application stops once the .part holds enough.
            app = subprocess.Popen(["sleep", "3600"])

            def close_app(sampler):
                size = sampler.samples[-1][2] if sampler.samples else None
                if size and size >= s.resume_part:
                    kill_quietly(app, signal.SIGTERM)

            try:
                self.run_updater(install, ["--prefetch-only", "--wait-pid", str(app.pid)], sample_interval=0.05,
                                 watch_file=part, on_sample=close_app)
            finally:
                kill_quietly(app)
            if not self.expect(os.path.exists(part), "the stopped prefetch left a .part"):
                continue
            have = os.path.getsize(part)
            # An apply killed when its staged copy is halfway.
            process = subprocess.Popen([os.path.join(install, "updater")], env=self.env(), cwd=install,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            while process.poll() is None:
                try:
                    if os.path.getsize(staged) >= s.resume_bytes // 2:
                        break
                except OSError:
                    pass
                time.sleep(0.002)
            kill_quietly(process)
            staged_at_kill = os.path.getsize(staged) if os.path.exists(staged) else 0
            self.expect(0 < staged_at_kill < s.resume_bytes, "the first apply was killed mid-file")
            run = self.run_updater(install, expect_line='[Update] CAP NHAT THANH CONG -> "2.0.0"')
            self.expect(any(f'"{path}" noi tiep tu kho tam: {have} byte' in line for line in run.log),
                        "the second apply resumed from the prefetcher's .part")
            self.expect(verify_installed(install, ds.manifest2(), [path]), "resumed file is complete")
            # The prefetch's ranges, then one request of each apply.
            requests = [r for r in self.nginx.requests(mark) if r.uri == uri]
            self.expect(len(requests) >= 3, f"at least three requests for the file, got {len(requests)}")
            if len(requests) < 3:
                continue
            *prefetch, first, second = requests
            prefetch_sent = sum(r.body_bytes for r in prefetch)
            rows.append(dict(size=s.resume_bytes, part=have, prefetch_sent=prefetch_sent, prefetch_requests=len(prefetch),
                             first_range=first.range, first_sent=first.body_bytes,
                             first_received=staged_at_kill - have, second_range=second.range,
                             second_sent=second.body_bytes))
            total = prefetch_sent + first.body_bytes + second.body_bytes
            self.say(f"   rep {rep + 1}: .part {have}, killed apply got {first.body_bytes} "
                     f"({first.range}), second apply {second.body_bytes} ({second.range}); "
                     f"served {total} for a {s.resume_bytes} byte file")
        self.results["resume"] = rows
        shutil.rmtree(install, ignore_errors=True)

    # ---------------------------------------------------------------- 7. rsync

    def bench_rsync(self, ds):
        self.say("7. rsync --checksum from an rsync daemon, same update")
        daemon = RsyncDaemon(os.path.join(self.data_dir, "rsyncd"), "corvanta", ds.input2)
        daemon.start()
        install = os.path.join(self.work, "install")
        rows = []
        try:
            for rep in range(self.sizes.reps):
                ds.install(install)
                run = run_timed(["rsync", "-a", "--checksum", "--stats", daemon.url(), install + "/"])
                stats = parse_rsync_stats(run.output)
                rows.append(dict(wall=run.wall, peak_kib=run.peak_kib, cpu=run.cpu, **stats))
                self.say(f"   rep {rep + 1}: {run.wall:.2f} s, received {stats['received']} bytes, "
                         f"literal {stats['literal']}")
            self.expect(verify_installed(install, ds.manifest2(), [e.path for e in ds.changed]),
                        "rsync brought build 2")
        finally:
            daemon.stop()
        # What the updater moved over the wire for the same update, headers included.
        ds.install(install)
        mark = self.nginx.log_mark()
        self.run_updater(install, expect_line='[Update] CAP NHAT THANH CONG -> "2.0.0"')
        requests = self.nginx.requests(mark)
        self.results["rsync"] = dict(rows=rows, version=tool_version(["rsync", "--version"]),
                                     updater_body_bytes=sum(r.body_bytes for r in requests),
                                     updater_wire_bytes=sum(r.bytes for r in requests),
                                     updater_requests=len(requests))

    # ---------------------------------------------------------------- profile

    def profile_apply(self, ds):
        """perf record of one apply of the realistic data set: the hottest symbols."""
        install = os.path.join(self.work, "install")
        ds.install(install)
        data = os.path.join(self.work, "perf.data")
        done = subprocess.run(["perf", "record", "-F", "999", "-g", "-o", data, "--",
                               os.path.join(install, "updater")], env=self.env(), cwd=install,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if done.returncode != 0:
            return None
        def report(sort, limit):
            text = subprocess.run(["perf", "report", "-i", data, "--no-children", "--sort", sort, "--stdio",
                                   "--percent-limit", str(limit), "-g", "none"],
                                  capture_output=True, text=True).stdout
            return [l.rstrip() for l in text.splitlines() if l.strip() and not l.startswith("#")]

        return report("comm,dso", 1)[:12] + [""] + report("dso,sym", 1.5)[:16]

    # ---------------------------------------------------------------- run

    def prepare_all(self):
        """Generates and publishes every data set of the run without measuring anything."""
        s = self.sizes
        self.real_dataset()
        for count in sorted(set(s.small_counts + s.latency_counts)):
            self.small_dataset(count)
        build1 = tree.one_big_file_tree("data/world.pak", s.big_bytes, seed=30)
        self.dataset("big", build1, tree.change_with_size(build1, "data/world.pak", s.big_bytes, seed=31))
        self.prefetch_dataset()
        build1 = tree.sized_files_tree(s.prefetch_small_files, 64 * tree.KIB, 1 * MIB, seed=70)
        self.dataset("prefetchsmall", build1, tree.change(build1, [e.path for e in build1], seed=71))
        build1 = tree.one_big_file_tree("data/content.pak", s.prefetch_race_bytes // 2, seed=80)
        self.dataset("prefetchrace", build1,
                     tree.change_with_size(build1, "data/content.pak", s.prefetch_race_bytes, seed=81))
        build1 = tree.one_big_file_tree("data/content.pak", s.resume_bytes - 4096, seed=50)
        self.dataset("resume", build1, tree.change_with_size(build1, "data/content.pak", s.resume_bytes, seed=51))

    def run(self):
        os.makedirs(self.work, exist_ok=True)
        shutil.rmtree(self.locks, ignore_errors=True)
        os.makedirs(self.locks, mode=0o700)
        self.results["machine"] = machine_description(self.data_dir)
        self.results["started"] = datetime.datetime.now().astimezone().isoformat(timespec="seconds")
        self.results["load_before"] = os.getloadavg()
        self.nginx = Nginx(os.path.join(self.data_dir, "nginx"), os.path.join(self.data_dir, "www"),
                           rate_limited={"/resume/": self.sizes.resume_rate})
        started = time.monotonic()
        if self.args.prepare_only:
            self.prepare_all()
            return
        try:
            only = set(self.args.only.split(",")) if self.args.only else None
            # The 1 GiB data set only for the items that use it.
            real = self.real_dataset() if only is None or only & {"1", "2", "7"} or self.args.profile else None
            self.nginx.start()
            steps = [("1", lambda: self.bench_apply(real)), ("2", lambda: self.bench_noop(real)),
                     ("7", lambda: self.bench_rsync(real)), ("3", self.bench_scaling), ("3l", self.bench_latency),
                     ("4", self.bench_streaming), ("5", self.bench_prefetch), ("5c", self.bench_prefetch_cap),
                     ("6", self.bench_resume)]
            for key, step in steps:
                if only is None or key in only:
                    step()
            if self.args.profile and not self.sizes.smoke:
                self.results["perf_apply"] = self.profile_apply(real)
        finally:
            self.nginx.stop()
            shutil.rmtree(self.work, ignore_errors=True)
        self.results["load_after"] = os.getloadavg()
        self.results["duration"] = time.monotonic() - started
        self.say(f"done in {self.results['duration']:.0f} s")


def ancestor_dirs(paths):
    dirs = set()
    for p in paths:
        p = os.path.dirname(p)
        while p:
            dirs.add(p)
            p = os.path.dirname(p)
    return dirs


def _log_time(line):
    try:
        return datetime.datetime.strptime(line[:23], "%Y-%m-%d %H:%M:%S.%f").timestamp()
    except ValueError:
        return None


def apply_phases(log):
    """Seconds spent in each phase of an apply run, from the timestamps in updater.log: the
    first line is written when the configuration has been read; the status window's update
    before the download (logged by the offscreen platform as a warning about raise()) ends the
    manifest check and the hash pass; "dung ... file tu kho tam" ends the download and
    verification; "CAP NHAT THANH CONG" ends the replacement. None when a marker is missing."""
    try:
        end = next(i for i, l in enumerate(log) if "CAP NHAT THANH CONG" in l)
        staged = next(i for i, l in enumerate(log) if "file tu kho tam" in l)
        status = max(i for i, l in enumerate(log[:staged]) if "raise()" in l)
    except (StopIteration, ValueError):
        return None
    t = [_log_time(log[0]), _log_time(log[status]), _log_time(log[staged]), _log_time(log[end])]
    if None in t:
        return None
    return dict(check_and_hash=t[1] - t[0], download=t[2] - t[1], replace=t[3] - t[2], logged=t[3] - t[0])


def resident_curve(samples):
    """Resident memory in MiB at ten evenly spaced points of the run (the curve's shape)."""
    values = [rss for _, rss, _ in samples if rss]
    if not values:
        return []
    step = max(1, len(values) // 10)
    return [round(v / 1024, 1) for v in values[::step]][:10] + [round(values[-1] / 1024, 1)]


def transfer_rate(samples, closed_at):
    """Bytes per second over the transfer window: from the first sample that saw bytes in the
    .part to the last one before the application was closed."""
    window = [(t, size) for t, _, size in samples if size and (closed_at is None or t <= closed_at)]
    if len(window) < 2:
        return 0.0, 0
    (t0, s0), (t1, s1) = window[0], window[-1]
    return (s1 - s0) / (t1 - t0), s1 - s0


def parse_rsync_stats(text):
    def number(label):
        m = re.search(rf"^{label}: ([\d,]+)", text, re.M)
        return int(m.group(1).replace(",", "")) if m else 0

    return dict(received=number("Total bytes received"), sent=number("Total bytes sent"),
                literal=number("Literal data"), matched=number("Matched data"),
                transferred_files=number("Number of regular files transferred"))


def tool_version(cmd):
    try:
        done = subprocess.run(cmd, capture_output=True, text=True)
        return " ".join((done.stdout or done.stderr).splitlines()[0].split())
    except (OSError, IndexError):
        return "unknown"


def machine_description(data_dir):
    def first(cmd):
        try:
            return subprocess.run(cmd, capture_output=True, text=True).stdout.strip()
        except OSError:
            return ""

    cpu = ""
    for line in first(["lscpu"]).splitlines():
        if line.startswith("Model name:"):
            cpu = line.split(":", 1)[1].strip()
    with open("/proc/meminfo") as f:
        mem_kib = int(f.readline().split()[1])
    distro = ""
    if os.path.exists("/etc/os-release"):
        for line in open("/etc/os-release"):
            if line.startswith("PRETTY_NAME="):
                distro = line.split("=", 1)[1].strip().strip('"')
    return dict(cpu=cpu, cores=os.cpu_count(), memory_gib=round(mem_kib / 1024 / 1024, 1),
                kernel=platform.release(), distro=distro, virt=first(["systemd-detect-virt"]) or "unknown",
                filesystem=first(["findmnt", "-n", "-o", "FSTYPE,SOURCE", "-T", data_dir]),
                qt=first(["pkg-config", "--modversion", "Qt5Core"]),
                nginx=tool_version(["/usr/sbin/nginx", "-v"]), curl=tool_version(["curl", "--version"]),
                openssl=tool_version(["openssl", "version"]), rsync=tool_version(["rsync", "--version"]),
                coreutils=tool_version(["sha256sum", "--version"]))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--smoke", action="store_true")
    parser.add_argument("--data-dir", required=True)
    parser.add_argument("--updater", required=True)
    parser.add_argument("--publish", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--json", help="write every measurement here")
    parser.add_argument("--only", help="comma-separated item numbers, e.g. 1,3")
    parser.add_argument("--profile", action="store_true", help="also perf-profile one apply")
    parser.add_argument("--reps", type=int, help="repetitions instead of 5, and of 20 in item 5c (1 in the smoke run)")
    parser.add_argument("--prepare-only", action="store_true", help="only generate and publish the data")
    parser.add_argument("--source", default="unknown", help="which sources the programs were built from")
    parser.add_argument("--cap-json", help="keep item 5c's measurements in this file, one entry per source")
    parser.add_argument("--qnam-fetch", required=True, help="bench/qnam_fetch.cpp's program")
    parser.add_argument("--latency-counts", help="item 3l's set sizes, comma-separated, instead of 100,10000")
    args = parser.parse_args()
    # A stopped run still stops nginx and removes its installations (the finally blocks).
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    bench = Bench(args)
    bench.run()
    if args.json:
        with open(args.json, "w") as f:
            json.dump(bench.results, f, indent=1)
    if args.cap_json and "prefetch_cap" in bench.results:
        # One entry per measured source, so that runs of two commits stand side by side.
        runs = json.load(open(args.cap_json)) if os.path.exists(args.cap_json) else []
        runs = [x for x in runs if x["source"] != args.source] + [bench.results["prefetch_cap"]]
        with open(args.cap_json, "w") as f:
            json.dump(runs, f, indent=1)
    if bench.failures:
        print("benchmark FAILED:\n  " + "\n  ".join(bench.failures), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
