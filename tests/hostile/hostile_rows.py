"""The rows of hostile_runner.py: the real updater, in apply or in prefetch mode, once per row
against support/fault_server.py. An installation of build 1.0 (number 10) meets build 2.0
(number 11), or a hostile variant of it.

Each row is a dict:
  name     what the row shows
  mode     "apply" or "prefetch" (--prefetch-only)
  publish  what the server publishes instead of build 2.0 as it is, all keys optional:
           build        the published files ({path: bytes}; default BUILD2)
           manifest     keys set in the manifest (product, arch, fullVersion, buildNumber)
           patch, zstd  lib/c.bin's patch from build 1 and compressed copy, listed with these bytes
           hostile_path one more entry with this path among 30 more good ones
           extra_sizes  more entries "more/fNNNN.bin" of these sizes (None: without "size")
           serve        {path: bytes} served instead of the listed bytes or the documents
           signature    "of another manifest" or "by another key" instead of the right one
           sig_size     the signature padded with line feeds to this many bytes
  rules    {path below the row's directory: fault_server.py rule}; a relative redirect target
           is below the row's directory too
  seed     lib/c.bin.part of that many right bytes in the cache before the run, or
           {path below .update-cache: bytes}
  volume   the size of a tmpfs mounted for the row's installation (root only; skipped elsewhere)
  app_ends  the run names a process with --wait-pid, which ends once the server saw a request
           for this path, or once (path, size): the installation's file holds that many bytes
  then     the mode of a second run after the first; its lines follow the first run's
  link     (kind, path): planted in the installation first, kind "dir" or "file" (a link to a
           directory or a file outside the installation, the file holding what the
           installation had there or else lib/c.bin's first 1000 bytes), "hard" (a second
           name of such a file), "fifo", or "zero" (a link to /dev/zero)
  lines    the run's own log texts ("[Update] ..." or "[UpdatePrefetch] ..."), exactly: "*"
           stands for any text of the line, " ||| " separates the texts a line may have
           instead, "{url}" is the row's base URL; a compiled expression stands for any
           lines it matches
  alternatives  other whole outcomes that are just as right. A connection cut in the middle
           of a body is not always reported as an error by Qt: the body then merely ends
           short, and the length or signature check catches it instead
  updates  the installation must become build 2.0 (else it must stay as it was)
  cache    exactly what .update-cache holds afterwards: {path: bytes, the name of a file the
           row publishes, or a JSON document where "{url}" is the row's base URL}
  requests exactly the requests the server saw, in order: "path", or "path bytes=N-M" with a
           Range ("*" stands for any text)
  paced    (path, least, most): seconds from the first request of path to the run's next request
           for another path
  slow     the row waits out the inactivity or slow-transfer limits for real
"""

import os
import re
import sys

TESTS = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path[:0] = [os.path.join(TESTS, "support"), os.path.join(TESTS, "blackbox")]
from harness import sha256, zstd  # noqa: E402
from updater_rows import pattern  # noqa: E402


def numbered(edition):
    """60000 bytes of numbered lines, every 50th of which differs between editions: lib/c.bin
    compresses, and a patch between two editions is small."""
    text = b"".join(b"entry %d = %d\n" % (i, (i * 7919 + (edition if i % 50 == 0 else 0)) % 100003)
                    for i in range(6000))
    return text[:60000]


F, M, S = "lib/c.bin", "manifest.json", "manifest.json.sig"
NAMES = {M: "manifest", S: "signature"}
BUILD1 = {"a.bin": pattern(20000, 1), "b.bin": pattern(5000, 2), "d.txt": b"delta", F: numbered(3)}
# Against build 1: a.bin, e.txt (new) and lib/c.bin change, in this manifest order.
BUILD2 = dict(BUILD1, **{"a.bin": pattern(20000, 11), "e.txt": b"echo", F: numbered(13)})
OLDER = dict(BUILD1, **{"a.bin": pattern(20000, 21), F: numbered(23)})
EMPTY_E = dict(BUILD2, **{"e.txt": b""})
C1, C2 = BUILD1[F], BUILD2[F]


PATCH, PACKED, OTHER_PATCH = zstd(["-19"], C2, C1), zstd(["-19"], C2), zstd(["-19"], C2, OLDER[F])
PATCH_PATH, PACKED_PATH = f".zstd/{sha256(C1)}-{sha256(C2)}.zst", f".zstd/{sha256(C2)}.zst"
CORRUPT_PATCH = bytearray(PATCH)
CORRUPT_PATCH[len(PATCH) // 2] ^= 0x55
CORRUPT_PATCH = bytes(CORRUPT_PATCH)
# From a pipe the tool knows no size to shrink its window to: 256 MiB.
WIDE_WINDOW = zstd(["--long=28"], C2)

ENDLESS, GZIP = {"endless": True}, {"gzipBytes": 1 << 30}  # 1 GiB of zeros in about 1 MB of gzip
CHUNKED = {"endless": True, "chunked": True}
DRIP = {"chunkBytes": 1, "chunkPauseSeconds": 3}  # never 10 s silent, always too slow
CANCELED, TOO_BIG_SIG = "Operation canceled", "body larger than 65536 bytes"


def status(code, times=-1):
    return {"status": code, "times": times}


def corrupt(times=-1):
    return {"corruptBody": True, "times": times}


def manifest_fails(document, error="*"):
    url = '"{url}' + document + '"'
    return [f'[Update] GET loi {url} "{error}"', f"[Update] thu lai GET {url} lan 2",
            f'[Update] GET loi {url} "{error}"',
            f'[Update] tai {"manifest" if document == M else ".sig"} that bai -> chay ban hien tai']


def file_fails(path, error="*"):
    return [f'[Update] GET(file) loi "{{url}}{path}" "{error}"',
            f'[Update] tai "{path}" that bai -> huy, chay ban hien tai']


def applied(wire=80004, whole=80004):
    """The end of a completed update: by default the three changed files came whole."""
    return ["[Update] dung 0 / 3 file tu kho tam", f"[Update] da tai qua mang {wire} byte (ca file: {whole} byte)",
            '[Update] CAP NHAT THANH CONG -> "2.0"']


BAD_SIG = "[Update] CHU KY MANIFEST SAI -> KHONG ap, chay ban hien tai"
HASH_WRONG = '[Update] hash lech "lib/c.bin" -> bo phan da co, tai lai tu dau'
HASH_STILL_WRONG = '[Update] hash van lech "lib/c.bin" -> huy'
RESUMING = '[Update] "lib/c.bin" noi tiep tu kho tam: 1000 byte'
RESUME_FAILED = '[Update] tai tiep "lib/c.bin" that bai -> thu lai tu dau'
OTHERS = 20000 + 4  # a.bin and e.txt, whole, beside lib/c.bin's smaller download


def choice(kind, size):
    return f'[Update] "lib/c.bin" tai {kind} {size} byte thay vi 60000 byte'


def fell_back(kind, reason, then="tai ca file"):
    return f'[Update] {kind} cho "lib/c.bin" hong ({reason}) -> {then}'


def apply(name, lines, **fields):
    return dict(name="apply, " + name, mode="apply", lines=lines, **fields)


def prefetch(name, lines, **fields):
    return dict(name="prefetch, " + name, mode="prefetch", lines=lines, **fields)


SIX_MORE = dict(BUILD1, **{f"more/f{i}.bin": pattern(8192, 30 + i) for i in range(6)})

HOSTILE_PATHS = ["../escape.txt", "lib/../../escape.txt", "..\\escape.txt", "/tmp/escape.txt", "C:/escape.txt",
                 "lib/./c.bin", "x:stream", "LIB/C.BIN", "lib/c.bin/x", "lib/c.bin.bak", "manifest.json", ".staging/x",
                 "updater.log", "manifest.json.", "lib/c.bin.", "lib/c.bin ", "lib/nul"]
# A size no file can have: the manifest is rejected, not read as "no size".
IMPOSSIBLE_SIZES = [-1, 1e19, 9007199254740994]
WHOLE = applied()

APPLY = [
    # HTTP errors and broken transfers of the two documents: two attempts, then no update.
    *[apply(f"{NAMES[doc]} {code}", manifest_fails(doc), rules={doc: status(code)})
      for doc, code in [(M, 404), (M, 500), (S, 403), (S, 503)]],
    # An empty body is no document: one request, no retry.
    *[apply(f"{NAMES[doc]} served empty", [f"[Update] tai {what} that bai -> chay ban hien tai"],
            publish={"serve": {doc: b""}}, requests=[M, S][:1 + (doc == S)])
      for doc, what in [(M, "manifest"), (S, ".sig")]],
    # A cut that Qt reports as a short but complete body fails the signature check instead.
    *[apply(f"{NAMES[doc]} cut mid-body", manifest_fails(doc), rules={doc: {"closeAfterBytes": cut}},
            alternatives=[[BAD_SIG], manifest_fails(doc)[:2] + [BAD_SIG]]) for doc, cut in [(M, 200), (S, 20)]],
    apply("manifest redirect loop", manifest_fails(M), rules={M: {"redirectTo": M}}),
    apply("manifest 500 once", manifest_fails(M)[:2] + WHOLE, rules={M: status(500, 1)}, updates=True),
    # Wrong bytes where the signature protects them.
    apply("manifest wrong bytes", [BAD_SIG], rules={M: corrupt()}),
    apply("signature wrong bytes", [BAD_SIG], rules={S: corrupt()}),
    apply("signature of another manifest", [BAD_SIG], publish={"signature": "of another manifest"}),
    apply("signed with an untrusted key", [BAD_SIG], publish={"signature": "by another key"}),
    # Signed manifests that must still not be acted on.
    apply("other product", ["[Update] MANIFEST KHONG DANH CHO BAN NAY: product=Other (can Corvanta) -> KHONG ap, "
                            "chay ban hien tai"], publish={"manifest": {"product": "Other"}}),
    apply("other architecture", ["[Update] MANIFEST KHONG DANH CHO BAN NAY: arch=arm64 (can x64) -> KHONG ap, "
                                 "chay ban hien tai"], publish={"manifest": {"arch": "arm64"}}),
    apply("older build replayed", ['[Update] da moi nhat: "0.9"'],
          publish={"build": OLDER, "manifest": {"fullVersion": "0.9", "buildNumber": 9}}),
    apply("installed build number replayed with other files", ['[Update] da moi nhat: "1.0-replay"'],
          publish={"manifest": {"fullVersion": "1.0-replay", "buildNumber": 10}}),
    *[apply(f"one hostile path among 36: {path}", ["[Update] manifest hong"], publish={"hostile_path": path})
      for path in HOSTILE_PATHS],
    *[apply(f"file size {size}", ["[Update] manifest hong"], publish={"extra_sizes": [size]})
      for size in IMPOSSIBLE_SIZES],
    # The signature is read up to 64 KiB, line feeds after it included.
    apply("signature of exactly 65536 bytes", WHOLE, publish={"sig_size": 65536}, updates=True),
    apply("signature of 65537 bytes", manifest_fails(S, TOO_BIG_SIG), publish={"sig_size": 65537}),

    # The files: any failed transfer gives the update up before anything is replaced.
    apply("file 404", file_fails(F), rules={F: status(404)}),
    apply("file 500", file_fails(F), rules={F: status(500)}),
    # A cut reported as a short body fails the hash check, and the second download with it.
    apply("file cut mid-body", file_fails(F), rules={F: {"closeAfterBytes": 5000}},
          alternatives=[[HASH_WRONG, HASH_STILL_WRONG], [HASH_WRONG, file_fails(F)[0], HASH_STILL_WRONG]]),
    apply("file redirect loop", file_fails(F), rules={F: {"redirectTo": F}}),
    apply("file wrong bytes", [HASH_WRONG, HASH_STILL_WRONG], rules={F: corrupt()}),
    apply("file wrong bytes once", [HASH_WRONG] + applied(80004 + 60000), rules={F: corrupt(1)}, updates=True),
    apply("file shorter than its manifest entry", [HASH_WRONG, HASH_STILL_WRONG], publish={"serve": {F: C2[:30000]}}),
    apply("file 206 without a range", WHOLE, rules={F: {"partialWithoutRange": True}}, updates=True),
    # A redirect out of HTTP must not read a local file as the download.
    apply("file redirected to file:///etc/hostname", file_fails(F), rules={F: {"redirectTo": "file:///etc/hostname"}}),
    apply("file redirected once to a mirror", WHOLE, rules={F: {"redirectTo": "mirror/c.bin"}}, updates=True),
    # A resume from the cache that the server answers with the whole file: rewritten from 0.
    apply("file 200 for a range", [RESUMING] + WHOLE, seed=1000, rules={F: {"ignoreRange": True}}, updates=True),

    # Smaller downloads of lib/c.bin: the smallest usable one, and on any failure the next, the
    # whole file last; every row ends verified as build 2.0.
    apply("smaller: the patch for the installed file", [choice("patch", len(PATCH))] + applied(OTHERS + len(PATCH)),
          publish={"patch": PATCH, "zstd": PACKED}, updates=True),
    *[apply(f"smaller: patch answers {code}, then the whole file",
            [choice("patch", len(PATCH)), f'[Update] GET(file) loi "{{url}}{PATCH_PATH}" "*"',
             fell_back("patch", "tai that bai")] + applied(OTHERS + 60000),
            publish={"patch": PATCH}, rules={PATCH_PATH: status(code)}, updates=True) for code in (404, 500)],
    apply("smaller: patch with wrong bytes, then the whole file",
          [choice("patch", len(PATCH)), fell_back("patch", "hash lech")] + applied(OTHERS + len(PATCH) + 60000),
          publish={"patch": PATCH}, rules={PATCH_PATH: corrupt()}, updates=True),
    apply("smaller: a corrupt patch as published, then the whole file",
          [choice("patch", len(PATCH)), fell_back("patch", "zstd: Data corruption detected")]
          + applied(OTHERS + len(PATCH) + 60000), publish={"patch": CORRUPT_PATCH}, updates=True),
    apply("smaller: a patch made from another file, then the whole file",
          [choice("patch", len(OTHER_PATCH)), fell_back("patch", "zstd: Restored data doesn't match checksum")]
          + applied(OTHERS + len(OTHER_PATCH) + 60000), publish={"patch": OTHER_PATCH}, updates=True),
    # Cut twice: fetched ahead, then again in its turn, alone, which alone is reported.
    apply("smaller: compressed copy cut off mid-body, then the whole file",
          [choice("ban nen", len(PACKED)), f'[Update] GET(file) loi "{{url}}{PACKED_PATH}" "*"',
           fell_back("ban nen", "tai that bai")] + applied(OTHERS + 2 * (len(PACKED) // 2) + 60000),
          publish={"zstd": PACKED}, rules={PACKED_PATH: {"closeAfterBytes": len(PACKED) // 2}}, updates=True),
    apply("smaller: a truncated compressed copy as published, then the whole file",
          [choice("ban nen", len(PACKED) // 2), fell_back("ban nen", "zstd: frame bi cat ngang")]
          + applied(OTHERS + len(PACKED) // 2 + 60000), publish={"zstd": PACKED[:len(PACKED) // 2]}, updates=True),
    apply("smaller: compressed copy answers 503, then the whole file",
          [choice("ban nen", len(PACKED)), f'[Update] GET(file) loi "{{url}}{PACKED_PATH}" "*"',
           fell_back("ban nen", "tai that bai")] + applied(OTHERS + 60000),
          publish={"zstd": PACKED}, rules={PACKED_PATH: status(503)}, updates=True),
    apply("smaller: patch missing, compressed copy with wrong bytes, then the whole file",
          [choice("patch", len(PATCH)), f'[Update] GET(file) loi "{{url}}{PATCH_PATH}" "*"',
           fell_back("patch", "tai that bai", "tai ban nen"), choice("ban nen", len(PACKED)),
           fell_back("ban nen", "hash lech")] + applied(OTHERS + len(PACKED) + 60000),
          publish={"patch": PATCH, "zstd": PACKED}, rules={PATCH_PATH: status(404), PACKED_PATH: corrupt()},
          updates=True),
    apply("smaller: patch without end, then the whole file",
          [choice("patch", len(PATCH)), file_fails(PATCH_PATH, f"file larger than {len(PATCH)} bytes")[0],
           fell_back("patch", "tai that bai"), WHOLE[0], "[Update] da tai qua mang * byte (ca file: 80004 byte)",
           WHOLE[2]],
          publish={"patch": PATCH}, rules={PATCH_PATH: ENDLESS}, updates=True),

    # Links among the updater's own files, to a directory or a file outside the installation:
    # removed as links, never followed, and the run goes on.
    *[apply(f"link at {path}", WHOLE, link=(kind, path), updates=True)
      for kind, path in [("dir", ".staging"), ("file", "updater.log"), ("file", M)]],
    # A FIFO or a link to /dev/zero at the record, at an installed file or at the configuration:
    # never opened, the first two replaced by the update, the last one no configuration.
    *[apply(f"{kind} at {path}", WHOLE, link=(kind, path), updates=True)
      for path in (M, F) for kind in ("fifo", "zero")],
    *[apply(f"{kind} at updater.conf", ["[Update] khong co updater.conf -> bo qua update"], link=(kind, "updater.conf"))
      for kind in ("fifo", "zero")],

    # Bodies beyond their bound: the manifest is cut off beyond 16 MiB, the signature beyond
    # 64 KiB, a file beyond its manifest size (0 included); a gzip body is refused before
    # anything inflates it.
    apply("endless manifest", manifest_fails(M, "body larger than 16777216 bytes"), rules={M: ENDLESS}),
    apply("endless signature", manifest_fails(S, TOO_BIG_SIG), rules={S: ENDLESS}),
    apply("endless file", file_fails(F, "file larger than 60000 bytes"), rules={F: ENDLESS}),
    *[apply(name, file_fails(F, "file larger than 60000 bytes"), publish={"serve": {F: C2 + tail}})
      for name, tail in [("file longer than its manifest entry", pattern(20000, 99)),
                         ("file one byte too long", b"x")]],
    # The resume from the cache is answered beyond the file's size, and so is the fresh
    # download after it.
    *[apply(name, [RESUMING, file_fails(F, "file larger than 60000 bytes")[0], RESUME_FAILED]
            + file_fails(F, "file larger than 60000 bytes"), seed=1000, **fields)
      for name, fields in [("endless file while resuming", {"rules": {F: ENDLESS}}),
                           ("resumed one byte beyond", {"publish": {"serve": {F: C2 + b"x"}}}),
                           ("resume answered whole, one byte beyond",
                            {"publish": {"serve": {F: C2 + b"x"}}, "rules": {F: {"ignoreRange": True}}})]],
    # Qt reads a body only once the reply's read-buffer size is in force, whatever the thread
    # that started the request is doing: ten runs, none of which may pass the memory bound.
    *[apply(f"endless chunked file, trial {trial}", file_fails(F, "file larger than 60000 bytes"), rules={F: CHUNKED})
      for trial in range(1, 11)],
    # After a redirect Qt starts a new request, which gets the same read-buffer size (Qt itself
    # never hands it on: without it, 6 of 10 such runs took 0.5 to 1.3 GB).
    *[apply(f"file redirected to an endless body, trial {trial}", file_fails(F, "file larger than 60000 bytes"),
            rules={F: {"redirectTo": "mirror/c.bin"}, "mirror/c.bin": CHUNKED}) for trial in range(1, 11)],
    # A file of size 0 accepts an empty body only.
    apply("file of size 0 sent without end", file_fails("e.txt", "file larger than 0 bytes"),
          publish={"build": EMPTY_E}, rules={"e.txt": ENDLESS}),
    apply("file of size 0 sent as one byte", file_fails("e.txt", "file larger than 0 bytes"),
          publish={"build": EMPTY_E, "serve": {"e.txt": b"x"}}),
    apply("file of size 0", applied(80000, 80000), publish={"build": EMPTY_E}, updates=True),
    *[apply(f"gzip {name}", lines, rules={path: GZIP}) for name, path, lines in [
        ("manifest", M, manifest_fails(M, "Content-Encoding gzip not accepted")),
        ("signature", S, manifest_fails(S, "Content-Encoding gzip not accepted")),
        ("file", F, file_fails(F, "Content-Encoding gzip not accepted"))]],

    # Statuses that are neither 200 nor 206 write nothing, and are not taken for a download.
    apply("file 304", ['[Update] tai "lib/c.bin" that bai -> huy, chay ban hien tai'], rules={F: status(304)}),
    # The inactivity limit counts from the last progress: pauses of 6 s in the signature and in
    # a.bin pass; lib/c.bin, silent after its first 1000 bytes, ends 10 s after a.bin's last
    # bytes, when no GET has moved since, and again 10 s into its second GET in its turn, which
    # alone is reported (unlabelled, unlike the stalls below).
    apply("pauses of 6 s pass, 10 s in which no GET moves do not", file_fails(F, CANCELED),
          rules={S: {"chunkBytes": 40, "chunkPauseSeconds": 6}, "a.bin": {"chunkBytes": 10000, "chunkPauseSeconds": 6},
                 F: {"stallAfterBytes": 1000, "stallSeconds": 20}}),
    # A server that answers two GETs of a client at once and turns the others away as busy
    # (nginx's limit_conn answers 503): served, as it is when asked one file at a time.
    # When the first file's GET is turned away (late, while two others are answered), the lone GET
    # that follows waits for those two to end: dropped, they would count against the server's
    # limit a while longer and have it turned away too.
    *[apply(f"six files from a server that answers two GETs at once{name}",
            ["[Update] dung 0 / 6 file tu kho tam", "[Update] da tai qua mang * byte (ca file: 49152 byte)", WHOLE[2]],
            publish={"build": SIX_MORE},
            rules={p: {"answersAtOnce": 2, "chunkBytes": 2048, "chunkPauseSeconds": 0.25,
                       **({"busyFirst": 1, "busySeconds": 0.3} if first and p == "more/f0.bin" else {})}
                   for p in SIX_MORE}, updates=True)
      for name, first in [("", False), (", the first file's GET turned away", True)]],
    # Compressed copies that do not decode to exactly the listed file, then the whole file.
    *[apply(f"smaller: compressed copy {name}, then the whole file",
            [choice("ban nen", len(packed)), fell_back("ban nen", reason)] + applied(OTHERS + len(packed) + 60000),
            publish={"zstd": packed}, updates=True) for name, packed, reason in [
        ("with a byte after its frame", PACKED + b"x", "du lieu thua sau frame zstd"),
        ("of two frames", PACKED * 2, "du lieu thua sau frame zstd"),
        ("that is no zstd", pattern(5000, 7), "zstd: Unknown frame descriptor"),
        ("a byte longer", zstd(["-19"], C2 + b"x"), "giai ra qua 60000 byte"),
        ("a byte shorter", zstd(["-19"], C2[:-1]), "giai ra 59999 / 60000 byte"),
        ("with a window beyond the limit", WIDE_WINDOW, "zstd: Frame requires too much memory for decoding")]],
    # A link at the cache or at another build's directory in it goes as a link.
    *[apply(f"link at {path}", WHOLE, link=("dir", path), updates=True)
      for path in (".update-cache", ".update-cache/0.9")],
]

P = "[UpdatePrefetch] "
DOCUMENT_FAILED = P + "tai manifest/sig hong -> thoi (updater se tu tai): "
REJECTED = [P + "CHU KY MANIFEST SAI -> khong tai san gi ca"]
START = [P + "bat dau 2.0 - 3 file, 0 MB", P + "a.bin tai tu dau 19 KB", P + "a.bin xong ( 1 / 3 )",
         P + "e.txt tai tu dau 0 KB", P + "e.txt xong ( 2 / 3 )"]  # up to lib/c.bin, which comes last
FRESH = P + "lib/c.bin tai tu dau 58 KB"
DONE = [P + "lib/c.bin xong ( 3 / 3 )", P + "xong toan bo - 3 file ok, 0 bo lai cho updater"]
LEFT = P + "xong toan bo - 2 file ok, 1 bo lai cho updater"
UP_TO_DATE = [P + "da moi nhat -> khong co gi de tai san"]
SHORT_BODY = f' ||| {P}"lib/c.bin" thieu byte sau khi tai xong -> bo'
TOO_LONG = P + '"lib/c.bin" vuot qua 60000 byte cua manifest -> bo file nay'
PATCH_FRESH = f"{P}{PATCH_PATH} tai tu dau {len(PATCH) // 1024} KB"
CHOOSE_PATCH = f"{P}lib/c.bin tai patch {len(PATCH)} byte thay vi 60000 byte"


def four_times(lines):
    """The same lines once per attempt: a file is tried four times before it is left."""
    return lines * 4


# How much of an endless or over-long body each attempt writes before the bound cuts it depends
# on how the bytes arrive; what must hold is four refused attempts, each named.
ATTEMPT = (rf"(?:{re.escape(FRESH)}|{re.escape(P)}lib/c\.bin resume tu \d+ byte"
           rf"(?:\n{re.escape(P)}server tra 200 cho request Range -> BO [^\n]*)?)\n{re.escape(TOO_LONG)}")
FOUR_REFUSED = re.compile(ATTEMPT + rf"(?:\n{ATTEMPT}){{3}}")

# The prefetch's own work, judged also by the cache it leaves and the requests the server saw:
# what the plan leaves out, the cap and the disk reserve, resumes, the application closing, the pace.
CAP, MIB = 524288000, 1048576
DOCS = {"2.0/manifest.json": M, "2.0/manifest.json.sig": S}
BIG = (bytes(range(251)) * 14000)[:3500000]


def cached(build=BUILD2, paths=("a.bin", "e.txt", F), state=(), **more):
    """The cache of build 2.0: its documents, these files finished (as published), state.json
    with these (path, got, done) entries, and more {path below .update-cache: bytes}."""
    files = {f"2.0/files/{p}": p for p in paths}
    entries = [{"path": p, "size": len(build[p]), "sha256": sha256(build[p]), "got": got, "done": done}
               for p, got, done in state]
    record = {"2.0/state.json": {"fullVersion": "2.0", "buildNumber": 11, "baseUrl": "{url}", "files": entries}}
    return dict(DOCS, **files, **(record if state else {}), **more)


DONE_AB = [("a.bin", 20000, True), ("e.txt", 4, True)]
CLOSED = START + [FRESH, P + "app da dong -> dung tai", P + "dung - xong 2 file, con 1"]
HELD = {F: {"stallAfterBytes": 25000, "stallSeconds": 30}}
HELD_ONCE = {F: dict(HELD[F], times=1)}
CLOSE_AT = (f".update-cache/2.0/files/{F}.part", 25000)
# A prefetch asks for ranges of at most its budget: here each file in one.
FIRST = [M, S, "a.bin bytes=0-19999", "e.txt bytes=0-3", F + " bytes=0-59999"]
UNSERVED = four_times([P + f"more/f0000.bin tai tu dau {(CAP - 19004) // 1024} KB",
                       P + '"more/f0000.bin" HTTP 404 -> bo file nay'])
PLAN_AND_RESUME = [
    prefetch("a clean run", START + [FRESH] + DONE, publish={"build": EMPTY_E}, requests=FIRST[:3] + ["e.txt", FIRST[4]],
             cache=cached(EMPTY_E, state=[("a.bin", 20000, True), ("e.txt", 0, True), (F, 60000, True)])),
    # Whole files and a compressed copy finished in the cache are found by their hash; other
    # builds' caches go.
    prefetch("everything in the cache", [P + "kho tam da du cho 2.0"], publish={"zstd": PACKED}, requests=[M, S],
             seed={"2.0/files/a.bin": BUILD2["a.bin"], "2.0/files/e.txt": b"echo",
                   "2.0/files/" + PACKED_PATH: PACKED, "0.9/files/old.bin": b"old"},
             cache=cached(paths=("a.bin", "e.txt", PACKED_PATH))),
    # An unknown build number never makes the installation current: the hashes decide.
    prefetch("unknown build number, installed hashes", [P + "kho tam da du cho 2.0"], requests=[M, S],
             publish={"build": BUILD1, "manifest": {"buildNumber": -1}}, cache=cached(paths=())),
    prefetch("a complete .part is only verified", START + [P + "lib/c.bin da du byte tu luot truoc -> chi verify"]
             + DONE, seed=60000, requests=FIRST[:4], cache=cached(state=DONE_AB + [(F, 60000, True)])),
    prefetch("a .part of wrong bytes",
             START + [P + "lib/c.bin resume tu 1000 byte", P + "lib/c.bin hash lech -> xoa, tai lai", FRESH] + DONE,
             seed={f"2.0/files/{F}.part": bytes(1000)}, requests=FIRST[:4] + [F + " bytes=1000-59999", FIRST[4]]),
    # The cap counts what is missing: here a.bin's 19000 bytes, e.txt's 4, nothing for a .part
    # longer than lib/c.bin (dropped when its turn comes), and a file that is not served. (A
    # disk with less than 1.5 GiB free refuses it by the reserve.)
    prefetch("exactly at the cap",
             [P + "bat dau 2.0 - 4 file, 500 MB", P + "a.bin resume tu 1000 byte", P + "a.bin xong ( 1 / 4 )",
              P + "e.txt tai tu dau 0 KB", P + "e.txt xong ( 2 / 4 )", FRESH, P + "lib/c.bin xong ( 3 / 4 )"]
             + UNSERVED + [P + "xong toan bo - 3 file ok, 1 bo lai cho updater"],
             publish={"extra_sizes": [CAP - 19004]}, alternatives=[[P + "dia con it cho -> khong tai san"]],
             seed={"2.0/files/a.bin.part": BUILD2["a.bin"][:1000], f"2.0/files/{F}.part": C2 + bytes(100)},
             requests=[M, S, "a.bin bytes=1000-19999"] + FIRST[3:] + ["more/f0000.bin bytes=0-*"] * 4),
    prefetch("one byte above the cap", [P + "can tai 500 MB > tran 500 MB -> de updater lo"], requests=[M, S],
             publish={"extra_sizes": [CAP - 80004 + 1]}, cache=cached(paths=())),
    # 1 GiB must stay free after the download: 300 MiB on a volume of 1280 MiB leave less.
    prefetch("too little disk", [P + "dia con it cho -> khong tai san"], volume="1280M", requests=[M, S],
             publish={"extra_sizes": [300 * MIB - 80004]}, cache=cached(paths=())),
    # The application closes: the run stops where it is, the .part and state.json keep the
    # bytes, and the next run, prefetch or apply, asks only for the rest.
    prefetch("the application closes during the manifest request", [P + "app da dong -> dung tai",
             P + "dung - xong 0 file, con 0"], rules={M: {"stallBeforeSeconds": 10}}, app_ends=M, requests=[M],
             cache={}),
    prefetch("the application closes during lib/c.bin", CLOSED, rules=HELD, app_ends=CLOSE_AT, requests=FIRST,
             cache=cached(state=DONE_AB + [(F, 25000, False)], paths=("a.bin", "e.txt"),
                          **{f"2.0/files/{F}.part": C2[:25000]})),
    prefetch("the application closes, the next prefetch resumes", CLOSED + [
        P + "bat dau 2.0 - 1 file, 0 MB", P + "lib/c.bin resume tu 25000 byte", P + "lib/c.bin xong ( 1 / 1 )",
        P + "xong toan bo - 3 file ok, 0 bo lai cho updater"], rules=HELD_ONCE, app_ends=CLOSE_AT, then="prefetch",
        requests=FIRST + [M, S, F + " bytes=25000-59999"], cache=cached(state=[(F, 60000, True)])),
    prefetch("the application closes, the apply resumes", CLOSED + [
        '[Update] "lib/c.bin" noi tiep tu kho tam: 25000 byte', "[Update] dung 2 / 3 file tu kho tam",
        "[Update] da tai qua mang 35000 byte (ca file: 80004 byte)", '[Update] CAP NHAT THANH CONG -> "2.0"'],
        rules=HELD_ONCE, app_ends=CLOSE_AT, then="apply", updates=True, requests=FIRST + [M, S, F + " bytes=25000-"],
        cache={}),
    # At most 1,024,000 bytes a second: 3.5 MB take at least 3.2 s (less the 200 KiB burst), also
    # from a server that answers a bounded range with the whole file (one request, read at the
    # budget's pace) or with more than it asked for (not taken).
    *[prefetch(f"the pace of a 3.5 MB file{name}",
               [P + "bat dau 2.0 - 4 file, 3 MB", START[1], P + "a.bin xong ( 1 / 4 )", P + "big.bin tai tu dau 3417 KB",
                P + "big.bin xong ( 2 / 4 )", P + "e.txt tai tu dau 0 KB", P + "e.txt xong ( 3 / 4 )", FRESH,
                P + "lib/c.bin xong ( 4 / 4 )", P + "xong toan bo - 4 file ok, 0 bo lai cho updater"],
               publish={"build": dict(BUILD2, **{"big.bin": BIG})}, rules={"big.bin": rule}, paced=("big.bin", 3, 15),
               **more) for name, rule, more in [
        ("", {}, {}),
        (", a 200 to its first range", {"ignoreRange": True}, {"requests": FIRST[:3] + ["big.bin bytes=0-*"] + FIRST[3:]}),
        (", 50000 bytes more than asked in every range", {"extraBytes": 50000}, {})]],
]

PREFETCH = [
    # The two documents: one attempt each; any failure ends the run.
    prefetch("manifest 404", [DOCUMENT_FAILED + "*"], rules={M: status(404)}),
    prefetch("manifest 500", [DOCUMENT_FAILED + "*"], rules={M: status(500)}),
    prefetch("signature 403", [DOCUMENT_FAILED + "*"], rules={S: status(403)}),
    # A cut that Qt reports as a short but complete body fails the signature check instead.
    *[prefetch(f"{NAMES[doc]} cut mid-body", [DOCUMENT_FAILED + "*"], rules={doc: {"closeAfterBytes": cut}},
               alternatives=[REJECTED]) for doc, cut in [(M, 200), (S, 20)]],
    prefetch("manifest redirect loop", [DOCUMENT_FAILED + "*"], rules={M: {"redirectTo": M}}),
    prefetch("manifest wrong bytes", REJECTED, rules={M: corrupt()}),
    prefetch("signature of another manifest", REJECTED, publish={"signature": "of another manifest"}),
    prefetch("signed with an untrusted key", REJECTED, publish={"signature": "by another key"}),
    prefetch("other product", [P + "manifest khong danh cho ban nay: product=Other (can Corvanta)"],
             publish={"manifest": {"product": "Other"}}),
    prefetch("other architecture", [P + "manifest khong danh cho ban nay: arch=arm64 (can x64)"],
             publish={"manifest": {"arch": "arm64"}}),
    prefetch("older build replayed", UP_TO_DATE,
             publish={"build": OLDER, "manifest": {"fullVersion": "0.9", "buildNumber": 9}}),
    prefetch("installed build number replayed with other files", UP_TO_DATE,
             publish={"manifest": {"fullVersion": "1.0-replay", "buildNumber": 10}}),
    *[prefetch(f"one hostile path among 36: {path}", [P + "manifest hong"], publish={"hostile_path": path})
      for path in ["../escape.txt", "lib/../../escape.txt", "/tmp/escape.txt", "C:/escape.txt", "LIB/C.BIN",
                   ".update-cache/x"]],
    # Sizes: one no file can have rejects the manifest; sizes that add up beyond 64 bits, or an
    # entry without a size (counted at the 1 GiB limit of such files), exceed the download cap.
    *[prefetch(f"file size {size}", [P + "manifest hong"], publish={"extra_sizes": [size]})
      for size in IMPOSSIBLE_SIZES],
    prefetch("1024 files of 2^53 bytes", [P + "can tai 8796093022207 MB > tran 500 MB -> de updater lo"],
             publish={"extra_sizes": [2 ** 53] * 1024}),
    prefetch("a file without size", [P + "can tai 1024 MB > tran 500 MB -> de updater lo"],
             publish={"extra_sizes": [None]}),
    prefetch("signature of 65537 bytes", [DOCUMENT_FAILED + TOO_BIG_SIG], publish={"sig_size": 65537}),

    # The files: a failed attempt is retried three times, then the file is left for the updater.
    # The last answer of a redirect loop is a 302 like the others: a status other than 200 or 206.
    *[prefetch(name, START + four_times([FRESH, f'{P}"lib/c.bin" HTTP {code} -> bo file nay']) + [LEFT],
               rules={F: rule})
      for name, code, rule in [("file 404", 404, status(404)), ("file 503", 503, status(503)),
                               ("file 503 without a body", 503, dict(status(503), emptyBody=True)),
                               ("file redirect loop", 302, {"redirectTo": F})]],
    # Every cut keeps its bytes: the next attempt resumes where the last one ended. A cut that
    # Qt reports as a short but complete body fails the length check instead.
    prefetch("file cut mid-body", START + [FRESH] + [
        line for n in (5000, 10000, 15000) for line in (f"{P}lib/c.bin dut o {n} byte: *{SHORT_BODY}",
                                                        f"{P}lib/c.bin resume tu {n} byte")]
             + [f"{P}lib/c.bin dut o 20000 byte: *{SHORT_BODY}", LEFT], rules={F: {"closeAfterBytes": 5000}}),
    prefetch("file wrong bytes", START + four_times([FRESH, P + "lib/c.bin hash lech -> xoa, tai lai"]) + [LEFT],
             rules={F: corrupt()}),
    prefetch("file wrong bytes once", START + [FRESH, P + "lib/c.bin hash lech -> xoa, tai lai", FRESH] + DONE,
             rules={F: corrupt(1)}),
    # 30000 of 60000 bytes: too short; the resumes then ask beyond the end and get 416.
    prefetch("file shorter than its manifest entry",
             START + [FRESH, P + '"lib/c.bin" thieu byte sau khi tai xong -> bo']
             + [P + "lib/c.bin resume tu 30000 byte", P + '"lib/c.bin" HTTP 416 -> bo file nay'] * 3 + [LEFT],
             publish={"serve": {F: C2[:30000]}}),
    prefetch("file redirected once to a mirror", START + [FRESH] + DONE, rules={F: {"redirectTo": "mirror/c.bin"}}),
    prefetch("file 200 for a range",
             START + [P + "lib/c.bin resume tu 1000 byte",
                      P + "server tra 200 cho request Range -> BO 1000 byte da tai, ghi de tu dau"] + DONE,
             seed=1000, rules={F: {"ignoreRange": True}}),
    # A Content-Range is not trusted: the bytes go where they were asked for and the hash decides;
    # one that names a file longer than the manifest's is refused as a longer body is.
    *[prefetch(f"file 206 with the Content-Range {lie}", START + lines, seed=1000, rules={F: {"contentRange": lie}},
               requests=FIRST[:4] + [F + " bytes=1000-*"] * attempts)
      for lie, lines, attempts in [("bytes 0-59999/60000", [P + "lib/c.bin resume tu 1000 byte"] + DONE, 1),
                                   ("bytes 1000-59999/60001", [FOUR_REFUSED, LEFT], 4)]],

    # Smaller downloads: lib/c.bin comes as its patch from the installed build; an artifact that
    # fails its four attempts falls back to the whole file.
    prefetch("smaller: the patch", START + [CHOOSE_PATCH, PATCH_FRESH, f"{P}{PATCH_PATH} xong ( 3 / 3 )", DONE[1]],
             publish={"patch": PATCH, "zstd": PACKED}),
    prefetch("smaller: patch missing (404), then the whole file",
             START + [CHOOSE_PATCH] + four_times([PATCH_FRESH, f'{P}"{PATCH_PATH}" HTTP 404 -> bo file nay'])
             + [P + "patch cho lib/c.bin hong -> tai ca file", FRESH] + DONE,
             publish={"patch": PATCH}, rules={PATCH_PATH: status(404)},
             cache=cached(state=DONE_AB + [(F, 60000, True)])),
    # The cap holds for what a failed patch gives way to: here the whole file would pass it.
    prefetch("smaller: patch missing, and the whole file would pass the cap",
             [P + "bat dau 2.0 - 4 file, 500 MB", START[1], P + "a.bin xong ( 1 / 4 )", START[3],
              P + "e.txt xong ( 2 / 4 )", CHOOSE_PATCH]
             + four_times([PATCH_FRESH, f'{P}"{PATCH_PATH}" HTTP 404 -> bo file nay'])
             + [P + "patch cho lib/c.bin hong -> de updater lo (vuot tran 500 MB)"]
             + four_times([P + f"more/f0000.bin tai tu dau {(CAP - 20004 - len(PATCH)) // 1024} KB",
                           P + '"more/f0000.bin" HTTP 404 -> bo file nay'])
             + [P + "xong toan bo - 2 file ok, 2 bo lai cho updater"],
             publish={"patch": PATCH, "extra_sizes": [CAP - 20004 - len(PATCH)]}, rules={PATCH_PATH: status(404)},
             alternatives=[[P + "dia con it cho -> khong tai san"]]),
    prefetch("smaller: patch with wrong bytes, then the whole file",
             START + [CHOOSE_PATCH] + four_times([PATCH_FRESH, f"{P}{PATCH_PATH} hash lech -> xoa, tai lai"])
             + [P + "patch cho lib/c.bin hong -> tai ca file", FRESH] + DONE,
             publish={"patch": PATCH}, rules={PATCH_PATH: corrupt()}),

    # Links in the cache, to a directory or a file outside the installation: removed as links,
    # never followed or written through, and the run goes on.
    *[prefetch(f"link at {path}", START + [FRESH] + DONE, link=(kind, path))
      for kind, path in [("dir", ".update-cache"), ("dir", ".update-cache/2.0/files/lib"),
                         ("file", ".update-cache/2.0/files/lib/c.bin.part"),
                         ("file", ".update-cache/2.0/state.json.tmp"),
                         ("file", ".update-cache/2.0/manifest.json"), ("file", ".update-cache/2.0/manifest.json.sig")]],
    # A ".part" with a second name elsewhere is resumed in a copy of its own.
    prefetch("hard link at .update-cache/2.0/files/lib/c.bin.part",
             START + [P + "lib/c.bin resume tu 1000 byte"] + DONE,
             link=("hard", ".update-cache/2.0/files/lib/c.bin.part")),
    # A directory at a ".part"'s name cannot be written: the file is left to the updater.
    prefetch("directory at .update-cache/2.0/files/lib/c.bin.part",
             START + four_times([FRESH, P + 'khong mo duoc "*"']) + [LEFT], seed={f"2.0/files/{F}.part/x": b"x"},
             cache=cached(state=DONE_AB + [(F, 0, False)], paths=("a.bin", "e.txt"),
                          **{f"2.0/files/{F}.part/x": b"x"})),
    prefetch("directory at the .part of an empty file",
             START[:3] + four_times([P + "e.txt tai tu dau 0 KB", P + 'khong mo duoc "*"']) + [FRESH, DONE[0], LEFT],
             publish={"build": EMPTY_E}, seed={"2.0/files/e.txt.part/x": b"x"}),

    # Bodies beyond their bound, as in apply mode.
    prefetch("endless manifest", [DOCUMENT_FAILED + "body larger than 16777216 bytes"], rules={M: ENDLESS}),
    prefetch("endless signature", [DOCUMENT_FAILED + TOO_BIG_SIG], rules={S: ENDLESS}),
    prefetch("endless file", START + [FOUR_REFUSED, LEFT], rules={F: ENDLESS}),
    prefetch("file longer than its manifest entry", START + [FOUR_REFUSED, LEFT],
             publish={"serve": {F: C2 + pattern(20000, 99)}}),
    prefetch("file of size 0 sent without end",
             START[:3] + four_times([P + "e.txt tai tu dau 0 KB",
                                     P + '"e.txt" vuot qua 0 byte cua manifest -> bo file nay'])
             + [FRESH, DONE[0], LEFT], publish={"build": EMPTY_E}, rules={"e.txt": ENDLESS}),
    prefetch("gzip manifest", [DOCUMENT_FAILED + "Content-Encoding gzip not accepted"], rules={M: GZIP}),
    prefetch("gzip signature", [DOCUMENT_FAILED + "Content-Encoding gzip not accepted"], rules={S: GZIP}),
    prefetch("gzip file", START + four_times([FRESH, P + '"lib/c.bin" Content-Encoding gzip -> bo file nay']) + [LEFT],
             rules={F: GZIP}),
    *PLAN_AND_RESUME,
]

SLOW_APPLY_LINE = '[Update] tai qua cham (duoi 1024 byte/giay) "{url}%s"'
# Apply mode: 10 s without progress end a request, and so do 30 s below 1024 bytes a second.
# Prefetch mode: 20 s without data end the run before the plan and only the current attempt
# during a file, and so do 30 s below 1024 bytes a second. (The documents need no dripping row
# in prefetch mode: their 20 s run from the request, data or not.)
STALLS = [
    apply("manifest silent for 11 s", manifest_fails(M, CANCELED), rules={M: {"stallBeforeSeconds": 11}}),
    apply("file silent for 11 s after 1000 bytes", file_fails(F, CANCELED),
          rules={F: {"stallAfterBytes": 1000, "stallSeconds": 11}}),
    apply("manifest dripping a byte every 3 s, once", [SLOW_APPLY_LINE % M] + manifest_fails(M, CANCELED)[:2] + WHOLE,
          rules={M: dict(DRIP, times=1)}, updates=True),
    apply("file dripping a byte every 3 s", [SLOW_APPLY_LINE % F] + file_fails(F, CANCELED), rules={F: DRIP}),
    # The pace counts from each attempt's start: the 60 KB that came before do not carry the
    # dripping file (30 s ahead, 30 s more alone) past the 90 s a row may take.
    apply("file dripping a byte every 3 s after 60 KB of other files", [SLOW_APPLY_LINE % F] + file_fails(F, CANCELED),
          publish={"build": dict(BUILD2, **{"a.bin": pattern(60000, 11)})}, rules={F: DRIP}),
    prefetch("manifest silent for 21 s", [P + "dung im qua 20 giay", P + "mang dung im -> bo luot nay"],
             rules={M: {"stallBeforeSeconds": 21}}),
    # The attempt fails, the bytes stay, the retry resumes and completes.
    prefetch("file silent for 21 s after 1000 bytes, once",
             START + [FRESH, P + "dung im qua 20 giay", P + "lib/c.bin resume tu 1000 byte"] + DONE,
             rules={F: {"stallAfterBytes": 1000, "stallSeconds": 21, "times": 1}}),
    prefetch("file dripping a byte every 3 s, once",
             START + [FRESH, P + "tai qua cham (duoi 1024 byte/giay)", P + "lib/c.bin resume tu * byte"] + DONE,
             rules={F: dict(DRIP, times=1)}),
]
for r in STALLS:
    r["slow"] = True

ROWS = APPLY + PREFETCH + STALLS
