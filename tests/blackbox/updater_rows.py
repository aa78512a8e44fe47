"""The rows of updater_blackbox.py: whole runs of the real updater, as data.

Each row is a dict:
  name       id of the row; its builds are served below /<name>/
  installed  build installed before the run ("1.0" or "2.0", or a dict as for `publish`); `damage`
             then changes it:
             {path: bytes} writes a file, {path: None} deletes one, {path: "->other"} renames
             it to other
  read_only  installed paths made read-only before the run
  publish    build served ("1.0", "2.0", "2.0+self" or "2.0+SELF"), or a dict with `build` and
             `version`, `number`, `key` ("dev" or "other"), `tamper` ("signature") overriding its
             defaults, and `manifest`: keys set in the manifest (None removes one) or a function
             that changes it, signed again; whole files only, unless `patches` is True: then also
             compressed copies and patches from the installed build
  unpublish  published paths removed from the server
  server     "http", "https" (certificate of a CA the installation's system trusts),
             "https-rogue" (certificate of a CA nobody trusts) or "refused" (port 1)
  config     False: no updater.conf
  cache      {path below .update-cache: bytes} written before the run; `cache_after` is what
             must be left there
  rate       nginx limit_rate for this row's files
  helpers    processes started first and kept until the end: ("mutex", NAME), ("hold", PATH
             in the installation), ("live", MS); natively ("mutex", "[--release-after MS |
             --exit-after MS] NAME...") holds several names, for a while
  locks      natively, the lock directory as the run finds it: "mode 0755", "another owner",
             or "FIFO NAME" (a FIFO at that lock's file)
  runs       updater runs, one after the other; each {"args": [...], "copies": N started at
             once, "box": True when a message box must be closed with Return, or (kind, text):
             natively, that box must look exactly like a box of that kind ("warning" or
             "information") and text, and the updater lock must be free while it is up}. "{pid}" in
             args is the process id of the "live" helper, "{dead}" that of a process that
             has ended
  lasts      (least, most) seconds each run may take
  lines      the exact log lines of all runs, timestamps left out; "{url}" is the row's base
             URL, "{inst}" the installation directory as the updater names it, "{self}" the
             updater's own file name, "{locks}" the lock directory
  tree       what the installation holds afterwards besides the updater, updater.conf and
             updater.log, byte for byte: "installed" (the installed build as it was before any
             `damage`) or a published build; `tree_extra` adds files
  requests   the exact paths requested from the server below /<name>/: the manifest and its
             signature in order, then the files in any order (an apply has the next few files'
             requests under way while it writes one, so even files after one that fails are
             asked for, and a file whose GET ahead failed is asked for again in its turn); "path+" is one request of path or more (a prefetch asks for a larger
             file in ranges, as many as the timing of its budget makes)
  wine_adds  lines that only the run under Wine writes after `lines`, for a shortcoming of Wine
  waits      True: the first log line comes after the "live" helper ended
  windows    natively, the top-level windows mapped and unmapped during the runs, in order:
             "map status", "unmap box", ... (the status window must be centred)
  targets    the targets the row runs on (default both)
"""

from harness import sha256  # the harnesses put tests/support on the path first


def pattern(size, seed):
    """size bytes that differ for every seed."""
    return bytes((i * 131 + seed * 71 + (i >> 8)) % 251 for i in range(size))


BUILDS = {
    "1.0": {
        "Corvanta.exe": pattern(200_000, 1),
        "docs/hướng dẫn.txt": "phiên bản 1\n".encode(),
        "lib/core.dll": pattern(150_000, 2),
        "lib/keep.dll": pattern(60_000, 3),
    },
}
# Build 2 changes two files at the top and in a folder with Vietnamese letters and a blank,
# changes lib/core.dll, adds lib/added.dll and keeps lib/keep.dll. Applied in manifest order:
# Corvanta.exe, docs/hướng dẫn.txt, lib/added.dll, lib/core.dll.
BUILDS["2.0"] = dict(BUILDS["1.0"], **{
    "Corvanta.exe": pattern(210_000, 11),
    "docs/hướng dẫn.txt": "phiên bản 2\n".encode(),
    "lib/added.dll": pattern(30_000, 13),
    "lib/core.dll": pattern(120_007, 12),
})
BUILDS["2.0+self"] = dict(BUILDS["2.0"], **{"{self}": b"the updater of build 2\n"})
# The updater's name in upper case is still the running updater; in a folder it is any file.
BUILDS["2.0+SELF"] = dict(BUILDS["2.0"], **{"{SELF}": b"the updater of build 2\n", "tools/{self}": b"a tool\n"})
BUILD_NUMBERS = {"1.0": 1, "2.0": 2, "2.0+self": 2, "2.0+SELF": 2}

CHANGED = ["Corvanta.exe", "docs/hướng dẫn.txt", "lib/added.dll", "lib/core.dll"]
DOCUMENTS = ["manifest.json", "manifest.json.sig"]

UPDATED = [
    '[I] [apply] [Update] dung 0 / 4 file tu kho tam',
    '[I] [apply] [Update] da tai qua mang 360022 byte (ca file: 360022 byte)',
    '[I] [apply] [Update] CAP NHAT THANH CONG -> "2.0"',
]
BAD_SIGNATURE = ['[W] [apply] [Update] CHU KY MANIFEST SAI -> KHONG ap, chay ban hien tai']
# Qt's text for a certificate that does not lead to a CA the system trusts.
UNTRUSTED = '"SSL handshake failed"'


def compressed(path):
    """Where the publisher puts build 2's file compressed."""
    return f".zstd/{sha256(BUILDS['2.0'][path])}.zst"


def patch(path):
    """Where the publisher puts the patch from build 1's file to build 2's."""
    return f".zstd/{sha256(BUILDS['1.0'][path])}-{sha256(BUILDS['2.0'][path])}.zst"


APP, UPDATER, PREFETCH = "Corvanta_MainApp_Running", "Corvanta_Updater", "Corvanta_UpdatePrefetch_Pendrovia"
NO_CONFIG = ['[I] [apply] [Update] khong co updater.conf -> bo qua update']
PREFETCH_WAIT = ['[I] [apply] [Update] dang co luot tai san chay -> cho no dung, toi da 15 giay']
PREFETCH_BUSY = ['[I] [prefetch] [UpdatePrefetch] mot luot tai khac dang chay -> bo qua']
UNUSABLE_LOCK_FILE = ' file khoa khong dung duoc (can file thuong) -> bo qua: "{locks}/%s.lock"'
UNUSABLE_LOCK_DIR = (' thu muc khoa khong dung duoc (can thu muc rieng cua user nay, quyen 0700) -> bo qua:'
                     ' "{locks}"')
# The windows of a run: the status window shown while the session works, and the closing box.
STATUS = ["map status", "unmap status"]
BOX = ["map box", "unmap box"]
AGAIN_LATER = "\n\nMở lại Corvanta để tiếp tục dùng bản hiện tại."
CAN_REOPEN = "\n\nBạn có thể mở lại Corvanta để tiếp tục sử dụng."
UP_TO_DATE = ['[I] [apply] [Update] da moi nhat: "2.0"']
HASHES_MATCH = ['[I] [apply] [Update] hash khop het, dong bo manifest -> "2.0"']
NO_BUILD_NUMBER = {"buildNumber": None}
# What earlier prefetches left: a directory of another build and a file of the published one.
EARLIER_CACHE = {"0.9/files/old.bin": b"old build\n", "2.0/files/unrelated.bin": b"kept while 2.0 is current\n"}


# Partial files of build 2 in the cache: wrong bytes, empty, as large as the file, a true prefix;
# and a finished file of the right size with the wrong bytes.
PARTIALS = {"2.0/files/Corvanta.exe.part": pattern(1000, 99), "2.0/files/docs/hướng dẫn.txt.part": b"",
            "2.0/files/lib/added.dll.part": BUILDS["2.0"]["lib/added.dll"],
            "2.0/files/lib/core.dll.part": BUILDS["2.0"]["lib/core.dll"][:1000],
            "2.0/files/docs/hướng dẫn.txt": "phiên bản 9\n".encode()}
NOT_FOUND = ('[W] [apply] [Update] GET(file) loi "{url}lib/core.dll" '
             '"Error transferring {url}lib/core.dll - server replied: Not Found"')
HIDDEN_AND_OTHERS = {".hidden.bak": b"h\n", "lib/.y.bak": b"y\n", "a.bak.txt": b"1\n", "cbak": b"3\n"}


def fetched(path, n):
    """A prefetch's lines for one small download, the n-th of four."""
    return [f"[I] [prefetch] [UpdatePrefetch] {path} tai tu dau 0 KB",
            f"[I] [prefetch] [UpdatePrefetch] {path} xong ( {n} / 4 )"]


def with_entry(path, data):
    """A manifest change: one more file entry."""
    return lambda m: m["files"].append({"path": path, "sha256": sha256(data), "size": len(data)})


def manifest_fails(document, error):
    url = '"{url}' + document + '"'
    return [f'[W] [apply] [Update] GET loi {url} {error}', f'[W] [apply] [Update] thu lai GET {url} lan 2',
            f'[W] [apply] [Update] GET loi {url} {error}',
            f'[W] [apply] [Update] tai {"manifest" if document == "manifest.json" else ".sig"} that bai -> chay ban hien tai']


def row(name, **fields):
    fields["name"] = name
    fields.setdefault("installed", "1.0")
    fields.setdefault("publish", "2.0")
    fields.setdefault("server", "http")
    fields.setdefault("runs", [{"args": []}])
    fields.setdefault("tree", "2.0")
    fields.setdefault("requests", DOCUMENTS + CHANGED)
    return fields


ROWS = [
    row("update-http", lines=UPDATED, windows=STATUS),
    row("update-https", server="https", lines=UPDATED),
    # Published with compressed copies and patches from build 1: the two files build 1 holds
    # come as patches, the added one compressed, the short text whole (nothing smaller).
    row("update-through-patches", publish={"build": "2.0", "patches": True},
        requests=DOCUMENTS + [patch("Corvanta.exe"), "docs/hướng dẫn.txt", compressed("lib/added.dll"),
                              patch("lib/core.dll")], lines=[
            '[I] [apply] [Update] "Corvanta.exe" tai patch 47 byte thay vi 210000 byte',
            '[I] [apply] [Update] "lib/added.dll" tai ban nen 434 byte thay vi 30000 byte',
            '[I] [apply] [Update] "lib/core.dll" tai patch 37 byte thay vi 120007 byte',
            '[I] [apply] [Update] dung 0 / 4 file tu kho tam',
            '[I] [apply] [Update] da tai qua mang 533 byte (ca file: 360022 byte)',
            '[I] [apply] [Update] CAP NHAT THANH CONG -> "2.0"',
        ]),
    # ReplaceFileW refuses a read-only file (5); the two renames replace it, and its backup,
    # read-only too, is deleted with the others once the attribute is cleared.
    row("read-only-files-replaced", read_only=["Corvanta.exe", "lib/core.dll"], targets=("wine",), lines=[
        *UPDATED[:2],
        *['[W] [apply] [Update] ReplaceFile hong err= 5 -> da lui ve doi ten hai buoc, OK'] * 2,
        UPDATED[2],
    ]),
    row("https-untrusted-ca", server="https-rogue", tree="installed", requests=[], lines=[
        f'[W] [apply] [Update] GET loi "{{url}}manifest.json" {UNTRUSTED}',
        '[W] [apply] [Update] thu lai GET "{url}manifest.json" lan 2',
        f'[W] [apply] [Update] GET loi "{{url}}manifest.json" {UNTRUSTED}',
        '[W] [apply] [Update] tai manifest that bai -> chay ban hien tai',
    ]),
    # The same build number under another version and content: up to date, nothing fetched.
    row("up-to-date-by-build-number", installed="2.0", publish={"build": "1.0", "version": "2.0.1", "number": 2},
        tree="installed", requests=DOCUMENTS, lines=['[I] [apply] [Update] da moi nhat: "2.0.1"']),
    row("older-build-replayed", installed="2.0", publish="1.0", tree="installed", requests=DOCUMENTS,
        lines=['[I] [apply] [Update] da moi nhat: "1.0"']),
    row("bad-signature", publish={"build": "2.0", "tamper": "signature"}, tree="installed", requests=DOCUMENTS,
        lines=BAD_SIGNATURE),
    row("signed-by-another-key", publish={"build": "2.0", "key": "other"}, tree="installed", requests=DOCUMENTS,
        lines=BAD_SIGNATURE),
    # The updater's own new version is left beside it; the running executable stays.
    row("self-update", publish="2.0+self", tree="2.0", tree_extra={"{self}.new": b"the updater of build 2\n"},
        requests=DOCUMENTS + CHANGED + ["{self}"], lines=[
            '[I] [apply] [Update] dung 0 / 5 file tu kho tam',
            '[I] [apply] [Update] da tai qua mang 360045 byte (ca file: 360045 byte)',
            '[I] [apply] [Update] CAP NHAT THANH CONG -> "2.0"',
        ]),
    # Both start at once; the files come slowly (about 7 s), so the one that takes the updater's
    # lock still runs when the other looks at it. The other leaves without a log line.
    row("two-updaters-at-once", rate="50k", runs=[{"args": [], "copies": 2}], lines=UPDATED),
    # Who runs decides alone, before anything is read or fetched.
    *[row(name, helpers=[("mutex", names)], runs=[{"args": args}], lasts=(0, 10), tree="installed", requests=[],
          lines=lines, windows=[], targets=("native",) if " " in names else ("native", "wine"))
      for name, names, args, lines in [
          ("application-running", APP, [], []),
          ("another-updater-running", UPDATER, [], []),
          # The application is looked at first: no wait for the prefetch.
          ("application-and-prefetch-running", f"{APP} {PREFETCH}", [], []),
          ("updater-and-prefetch-running", f"{UPDATER} {PREFETCH}", [], []),
          ("prefetch-gives-way-to-a-prefetch", PREFETCH, ["--prefetch-only"], PREFETCH_BUSY),
          ("proactive-prefetch-is-silent", PREFETCH, ["--proactive", "--prefetch-only"], PREFETCH_BUSY),
          # Were the apply run not noticed, the prefetch would report the other prefetch.
          ("prefetch-gives-way-to-an-apply", f"{UPDATER} {PREFETCH}", ["--prefetch-only"], []),
          ("proactive-prefetch-gives-way-to-an-apply", f"{UPDATER} {PREFETCH}", ["--prefetch-only", "--proactive"],
           []),
      ]],
    # A lock that cannot tell refuses the run at once, with one line and no box.
    *[row(f"lock-{name}", locks=locks, runs=[{"args": args}], lasts=(0, 10), tree="installed", requests=[],
          lines=[line], targets=("native",)) for name, locks, args, line in [
        ("fifo-application", f"FIFO {APP}", ["--proactive"], "[W] [apply] [Update]" + UNUSABLE_LOCK_FILE % APP),
        ("fifo-prefetch", f"FIFO {PREFETCH}", ["--proactive"], "[W] [apply] [Update]" + UNUSABLE_LOCK_FILE % PREFETCH),
        ("fifo-updater-prefetch", f"FIFO {UPDATER}", ["--prefetch-only"],
         "[W] [prefetch] [UpdatePrefetch]" + UNUSABLE_LOCK_FILE % UPDATER),
        ("fifo-prefetch-prefetch", f"FIFO {PREFETCH}", ["--prefetch-only"],
         "[W] [prefetch] [UpdatePrefetch]" + UNUSABLE_LOCK_FILE % PREFETCH),
        ("directory-mode-0755", "mode 0755", ["--proactive"], "[W] [apply] [Update]" + UNUSABLE_LOCK_DIR),
        ("directory-of-another-user", "another owner", ["--prefetch-only"],
         "[W] [prefetch] [UpdatePrefetch]" + UNUSABLE_LOCK_DIR),
    ]],
    # An apply waits for a running prefetch to let go, or to die, and goes on at once.
    *[row(f"apply-waits-for-prefetch-{name}", config=False, helpers=[("mutex", f"{how} 3000 {PREFETCH}")],
          lasts=(2.5, 8), tree="installed", requests=[], lines=PREFETCH_WAIT + NO_CONFIG, targets=("native",))
      for name, how in [("release", "--release-after"), ("exit", "--exit-after")]],
    # Of two apply runs started together, one leaves at once; the other waits for the prefetch.
    row("two-updaters-and-a-prefetch", config=False, helpers=[("mutex", f"--release-after 4000 {PREFETCH}")],
        runs=[{"args": [], "copies": 2}], tree="installed", requests=[], lines=PREFETCH_WAIT + NO_CONFIG,
        targets=("native",)),
    # --wait-pid waits only for a process that runs, named by the last such option.
    *[row(f"wait-pid-{name}", config=False, helpers=[("live", "30000")], runs=[{"args": args}], lasts=(0, 20),
          tree="installed", requests=[], lines=NO_CONFIG)
      for name, args in [("ended", ["--wait-pid", "{dead}"]), ("not-a-number", ["--wait-pid", "abc"]),
                         ("negative", ["--wait-pid", "-5"]), ("zero", ["--wait-pid", "0"]),
                         ("value-missing", ["--wait-pid"]), ("later-ended-wins", ["--wait-pid", "{pid}", "--wait-pid", "{dead}"]),
                         ("other-letter-case", ["--Wait-Pid", "{pid}"]), ("single-dash", ["-wait-pid", "{pid}"])]],
    row("wait-pid-later-running-wins", config=False, helpers=[("live", "3000")], waits=True,
        runs=[{"args": ["--wait-pid", "{dead}", "--wait-pid", "{pid}"]}], tree="installed", requests=[], lines=NO_CONFIG),
    # Without a configuration a prefetch does nothing at all, and says nothing.
    row("prefetch-without-configuration", config=False, runs=[{"args": ["--prefetch-only"]}], tree="installed",
        requests=[], lines=[]),
    row("unknown-options-mean-apply", config=False, runs=[{"args": ["--Prefetch-Only", "-prefetch-only", "--prefetch"]}],
        tree="installed", requests=[], lines=NO_CONFIG),
    row("waits-for-process", helpers=[("live", "4000")], runs=[{"args": ["--wait-pid", "{pid}"]}], waits=True,
        lines=UPDATED),
    # lib/core.dll, the last file of the apply, is open in another process without
    # FILE_SHARE_DELETE: ReplaceFileW and the rename of the fallback both meet a sharing
    # violation; the two files replaced before are put back and the added one is deleted.
    row("held-file-rolls-back", helpers=[("hold", "lib/core.dll")], tree="installed", targets=("wine",), lines=[
        *UPDATED[:2],
        '[W] [apply] [Update] ReplaceFile hong err= 32 va doi ten -> .bak cung hong err= 32 '
        '(32=file dang bi giu, 5=khong du quyen/AV)',
        '[W] [apply] [Update] thay "lib/core.dll" that bai',
        '[W] [apply] [Update] ap that bai -> ROLLBACK',
    ]),
    # A run killed between the two renames left lib/core.dll only as its backup, and a stale
    # backup beside Corvanta.exe: the next start restores the one and deletes the other.
    row("interrupted-apply-repaired", publish="1.0",
        damage={"lib/core.dll": "->lib/core.dll.bak", "Corvanta.exe.bak": b"stale backup\n"},
        tree="installed", requests=DOCUMENTS, lines=[
            '[W] [apply] [Update] CUU duoc file thieu sau lan ap bi cat ngang: "{inst}/lib/core.dll"',
            '[I] [apply] [Update] don .bak: khoi phuc 1 , don rac 1',
            '[I] [apply] [Update] da moi nhat: "1.0"',
        ]),
    # The closing box of a run started by the user stays until Return is pressed. Under Wine,
    # SHGetStockIconInfo gives Qt no handle for the stock information icon (a semi-stub there),
    # and Qt logs each attempt before it falls back to its own icon.
    row("proactive-message-box", runs=[{"args": ["--proactive"], "box": ("information", "Cập nhật thành công!" + CAN_REOPEN)}],
        windows=STATUS + BOX, lines=UPDATED,
        wine_adds=['[C] [apply] QPixmap::fromWinHICON(), failed to GetIconInfo() (Invalid cursor handle.)'] * 3),
    # The other closing boxes of a run started by the user, each of its kind and text; a refusal
    # shows its box without the status window.
    row("box-no-configuration", config=False, runs=[{"args": ["--proactive"], "box": (
        "warning", "Bản này chưa cấu hình kênh cập nhật." + AGAIN_LATER)}], windows=BOX, tree="installed",
        requests=[], lines=['[I] [apply] [Update] khong co updater.conf -> bo qua update'], targets=("native",)),
    row("box-manifest-unreachable", server="refused", runs=[{"args": ["--proactive"], "box": (
        "warning", "Không tải được thông tin cập nhật.\nKiểm tra kết nối mạng rồi thử lại." + AGAIN_LATER)}],
        windows=STATUS + BOX, tree="installed", requests=[],
        lines=manifest_fails("manifest.json", '"Connection refused"'), targets=("native",)),
    row("box-up-to-date", installed="2.0", runs=[{"args": ["--proactive"], "box": (
        "information", "Bạn đang dùng phiên bản mới nhất — không có gì để cập nhật." + CAN_REOPEN)}],
        windows=STATUS + BOX, tree="installed", requests=DOCUMENTS, lines=UP_TO_DATE, targets=("native",)),
    row("box-update-failed", unpublish=["lib/added.dll"], runs=[{"args": ["--proactive"], "box": (
        "warning", "Cập nhật thất bại — đã khôi phục bản cũ.\n\n"
        "Mở lại Corvanta để tiếp tục dùng bản hiện tại, hoặc thử cập nhật lại sau.")}],
        windows=STATUS + BOX, tree="installed", requests=DOCUMENTS + CHANGED + ["lib/added.dll"], lines=[
            '[W] [apply] [Update] GET(file) loi "{url}lib/added.dll" '
            '"Error transferring {url}lib/added.dll - server replied: Not Found"',
            '[W] [apply] [Update] tai "lib/added.dll" that bai -> huy, chay ban hien tai',
        ], targets=("native",)),
    row("box-application-running", helpers=[("mutex", APP)], runs=[{"args": ["--proactive"], "box": (
        "warning", "Không cập nhật được vì vẫn còn cửa sổ Corvanta đang mở.\n\nĐóng hết Corvanta rồi thử cập nhật lại.")}],
        windows=BOX, tree="installed", requests=[], lines=[], targets=("native",)),
    row("box-another-updater-running", helpers=[("mutex", UPDATER)], runs=[{"args": ["--proactive"], "box": (
        "information", "Một tiến trình cập nhật khác đang chạy.\n\nĐợi nó xong rồi mở lại Corvanta.")}],
        windows=BOX, tree="installed", requests=[], lines=[], targets=("native",)),
    # The run's outcomes, one row each: nothing to do, refused, up to date, updated, given up.
    row("no-configuration", config=False, cache=EARLIER_CACHE, cache_after=EARLIER_CACHE, tree="installed", windows=[],
        requests=[], lines=['[I] [apply] [Update] khong co updater.conf -> bo qua update']),
    row("manifest-unreachable", server="refused", tree="installed", requests=[], windows=STATUS,
        lines=manifest_fails("manifest.json", '"Connection refused"')),
    row("manifest-not-found", unpublish=["manifest.json"], tree="installed", requests=["manifest.json"] * 2,
        lines=manifest_fails("manifest.json", '"Error transferring {url}manifest.json - server replied: Not Found"')),
    row("signature-not-found", unpublish=["manifest.json.sig"], tree="installed",
        requests=["manifest.json", "manifest.json.sig", "manifest.json.sig"],
        lines=manifest_fails("manifest.json.sig",
                             '"Error transferring {url}manifest.json.sig - server replied: Not Found"')),
    row("other-product", publish={"build": "2.0", "manifest": {"product": "Pendrovia"}}, tree="installed",
        requests=DOCUMENTS, lines=['[W] [apply] [Update] MANIFEST KHONG DANH CHO BAN NAY: product=Pendrovia '
                                   '(can Corvanta) -> KHONG ap, chay ban hien tai']),
    row("other-architecture", publish={"build": "2.0", "manifest": {"arch": "arm64"}}, tree="installed",
        requests=DOCUMENTS, lines=['[W] [apply] [Update] MANIFEST KHONG DANH CHO BAN NAY: arch=arm64 '
                                   '(can x64) -> KHONG ap, chay ban hien tai']),
    # A signed path out of the installation refuses the whole manifest; nothing lands beside it.
    row("path-out-of-the-installation", publish={"build": "2.0", "manifest": with_entry("../escape.txt", b"out\n")},
        tree="installed", requests=DOCUMENTS, lines=['[W] [apply] [Update] manifest hong']),
    # Build numbers decide when both are known (negative ones are unknown), else the versions,
    # compared without regard to letter case.
    row("installed-build-newer", installed={"build": "1.0", "number": 120}, publish={"build": "2.0", "number": 119},
        cache=EARLIER_CACHE, tree="installed", requests=DOCUMENTS, lines=UP_TO_DATE),
    row("same-version-no-build-numbers", installed={"build": "1.0", "version": "2.0", "manifest": NO_BUILD_NUMBER},
        publish={"build": "2.0", "manifest": NO_BUILD_NUMBER}, tree="installed", requests=DOCUMENTS, lines=UP_TO_DATE),
    row("same-version-installed-without-number",
        installed={"build": "1.0", "version": "2.0", "manifest": NO_BUILD_NUMBER}, tree="installed",
        requests=DOCUMENTS, lines=UP_TO_DATE),
    row("same-version-installed-number-negative",
        installed={"build": "1.0", "version": "2.0", "manifest": {"buildNumber": -5}}, tree="installed",
        requests=DOCUMENTS, lines=UP_TO_DATE),
    row("published-number-negative", installed={"build": "1.0", "number": 200},
        publish={"build": "2.0", "manifest": {"buildNumber": -1}}, lines=UPDATED),
    row("same-version-lower-build", installed={"build": "1.0", "version": "2.0"}, lines=UPDATED),
    row("versions-differ-in-case", installed={"build": "1.0", "version": "2.0-BETA", "manifest": NO_BUILD_NUMBER},
        publish={"build": "2.0", "version": "2.0-beta", "manifest": NO_BUILD_NUMBER},
        lines=[*UPDATED[:2], '[I] [apply] [Update] CAP NHAT THANH CONG -> "2.0-beta"']),
    # Files already current: only the installed manifest is brought up to date.
    row("hashes-already-match", installed={"build": "2.0", "version": "1.0", "number": 1}, cache=EARLIER_CACHE,
        requests=DOCUMENTS, lines=HASHES_MATCH),
    row("installed-manifest-missing", installed="2.0", damage={"manifest.json": None}, requests=DOCUMENTS,
        lines=HASHES_MATCH),
    row("installed-manifest-corrupt", damage={"manifest.json": b'{"fullVersion": "1.0", "files": ['}, lines=UPDATED),
    row("one-file-from-the-cache", cache={"2.0/files/lib/added.dll": BUILDS["2.0"]["lib/added.dll"]},
        requests=DOCUMENTS + ["Corvanta.exe", "docs/hướng dẫn.txt", "lib/core.dll"],
        lines=['[I] [apply] [Update] dung 1 / 4 file tu kho tam',
               '[I] [apply] [Update] da tai qua mang 330022 byte (ca file: 360022 byte)', UPDATED[2]]),
    row("second-run-up-to-date", runs=[{"args": []}, {"args": []}], requests=DOCUMENTS + CHANGED + DOCUMENTS,
        lines=UPDATED + UP_TO_DATE),
    # A file the server does not have gives the update up; other builds' cache goes.
    row("file-not-found", unpublish=["lib/added.dll"], cache=EARLIER_CACHE, tree="installed",
        cache_after={"2.0/files/unrelated.bin": EARLIER_CACHE["2.0/files/unrelated.bin"]},
        requests=DOCUMENTS + CHANGED + ["lib/added.dll"], lines=[
            '[W] [apply] [Update] GET(file) loi "{url}lib/added.dll" '
            '"Error transferring {url}lib/added.dll - server replied: Not Found"',
            '[W] [apply] [Update] tai "lib/added.dll" that bai -> huy, chay ban hien tai',
        ]),
    # lib/added.dll is to replace a directory, and another directory holds the name it would be
    # moved aside to: the two files replaced before it are put back.
    row("obstacle-rolls-back", tree="installed",
        damage={"lib/added.dll/inside.txt": b"a directory\n", "lib/added.dll.bak/inside.txt": b"in the way\n"},
        tree_extra={"lib/added.dll/inside.txt": b"a directory\n", "lib/added.dll.bak/inside.txt": b"in the way\n"},
        lines=[*UPDATED[:2], '[W] [apply] [Update] them moi "lib/added.dll" that bai, GetLastError= 183',
               '[W] [apply] [Update] ap that bai -> ROLLBACK']),
    row("self-update-upper-case", publish="2.0+SELF",
        tree_extra={"{SELF}.new": b"the updater of build 2\n", "tools/{self}": b"a tool\n"},
        requests=DOCUMENTS + ["Corvanta.exe", "{SELF}", "docs/hướng dẫn.txt", "lib/added.dll", "lib/core.dll",
                              "tools/{self}"],
        lines=['[I] [apply] [Update] dung 0 / 6 file tu kho tam',
               '[I] [apply] [Update] da tai qua mang 360052 byte (ca file: 360052 byte)', UPDATED[2]]),
    row("interrupted-apply-repaired-without-configuration", config=False, tree="installed",
        damage={"lib/core.dll": "->lib/core.dll.bak", "Corvanta.exe.bak": b"stale backup\n"}, requests=[], lines=[
            '[W] [apply] [Update] CUU duoc file thieu sau lan ap bi cat ngang: "{inst}/lib/core.dll"',
            '[I] [apply] [Update] don .bak: khoi phuc 1 , don rac 1',
            '[I] [apply] [Update] khong co updater.conf -> bo qua update',
        ]),
    row("prefetch-then-apply", runs=[{"args": ["--prefetch-only"]}, {"args": []}],
        requests=DOCUMENTS + [CHANGED[0] + "+"] + CHANGED[1:] + DOCUMENTS, lines=[
            '[I] [prefetch] [UpdatePrefetch] bat dau 2.0 - 4 file, 0 MB',
            '[I] [prefetch] [UpdatePrefetch] Corvanta.exe tai tu dau 205 KB',
            '[I] [prefetch] [UpdatePrefetch] Corvanta.exe xong ( 1 / 4 )',
            '[I] [prefetch] [UpdatePrefetch] docs/hướng dẫn.txt tai tu dau 0 KB',
            '[I] [prefetch] [UpdatePrefetch] docs/hướng dẫn.txt xong ( 2 / 4 )',
            '[I] [prefetch] [UpdatePrefetch] lib/added.dll tai tu dau 29 KB',
            '[I] [prefetch] [UpdatePrefetch] lib/added.dll xong ( 3 / 4 )',
            '[I] [prefetch] [UpdatePrefetch] lib/core.dll tai tu dau 117 KB',
            '[I] [prefetch] [UpdatePrefetch] lib/core.dll xong ( 4 / 4 )',
            '[I] [prefetch] [UpdatePrefetch] xong toan bo - 4 file ok, 0 bo lai cho updater',
            '[I] [apply] [Update] dung 4 / 4 file tu kho tam',
            '[I] [apply] [Update] da tai qua mang 0 byte (ca file: 360022 byte)',
            '[I] [apply] [Update] CAP NHAT THANH CONG -> "2.0"',
        ]),
    # Staging: partial files in the cache are resumed unless empty or already whole, a wrong one
    # is deleted and fetched again, a wrong finished one is not taken; a failed run keeps the
    # rest of the cache, and whatever a killed run left in staging is never reused.
    row("partial-resumed", cache={"2.0/files/lib/core.dll.part": BUILDS["2.0"]["lib/core.dll"][:1000]},
        damage={".staging/lib/core.dll": BUILDS["2.0"]["lib/core.dll"], ".staging/old.dll": b"left by a killed run\n"},
        lines=['[I] [apply] [Update] "lib/core.dll" noi tiep tu kho tam: 1000 byte', UPDATED[0],
               '[I] [apply] [Update] da tai qua mang 359022 byte (ca file: 360022 byte)', UPDATED[2]]),
    row("partials-kept-when-a-file-fails", unpublish=["lib/core.dll"], tree="installed", cache=PARTIALS,
        cache_after={p: d for p, d in PARTIALS.items() if p != "2.0/files/Corvanta.exe.part"},
        requests=DOCUMENTS + ["Corvanta.exe", "Corvanta.exe", "docs/hướng dẫn.txt", "lib/added.dll", "lib/core.dll",
                              "lib/core.dll"], lines=[
            '[I] [apply] [Update] "Corvanta.exe" noi tiep tu kho tam: 1000 byte',
            '[W] [apply] [Update] hash lech "Corvanta.exe" -> bo phan da co, tai lai tu dau',
            '[I] [apply] [Update] "lib/core.dll" noi tiep tu kho tam: 1000 byte', NOT_FOUND,
            '[W] [apply] [Update] tai tiep "lib/core.dll" that bai -> thu lai tu dau', NOT_FOUND,
            '[W] [apply] [Update] tai "lib/core.dll" that bai -> huy, chay ban hien tai']),
    row("leftover-staging-removed-without-configuration", config=False, tree="installed", requests=[],
        damage={".staging/lib/core.dll": b"staged by a killed run\n"}, lines=NO_CONFIG),
    # A directory where the new build has a file is replaced by it.
    row("directory-becomes-a-file", damage={"lib/added.dll/inside.txt": b"a directory\n"}, lines=UPDATED,
        targets=("native",)),
    # Patches and compressed copies that a prefetch finished are taken from the cache as they are.
    row("prefetch-then-apply-through-patches", publish={"build": "2.0", "patches": True},
        runs=[{"args": ["--prefetch-only"]}, {"args": []}],
        requests=DOCUMENTS + [patch("Corvanta.exe"), "docs/hướng dẫn.txt", compressed("lib/added.dll"),
                              patch("lib/core.dll")] + DOCUMENTS, lines=[
            '[I] [prefetch] [UpdatePrefetch] bat dau 2.0 - 4 file, 0 MB',
            '[I] [prefetch] [UpdatePrefetch] Corvanta.exe tai patch 47 byte thay vi 210000 byte',
            *fetched(patch("Corvanta.exe"), 1), *fetched("docs/hướng dẫn.txt", 2),
            '[I] [prefetch] [UpdatePrefetch] lib/added.dll tai ban nen 434 byte thay vi 30000 byte',
            *fetched(compressed("lib/added.dll"), 3),
            '[I] [prefetch] [UpdatePrefetch] lib/core.dll tai patch 37 byte thay vi 120007 byte',
            *fetched(patch("lib/core.dll"), 4),
            '[I] [prefetch] [UpdatePrefetch] xong toan bo - 4 file ok, 0 bo lai cho updater',
            '[I] [apply] [Update] "Corvanta.exe" tai patch 47 byte thay vi 210000 byte',
            '[I] [apply] [Update] "lib/added.dll" tai ban nen 434 byte thay vi 30000 byte',
            '[I] [apply] [Update] "lib/core.dll" tai patch 37 byte thay vi 120007 byte',
            '[I] [apply] [Update] dung 4 / 4 file tu kho tam',
            '[I] [apply] [Update] da tai qua mang 0 byte (ca file: 360022 byte)', UPDATED[2]]),
    # The repair walks the whole installation, cache and staging too, but not hidden entries.
    *[row(f"repair-{name}", config=False, damage=damage, tree="installed", tree_extra=extra, requests=[],
          lines=lines + NO_CONFIG, targets=("native",)) for name, damage, extra, lines in [
        ("upper-case-suffix", {"Corvanta.exe": "->Corvanta.exe.BAK"}, {}, [
            '[W] [apply] [Update] CUU duoc file thieu sau lan ap bi cat ngang: "{inst}/Corvanta.exe"',
            '[I] [apply] [Update] don .bak: khoi phuc 1 , don rac 0']),
        ("cache-and-staging", {".update-cache/2.0/files/x.bin.bak": b"x\n", ".staging/y.bin": b"y\n",
                               ".staging/y.bin.bak": b"old y\n"}, {".update-cache/2.0/files/x.bin": b"x\n"}, [
            '[W] [apply] [Update] CUU duoc file thieu sau lan ap bi cat ngang: "{inst}/.update-cache/2.0/files/x.bin"',
            '[I] [apply] [Update] don .bak: khoi phuc 1 , don rac 1']),
        ("directory-moved-aside", {"data.bak/x.bin": b"x\n"}, {"data/x.bin": b"x\n"}, [
            '[W] [apply] [Update] CUU duoc file thieu sau lan ap bi cat ngang: "{inst}/data"',
            '[I] [apply] [Update] don .bak: khoi phuc 1 , don rac 0']),
        ("hidden-and-other-names-left", HIDDEN_AND_OTHERS, HIDDEN_AND_OTHERS, []),
    ]],
]
