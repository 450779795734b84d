#!/usr/bin/python3
"""Measures what the fleet takes beside runs that are started directly, as many at a time.

usage: PYTHONPATH=fleet:fleet/tests fleet/soak/overhead.py [--rounds 4]

With 1, 2 and 4 workers of four slots each; the pages wait for their server most of the time.
"""

from __future__ import annotations

import argparse
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from clipweir_fleet.pages import Page
from page_server import PageServer
from simulate import own_cpu_of
from support import PROGRAM, Fleet, wait_until

SLOTS = 4
OPTIONS = ["--timeout", "5"]


def directly(server: PageServer, numbers: range, together: int, folder: Path) -> float:
    """The seconds that the runs take without the fleet."""

    def run(number: int) -> None:
        own = folder / f"direct{number}"
        own.mkdir()
        command = [PROGRAM, "--url", server.page("slow", number), "--saveto", str(own / "video.mp4")]
        command += OPTIONS
        command += ["--events", "--strict", "--continue", "--parent", "--engine", "auto", "--deadline", "100"]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    began = time.monotonic()
    with ThreadPoolExecutor(together) as pool:
        list(pool.map(run, numbers))
    return time.monotonic() - began


def by_fleet(fleet: Fleet, server: PageServer, numbers: range) -> tuple[float, float]:
    """The seconds that the runs take with it, and the workers' own processor time."""
    ready = fleet.logs().count("the worker is ready")
    wait_until(lambda: fleet.logs().count("the worker is ready") == len(fleet.workers), f"{ready} are ready")
    before = sum(own_cpu_of(worker.pid) for worker in fleet.workers)
    done = fleet.book.counts()["done"]
    began = time.monotonic()
    for _ in fleet.book.submit(Page.of(server.page("slow", n), {"timeout": 5}) for n in numbers):
        pass
    wait_until(lambda: fleet.book.counts()["done"] == done + len(numbers), "all are done", 600)
    wall = time.monotonic() - began
    return wall, sum(own_cpu_of(worker.pid) for worker in fleet.workers) - before


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=4)
    rounds = parser.parse_args().rounds
    for workers in (1, 2, 4):
        fleet = Fleet(program=PROGRAM, slots=SLOTS, host_limit=1000, host_pause=0.0)
        try:
            with PageServer(seconds=6.0) as server:
                for _ in range(workers):
                    fleet.start_worker()
                count = workers * SLOTS * rounds
                wall, cpu = by_fleet(fleet, server, range(count))
                alone = directly(server, range(count, 2 * count), workers * SLOTS, fleet.root)
                print(
                    f"{workers} workers: {count} pages in {wall:.1f} s, {60 * count / wall:.0f} a minute; "
                    f"directly {alone:.1f} s, {100 * (wall / alone - 1):+.1f} %; "
                    f"{1000 * cpu / count:.0f} ms of the workers' processor time a page",
                    flush=True,
                )
        finally:
            fleet.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
