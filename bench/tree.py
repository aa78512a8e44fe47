"""Deterministic installation trees for the benchmarks.

A tree is a list of Entry(path, size, seed); a file's bytes are the output of
random.Random(seed), so the same parameters always give the same files (and hashes) on every
machine. Build 2 of a data set keeps every file of build 1 except the changed ones, which get a
new seed and a slightly different size, as a recompiled binary or a re-exported asset would.
"""

import math
import os
import random
from dataclasses import dataclass

KIB = 1024
MIB = 1024 * 1024
GIB = 1024 * MIB
WRITE_CHUNK = 1 * MIB


@dataclass(frozen=True)
class Entry:
    path: str
    size: int
    seed: int


# Where the files of a desktop application live, and what they are called there.
_DIRS = [
    ("bin", "lib", ".dll"), ("bin/platforms", "q", ".dll"), ("bin/imageformats", "img", ".dll"),
    ("plugins/import", "imp", ".dll"), ("plugins/export", "exp", ".dll"), ("plugins/render", "rnd", ".dll"),
    ("resources/icons/16", "icon", ".png"), ("resources/icons/32", "icon", ".png"),
    ("resources/icons/64", "icon", ".png"), ("resources/fonts", "font", ".ttf"),
    ("resources/sounds", "sfx", ".wav"), ("resources/templates", "tpl", ".json"),
    ("resources/styles", "style", ".qss"), ("data/maps", "map", ".bin"), ("data/catalog", "cat", ".db"),
    ("data/presets", "preset", ".json"), ("translations", "corvanta_", ".qm"), ("docs/help", "page", ".html"),
    ("docs/help/images", "shot", ".png"), ("samples", "sample", ".cvp"),
]


def _log_uniform(rng, low, high):
    return int(math.exp(rng.uniform(math.log(low), math.log(high))))


def _small_path(index, rng):
    directory, stem, ext = _DIRS[rng.randrange(len(_DIRS))]
    return f"{directory}/{stem}{index:05d}{ext}"


def realistic_tree(total_bytes, file_count, seed):
    """About file_count files summing to exactly total_bytes: three large packs and libraries
    (3/8 of the bytes), 2% medium files of 1-24 MiB, the rest small files of 200 B-1 MiB
    (log-uniform, as in a real installation: many icons and translations, few big archives)."""
    rng = random.Random(seed)
    large_total = total_bytes * 3 // 8
    large = [("data/content.pak", large_total // 2), ("resources/media.pak", large_total // 3),
             ("bin/Corvanta.core.dll", large_total - large_total // 2 - large_total // 3)]
    exe_size = 6 * MIB + 123457
    rest = file_count - len(large) - 1
    medium_count = max(1, rest // 50)
    sizes = [_log_uniform(rng, 1 * MIB, 24 * MIB) for _ in range(medium_count)]
    sizes += [_log_uniform(rng, 200, 1 * MIB) for _ in range(rest - medium_count)]
    # Scale the medium and small files so that the tree holds exactly total_bytes.
    budget = total_bytes - large_total - exe_size
    scale = budget / sum(sizes)
    sizes = [max(1, int(s * scale)) for s in sizes]
    sizes[-1] += budget - sum(sizes)
    entries = [Entry(path, size, rng.getrandbits(63)) for path, size in large]
    names = set(e.path for e in entries)
    for index, size in enumerate(sizes):
        path = _small_path(index, rng)
        if index < medium_count:
            path = path.rsplit(".", 1)[0] + ".pak"
        assert path not in names
        names.add(path)
        entries.append(Entry(path, size, rng.getrandbits(63)))
    entries.append(Entry("Corvanta.exe", exe_size, rng.getrandbits(63)))
    return entries


def small_files_tree(count, seed):
    """count small files of 1-32 KiB (log-uniform) spread over the application's folders."""
    return sized_files_tree(count, 1 * KIB, 32 * KIB, seed)


def sized_files_tree(count, low, high, seed):
    """count files of low-high bytes (log-uniform) spread over the application's folders."""
    rng = random.Random(seed)
    return [Entry(_small_path(i, rng), _log_uniform(rng, low, high), rng.getrandbits(63)) for i in range(count)]


def one_big_file_tree(big_path, big_size, seed):
    """One big file beside a few small ones."""
    rng = random.Random(seed)
    entries = [Entry(big_path, big_size, rng.getrandbits(63))]
    entries += [Entry(f"bin/lib{i}.dll", 100 * KIB + i, rng.getrandbits(63)) for i in range(3)]
    entries.append(Entry("Corvanta.exe", 2 * MIB, rng.getrandbits(63)))
    return entries


def change(entries, paths, seed):
    """Build 2: the given paths get new content and a size within 5% of the old one."""
    rng = random.Random(seed)
    wanted = set(paths)
    result = []
    for e in entries:
        if e.path in wanted:
            size = max(1, int(e.size * rng.uniform(0.95, 1.05)))
            result.append(Entry(e.path, size, rng.getrandbits(63)))
        else:
            result.append(e)
    return result


def change_with_size(entries, path, size, seed):
    """Build 2 in which only `path` changes, to exactly `size` bytes."""
    rng = random.Random(seed)
    return [Entry(e.path, size, rng.getrandbits(63)) if e.path == path else e for e in entries]


def pick_changed(entries, fraction, must, seed):
    """The paths that build 2 changes: `must` plus random others, fraction of the file count."""
    rng = random.Random(seed)
    count = max(1, round(len(entries) * fraction))
    others = [e.path for e in entries if e.path not in must]
    return list(must) + rng.sample(others, count - len(must))


def write_file(path, size, seed):
    rng = random.Random(seed)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        left = size
        while left > 0:
            n = min(left, WRITE_CHUNK)
            f.write(rng.randbytes(n))
            left -= n


def write_tree(root, entries, reuse=None):
    """Writes entries under root. With reuse=(old_root, old_entries), files that are the same
    in both are hard-linked from old_root instead of written again."""
    same = {}
    if reuse:
        old_root, old_entries = reuse
        same = {e.path: e for e in old_entries}
    for e in entries:
        target = os.path.join(root, e.path)
        if same.get(e.path) == e:
            os.makedirs(os.path.dirname(target), exist_ok=True)
            os.link(os.path.join(reuse[0], e.path), target)
        else:
            write_file(target, e.size, e.seed)


def total_size(entries):
    return sum(e.size for e in entries)
