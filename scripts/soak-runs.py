#!/usr/bin/env python3
"""The runs of scripts/soak.sh, which serves the pages. Standard library only.

usage: soak-runs.py program address folder runs jobs
"""

import hashlib
import os
import pathlib
import re
import resource
import statistics
import subprocess
import sys
import threading
import time

SUCCESS = "video download finished:success "
FAILED = "video download finished:failed "
NOTHING = "parse failed "
PATIENCE = 60  # s, until a run that will be killed has begun

# Name, page, options, the line before the last.
KINDS = [
    ("demonstration", "/", ["--thumb", "--log"], SUCCESS),
    ("video", "/pages/video.html", ["--smartname"], SUCCESS),
    ("nothing", "/pages/nothing.html", ["--timeout", "2", "--log"], NOTHING),
    ("endless script", "/pages/endless.html", ["--timeout", "1", "--log"], NOTHING),
    ("redirects", "/pages/moved.html", [], SUCCESS),
    ("missing video", "/pages/gone.html", ["--timeout", "3"], FAILED),
    ("big page", "/pages/big.html", ["--log"], SUCCESS),
    ("stream", "/pages/stream.html", ["--f4f", "--log"], SUCCESS),
    ("killed, and again", "/pages/nothing.html", ["--timeout", "2", "--log"], NOTHING),
]
KILLED = "killed, and again"


def flag_files(url):
    """The names of the files that stand for the page's stop flag and its lock in the system."""
    key = "SM_" + hashlib.md5(url.encode()).hexdigest().upper()
    rest = re.sub("[^A-Za-z]", "", key) + hashlib.sha1(key.encode()).hexdigest()
    return [("shm", f"qipc_sharedmemory_{rest}"), ("sem", f"qipc_systemsem_{rest}")]


def system_key(path):
    """What the toolkit makes of such a file: ftok() with "Q"."""
    info = path.stat()
    return (ord("Q") << 24) | ((info.st_dev & 0xFF) << 16) | (info.st_ino & 0xFFFF)


class Soak:
    def __init__(self, program, address, folder, runs):
        self.program = program
        self.address = address
        self.folder = pathlib.Path(folder)
        self.numbers = iter(range(runs))
        self.lock = threading.Lock()
        self.peaks = {kind[0]: [] for kind in KINDS}  # KiB
        self.complaints = []
        self.environment = dict(os.environ, QT_QPA_PLATFORM="offscreen")
        for variable, name in (("TMPDIR", "temp"), ("HOME", "home"), ("XDG_RUNTIME_DIR", "runtime")):
            path = self.folder / name
            path.mkdir(mode=0o700)
            self.environment[variable] = str(path)
        self.environment.pop("CLIPWEIR_COOKIES", None)

    def work(self):
        while True:
            with self.lock:
                number = next(self.numbers, None)
            if number is None:
                return
            self.run(number)

    def run(self, number):
        name, page, options, end = KINDS[number % len(KINDS)]
        output = self.folder / f"run{number}"
        output.mkdir()
        url = f"{self.address}{page}?n={number}"
        if name == KILLED:
            self.kill_one(number, url, output)
        with open(output / "lines", "w+b") as lines:
            process = subprocess.Popen(
                [self.program, "--url", url, *options], cwd=output, env=self.environment,
                stdin=subprocess.DEVNULL, stderr=lines)
            _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            lines.seek(0)
            text = lines.read().decode(errors="replace").splitlines()
        with self.lock:
            self.peaks[name].append(usage.ru_maxrss)
            if process.returncode != 0 or text[-2:] != [end, "detach sharememory "]:
                self.complaints.append(f"run {number} ({name}): {process.returncode} {text[-2:]}")

    def kill_one(self, number, url, output):
        """Kills a run of the page; complains unless the look at the end would see what is left."""
        with open(output / "lines", "wb") as lines:
            process = subprocess.Popen(
                [self.program, "--url", url], cwd=output, env=self.environment,
                stdin=subprocess.DEVNULL, stderr=lines)
        end = time.monotonic() + PATIENCE
        while b"parsing..." not in (output / "lines").read_bytes() and time.monotonic() < end:
            time.sleep(0.01)
        process.kill()
        process.wait()
        found = self.leftovers()
        for kind, name in flag_files(url):
            path = self.folder / "temp" / name
            wanted = [f"temporary file {name}"]
            if path.exists():
                wanted.append(f"{kind} {system_key(path)} ")
            for what in wanted:
                if not any(line.startswith(what) for line in found):
                    with self.lock:
                        self.complaints.append(f"run {number}: the look misses {what}")

    def leftovers(self):
        found = [f"temporary file {path.name}" for path in (self.folder / "temp").iterdir()]
        for pattern in ("*.lock", "*.??????"):
            for path in self.folder.rglob(pattern):
                if path.name.endswith(".lock") or path.parent.name in ("f4ftmp", "logs"):
                    found.append(f"file {path}")
        for path in (self.folder / "home").rglob("clipweir-??????"):
            found.append(f"file {path}")
        for kind in ("shm", "sem"):
            for line in pathlib.Path(f"/proc/sysvipc/{kind}").read_text().splitlines()[1:]:
                found.append(f"{kind} {' '.join(line.split())}")
        for path in pathlib.Path("/proc").glob("[0-9]*/environ"):
            try:
                if f"TMPDIR={self.folder}/temp".encode() in path.read_bytes():
                    found.append(f"process {path.parent.name}")
            except OSError:
                pass  # it has ended, or is not ours
        return found


def main():
    program, address, folder, runs, jobs = sys.argv[1:]
    soak = Soak(program, address, folder, int(runs))
    begin = time.monotonic()
    threads = [threading.Thread(target=soak.work) for _ in range(int(jobs))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    processor = resource.getrusage(resource.RUSAGE_CHILDREN)
    print(f"{runs} runs, {jobs} at a time, in {time.monotonic() - begin:.0f} s; processor time of a "
          f"run {(processor.ru_utime + processor.ru_stime) / int(runs):.2f} s")
    print("Peak memory of a run in MiB: median, most")
    for name, peaks in soak.peaks.items():
        if peaks:
            print(f"  {name:16} {statistics.median(peaks) / 1024:6.1f} {max(peaks) / 1024:6.1f}")
    problems = soak.complaints + [f"left behind: {what}" for what in soak.leftovers()]
    print("\n".join(problems) if problems else "All ended as they should; nothing is left behind.")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
