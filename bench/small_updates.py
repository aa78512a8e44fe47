#!/usr/bin/env python3
"""Small updates on real data, one pair of Debian packages (--pair): LibreOffice 7.4.7,
libreoffice-core 4:7.4.7-1+deb12u13 installed and 4:7.4.7-1+deb12u14 published (a security
update), or Firefox ESR, firefox-esr 140 installed and 153 published (a major release). Both
packages come from this machine's apt sources (`apt-get download`), are unpacked with `dpkg -x`,
and their symbolic links are left out.

The new build is published three times with corvanta-publish and served by nginx: whole files
only (--zstd-level 0), with compressed copies (the default), and with compressed copies and
patches against the old one (--delta-from). For each the updater brings a fresh copy of the old
build up to the new one; measured are the bytes nginx sent, the wall time and peak memory of the
apply, and that the installation then equals the new build byte for byte. The decoder is also
timed on its own (build/bin/bench/decode_artifact), and rsync --checksum does the same update
from an rsync daemon as a peer.

Started by bench/run.sh --small-updates, which builds the programs and renders bench/RESULTS.md."""

import argparse
import datetime
import filecmp
import json
import os
import shutil
import subprocess
import sys
import time

from bench import parse_rsync_stats, tool_version
from datasets import sha256_file
from measure import run_timed
from servers import Nginx, RsyncDaemon

# name: (package, old version, new version, the builds' short names)
PAIRS = {
    "libreoffice": ("libreoffice-core", "4:7.4.7-1+deb12u13", "4:7.4.7-1+deb12u14", ("u13", "u14")),
    "firefox": ("firefox-esr", "140.12.0esr-1~deb12u1", "153.7.0esr-1~deb12u1", ("140", "153")),
}
VARIANTS = [("whole", ["--zstd-level", "0"], "whole files"),
            ("compressed", [], "compressed copies"),
            ("patched", ["--delta-from", "{old}"], "compressed copies and patches against {old}")]
# Links set with nginx's limit_rate (bytes a second), for the wall time of the apply where the
# network, not the loopback, is the limit: 8 MiB/s (67 Mbit/s), and 50 Mbit/s.
LINKS = [("8 MiB/s", "8m"), ("50 Mbit/s", "6250000")]


def say(text):
    print(f"[small-updates {time.strftime('%H:%M:%S')}] {text}", flush=True)


def files_below(root):
    found = {}
    for dirpath, _, names in os.walk(root):
        for name in names:
            full = os.path.join(dirpath, name)
            found[os.path.relpath(full, root)] = full
    return found


class SmallUpdates:
    def __init__(self, args):
        self.args = args
        self.package, old, new, (self.old, self.new) = PAIRS[args.pair]
        # The LibreOffice pair keeps the directory it always had.
        self.data = os.path.abspath(os.path.join(
            args.data_dir, "small-updates" + ("" if args.pair == "libreoffice" else "-" + args.pair)))
        self.trees = {v: os.path.join(self.data, "trees", v) for v in (self.old, self.new)}
        self.versions = {self.old: old, self.new: new}
        self.done = f'[Update] CAP NHAT THANH CONG -> "{self.new}"'
        self.www = os.path.join(self.data, "www")
        self.work = os.path.join(self.data, "work")
        self.locks = os.path.join(self.data, "locks")
        self.failures = []
        self.results = {"package": self.package, "old": old, "new": new, "names": [self.old, self.new],
                        "source": args.source}

    def expect(self, condition, what):
        if not condition:
            self.failures.append(what)
            say(f"FAILED: {what}")
        return condition

    def env(self):
        env = dict(os.environ)
        env.update(QT_QPA_PLATFORM="offscreen", XDG_RUNTIME_DIR=self.locks, LC_ALL="C.UTF-8")
        return env

    # ------------------------------------------------------------ data

    def fetch(self):
        debs = os.path.join(self.data, "debs")
        os.makedirs(debs, exist_ok=True)
        for name, version in self.versions.items():
            tree = self.trees[name]
            if os.path.exists(os.path.join(tree, ".unpacked")):
                continue
            # apt-get download names the file with the epoch as "%3a".
            deb = f"{self.package}_{version.replace(':', '%3a')}_amd64.deb"
            wanted = [f for f in os.listdir(debs) if f == deb]
            if not wanted:
                say(f"apt-get download {self.package}={version}")
                subprocess.run(["apt-get", "download", f"{self.package}={version}"], cwd=debs, check=True,
                               stdout=subprocess.DEVNULL)
                wanted = [f for f in os.listdir(debs) if f == deb]
            shutil.rmtree(tree, ignore_errors=True)
            os.makedirs(tree)
            subprocess.run(["dpkg", "-x", os.path.join(debs, wanted[0]), tree], check=True)
            # The publisher refuses links; an installer would recreate them.
            subprocess.run(["find", tree, "-type", "l", "-delete"], check=True)
            open(os.path.join(tree, ".unpacked"), "w").close()
        old, new = files_below(self.trees[self.old]), files_below(self.trees[self.new])
        for tree in (old, new):
            tree.pop(".unpacked", None)
        changed = sorted(p for p in new if p not in old or not filecmp.cmp(old[p], new[p], shallow=False))
        self.results["files"] = len(new)
        self.results["bytes"] = sum(os.path.getsize(f) for f in new.values())
        self.results["changed"] = [dict(path=p, size=os.path.getsize(new[p])) for p in changed]
        self.results["changed_bytes"] = sum(os.path.getsize(new[p]) for p in changed)
        say(f"{self.new}: {len(new)} files, {self.results['bytes'] / 1e6:.1f} MB; {len(changed)} changed, "
            f"{self.results['changed_bytes'] / 1e6:.1f} MB")

    def publish(self, out, input_dir, version, number, extra):
        cmd = ["nice", self.args.publish, "build", "--input", input_dir, "--out", out, "--version", version,
               "--build-number", str(number), "--key", self.args.key, "--exclude", ".unpacked"] + extra
        started = time.monotonic()
        subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return time.monotonic() - started

    def prepare(self):
        """Publishes the old build (for its manifest) and the new one three ways; reused while the
        publisher is the same."""
        stamp = os.path.join(self.www, "ready")
        publisher = sha256_file(self.args.publish)
        if os.path.exists(stamp) and json.load(open(stamp)).get("publisher") == publisher:
            self.results["publish_seconds"] = json.load(open(stamp))["seconds"]
            return
        shutil.rmtree(self.www, ignore_errors=True)
        seconds = {}
        self.publish(os.path.join(self.www, self.old), self.trees[self.old], self.old, 1, ["--zstd-level", "0"])
        for name, extra, _ in VARIANTS:
            out = os.path.join(self.www, name)
            if name == "patched":
                # Starts from the compressed tree: its compressed copies are kept, not made again.
                shutil.copytree(os.path.join(self.www, "compressed"), out)
            say(f"publishing {self.new}: {name}")
            seconds[name] = self.publish(out, self.trees[self.new], self.new, 2,
                                         [a.format(old=self.trees[self.old]) for a in extra])
            verify = subprocess.run([self.args.publish, "verify", "--dir", out], capture_output=True, text=True)
            self.expect(verify.returncode == 0, f"verify of {name}: {verify.stderr.strip()}")
        with open(stamp, "w") as f:
            json.dump({"publisher": publisher, "seconds": seconds}, f)
        self.results["publish_seconds"] = seconds

    def manifest(self, name):
        with open(os.path.join(self.www, name, "manifest.json")) as f:
            return json.load(f)

    # ------------------------------------------------------------ runs

    def install(self, target, url):
        if os.path.lexists(target):
            subprocess.run(["rm", "-rf", target], check=True)
        subprocess.run(["cp", "-a", self.trees[self.old], target], check=True)
        os.remove(os.path.join(target, ".unpacked"))
        shutil.copyfile(os.path.join(self.www, self.old, "manifest.json"), os.path.join(target, "manifest.json"))
        shutil.copy2(self.args.updater, os.path.join(target, "updater"))
        with open(os.path.join(target, "updater.conf"), "w") as f:
            json.dump({"manifestUrl": url}, f)
        os.sync()

    def equals_new(self, install):
        want = files_below(self.trees[self.new])
        want.pop(".unpacked", None)
        have = files_below(install)
        for own in ("updater", "updater.conf", "updater.log", "manifest.json"):
            have.pop(own, None)
        return sorted(want) == sorted(have) and all(filecmp.cmp(want[p], have[p], shallow=False) for p in want)

    def bench_apply(self, nginx, key="apply", reps=None):
        install = os.path.join(self.work, "install")
        for name, _, title in VARIANTS:
            rows = []
            for rep in range(reps or self.args.reps):
                self.install(install, nginx.url(f"{name}/manifest.json"))
                mark = nginx.log_mark()
                run = run_timed([os.path.join(install, "updater")], env=self.env(), cwd=install, timeout=900)
                requests = nginx.requests(mark)
                with open(os.path.join(install, "updater.log")) as f:
                    log = [line.rstrip("\n")[24:] for line in f]
                files = [r for r in requests if not r.uri.endswith(("/manifest.json", "/manifest.json.sig"))]
                wire = [line for line in log if "qua mang" in line]
                row = dict(wall=run.wall, peak_kib=run.peak_kib, cpu=run.cpu,
                           body=sum(r.body_bytes for r in files), wire=sum(r.bytes for r in requests),
                           requests=[(r.uri.rsplit("/", 1)[-1][:24], r.body_bytes) for r in files],
                           choices=[line for line in log if " tai patch " in line or " tai ban nen " in line],
                           summary=wire[-1] if wire else None)
                self.expect(any(line.endswith(self.done) for line in log), f"{name}: the apply finished: {log[-3:]}")
                if rep == 0:
                    self.expect(self.equals_new(install), f"{name}: the installation equals {self.new} byte for byte")
                rows.append(row)
                say(f"{key} {name} rep {rep + 1}: {run.wall:.2f} s, {row['body'] / 1e6:.2f} MB of file bodies, "
                    f"peak {run.peak_kib / 1024:.0f} MiB")
            self.results.setdefault(key, {})[name] = dict(title=title.format(old=self.old), rows=rows)

    def bench_decoder(self):
        """The decoder alone on the artifacts of the changed files, as the apply uses them."""
        rows = []
        out = os.path.join(self.work, "decoded")
        for kind in ("patch", "zstd"):
            for entry in self.manifest("patched")["files"]:
                if entry["path"] not in {c["path"] for c in self.results["changed"]}:
                    continue
                if kind == "zstd" and "zstd" in entry:
                    artifact = f".zstd/{entry['sha256']}.zst"
                    source = []
                elif kind == "patch" and entry.get("zstdPatches"):
                    artifact = f".zstd/{entry['zstdPatches'][0]['from']}-{entry['sha256']}.zst"
                    source = [os.path.join(self.trees[self.old], entry["path"])]
                else:
                    continue
                path = os.path.join(self.www, "patched", artifact)
                best = None
                for _ in range(self.args.reps):
                    done = subprocess.run([self.args.decoder, path, out, str(entry["size"])] + source,
                                          capture_output=True, text=True)
                    result = json.loads(done.stdout)
                    self.expect(result["ok"], f"decoding {artifact}: {result['error']}")
                    best = result if best is None or result["seconds"] < best["seconds"] else best
                rows.append(dict(kind=kind, path=entry["path"], size=entry["size"], artifact=os.path.getsize(path),
                                 seconds=best["seconds"], peak_kib=best["peak_kib"]))
                say(f"decode {kind} {entry['path']}: {best['seconds']:.3f} s, peak {best['peak_kib'] / 1024:.0f} MiB")
        os.remove(out)
        self.results["decoder"] = rows

    def bench_rsync(self):
        daemon = RsyncDaemon(os.path.join(self.data, "rsyncd"), self.new, self.trees[self.new])
        daemon.start()
        install = os.path.join(self.work, "install")
        rows = []
        try:
            for _ in range(self.args.reps):
                self.install(install, "http://127.0.0.1:9/unused")
                run = run_timed(["rsync", "-a", "--checksum", "--stats", "--exclude", ".unpacked", daemon.url(),
                                 install + "/"])
                rows.append(dict(wall=run.wall, peak_kib=run.peak_kib, **parse_rsync_stats(run.output)))
                say(f"rsync: {run.wall:.2f} s, received {rows[-1]['received'] / 1e6:.2f} MB")
            self.expect(self.equals_new(install), f"rsync: the installation equals {self.new}")
        finally:
            daemon.stop()
        self.results["rsync"] = dict(rows=rows, version=tool_version(["rsync", "--version"]))

    def bench_links(self):
        """One apply of each variant through each link."""
        for label, rate in LINKS:
            limited = Nginx(os.path.join(self.data, "nginx-link"), self.www,
                            rate_limited={f"/{name}/": rate for name, _, _ in VARIANTS})
            limited.start()
            try:
                self.bench_apply(limited, key="link", reps=1)
            finally:
                limited.stop()
            self.results.setdefault("links", {})[label] = dict(rate=rate, apply=self.results.pop("link"))

    def run(self):
        self.results["started"] = datetime.datetime.now().astimezone().isoformat(timespec="seconds")
        self.results["load_before"] = os.getloadavg()
        os.makedirs(self.work, exist_ok=True)
        shutil.rmtree(self.locks, ignore_errors=True)
        os.makedirs(self.locks, mode=0o700)
        self.fetch()
        if self.args.links_only:
            self.expect(os.path.exists(os.path.join(self.www, "ready")), "links only: the builds are published")
            self.bench_links()
            return
        self.prepare()
        if self.args.prepare_only:
            return
        for name, _, _ in VARIANTS:
            artifacts = [a for f in self.manifest(name)["files"]
                         for a in ([f["zstd"]] if "zstd" in f else []) + f.get("zstdPatches", [])]
            self.results.setdefault("published", {})[name] = dict(artifacts=len(artifacts),
                                                                  artifact_bytes=sum(a["size"] for a in artifacts))
        nginx = Nginx(os.path.join(self.data, "nginx"), self.www)
        nginx.start()
        try:
            self.bench_apply(nginx)
        finally:
            nginx.stop()
        self.bench_links()
        self.bench_decoder()
        if not self.args.no_rsync:
            self.bench_rsync()
        shutil.rmtree(self.work, ignore_errors=True)
        self.results["load_after"] = os.getloadavg()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--pair", choices=sorted(PAIRS), default="libreoffice")
    parser.add_argument("--data-dir", required=True)
    parser.add_argument("--updater", required=True)
    parser.add_argument("--publish", required=True)
    parser.add_argument("--decoder", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--json", required=True)
    parser.add_argument("--reps", type=int, default=3)
    parser.add_argument("--no-rsync", action="store_true")
    parser.add_argument("--prepare-only", action="store_true", help="fetch and publish, measure nothing")
    parser.add_argument("--links-only", action="store_true",
                        help="only the applies through the links, into the results of an earlier full run")
    parser.add_argument("--source", default="unknown")
    args = parser.parse_args()
    bench = SmallUpdates(args)
    bench.run()
    bench.results["failures"] = bench.failures
    results = bench.results
    if args.links_only:
        with open(args.json) as f:
            results = json.load(f)
        results["links"] = bench.results.get("links", {})
        results["links_measured"] = dict(started=bench.results["started"], source=args.source)
        results["failures"] += bench.failures
        results.pop("apply_link", None)
        results.pop("link_rate", None)
    with open(args.json, "w") as f:
        json.dump(results, f, indent=1)
    if bench.failures:
        print("small-updates benchmark FAILED:\n  " + "\n  ".join(bench.failures), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
