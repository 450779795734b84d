#!/usr/bin/python3
"""Measures what the fleet takes beside `clipweir-get -j`, with as many pages at a time.

usage: PYTHONPATH=fleet:fleet/tests fleet/soak/overhead.py [--rounds 4] [--workers 1,2,4]

Each worker has four slots; the pages wait for their server most of the time.
"""

from __future__ import annotations

import argparse
import os
import subprocess
import sys
import time
from pathlib import Path

from clipweir_fleet.pages import Page
from page_server import PageServer
from simulate import own_cpu_of
from support import FLEET, PROGRAM, Fleet, wait_until

SLOTS = 4
OPTIONS = {"timeout": 5, "eager": True}
GET = os.environ.get("CLIPWEIR_GET", str(FLEET.parent / "build" / "clipweir-get"))


def by_get(server: PageServer, numbers: range, together: int, folder: Path) -> float:
    """The seconds that the pages take without the fleet."""
    command = [GET, "--quiet", "--directory", str(folder / "get"), "--timeout", str(OPTIONS["timeout"])]
    command += ["--jobs", str(together), "--per-host", str(together)]
    command += [server.page("slow", n) for n in numbers]
    began = time.monotonic()
    subprocess.run(command, check=True, env={**os.environ, "CLIPWEIR_PROGRAM": PROGRAM})
    return time.monotonic() - began


def by_fleet(fleet: Fleet, server: PageServer, numbers: range) -> tuple[float, float, float]:
    """The seconds that the pages take with it, and its own processor time: the workers' and Redis's."""
    ready = fleet.logs().count("the worker is ready")
    wait_until(lambda: fleet.logs().count("the worker is ready") == len(fleet.workers), f"{ready} are ready")
    redis = int((fleet.root / "redis" / "redis.pid").read_text())
    before = sum(own_cpu_of(worker.pid) for worker in fleet.workers)
    redis_before = own_cpu_of(redis)
    done = fleet.book.counts()["done"]
    began = time.monotonic()
    for _ in fleet.book.submit(Page.of(server.page("slow", n), OPTIONS) for n in numbers):
        pass
    wait_until(lambda: fleet.book.counts()["done"] == done + len(numbers), "all are done", 600)
    wall = time.monotonic() - began
    cpu = sum(own_cpu_of(worker.pid) for worker in fleet.workers) - before
    return wall, cpu, own_cpu_of(redis) - redis_before


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=4)
    parser.add_argument("--workers", default="1,2,4")
    chosen = parser.parse_args()
    for workers in map(int, chosen.workers.split(",")):
        fleet = Fleet(program=PROGRAM, slots=SLOTS, host_limit=1000, host_pause=0.0)
        try:
            with PageServer(seconds=6.0) as server:
                for _ in range(workers):
                    fleet.start_worker()
                count = workers * SLOTS * chosen.rounds
                wall, cpu, redis = by_fleet(fleet, server, range(count))
                alone = by_get(server, range(count, 2 * count), workers * SLOTS, fleet.root)
                print(
                    f"{workers} workers: {count} pages in {wall:.1f} s, {60 * count / wall:.0f} a minute; "
                    f"clipweir-get {alone:.1f} s, {100 * (wall / alone - 1):+.1f} %; processor time a page: "
                    f"workers {1000 * cpu / count:.0f} ms, Redis {1000 * redis / count:.0f} ms",
                    flush=True,
                )
        finally:
            fleet.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
