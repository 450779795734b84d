#!/usr/bin/python3
"""Measures the fleet itself, with a program in clipweir's place that sleeps.

usage: PYTHONPATH=fleet:fleet/tests fleet/soak/simulate.py [--pages 10000] [--workers 10] [--slots 20]
                                                           [--seconds 10] [--hosts 2500]

Tells what idle workers take, how fast pages are entered and done, what the server took in processor time,
memory and commands, and what the workers took for each page.
"""

from __future__ import annotations

import argparse
import os
import resource
import sys
import time
from pathlib import Path

import redis
from clipweir_fleet.dispatch import send_due
from clipweir_fleet.pages import Page
from support import Fleet, wait_until

IDLE_SECONDS = 20.0
TICK = os.sysconf("SC_CLK_TCK")


def cpu_of(pid: int) -> float:
    """The processor time of a process and of the children that it waited for, in seconds."""
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return sum(int(field) for field in fields[11:15]) / TICK


def own_cpu_of(pid: int) -> float:
    """The processor time of a process without its children, in seconds."""
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return sum(int(field) for field in fields[11:13]) / TICK


def rss_of(pid: int) -> float:
    """The memory of a process, in MiB."""
    pages = int(Path(f"/proc/{pid}/statm").read_text().split()[1])
    return pages * resource.getpagesize() / 2**20


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--pages", type=int, default=10_000)
    parser.add_argument("--workers", type=int, default=10)
    parser.add_argument("--slots", type=int, default=20)
    parser.add_argument("--seconds", type=float, default=10.0)
    parser.add_argument("--hosts", type=int, default=2500)
    chosen = parser.parse_args()

    os.environ["SLEEPER_SECONDS"] = str(chosen.seconds)
    sleeper = Path(__file__).resolve().parent / "sleeper.sh"
    fleet = Fleet(program=str(sleeper), slots=chosen.slots, host_limit=4, host_pause=0.0)
    try:
        return simulate(fleet, chosen)
    finally:
        fleet.close()


def tell_of_idleness(fleet: Fleet, client: "redis.Redis[str]", server: int) -> None:
    """Tells what workers take that have nothing to do."""
    workers = len(fleet.workers)

    def taken() -> tuple[float, float, int]:
        own = sum(own_cpu_of(worker.pid) for worker in fleet.workers)
        return own, own_cpu_of(server), client.info("stats")["total_commands_processed"]

    before = taken()
    time.sleep(IDLE_SECONDS)
    own, redis_own, commands = (after - ago for after, ago in zip(taken(), before))
    a_second = 1 / (workers * IDLE_SECONDS)
    print(
        f"an idle worker, a second: {1000 * own * a_second:.1f} ms of processor, "
        f"{1000 * redis_own * a_second:.2f} ms of the server's, {commands * a_second:.1f} commands",
        flush=True,
    )


def simulate(fleet: Fleet, chosen: argparse.Namespace) -> int:
    os.environ.update(fleet.environment)
    from clipweir_fleet.task import send

    client = fleet.book._client
    server = int((fleet.root / "redis" / "redis.pid").read_text())
    for _ in range(chosen.workers):
        fleet.start_worker()
    wait_until(lambda: fleet.logs().count("the worker is ready") == chosen.workers, "all are ready", 300)
    tell_of_idleness(fleet, client, server)
    before = {worker.pid: own_cpu_of(worker.pid) for worker in fleet.workers}
    server_before, commands_before = cpu_of(server), client.info("stats")["total_commands_processed"]

    began = time.monotonic()
    pages = (Page.of(f"http://h{n % chosen.hosts}.example/{n}", {}) for n in range(chosen.pages))
    for _ in fleet.book.submit(pages):
        pass
    send_due(fleet.book, send)
    entered = time.monotonic() - began
    peak = 0.0
    while (counts := fleet.book.counts())["done"] + counts["failed"] < chosen.pages:
        peak = max(peak, rss_of(server))
        time.sleep(1)
    wall = time.monotonic() - began

    capacity = chosen.workers * chosen.slots
    ideal = chosen.pages * chosen.seconds / capacity
    cpu = sum(own_cpu_of(w.pid) - before[w.pid] for w in fleet.workers)
    commands = client.info("stats")["total_commands_processed"] - commands_before
    slots = f"{chosen.workers} workers of {chosen.slots} slots"
    print(f"pages {chosen.pages}, {slots}, {chosen.seconds} s a page")
    print(f"entered in {entered:.1f} s, done in {wall:.1f} s; without any overhead {ideal:.1f} s")
    print(f"failed {counts['failed']}, pages a minute {60 * chosen.pages / wall:.0f}")
    memory = rss_of(fleet.workers[0].pid)
    print(f"workers: {1000 * cpu / chosen.pages:.1f} ms of processor a page, {memory:.0f} MiB each")
    print(
        f"server: {1000 * (cpu_of(server) - server_before) / chosen.pages:.2f} ms of processor a page, "
        f"{commands / chosen.pages:.0f} commands a page, {peak:.0f} MiB at most"
    )
    return 1 if counts["failed"] else 0


if __name__ == "__main__":
    sys.exit(main())
