#!/usr/bin/env python3
"""Turns the measurements of bench.py (JSON) into the Markdown report. Text after the line
"<!-- analysis -->" in an existing report is kept, so a written analysis survives a new run."""

import os
import statistics
import sys

MIB = 1024 * 1024
MARKER = "<!-- analysis -->"


def med(values):
    return statistics.median(values) if values else float("nan")


def fig(values, digits=2, scale=1.0, unit=""):
    """median (min–max) of one figure over the repetitions."""
    values = [v for v in values if v is not None]
    if not values:
        return "n/a"
    unit = f" {unit}" if unit else ""
    m = med(values) * scale
    if len(values) == 1:
        return f"{m:.{digits}f}{unit}"
    return f"{m:.{digits}f}{unit} ({min(values) * scale:.{digits}f}–{max(values) * scale:.{digits}f})"


def ratio(top, bottom, digits=2):
    """Median of the per-repetition ratios, with their range."""
    return fig([a / b for a, b in zip(top, bottom) if b], digits)


def mib(n, digits=1):
    return f"{n / MIB:.{digits}f} MiB"


def phase_values(phases, key):
    return [p[key] for p in phases if p]


def syscall_table(w, profile, what):
    if not profile:
        return
    ph = profile.get("phases") or {}
    phases = (f" Its phases in this traced run: hash pass {ph['check_and_hash']:.2f} s, download "
              f"{ph['download']:.2f} s, replacement {ph['replace']:.2f} s." if ph else "")
    w(f"System calls of the main thread in one more run of {what} (`strace -c -w`, not timed: strace "
      f"slows every call down; wall-clock time inside each call; `poll` is the event loop waiting for "
      f"Qt's network thread).{phases}\n")
    w("| call | calls | seconds | share |\n|---|---|---|---|")
    for c in profile["rows"]:
        w(f"| {c['name']} | {c['calls']} | {c['seconds']:.3f} | {c['percent']:.1f}% |")
    w("")


def render(r):
    out = []
    w = out.append
    m = r["machine"]
    reps = r["reps"]
    w("# Benchmarks: the updater against the physical limit\n")
    w(f"Measured by `bench/run.sh` on {r['started']}, one run of {r['duration'] / 60:.0f} minutes on one "
      f"machine. Every figure is the median of {reps} repetitions, with the lowest and highest value in "
      f"brackets; the limit is measured in the same repetition as the updater, right after it, so that "
      f"the ratios hold on a busy machine.\n")
    w("| machine | |\n|---|---|")
    w(f"| CPU | {m['cpu']}, {m['cores']} cores ({m['virt']}) |")
    w(f"| memory | {m['memory_gib']} GiB |")
    w(f"| system | {m['distro']}, Linux {m['kernel']} |")
    w(f"| data on | {' '.join(m['filesystem'].split())} |")
    w(f"| software | Qt {m['qt']}; {m['nginx']}; {m['curl'].split(' (')[0]}; {m['openssl']}; "
      f"{m['rsync']}; {m['coreutils']} |")
    w(f"| updater | {r.get('source', 'unknown')}, built RelWithDebInfo (-O2 -g) |")
    busy = " (other work ran on the machine)" if max(r["load_before"][0], r["load_after"][0]) >= 1 else ""
    w(f"| load average | {r['load_before'][0]:.2f} at the start, {r['load_after'][0]:.2f} at the end{busy} |\n")
    w("Everything runs on 127.0.0.1: nginx (one worker, `sendfile on`, default keep-alive of 1000 "
      "requests per connection) serves builds published with `corvanta-publish`; the data is "
      "generated from fixed seeds, so every run measures the same bytes. The page cache is warm "
      "(the machine's memory holds every data set); every apply starts from a fresh copy of build 1 "
      "that has been written to disk (`sync`), so no step pays for an earlier step's write-back.\n")

    if r.get("before"):
        render_before_after(w, r["before"], r)

    if "apply" in r:
        a = r["apply"]
        rows = a["rows"]
        up = [x["updater"] for x in rows]
        lim = [x["limit"] for x in rows]
        ph = [x["phases"] for x in rows]
        startup = [x["updater"] - x["phases"]["logged"] for x in rows if x["phases"]]
        w("## 1. Apply of a realistic installation\n")
        w(f"Build 1: {a['files']} files, {mib(a['bytes'])}: three packs and libraries of "
          f"{', '.join(mib(x, 0) for x in a['largest'])}, about 2% of the files between 1 and 30 MiB, the "
          f"rest small (median file {a['median_size'] / 1024:.0f} KiB). Build 2 changes {a['changed_files']} "
          f"files ({mib(a['changed_bytes'])}), the largest of them {mib(a['largest_changed'], 0)}.\n")
        w("| figure | value |\n|---|---|")
        w(f"| **updater, apply run (wall)** | **{fig(up)} s** |")
        w(f"| &nbsp; manifest check + hash pass over the installation | {fig(phase_values(ph, 'check_and_hash'))} s |")
        w(f"| &nbsp; download of the changed files into staging + their verification | {fig(phase_values(ph, 'download'))} s |")
        w(f"| &nbsp; replacement of the installed files (with backups, write-through) | {fig(phase_values(ph, 'replace'))} s |")
        w(f"| &nbsp; process start, configuration, exit | {fig(startup)} s |")
        w(f"| **limit = (a) + (b) + (c)** | **{fig(lim)} s** |")
        w(f"| &nbsp; (a) curl, the changed files over one keep-alive connection | {fig([x['curl'] for x in rows])} s |")
        w(f"| &nbsp; (b) `openssl dgst -sha256` over the whole installed tree | {fig([x['dgst'] for x in rows])} s |")
        w(f"| &nbsp; (c) `cp` of the changed files into place | {fig([x['copy'] for x in rows])} s |")
        w(f"| **ratio updater / limit** | **{ratio(up, lim)}** |")
        if rows[0].get("flush") is not None:
            durable = [x["limit"] + x["flush"] for x in rows]
            w(f"| not in the limit: (d) `sync` of the copied files (fsync each: data on disk, as the updater's "
              f"write-through replacement requires before each rename) | {fig([x['flush'] for x in rows])} s |")
            w(f"| ratio updater / (limit + (d)) | {ratio(up, durable)} |")
        w(f"| bytes served by nginx for files / bytes of the changed files | "
          f"{fig([x['served'] / a['changed_bytes'] for x in rows], 4)} |")
        w(f"| peak resident memory of the updater | {fig([x['peak_kib'] for x in rows], 1, 1 / 1024, 'MiB')} |")
        w(f"| CPU time of the updater (user + system) | {fig([x['cpu'] for x in rows])} s |")
        w(f"| HTTP requests / TCP connections of the updater | {rows[0]['requests']} / {rows[0]['connections']} |\n")
        syscall_table(w, a.get("syscalls"), "the realistic apply")

    if "noop" in r:
        n = r["noop"]
        w("## 2. No-op runs\n")
        w(f"The installation is build 2 ({n['files']} files, {mib(n['bytes'])}).\n")
        w("| figure | value |\n|---|---|")
        w(f"| up to date by build number (wall) | {fig(n['uptodate'], 3)} s |")
        w(f"| &nbsp; installed build files it opens (strace, `open`/`openat`) | {n['uptodate_file_opens']} of {n['files']} |")
        w(f"| &nbsp; directories it lists (the walk that repairs an interrupted apply) | {n['uptodate_dir_opens']} of {n['dirs']} |")
        w(f"| all hashes match: full hash pass (wall; `manifest.json` removed) | {fig(n['matching'])} s |")
        w(f"| &nbsp; installed build files it opens | {n['hashing_file_opens']} of {n['files']} |")
        w(f"| `sha256sum` over the same files | {fig(n['sha256sum'])} s |")
        w(f"| `openssl dgst -sha256` over the same files | {fig(n['dgst'])} s |")
        w(f"| ratio hash pass / sha256sum | {ratio(n['matching'], n['sha256sum'])} |")
        w(f"| ratio hash pass / openssl dgst | {ratio(n['matching'], n['dgst'])} |\n")

    if "scaling" in r:
        w("## 3. Scaling with the number of changed files\n")
        w("Installations of N small files (1–32 KiB, log-uniform), every one changed in build 2. "
          "curl fetches the same N files in one invocation.\n")
        w("| N | changed | apply (wall) | apply per file | curl | curl per file | ratio | "
          "hash + download + replace per file | connections apply / curl |")
        w("|---|---|---|---|---|---|---|---|---|")
        for s in r["scaling"]:
            n = s["count"]
            ph = s["phases"]
            per = lambda key: fig(phase_values(ph, key), 2, 1000 / n)
            w(f"| {n} | {mib(s['bytes'])} | {fig(s['apply'])} s | {fig(s['apply'], 2, 1000 / n)} ms | "
              f"{fig(s['curl'], 3)} s | {fig(s['curl'], 3, 1000 / n)} ms | {ratio(s['apply'], s['curl'], 1)} | "
              f"{per('check_and_hash')} + {per('download')} + {per('replace')} ms | "
              f"{med(s['apply_connections']):.0f} / {med(s['curl_connections']):.0f} |")
        last = r["scaling"][-1]
        w("")
        if all("manager" in s for s in r["scaling"]):
            w("The two halves of the same work with nothing else around them, in each repetition beside the "
              "apply. **Qt's manager alone** (`build/bin/bench/qnam_fetch`): the network access manager the "
              "updater uses, fetching the same files into memory and dropping them, six GETs in flight, timed from the "
              "first GET to the last answer (curl's time includes its start). "
              "**File work alone** (Python, `os` calls): build 2's files written into a staging directory "
              "and synced with `syncfs`, each installed file linked to a backup and its staged file renamed "
              "over it, the directories synced, the backups removed.\n")
            w("| N | Qt's manager alone | per file | / curl | its network thread's CPU per answer | "
              "file work alone per file: write + sync + replace + remove backups |")
            w("|---|---|---|---|---|---|")
            for s in r["scaling"]:
                n = s["count"]
                walls = [m["wall"] for m in s["manager"]]
                work = lambda key: fig([x[key] for x in s["file_work"]], 3, 1000 / n)
                w(f"| {n} | {fig(walls, 3)} s | {fig(walls, 3, 1000 / n)} ms | {ratio(walls, s['curl'])} | "
                  f"{fig([m['network_thread_cpu'] for m in s['manager']], 3, 1000 / n)} ms | "
                  f"{work('write')} + {work('sync')} + {work('replace')} + {work('remove_backups')} ms |")
            w("")
        syscall_table(w, last.get("syscalls"), f"the apply of {last['count']} files")

    if "latency" in r:
        lat = r["latency"]
        w(f"## 3l. Small changed files at {lat['seconds'] * 1000:.0f} ms per request\n")
        w(f"The data sets of item 3 through a proxy in front of nginx that holds every request back for "
          f"{lat['seconds'] * 1000:.0f} ms, a modest real round trip (the kernel here has no netem). curl fetches "
          f"the same files with `--parallel --parallel-max {lat['curl_parallel']}`, through the same proxy.\n")
        w("| N | changed | apply (wall) | curl --parallel | ratio | connections of the apply |")
        w("|---|---|---|---|---|---|")
        for x in lat["sets"]:
            w(f"| {x['count']} | {mib(x['bytes'])} | {fig(x['apply'])} s | {fig(x['curl'])} s | "
              f"{ratio(x['apply'], x['curl'])} | {med(x['apply_connections']):.0f} |")
        w("")

    if "streaming" in r:
        s = r["streaming"]
        w("## 4. Streaming: memory of a 2 GiB apply and of a prefetch\n")
        w("| figure | value |\n|---|---|")
        w(f"| apply whose single changed file is {mib(s['bytes'], 0)}: wall | {fig(s['apply'])} s |")
        w(f"| &nbsp; hash pass / download + verify / replace | {fig(phase_values(s['phases'], 'check_and_hash'))} / "
          f"{fig(phase_values(s['phases'], 'download'))} / {fig(phase_values(s['phases'], 'replace'))} s |")
        if s.get("reference"):
            w(f"| &nbsp; for comparison: curl of the new file / `openssl dgst -sha256` of the installed one | "
              f"{fig([x['curl'] for x in s['reference']])} / {fig([x['dgst'] for x in s['reference']])} s |")
        w(f"| &nbsp; peak resident memory | {fig(s['peak_kib'], 1, 1 / 1024, 'MiB')} |")
        if s["curves"]:
            w(f"| &nbsp; resident memory over the run (MiB, one repetition) | {' → '.join(map(str, s['curves'][0]))} |")
        if s["refusal_peak_kib"]:
            w(f"| prefetch of the same build: refused by the 500 MiB cap, peak memory | "
              f"{fig(s['refusal_peak_kib'], 1, 1 / 1024, 'MiB')} |")
    if "prefetch" in r:
        p = r["prefetch"]
        rows = p["rows"]
        if "streaming" not in r:
            w("## 4. Streaming\n\n| figure | value |\n|---|---|")
        w(f"| prefetch of a {p['bytes']} byte file, {p['window']:.0f} s of transfer, then the application "
          f"closes: peak memory | {fig([x['peak_kib'] for x in rows], 1, 1 / 1024, 'MiB')} |")
        w(f"| &nbsp; resident memory over the run (MiB, one repetition) | {' → '.join(map(str, rows[0]['curve']))} |")
        w(f"| verification of the complete {p['bytes']} byte `.part` (4 MiB per 100 ms tick): wall | "
          f"{fig([x['wall'] for x in p['verify']])} s |")
        w(f"| &nbsp; peak memory | {fig([x['peak_kib'] for x in p['verify']], 1, 1 / 1024, 'MiB')} |\n")
        w("## 5. Prefetch politeness\n")
        w(f"Client side: the size of the `.part` file sampled every 100 ms from the first byte until the "
          f"application (a stand-in process given with `--wait-pid`) is closed after {p['window']:.0f} s.\n")
        w("| figure | value |\n|---|---|")
        w(f"| bytes transferred in the window | {fig([x['transferred'] for x in rows], 1, 1e-6, 'MB')} |")
        w(f"| mean transfer rate | {fig([x['rate'] for x in rows], 0, 1, 'B/s')} |")
        w(f"| ratio to the cap of 1,024,000 B/s | {fig([x['rate'] / 1024000 for x in rows], 3)} |")
        w(f"| CPU seconds per MB transferred (whole process: start, manifest, transfer, stop) | "
          f"{fig([x['cpu'] / (x['transferred'] / 1e6) for x in rows], 4)} |")
        w(f"| peak resident memory | {fig([x['peak_kib'] for x in rows], 1, 1 / 1024, 'MiB')} |")
        early = [x for x in rows if x.get("stopped") is False]
        if early:
            w(f"| runs in which the whole file arrived before the window ended | {len(early)} of {len(rows)} |")
        ps = r.get("prefetch_small")
        if ps and ps["rows"]:
            rows = ps["rows"]
            w(f"| **{ps['files']} small files** (64 KiB–1 MiB, {ps['bytes'] / 1e6:.1f} MB), whole run from "
              f"\"bat dau\" to \"xong toan bo\" in updater.log, hashing included: duration | "
              f"{fig([x['seconds'] for x in rows])} s |")
            w(f"| &nbsp; mean transfer rate | {fig([x['rate'] for x in rows], 0, 1, 'B/s')} |")
            w(f"| &nbsp; ratio to the cap | {fig([x['rate'] / 1024000 for x in rows], 3)} |")
            w(f"| &nbsp; CPU seconds per MB | {fig([x['cpu'] / (ps['bytes'] / 1e6) for x in rows], 4)} |")
            w(f"| &nbsp; peak resident memory | {fig([x['peak_kib'] for x in rows], 1, 1 / 1024, 'MiB')} |")
        w("")
        render_cap(w, r.get("prefetch_cap"))
    elif "streaming" in r:
        w("")

    if r.get("resume"):
        rows = r["resume"]
        x = rows[0]
        w("## 6. Resume\n")
        w(f"A prefetch of the {x['size']} byte file is stopped (application closed) with a `.part` in the "
          f"cache; an apply is killed (SIGKILL) when its staged copy is half complete; a second apply runs "
          f"to the end. Bytes from nginx's access log (`$body_bytes_sent`).\n")
        w("| figure | value |\n|---|---|")
        w(f"| `.part` left by the prefetch | {fig([y['part'] for y in rows], 0)} bytes |")
        w(f"| nginx sent to the prefetch before it stopped | {fig([y['prefetch_sent'] for y in rows], 0)} bytes |")
        w(f"| killed apply: request (first repetition) | `Range: {x['first_range']}` |")
        w(f"| &nbsp; nginx sent / the staged copy had received past the `.part` | "
          f"{fig([y['first_sent'] for y in rows], 0)} / {fig([y['first_received'] for y in rows], 0)} bytes |")
        w(f"| second apply: request (first repetition) | `Range: {x['second_range']}` |")
        w(f"| &nbsp; nginx sent | {fig([y['second_sent'] for y in rows], 0)} bytes |")
        w(f"| &nbsp; bytes missing from the `.part` (file size − `.part`) | {fig([y['size'] - y['part'] for y in rows], 0)} bytes |")
        w(f"| bytes re-downloaded by the second apply (sent − missing) | "
          f"{fig([y['second_sent'] - (y['size'] - y['part']) for y in rows], 0)} |")
        w(f"| bytes the killed apply fetched that were fetched again | {fig([y['first_sent'] for y in rows], 0)} |")
        w(f"| all bytes sent for the file / file size | "
          f"{fig([(y['prefetch_sent'] + y['first_sent'] + y['second_sent']) / y['size'] for y in rows], 3)} |\n")

    if "rsync" in r:
        s = r["rsync"]
        rows = s["rows"]
        w("## 7. A peer: rsync --checksum\n")
        w(f"The same update (build 1 → build 2 of item 1) by `rsync -a --checksum` from an rsync daemon on "
          f"127.0.0.1 ({s['version']}).\n")
        w("| figure | rsync | updater |\n|---|---|---|")
        up = [x["updater"] for x in r["apply"]["rows"]] if "apply" in r else []
        w(f"| wall time | {fig([x['wall'] for x in rows])} s | {fig(up)} s |")
        w(f"| bytes received (rsync: `Total bytes received`; updater: nginx `$bytes_sent`, headers included) | "
          f"{fig([x['received'] for x in rows], 0)} | {s['updater_wire_bytes']} |")
        w(f"| file data (rsync: literal data; updater: body bytes, manifest and signature included) | "
          f"{fig([x['literal'] for x in rows], 0)} | {s['updater_body_bytes']} |")
        w(f"| bytes sent by the client | {fig([x['sent'] for x in rows], 0)} | — |")
        w(f"| CPU time of the client (user + system) | {fig([x['cpu'] for x in rows])} s | "
          f"{fig([x['cpu'] for x in r['apply']['rows']]) if 'apply' in r else 'n/a'} s |")
        w(f"| peak resident memory of the client | {fig([x['peak_kib'] for x in rows], 1, 1 / 1024, 'MiB')} | "
          f"{fig([x['peak_kib'] for x in r['apply']['rows']], 1, 1 / 1024, 'MiB') if 'apply' in r else 'n/a'} |\n")

    if r.get("small_updates"):
        render_small_updates(w, r["small_updates"], "8. Small updates on real data: LibreOffice from Debian", "")
    if r.get("small_updates_firefox"):
        render_small_updates(w, r["small_updates_firefox"], "9. Small updates on real data: Firefox ESR from Debian",
                             " --pair firefox")

    if r.get("perf_apply"):
        w("## Profile of one apply (item 1's data, `perf record -F 999 -g`, all threads; self time by "
          "thread and library, then by library and symbol)\n")
        w("```")
        out.extend(r["perf_apply"])
        w("```\n")
    return "\n".join(out) + "\n"


def render_before_after(w, before, r):
    """The performance targets, from one run of the commit before the work on them and one run of
    this commit."""
    def scaling(res, count):
        return next((x for x in res.get("scaling", []) if x["count"] == count), None)

    def latency(res, count):
        return next((x for x in (res.get("latency") or {}).get("sets", []) if x["count"] == count), None)

    def per_file_ratio(res, count):
        x = scaling(res, count)
        return ratio(x["apply"], x["curl"]) if x else "n/a"

    def apply_ratio(res):
        rows = (res.get("apply") or {}).get("rows")
        return ratio([x["updater"] for x in rows], [x["limit"] for x in rows]) if rows else "n/a"

    def lat_wall(res, count):
        x = latency(res, count)
        return f"{fig(x['apply'])} s" if x else "n/a"

    def lat_ratio(res, count):
        x = latency(res, count)
        return ratio(x["apply"], x["curl"]) if x else "n/a"

    w("## Before and after\n")
    later = (f" The rows at 50 ms per request, before: {before['latency_source']}, the commit before requests "
             f"were kept in flight (the earlier run had no such item)." if before.get("latency_source") else "")
    w(f"Before: {before.get('source', 'unknown')} ({before.get('started', '?')}); after: this run. Each figure is "
      f"the median over the repetitions of its item below, with the range.{later}\n")
    w("| figure | target | before | after |\n|---|---|---|---|")
    w(f"| 10,000 changed small files, apply / curl over one connection | at most 1.5 | "
      f"{per_file_ratio(before, 10000)} | {per_file_ratio(r, 10000)} |")
    w(f"| 100 changed small files, apply / curl over one connection | at most 3 | "
      f"{per_file_ratio(before, 100)} | {per_file_ratio(r, 100)} |")
    w(f"| 100 small files at 50 ms per request, apply | under 2 s | {lat_wall(before, 100)} | {lat_wall(r, 100)} |")
    w(f"| 10,000 small files at 50 ms per request, apply / curl --parallel | at most 1.5 | "
      f"{lat_ratio(before, 10000)} | {lat_ratio(r, 10000)} |")
    w(f"| realistic apply / limit (curl + openssl dgst + cp) | at most 1.10 | {apply_ratio(before)} | {apply_ratio(r)} |")
    caps = r.get("prefetch_cap") or []
    if len(caps) >= 2:
        held = lambda cap: f"{sum(1 for x in cap['sets'] for y in x['runs'] if y['held'])} of " \
                           f"{sum(len(x['runs']) for x in cap['sets'])} ({cap['source']})"
        w(f"| prefetch cap at the server, runs that held (item 5c) | all | {held(caps[0])} | {held(caps[-1])} |")
    w("")


def render_cap(w, caps):
    """Item 5c: the cap as nginx's side sees it, every run of each source measured."""
    if not caps:
        return
    if isinstance(caps, dict):  # one run's own measurements, not yet kept with other sources'
        caps = [caps]
    w(f"**The cap in every run (item 5c, `bench/run.sh --prefetch-cap`).** Each prefetch runs to its end through "
      f"a proxy in front of nginx that counts the bytes it passes to the updater's socket (its own buffers "
      f"16 KiB). \"Most in {caps[0]['window']:.0f} s\" is the largest count in any {caps[0]['window']:.0f} s window, "
      f"headers included, which the cap allows up to {caps[0]['allowed']} bytes (two seconds at 1,024,000 B/s "
      f"and the 204,800 byte burst); \"nginx log\" is the same from nginx's own per-request totals at each "
      f"request's end ($msec), which only means something when requests are small. A run holds when both "
      f"stay within the cap: the window, and a duration (\"bat dau\" to \"xong toan bo\" in updater.log) of at "
      f"least size / cap.\n")
    for cap in caps:
        w(f"{cap['source']}:\n")
        w("| data | runs that held | most in the window, per run (bytes) | nginx log, per run "
          "| duration, per run (s) | size / cap | requests (connections), median |\n|---|---|---|---|---|---|---|")
        for x in cap["sets"]:
            runs = x["runs"]
            held = sum(1 for y in runs if y["held"])
            seconds = " ".join(f"{y['seconds'] or 0:.2f}" for y in runs)
            w(f"| {x['name']}, {x['bytes']} bytes | {held} of {len(runs)} | {' '.join(str(y['most']) for y in runs)} "
              f"| {' '.join(str(y['most_logged']) for y in runs)} | {seconds} | {x['bytes'] / 1024000:.2f} s "
              f"| {med([y['requests'] for y in runs]):.0f} ({med([y['connections'] for y in runs]):.0f}) |")
        w("")


def steady(values, digits=0, scale=1.0, unit=""):
    """One value when every repetition gave the same (byte counts), else fig()."""
    if values and min(values) == max(values):
        value = values[0] * scale
        return (f"{value:,.0f}" if digits == 0 else f"{value:.{digits}f}") + (f" {unit}" if unit else "")
    return fig(values, digits, scale, unit)


def render_small_updates(w, s, title, options):
    old, new = s.get("names", ["u13", "u14"])
    changed = s["changed_bytes"]
    shown = sorted(s["changed"], key=lambda c: -c["size"])
    changed_files = ", ".join(f"{c['path'].rsplit('/', 1)[-1]} {c['size'] / 1e6:.2f} MB" for c in shown[:8])
    if len(shown) > 8:
        changed_files += f" and {len(shown) - 8} smaller ones"
    # Results from before there were several links hold the one link of 8 MiB/s.
    links = s.get("links") or {"8 MiB/s": dict(rate=s.get("link_rate"), apply=s.get("apply_link", {}))}
    later = s.get("links_measured")
    rates = ", ".join(f"`{v['rate']}` for {k}" for k, v in links.items())
    measured = f", measured later on {later['started']} ({later['source']})" if later else ""
    w(f"## {title}\n")
    w(f"Measured by `bench/run.sh --small-updates{options}` on {s['started']} ({s['source']}). `{s['package']}` "
      f"{s['old']} is installed and {s['new']} published, both from this machine's apt sources "
      f"(`apt-get download`), unpacked with `dpkg -x`, symbolic links left out: {s['files']} files, "
      f"{s['bytes'] / 1e6:.1f} MB, of which {len(s['changed'])} change ({changed_files}): "
      f"{changed / 1e6:.1f} MB. {new} is published three ways and served by nginx on 127.0.0.1; each apply "
      f"starts from a fresh copy of {old} and must end byte for byte equal to {new} (checked: "
      f"{'yes' if not s.get('failures') else 'NO: ' + '; '.join(s['failures'])}). Figures are the median of "
      f"{len(s['apply']['whole']['rows'])} runs (lowest and highest in brackets); the link columns are one run "
      f"each through nginx's `limit_rate` ({rates})"
      f"{measured}.\n")
    w("| published | file bodies sent by nginx | share of the changed bytes | with headers and both documents | "
      "apply, loopback | " + "".join(f"apply at {k} | " for k in links) + "peak memory of the updater |\n|"
      + "---|" * (6 + len(links)))
    for name in ("whole", "compressed", "patched"):
        a = s["apply"][name]
        rows = a["rows"]
        w(f"| {a['title']} | {steady([x['body'] for x in rows])} | "
          f"{steady([x['body'] / changed * 100 for x in rows], 1)} % | {steady([x['wire'] for x in rows])} | "
          f"{fig([x['wall'] for x in rows])} s | "
          + "".join(f"{fig([x['wall'] for x in v['apply'].get(name, {}).get('rows', [])])} s | " for v in links.values())
          + f"{fig([x['peak_kib'] for x in rows], 1, 1 / 1024, 'MiB')} |")
    if s.get("rsync"):
        rows = s["rsync"]["rows"]
        w(f"| rsync --checksum from a daemon ({s['rsync']['version']}) | {steady([x['received'] for x in rows])} "
          f"received | {steady([x['received'] / changed * 100 for x in rows], 1)} % | — | {fig([x['wall'] for x in rows])} s "
          f"| {'— | ' * len(links)}{fig([x['peak_kib'] for x in rows], 1, 1 / 1024, 'MiB')} |")
    w("")
    patched = s["apply"]["patched"]["rows"][0]
    w("What the patched apply chose (its log): " + "; ".join(
        c.split("[Update] ", 1)[1] for c in patched["choices"]) + ". " + patched["summary"].split("[Update] ", 1)[1] + ".\n")
    w("The decoder alone (`build/bin/bench/decode_artifact`, the updater's own decoding code, into a file; the "
      "fastest of the runs; peak resident memory of that small program, Qt's core library included):\n")
    w("| artifact | of the file | artifact bytes | file bytes | decode time | peak memory |\n|---|---|---|---|---|---|")
    # A pair with many changed files shows the decoder on the files of at least 1 MB.
    decoded = s["decoder"] if len(s["decoder"]) <= 12 else [d for d in s["decoder"] if d["size"] >= 1_000_000]
    for d in decoded:
        kind = f"patch against {old}" if d["kind"] == "patch" else "compressed copy"
        w(f"| {kind} | {d['path'].rsplit('/', 1)[-1]} | {d['artifact']:,} | {d['size']:,} | {d['seconds']:.3f} s | "
          f"{d['peak_kib'] / 1024:.0f} MiB |")
    if len(decoded) < len(s["decoder"]):
        w(f"\n{len(s['decoder']) - len(decoded)} artifacts of files under 1 MB left out: each decoded in at most "
          f"{max(d['seconds'] for d in s['decoder'] if d not in decoded):.3f} s at "
          f"{max(d['peak_kib'] for d in s['decoder'] if d not in decoded) / 1024:.0f} MiB.")
    w("")
    pub = s.get("publish_seconds", {})
    if pub:
        w(f"Publishing {new} took {pub.get('whole', 0):.0f} s whole, {pub.get('compressed', 0):.0f} s with compressed "
          f"copies (zstd level 19, all {s['files']} files) and {pub.get('patched', 0):.0f} s more for the patches "
          f"(level 19, long-distance matching; the compressed copies kept from the tree before).\n")


def main():
    import json
    source, target = sys.argv[1], sys.argv[2]
    with open(source) as f:
        results = json.load(f)
    # The small-updates benchmark keeps its own measurements beside the main ones, one file a pair.
    for key, name in (("small_updates", "results-small-updates.json"),
                      ("small_updates_firefox", "results-small-updates-firefox.json"),
                      ("prefetch_cap", "results-prefetch-cap.json"), ("before", "results-before.json")):
        small = os.path.join(os.path.dirname(os.path.abspath(source)), name)
        if os.path.exists(small):
            with open(small) as f:
                results[key] = json.load(f)
    # The commit before the work on the latency figures had no item 3l: measured on its own.
    latency_before = os.path.join(os.path.dirname(os.path.abspath(source)), "results-latency-before.json")
    if results.get("before") is not None and os.path.exists(latency_before):
        with open(latency_before) as f:
            extra = json.load(f)
        results["before"]["latency"] = extra.get("latency")
        results["before"]["latency_source"] = f"{extra.get('source', 'unknown')} ({extra.get('started', '?')})"
    analysis = ""
    if os.path.exists(target):
        text = open(target, encoding="utf-8").read()
        if MARKER in text:
            analysis = text[text.index(MARKER):]
    with open(target, "w", encoding="utf-8") as f:
        f.write(render(results))
        if analysis:
            f.write("\n" + analysis)


if __name__ == "__main__":
    main()
