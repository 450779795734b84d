#!/usr/bin/python3
"""Pages of ten kinds, three workers, one of which is killed every few seconds; is anything lost?

usage: PYTHONPATH=fleet:fleet/tests fleet/soak/soak.py [--pages 300] [--kill 5] [--kinds slow,busy]

The server is restarted in order once and killed once. With root's rights the disk fills up once, on a
file system of its own. Ends with 1 when a page has another class than it should, a file differs, a
video was fetched anew of which half was there, or anything is left; of a page whose video was fetched
anew all is told that the workers logged and the server sent.
"""

from __future__ import annotations

import argparse
import hashlib
import json
import os
import random
import signal
import subprocess
import sys
import time
from pathlib import Path

from clipweir_fleet.pages import Page
from page_server import KINDS, PageServer, video_sum
from support import PROGRAM, Fleet, wait_until

WORKERS = 3
STORE_MIB = 512  # of the store's own file system
TIMEOUT = 5


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--pages", type=int, default=300)
    parser.add_argument("--kill", type=float, default=5.0, help="seconds between two kills")
    parser.add_argument("--kinds", default=",".join(KINDS), help="of the pages, with commas between them")
    chosen = parser.parse_args()
    fleet = Fleet(
        program=PROGRAM, slots=4, lease=6.0, beat=1.0, pause=2.0, max_retries=20, max_losses=1000,
        host_limit=12, host_pause=0.0,
    )  # fmt: skip
    with PageServer(seconds=6.0) as server:
        try:
            return Soak(fleet, server, chosen.pages, chosen.kinds.split(","), chosen.kill).run()
        finally:
            unmount(fleet)
            fleet.close()


def unmount(fleet: Fleet) -> None:
    """Gives the store's own file system back, if it has one."""
    if os.path.ismount(fleet.settings.store):
        for worker in fleet.workers:
            worker.kill()
            worker.wait()
        wait_until(lambda: not fleet.runs(), "no run is left")
        subprocess.run(["umount", str(fleet.settings.store)], check=True)


class Soak:
    def __init__(self, fleet: Fleet, server: PageServer, pages: int, kinds: list[str], kill: float) -> None:
        self.fleet = fleet
        self.server = server
        self.kill = kill
        rounds = -(-pages // len(kinds))
        self.pages = {server.page(kind, n): (kind, n) for n in range(rounds) for kind in kinds}
        self.alive = []
        self.faults: list[str] = []

    def run(self) -> int:
        own_disk = self.mount()
        self.alive = [self.fleet.start_worker() for _ in range(WORKERS)]
        began = time.monotonic()
        self.fleet.command(
            "submit", "--timeout", str(TIMEOUT), "-i", "-", standard_input="\n".join(self.pages)
        )  # fmt: skip
        kills = self.disturb(own_disk)
        print(f"{len(self.pages)} pages in {time.monotonic() - began:.0f} s, {kills} workers killed")
        self.check()
        for fault in self.faults:
            print("FAIL:", fault)
        print("totals:", json.dumps(self.fleet.book.totals(), sort_keys=True))
        return 1 if self.faults else 0

    def mount(self) -> bool:
        """Gives the store a small file system of its own, where that is allowed."""
        store = self.fleet.settings.store
        command = ["mount", "-t", "tmpfs", "-o", f"size={STORE_MIB}m", "none", str(store)]
        if os.geteuid() != 0 or subprocess.run(command, stderr=subprocess.DEVNULL).returncode != 0:
            print("no file system of its own for the store: the disk does not fill up")
            return False
        self.fleet.store.prepare()
        return True

    def disturb(self, own_disk: bool) -> int:
        """Kills, restarts and fills until all pages have ended; the number of kills."""
        kills, done_at_fill, steps = 0, 0, ["restart", "fill", "kill"] if own_disk else ["restart", "kill"]
        next_kill = time.monotonic() + self.kill
        while (ended := self.ended()) < len(self.pages):
            time.sleep(0.2)
            if steps and ended > len(self.pages) * (4 - len(steps)) / 5:
                self.step(steps.pop(0))
            if time.monotonic() >= next_kill:
                victim = self.alive.pop(random.randrange(WORKERS))
                victim.send_signal(signal.SIGKILL)
                victim.wait()
                self.alive.append(self.fleet.start_worker())
                kills += 1
                next_kill = time.monotonic() + self.kill
        if steps:
            self.faults.append(f"there was no time for {steps}")
        return kills

    def ended(self) -> int:
        counts = self.fleet.book.counts()
        return counts["done"] + counts["failed"]

    def step(self, name: str) -> None:
        print(f"{name} at {self.ended()} ended pages", flush=True)
        if name == "restart":
            self.fleet.restart_server()
        elif name == "kill":
            self.fleet.kill_server()
        else:
            self.fill()

    def fill(self) -> None:
        """Leaves no room in the store until a page was put off for it."""
        ballast = self.fleet.settings.store / "ballast"
        before = self.fleet.logs().count('"class": "disk"')
        try:
            with open(ballast, "wb", buffering=0) as file:
                while True:
                    file.write(bytes(256 * 1024))
        except OSError:
            pass
        wait_until(lambda: self.fleet.logs().count('"class": "disk"') > before, "a run has no room")
        ballast.unlink()

    def check(self) -> None:
        results = {}
        for line in self.fleet.command("results", "--json").splitlines():
            result = json.loads(line)
            results[result["url"]] = result
        for url, (kind, number) in self.pages.items():
            result = results.get(url)
            if result is None:
                self.faults.append(f"{url} has no result")
            elif result["class"] != KINDS[kind]:
                self.faults.append(f"{url} is {result['class']}")
            elif KINDS[kind] == "complete":
                content = Path(result["path"]).read_bytes()
                if hashlib.sha256(content).hexdigest() != video_sum(kind, number):
                    self.faults.append(f"{result['path']} is another video")
        for path in self.server.requests.wasted:
            self.faults.append(f"{path} was fetched anew, and half of it was there\n{self.story_of(path)}")
        for worker in self.alive:
            if self.fleet.stop_worker(worker) != 0:
                self.faults.append("a worker does not stop in order")
        if self.fleet.runs():
            self.faults.append("runs are left")
        left = [path.name for path in (self.fleet.settings.store / "work").iterdir()]
        if left:
            self.faults.append(f"left in the store: {left}")

    def story_of(self, path: str) -> str:
        """What became of the page of a video, in the order in which it came about."""
        url = self.server.address + path.replace("/video/", "/page/", 1).removesuffix(".mp4")
        page_id = Page.of(url, {"timeout": TIMEOUT}).key
        lines = {}
        for log in sorted(self.fleet.root.glob("worker*.log")):
            for line in log.read_text(errors="replace").splitlines():
                if page_id in line and line.startswith("{"):
                    lines[json.loads(line)["time"] + log.stem] = f"  {log.stem}: {line}"
        for answer in self.server.requests.answers.get(path, ()):
            lines[answer] = f"  server: {answer}"
        return "\n".join(lines[time] for time in sorted(lines))


if __name__ == "__main__":
    sys.exit(main())
