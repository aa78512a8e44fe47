"""Published builds for the benchmarks: build 1 and build 2 of each data set, generated once,
published with corvanta-publish into the directory nginx serves, and installations made from
build 1 for every repetition."""

import json
import os
import shutil
import subprocess

import tree

VERSION1, VERSION2 = "1.0.0", "2.0.0"


class Dataset:
    """Generated inputs in <data>/sets/<name>/{build1,build2}, published build 2 in
    <data>/www/<name>/, and build 1's manifest exactly as published."""

    def __init__(self, bench, name, build1, build2):
        self.bench = bench
        self.name = name
        self.build1 = build1
        self.build2 = build2
        self.dir = os.path.join(bench.data_dir, "sets", name)
        self.www = os.path.join(bench.data_dir, "www", name)
        self.manifest1_path = os.path.join(self.dir, "manifest1.json")
        old = {e.path: e for e in build1}
        self.changed = [e for e in build2 if old.get(e.path) != e]

    @property
    def input1(self):
        return os.path.join(self.dir, "build1")

    @property
    def input2(self):
        return os.path.join(self.dir, "build2")

    def _stamp(self):
        # Everything the published bytes depend on: a change in any entry regenerates the set.
        key = json.dumps([[e.path, e.size, e.seed] for e in self.build1 + self.build2])
        return f"{len(key)}:{hash_text(key)}"

    def prepare(self):
        stamp_path = os.path.join(self.dir, "ready")
        if os.path.exists(stamp_path) and open(stamp_path).read() == self._stamp() \
                and os.path.exists(os.path.join(self.www, "manifest.json.sig")):
            return
        self.bench.say(f"generating data set {self.name}: {len(self.build1)} files, "
                       f"{tree.total_size(self.build1) / tree.MIB:.0f} MiB, {len(self.changed)} changed")
        shutil.rmtree(self.dir, ignore_errors=True)
        shutil.rmtree(self.www, ignore_errors=True)
        tree.write_tree(self.input1, self.build1)
        tree.write_tree(self.input2, self.build2, reuse=(self.input1, self.build1))
        self._publish(self.input1, VERSION1, 1)
        shutil.copyfile(os.path.join(self.www, "manifest.json"), self.manifest1_path)
        self._publish(self.input2, VERSION2, 2)
        with open(stamp_path, "w") as f:
            f.write(self._stamp())

    def _publish(self, input_dir, version, build_number):
        # The generated files are random bytes: no compressed copy of them is ever smaller, so the
        # fastest zstd level publishes the same tree as the default 19, in a fraction of the time.
        subprocess.run(["nice", self.bench.publish_tool, "build", "--input", input_dir, "--out", self.www,
                        "--version", version, "--build-number", str(build_number), "--key", self.bench.key,
                        "--zstd-level", "1"],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def manifest2(self):
        with open(os.path.join(self.www, "manifest.json"), "rb") as f:
            return json.loads(f.read())

    def changed_bytes(self):
        return sum(e.size for e in self.changed)

    def url(self, path):
        return self.bench.nginx.url(f"{self.name}/{path}")

    def install(self, target, build=1, manifest=True):
        """A fresh installation of build 1 (or 2) in target: the build's files, the updater,
        updater.conf and, with manifest, the build's manifest.json. Written to disk (sync) so
        that a measurement does not pay for the previous one's write-back."""
        if os.path.lexists(target):
            subprocess.run(["rm", "-rf", target], check=True)
        source = self.input1 if build == 1 else self.input2
        subprocess.run(["cp", "-a", source, target], check=True)
        if manifest:
            shutil.copyfile(self.manifest1_path if build == 1 else os.path.join(self.www, "manifest.json"),
                            os.path.join(target, "manifest.json"))
        shutil.copy2(self.bench.updater, os.path.join(target, "updater"))
        with open(os.path.join(target, "updater.conf"), "w") as f:
            json.dump({"manifestUrl": self.url("manifest.json")}, f)
        os.sync()


def hash_text(text):
    import hashlib
    return hashlib.sha256(text.encode()).hexdigest()[:16]


def sha256_file(path):
    import hashlib
    h = hashlib.sha256()
    with open(path, "rb") as f:
        while True:
            chunk = f.read(1 << 20)
            if not chunk:
                return h.hexdigest()
            h.update(chunk)


def verify_installed(install, manifest, paths):
    """True when every file of `paths` in `install` has the manifest's size and SHA-256."""
    entries = {f["path"]: f for f in manifest["files"]}
    for path in paths:
        full = os.path.join(install, path)
        entry = entries[path]
        if not os.path.isfile(full) or os.path.getsize(full) != entry["size"] or sha256_file(full) != entry["sha256"]:
            return False
    return True
