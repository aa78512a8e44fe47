#!/usr/bin/env python3
"""Runs the real corvanta-publish against the rows of this file, each in a fresh work directory.

  publish_rows.py --publish corvanta-publish [--rows RE --jobs 2 --cmake C --generator G --key-build DIR]

R(name, files, step..., served=, served_zstd=): files maps work paths ("in/": the build, "out/": the published tree)
to `content` (None deletes) before the first step; served: out/ holds SERVED, published by hand (served_zstd: other
bytes as the notes' compressed copy). S(args, exit, lines, **fields): the exact lines of stdout when exit is 0, else
of stderr (a last "..." ends them; no progress lines). In texts {w} is the work directory, {k} the test keys, {src}
the source tree, {kb} the "embedded key" rows' build directory, {hash:C}/{zst:C} the SHA-256 and compressed-copy
path of content C. Step fields: files (before it), umask, program ({cmake}: one output line holds each expected
line), listed (after a build, each manifest entry in order, "path", "path zstd" or "path zstd patch:C": size and
SHA-256 are the input file's, each artifact lies in .zstd/ as listed, is smaller than what it stands in for and
decodes with the zstd tool to the file; out/ holds just these, the documents and `left`), header (the manifest's
keys but "files"; HEADER), after (path -> content or permission bits), trace (the last renames below out/ and
runs of writes, in order, as strace sees them), embeds (the one key, with LF line ends, in
{kb}'s key library). No step changes anything outside its output (--out, --out-dir; CMake's -B, --build), the tool
nothing when it fails; each published signature verifies with openssl and with the tool's verify.
"""

import argparse
import base64
import concurrent.futures
import functools
import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile
import threading

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path[:0] = [os.path.join(SOURCE_DIR, "tests", d) for d in ("support", "blackbox")]
from harness import read, sha256 as sha, sign, write, zstd  # noqa: E402
from updater_rows import pattern  # noqa: E402


def S(args, code=0, lines=(), **fields):
    return dict(fields, args=args, exit=code, **{"err" if code else "out": list(lines)})


def R(name, files, *steps, **fields):
    return dict(fields, name=name, files=files, steps=list(steps))


def build(*extra):
    """BUILD with each option of extra replacing its value there (--exclude and --delta-from: added)."""
    pairs, added = list(zip(extra[::2], extra[1::2])), ("--exclude", "--delta-from")
    options = dict(zip(BUILD[1::2], BUILD[2::2]), **{o: v for o, v in pairs if o not in added})
    return ["build", *[x for pair in [*options.items(), *[p for p in pairs if p[0] in added]] for x in pair]]


def published(files, mib, smaller=None, version="2.4.1", number=41):
    return [f"published {version} (build {number}): {files} files, {mib} MiB in {{w}}/out"] + (
        [f"smaller downloads in .zstd: {smaller}"] if smaller else [])


def verify(name, files, code, lines, key="{src}/keys/dev_public.pem", **fields):
    args = ["verify", "--dir", "{w}/out"] + (["--public-key", key] if key else [])
    return R("verify: " + name, files, S(args, code, lines), served=True, **fields)


DEV_PRIVATE = f"{SOURCE_DIR}/keys/dev_private.pem"
HEADER = {"arch": "x64", "buildNumber": 41, "fullVersion": "2.4.1", "product": "Corvanta"}
BUILD = ["build", "--input", "{w}/in", "--out", "{w}/out", "--version", "2.4.1", "--key", "{k}/private.pem",
         "--build-number", "41"]
COPIES = "{} compressed cop{} (0.{} MiB), {} patch{} (0.0 MiB)"
APP = {"in/app.exe": b"app"}
# The tree the verify rows check: data/notes.txt has a compressed copy and a patch from text1.
SERVED = {"app.exe": "pattern:300000:1", "bin/b.dll": b"bee", "data/c.dat": b"sea", "data/notes.txt": "text2"}
PATCH = ".zstd/{hash:text1}-{hash:text2}.zst"
FAILED = 'corvanta-publish: verify failed: {} problem(s) in "{{w}}/out"'
UNDECODABLE = 'corvanta-publish: does not decode to its file: "{zst:text2}" (compressed copy of "data/notes.txt"): '
BAD_SIGNATURE = "corvanta-publish: signature: manifest.json.sig does not verify manifest.json with "
OWN_KEY = {"out/manifest.json.sig": "sig:out/manifest.json:{k}/private.pem"}

ROWS = [
    # Hidden, nested, empty, non-ASCII and multi-chunk files, in code-unit order: "." and capitals
    # before lower case, "bin.txt" before "bin/".
    R("publishes every file, sorted and hashed, readable by everyone whatever the umask, manifest.json last",
      {"in/.config/settings.ini": b"[ui]\nlang=vi\n", "in/Zeta.txt": b"upper case sorts first", "in/b.txt": b"beta",
       "in/bin.txt": b"a dot sorts before a slash", "in/bin/core.dll": "pattern:2621441:7",
       "in/bin/plugins/p.dll": "pattern:4096:8", "in/empty.dat": b"",
       "in/tài liệu/ghi chú.txt": "xin chào".encode()},
      S(BUILD, 0, published(8, "2.5", COPIES.format(2, "ies", 0, 0, "es")), umask=0o077, listed=[
          ".config/settings.ini", "Zeta.txt", "b.txt", "bin.txt", "bin/core.dll zstd", "bin/plugins/p.dll zstd",
          "empty.dat", "tài liệu/ghi chú.txt"], after={"out/bin/plugins/p.dll": 0o644, "out/manifest.json": 0o644,
                                                       "out": 0o755, "out/bin/plugins": 0o755},
        trace=["write", "manifest.json", "manifest.json.sig", "write"])),
    R("republishing replaces the older build, keeps the files it dropped, patches from the tree it replaces; build "
      "number 0, an empty product and arch are left out",
      {"in/app.exe": "text1", "in/old.dll": b"only in build 1", "in/same.dat": b"unchanged"},
      S(build("--version", "1.0", "--zstd-level", "3", "--build-number", "0", "--product", "", "--arch", ""), 0,
        published(3, "0.2", COPIES.format(1, "y", 1, 0, "es"), "1.0", 0),
        listed=["app.exe zstd", "old.dll", "same.dat"],
        header={"buildNumber": 0, "fullVersion": "1.0"}),
      S(["verify", "--dir", "{w}/out", "--public-key", "{k}/public.pem"], 0, [
          "OK: version 1.0 (build 0), 3 files, signature valid", "OK: 1 compressed copy and 0 patches in .zstd"]),
      S(build("--version", "2.0", "--zstd-level", "3", "--delta-from", "{w}/out"), 0,
        published(3, "0.2", COPIES.format(1, "y", 1, 1, ""), "2.0"), header=dict(HEADER, fullVersion="2.0"),
        files={"in/old.dll": None, "in/app.exe": "text2", "in/lib/new.dll": b"new"}, left=["old.dll", "{zst:text1}"],
        listed=["app.exe zstd patch:text1", "lib/new.dll", "same.dat"])),
    R("excludes: names at any depth, paths from the root, case-sensitive; before links, pipes and bad names",
      {**{"in/" + p: b"x" for p in ["a.pdb", "app.exe", "bin/a.pdb", "bin/c.dll", "deep/logs/w.txt", "deep/sub/z.log",
                                    "logs/x.txt", "sub/z.log", "bad:name.PDB"]}, "in/c.dll": "link:app.exe",
       "in/deep/c.dll": "fifo:"}, S(build(*[x for p in ["/a.pdb", "*.PDB", "*/z.log", "logs/", "c.dll"] for x in (
           "--exclude", p)]), 0, published(3, "0.0"), listed=["app.exe", "bin/a.pdb", "deep/sub/z.log"])),
    R("a compressed copy and one patch per earlier content other than the file's, each only when smaller; an intact "
      "one from an earlier run is kept, a damaged one made again",
      {"in/a.txt": "text3", "in/new.txt": "text1", "in/r.bin": "random2", "in/s.txt": b"beta", "in/e.dat": b"",
       "e0/a.txt": "text1", "e0/r.bin": "random1", "e1/a.txt": "text2", "e2/a.txt": "text1", "e3/a.txt": "text3",
       "out/{zst:text1}": "zstd:1:text1", "out/{zst:text3}": b"bad"},
      S(build("--zstd-level", "3", *[x for e in "0123" for x in ("--delta-from", f"{{w}}/e{e}")]), 0,
        published(5, "0.5", COPIES.format(2, "ies", 1, 2, "es")), after={"out/{zst:text1}": "zstd:1:text1"},
        listed=["a.txt zstd patch:text1 patch:text2", "e.dat", "new.txt zstd", "r.bin", "s.txt"])),
    R("no patch for a file beyond the patch size limit", {"in/z.bin": "zeros1", "e0/z.bin": "zeros2"},
      S(build("--zstd-level", "3", "--delta-from", "{w}/e0"), 0,
        published(1, "80.0", COPIES.format(1, "y", 0, 0, "es")), listed=["z.bin zstd"])),
    verify("as published, with an unlisted file and the signature ending in CR LF",
           {"out/old/left-over.dll": b"x", "out/manifest.json.sig": "crlf:out/manifest.json.sig"}, 0,
           ["OK: Corvanta x64 2.0.0 (build 7), 4 files, signature valid", "OK: 1 compressed copy and 1 patch in .zstd"],
),
    verify("every problem, each on its line", dict(OWN_KEY, **{
        "out/app.exe": None, "out/bin/b.dll": "dir:", "out/data/c.dat": b"sea!", "out/{zst:text2}": None,
        "out/" + PATCH: "flip:patch:text1:text2"}), 1, [
        BAD_SIGNATURE + "this key", 'corvanta-publish: missing: "app.exe"', 'corvanta-publish: not a regular file: '
        '"bin/b.dll"', 'corvanta-publish: size differs: "data/c.dat" is listed with 3 bytes but has 4',
        'corvanta-publish: missing: "{zst:text2}" (compressed copy of "data/notes.txt")',
        f'corvanta-publish: content differs: "{PATCH}" (patch of "data/notes.txt") has SHA-256 '
        '{hash:flip:patch:text1:text2}, the manifest lists {hash:patch:text1:text2}', FAILED.format(6)]),
    verify("compressed copy of other content", {}, 1, [UNDECODABLE + "other content", FAILED.format(1)],
           served_zstd="zstd:19:text3"),
    verify("compressed copy that is not zstd", {}, 1, [UNDECODABLE + "zstd: Unknown frame descriptor",
                                                       FAILED.format(1)], served_zstd=b"not zstd at all"),
    verify("built-in key, signed by another", OWN_KEY, 1, [BAD_SIGNATURE + "the built-in key", FAILED.format(1)],
           key=None),
    verify("signed manifest with a hostile path", {"out/manifest.json": b'{"fullVersion":"2","files":[{"path":"../x.dll'
           b'","sha256":"ab"}]}', "out/manifest.json.sig": "sig:out/manifest.json"}, 1, [
        "corvanta-publish: manifest.json is not a usable manifest (not JSON, no fullVersion, no file entry, or a path "
        "the updater rejects)"]),
    R("keygen: a pair that signs, in a new directory, the private key its owner's alone whatever the umask; level 0: "
      "no compressed copies",
      {"a": "dir:"}, S(["keygen", "--out-dir", "a/b/keys"], 0, ["private key: a/b/keys/private.pem (keep it secret)",
        "public key:  a/b/keys/public.pem (build the updater with -DCORV_PUBLIC_KEY_FILE={w}/a/b/keys/public.pem)"],
        umask=0, after={"a/b/keys/private.pem": 0o600, "a/b/keys/public.pem": 0o644}),
      S(build("--key", "a/b/keys/private.pem", "--zstd-level", "0"), 0, published(1, "0.2"), files={
          "in/app.exe": "text1"}, listed=["app.exe"])),
]

# Names the updater or Windows cannot take, and entries that are not regular files: the path the
# error names (a file in the input beside bin/good.dll unless a third item gives the input), and why.
for named, reason, *entries in [
        ("bin/a\\b.dll", 'the updater reads "\\" as a directory separator'),
        ("a|b", 'Windows does not allow "|" in file names'),
        ("C:", 'the updater rejects names containing ":"'),
        ("Manifest.JSON.sig", "the updater keeps its own files under this name"),
        ("lib/com1.txt", '"COM1" is a reserved device name on Windows'),
        ("tab\there", "Windows does not allow control characters in file names"),
        ("notes.", "Windows drops a trailing dot or blank from file names"),
        ("data/x.BAK", 'the updater gives names ending in ".bak" to files of its own'),
        (".Zstd", "the publisher keeps compressed files and patches under this name"),
        ("data/Readme.txt", 'it differs from "data/README.txt" only in letter case, and Windows cannot hold both',
         {"data/Readme.txt": b"x", "data/README.txt": b"y"}),
        ("shared", "it is a symbolic link (publish the file itself, or leave it out with --exclude)",
         {"shared": "link:bin"}),
        ("run/pipe", "it is not a regular file or directory (a socket, pipe or device cannot be published)",
         {"run/pipe": "fifo:"})]:
    ROWS.append(R(f"refuses {named!r}", {"in/bin/good.dll": b"good", **{"in/" + p: c for p, c in (
        entries or [{named: b"x"}])[0].items()}}, S(BUILD, 1, [f'corvanta-publish: refusing "{named}": {reason}'])))

# One line on stderr: failures after the command line was read (exit status 1), wrong command lines
# (2, with a pointer to the help). Help: exit status 0, the usage first on stdout.
COMPLETE = ["build", "--input", "x", "--out", "y", "--key", "k.pem", "--build-number", "3", "--version", "1"]
CONTAIN = 'the input "{w}/in" and the output "{w}%s" must not contain each other'
KEY, P256 = 'key "{k}/%s" is not ', "an EC P-256 (prime256v1)"
for args, code, line in [
        (build("--input", "{w}/none"), 1, 'input directory "{w}/none" does not exist'),
        (build("--input", "{w}/empty"), 1, 'no files to publish in "{w}/empty"'),
        (build("--out", "{w}/in/pub"), 1, CONTAIN % "/in/pub"), (build("--out", "{w}"), 1, CONTAIN % ""),
        (build("--delta-from", "{w}/none"), 1, '--delta-from directory "{w}/none" does not exist'),
        (build("--key", "{k}/none.pem"), 1, 'cannot read key "{k}/none.pem": No such file or directory'),
        (build("--key", "{k}/garbage.pem"), 1, KEY % "garbage.pem" + "a PEM private key"),
        (build("--key", "{k}/public.pem"), 1, 'key "{k}/public.pem" is a public key; signing needs the private key'),
        (build("--key", "{k}/p384.pem"), 1, KEY % "p384.pem" + P256 + " key"),
        (build("--key", "{k}/encrypted.pem"), 1, 'key "{k}/encrypted.pem" is protected by a passphrase; decrypt a '
                                                 'copy first (openssl pkey -in KEY -out PLAIN.pem)'),
        (["verify", "--dir", "{w}/in"], 1, 'cannot read "{w}/in/manifest.json": No such file or directory'),
        (["verify", "--dir", "{w}", "--public-key", "{k}/garbage.pem"], 1, KEY % "garbage.pem" + "a PEM public key"),
        (["verify", "--dir", "{w}", "--public-key", "{k}/p384.pub"], 1, KEY % "p384.pub" + P256 + " public key"),
        (["keygen", "--out-dir", "{w}/file"], 1, 'cannot create directory "{w}/file"'),
        (["keygen", "--out-dir", "{w}/keys"], 1, 'refusing to overwrite existing key "{w}/keys/public.pem"'),
        ([], 2, "no command given"), (["sign"], 2, 'unknown command "sign"'),
        (COMPLETE[:-2], 2, "build needs --version"),
        (["verify", "--dir", "x", "y"], 2, 'unexpected argument "y"'), (["keygen", "--x"], 2, "Unknown option 'x'."),
        (["keygen", "--out-dir", ""], 2, "--out-dir is empty"), (COMPLETE + ["--out", ""], 2, "--out is empty"),
        (COMPLETE + ["--version", ""], 2, "--version is empty"),
        (COMPLETE + ["--version", "2\n1"], 2, "--version must not contain control characters"),
        *[(COMPLETE + ["--build-number", bad], 2, f'--build-number must be a whole number >= 0, not "{bad}"')
          for bad in ["-1", "1.5"]],
        *[(COMPLETE + ["--zstd-level", bad], 2, f'--zstd-level must be a whole number from 0 to 19, not "{bad}"')
          for bad in ["-1", "20", "x"]],
        (COMPLETE + ["--exclude", "["], 2, 'invalid --exclude pattern "["'),
        *[([word], 0, "Usage: corvanta-publish <command> [options]") for word in ["--help", "help"]],
        (["build", "--help"], 0, "Usage: corvanta-publish build --input DIR --out DIR --version V --build-number N")]:
    command = f" {args[0]}" if args and args[0] in ("build", "keygen", "verify") else ""
    lines = {0: [line, "..."], 1: ["corvanta-publish: " + line],
             2: [f"corvanta-publish: {line} (see corvanta-publish{command} --help)"]}[code]
    ROWS.append(R(f"{args[:1]} exits with {code}: {line}", dict(APP, file=b"x", empty="dir:", **{
        "keys/public.pem": "link:none"}), S(args, code, lines)))

# The key a build embeds: configuration refuses keys of the wrong shape, and the key library
# holds the key of a good one. These rows share one build directory, {kb}.
CONFIGURE = ["-S", "{src}", "-B", "{kb}", "-G", "{generator}", "-DBUILD_TESTING=OFF"]
SHAPE = 'is not a PEM "PUBLIC KEY" block of an EC P-256 key'
for key, message in [("none.pem", "does not exist or is not a file"), ("dir.pem", "does not exist or is not a file"),
                     ("comment.pub", SHAPE), ("p384.pub", SHAPE),
                     ("sm2.pub", "holds a public key that is not on curve P-256 (prime256v1)")]:
    ROWS.append(R(f"embedded key refused: {key}", {}, S(CONFIGURE + [f"-DCORV_PUBLIC_KEY_FILE={{k}}/{key}"], 1,
                  [f"CORV_PUBLIC_KEY_FILE: '{{k}}/{key}' {message}"], program="{cmake}")))
ROWS.append(R("embedded key accepted, with CR LF line ends", {},
              S(CONFIGURE + ["-DCORV_PUBLIC_KEY_FILE={k}/public_crlf.pem"], 0, ["Generating done"], program="{cmake}"),
              S(["--build", "{kb}", "--target", "corv_public_key"], 0, program="{cmake}",
                embeds="{k}/public_crlf.pem")))


def expect(actual, expected, what):
    if actual != expected:
        raise AssertionError(f"{what}:\n  got      {actual!r}\n  expected {expected!r}")


@functools.lru_cache(maxsize=None)
def generated(spec):
    """textN (a patch between two is small), randomN (incompressible), zerosN (just beyond the patch size
    limit), pattern:SIZE:SEED, flip:C (a bit of C changed), zstd:LEVEL:C and patch:FROM:TO (by the zstd tool)."""
    kind, n, arg = re.fullmatch(r"(\D+?)(\d*)(?::(.*))?", spec).groups()
    first, _, second = (arg or "").partition(":")
    return {"text": lambda: "".join(f"entry {i} = {(i * 7919 + (int(n) if i % 503 == 0 else 0)) % 100003}\n"
                                    for i in range(12000)).encode(),
            "random": lambda: b"".join(hashlib.sha256(f"{n}:{i}".encode()).digest() for i in range(3125)),
            "zeros": lambda: bytes(1000) + bytes([int(n)]) + bytes(80 * 1024 * 1024 - 1000),
            "pattern": lambda: pattern(int(first), int(second)),
            "flip": lambda: bytes(b ^ (i == 100) for i, b in enumerate(generated(arg))),
            "zstd": lambda: zstd([f"-{first}"], generated(second)),
            "patch": lambda: zstd(["-19"], generated(second), generated(first))}[kind]()


def content(spec, w):
    """bytes, "dir:", "link:T", "fifo:", `generated` content, or work file P changed: crlf:P (its text
    ending in CR LF), sig:P[:KEY] (its signature with KEY, by default the development key)."""
    kind, _, arg = spec.partition(":") if isinstance(spec, str) else ("", "", "")
    if kind in ("crlf", "sig"):
        path, _, key = arg.partition(":")
        data = read(os.path.join(w, path))
        return data.strip() + b"\r\n" if kind == "crlf" else sign(data, key or DEV_PRIVATE) + b"\n"
    return spec if kind in ("", "dir", "link", "fifo") else generated(spec)


def resolve(text, ctx):
    """text with its {name} and {name:C} tokens replaced, innermost first."""
    def one(m):
        data = m[2] and content(m[2], ctx["w"])
        return {"hash": lambda: sha(data), "zst": lambda: f".zstd/{sha(data)}.zst"}.get(m[1], lambda: ctx[m[1]])()
    replaced = re.sub(r"\{(\w+)(?::([^{}]*))?\}", one, text)
    return text if replaced == text else resolve(replaced, ctx)


def put(w, path, spec):
    full = os.path.join(w, path)
    if os.path.lexists(full):
        os.remove(full)
    if isinstance(spec, bytes):
        write(full, spec)
    elif spec is not None:
        os.makedirs(os.path.dirname(full), exist_ok=True)
        kind, _, arg = spec.partition(":")
        {"dir": os.makedirs, "link": lambda f: os.symlink(arg, f), "fifo": os.mkfifo}[kind](full)


def snapshot(top):
    return {os.path.relpath(path, top): (os.lstat(path).st_mode, os.readlink(path) if os.path.islink(path) else
                                         sha(read(path)) if os.path.isfile(path) else None)
            for base, dirs, names in os.walk(top) for path in (os.path.join(base, name) for name in dirs + names)}


def serve(w, copy):
    files = [{"path": path, "size": len(data), "sha256": sha(data)} for path, data in
             ((path, content(spec, w)) for path, spec in SERVED.items())]
    copy, patch, text1, text2 = (content(c, w) for c in (copy or "zstd:19:text2", "patch:text1:text2", "text1",
                                                          "text2"))
    files[-1].update(zstd={"size": len(copy), "sha256": sha(copy)},
                     zstdPatches=[{"from": sha(text1), "size": len(patch), "sha256": sha(patch)}])
    manifest = json.dumps(dict(HEADER, buildNumber=7, fullVersion="2.0.0", files=files)).encode()
    for path, data in [*SERVED.items(), (f".zstd/{sha(text2)}.zst", copy),
                       (f".zstd/{sha(text1)}-{sha(text2)}.zst", patch), ("manifest.json", manifest)]:
        put(w, "out/" + path, content(data, w))
    put(w, "out/manifest.json.sig", content("sig:out/manifest.json", w))


def run(program, args, w, umask=-1, trace=None):
    strace = ["strace", "-f", "-qq", "-e", "trace=rename,renameat,renameat2,write,pwrite64", "-o", trace]
    done = subprocess.run((strace if trace else []) + [program] + args, cwd=w, capture_output=True, timeout=840,
                          umask=umask)
    out, err = (stream.decode("utf-8", "replace").split("\n")[:-1] for stream in (done.stdout, done.stderr))
    progress = r'corvanta-publish: (copied \d+/\d+ files|compressing "|making a patch of ")'
    return done.returncode, out, [line for line in err if not re.match(progress, line)]


def check_published(step, ctx, args, publish):
    out, source, key = (resolve(args[args.index(name) + 1], ctx) for name in ("--out", "--input", "--key"))
    entries = (manifest := json.loads(read(f"{out}/manifest.json"))).pop("files")
    expect(manifest, step.get("header", HEADER), "manifest header")
    named = {sha(generated(n)): n for line in step["listed"] for n in re.findall(r"patch:(\S+)", line)}
    described, tree = [], ["manifest.json", "manifest.json.sig"] + [resolve(p, ctx) for p in step.get("left", [])]
    for entry in entries:
        description, bound = entry["path"], len(data := read(f"{source}/{entry['path']}"))
        for origin, artifact in ([(None, entry.pop("zstd"))] if "zstd" in entry else []) + [
                (named.get(patch.pop("from"), "?"), patch) for patch in entry.pop("zstdPatches", [])]:
            path = ".zstd/" + (f"{sha(generated(origin))}-" if origin else "") + sha(data) + ".zst"
            packed = read(f"{out}/{path}")
            expect((artifact, len(packed) < bound, zstd(["-d"], packed, origin and generated(origin)) == data),
                   ({"size": len(packed), "sha256": sha(packed)}, True, True),
                   f"{path}: listing, smaller than what it stands for, decodes to {entry['path']}")
            description += f" patch:{origin}" if origin else " zstd"
            bound = bound if origin else len(packed)
            tree.append(path)
        expect((entry, read(f"{out}/{entry['path']}")), (dict(path=entry["path"], size=len(data), sha256=sha(data)),
                                                           data), "manifest entry, published file")
        described, tree = described + [description], tree + [entry["path"]]
    expect(described, step["listed"], "manifest entries")
    expect(sorted(os.path.relpath(os.path.join(base, name), out) for base, _, names in os.walk(out) for name in names),
           sorted(tree), "published files")
    signature, public = read(f"{out}/manifest.json.sig"), os.path.join(ctx["w"], key.replace("private", "public"))
    checked = subprocess.run(["openssl", "dgst", "-sha256", "-verify", public, "-signature", "/dev/stdin",
                              "manifest.json"], input=base64.b64decode(signature), capture_output=True, cwd=out)
    ok = run(publish, ["verify", "--dir", ".", "--public-key", public], out)[::2]
    expect((signature.index(b"\n"), checked.stdout, ok), (len(signature) - 1, b"Verified OK\n", (0, [])), "signature")


CMAKE_LOCK = threading.Lock()  # the "embedded key" rows share their build directory


def run_row(row, o):
    cmake = any("program" in step for step in row["steps"])
    with tempfile.TemporaryDirectory(prefix="publish-rows-") as w, CMAKE_LOCK if cmake else threading.Lock():
        ctx = {"w": w, "k": o.keys, "src": SOURCE_DIR, "cmake": o.cmake, "generator": o.generator, "kb": o.key_build}
        if row.get("served"):
            serve(w, row.get("served_zstd"))
        for number, step in enumerate(row["steps"], 1):
            for path, spec in {**(row["files"] if number == 1 else {}), **step.get("files", {})}.items():
                put(w, resolve(path, ctx), content(resolve(spec, ctx) if isinstance(spec, str) else spec, w))
            args, where = [resolve(a, ctx) for a in step["args"]], f"step {number}"
            before = snapshot(w)
            trace = f"{w}.trace" if "trace" in step else None
            code, out, err = run(resolve(step.get("program", o.publish), ctx), args, w, step.get("umask", -1), trace)
            expect(code, step["exit"], f"{where}: exit status (stderr {err})")
            for stream, got in (("out", out), ("err", err)):
                wanted = [resolve(line, ctx) for line in step.get(stream, [])]
                if cmake:
                    got, wanted = [line for line in wanted if line not in " ".join(" ".join(got).split())], []
                if wanted[-1:] == ["..."]:
                    wanted, got = wanted[:-1], got[:len(wanted) - 1]
                expect(got, wanted, f"{where}: std{stream}")
            target = [args[i + 1] for i, a in enumerate(args[:-1]) if a in ("--out", "--out-dir", "-B", "--build")]
            target = os.path.relpath(os.path.join(w, target[0]), w) + "/" if target and (code == 0 or cmake) else "\0"
            after = snapshot(w)
            expect(sorted(p for p in set(before) | set(after) if before.get(p) != after.get(p)
                          and not (p + "/").startswith(target) and not target.startswith(p + "/")), [],
                   f"{where}: paths changed that this run may not change")
            if "listed" in step:
                check_published(step, ctx, args, o.publish)
            for path, want in step.get("after", {}).items():
                path = f"{w}/{resolve(path, ctx)}"
                expect(*((oct(os.stat(path).st_mode & 0o7777), oct(want)) if isinstance(want, int) else
                         (read(path), content(want, w))), f"{where}: {path}")
            if trace:
                events = []
                for line in open(trace, encoding="latin-1"):
                    renamed = re.search(r'rename\w*\(.*"([^"]*)"(?:, \w+)?\) = 0', line)
                    event = os.path.relpath(renamed.group(1), f"{w}/out") if renamed else "write" * ("write" in line)
                    events += [event] if event and events[-1:] != [event] else []
                os.remove(trace)
                expect(events[-len(step["trace"]):], step["trace"], f"{where}: the last renames and writes")
            if "embeds" in step:
                expect(re.findall(rb"-----BEGIN PUBLIC KEY-----[^\0]*", read(f"{o.key_build}/libcorv_public_key.a")),
                       [read(resolve(step["embeds"], ctx)).replace(b"\r\n", b"\n")], f"{where}: the embedded key")


def make_keys(keys):
    """The tests' own P-256 pair, and keys the tool must refuse, made with openssl."""
    for name, curve, more in [("private", "P-256", []), ("p384", "P-384", []), ("encrypted", "P-256", ["-aes128"])]:
        subprocess.run(["openssl", "genpkey", "-algorithm", "EC", "-pkeyopt", f"ec_paramgen_curve:{curve}", *more,
                        "-pass", "pass:x", "-out", f"{keys}/{name}.pem"], check=True, capture_output=True)
        public = f"{keys}/{'public.pem' if name == 'private' else name + '.pub'}"
        subprocess.run(["openssl", "pkey", "-in", f"{keys}/{name}.pem", "-passin", "pass:x", "-pubout", "-out", public],
                       check=True, capture_output=True)
    public = read(f"{keys}/public.pem")
    # The same length as a P-256 key, with the curve named SM2's.
    sm2 = base64.encodebytes(base64.b64decode(b"".join(public.splitlines()[1:-1])).replace(
        bytes.fromhex("2a8648ce3d030107"), bytes.fromhex("2a811ccf5501822d")))
    for name, data in [("garbage.pem", b"not a key\n"), ("public_crlf.pem", public.replace(b"\n", b"\r\n")),
                       ("comment.pub", b"# vendor key\n" + public), ("dir.pem/x", b""),
                       ("sm2.pub", b"-----BEGIN PUBLIC KEY-----\n" + sm2 + b"-----END PUBLIC KEY-----\n")]:
        write(f"{keys}/{name}", data)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for name, default in [("publish", None), ("rows", ""), ("cmake", "cmake"), ("generator", "Ninja"),
                          ("key-build", ""), ("jobs", "2")]:
        parser.add_argument("--" + name, default=default, required=default is None)
    o = parser.parse_args()

    def attempt(row):
        try:
            return run_row(row, o) or "ok"
        except Exception as e:  # noqa: BLE001 - any failure of a row is reported with it
            return f"FAILED: {e}"
    rows = [row for row in ROWS if re.search(o.rows, row["name"])]
    with tempfile.TemporaryDirectory(prefix="publish-keys-") as o.keys, concurrent.futures.ThreadPoolExecutor(
            int(o.jobs)) as pool:
        o.publish, o.key_build = os.path.abspath(o.publish), os.path.abspath(o.key_build or f"{o.keys}/build")
        make_keys(o.keys)
        failures = sum(print(f"{result}: {row['name']}") or result.startswith("FAILED")
                       for row, result in zip(rows, pool.map(attempt, rows)))
    print(f"{len(rows) - failures} of {len(rows)} rows passed")
    return 1 if failures or not rows else 0


if __name__ == "__main__":
    sys.exit(main())
