"""Running a program and measuring it: wall time, peak resident memory and CPU time from GNU time,
resident memory and a file's size sampled over time from /proc."""

import os
import signal
import subprocess
import tempfile
import threading
import time


class Run:
    def __init__(self):
        self.wall = 0.0          # seconds, measured here around the whole process
        self.peak_kib = 0        # GNU time %M: peak resident set size
        self.user = 0.0
        self.sys = 0.0
        self.returncode = None
        self.output = ""
        self.samples = []        # (seconds since start, resident KiB, watched file size or None)

    @property
    def cpu(self):
        return self.user + self.sys


def _child_of(pid):
    try:
        with open(f"/proc/{pid}/task/{pid}/children") as f:
            children = f.read().split()
        return int(children[0]) if children else None
    except OSError:
        return None


def _resident_kib(pid):
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


def _file_size(path):
    try:
        return os.path.getsize(path)
    except OSError:
        return None


class Sampler(threading.Thread):
    """Samples the resident memory of the program run under GNU time, and optionally the size
    of one file, every `interval` seconds until stopped."""

    def __init__(self, time_pid, interval, watch_file=None):
        super().__init__(daemon=True)
        self.time_pid = time_pid
        self.interval = interval
        self.watch_file = watch_file
        self.samples = []
        self.stop_event = threading.Event()
        self.start_time = time.monotonic()
        self.pid = None

    def run(self):
        while not self.stop_event.is_set():
            if self.pid is None:
                self.pid = _child_of(self.time_pid)
            rss = _resident_kib(self.pid) if self.pid else None
            size = _file_size(self.watch_file) if self.watch_file else None
            self.samples.append((time.monotonic() - self.start_time, rss, size))
            self.stop_event.wait(self.interval)

    def stop(self):
        self.stop_event.set()
        self.join()


def run_timed(cmd, env=None, cwd=None, sample_interval=None, watch_file=None, on_sample=None,
              timeout=3600, check=True):
    """Runs cmd under GNU time. on_sample(sampler) is called about every sample_interval
    seconds while the program runs (it may kill things); the samples are kept in the result."""
    with tempfile.NamedTemporaryFile("r", suffix=".time") as tf, \
            tempfile.TemporaryFile("w+") as out:
        full = ["/usr/bin/time", "-f", "%M %U %S", "-o", tf.name] + list(cmd)
        start = time.monotonic()
        process = subprocess.Popen(full, env=env, cwd=cwd, stdout=out, stderr=subprocess.STDOUT)
        sampler = None
        if sample_interval:
            sampler = Sampler(process.pid, sample_interval, watch_file)
            sampler.start_time = start
            sampler.start()
        deadline = start + timeout
        try:
            if on_sample and sampler:
                while process.poll() is None:
                    if time.monotonic() > deadline:
                        raise subprocess.TimeoutExpired(cmd, timeout)
                    on_sample(sampler)
                    time.sleep(sample_interval)
            else:
                process.wait(timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            raise RuntimeError(f"timed out: {' '.join(map(str, cmd))}")
        wall = time.monotonic() - start
        if sampler:
            sampler.stop()
        run = Run()
        run.wall = wall
        run.returncode = process.returncode
        out.seek(0)
        run.output = out.read()
        fields = tf.read().split()
        # GNU time writes "Command exited with non-zero status N" before its own line.
        if len(fields) >= 3:
            run.peak_kib, run.user, run.sys = int(fields[-3]), float(fields[-2]), float(fields[-1])
        if sampler:
            run.samples = sampler.samples
    if check and run.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, cmd))} exited with {run.returncode}:\n{run.output[-2000:]}")
    return run


def run_plain(cmd, env=None, cwd=None, check=True):
    """Wall time of cmd, its output discarded."""
    start = time.monotonic()
    done = subprocess.run(cmd, env=env, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    wall = time.monotonic() - start
    if check and done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, cmd[:4]))}... exited with {done.returncode}: "
                           f"{done.stderr.decode(errors='replace')[-2000:]}")
    return wall


def kill_quietly(process, sig=signal.SIGKILL):
    if process.poll() is None:
        process.send_signal(sig)
        process.wait()
