"""The fleet as its users have it: a server, workers as processes, the built program, real pages."""

import hashlib
import json
import signal
import time
import unittest
from pathlib import Path

from page_server import KINDS, PageServer, video_sum
from support import Fleet, wait_until

from clipweir_fleet.book import STATES
from clipweir_fleet.pages import Page

EACH = 3  # pages of a kind
OPTIONS = {"timeout": 5}
HOST_LIMIT = 6
# Quick to notice a death, and with no patience for what the tests make fail.
SETTINGS = {
    "slots": 4, "lease": 4.0, "beat": 0.5, "pause": 0.5, "max_retries": 3,
    "host_limit": HOST_LIMIT, "host_pause": 0.0,
}  # fmt: skip


class WholeFleet(unittest.TestCase):
    def setUp(self) -> None:
        self.fleet = Fleet(**SETTINGS)
        self.addCleanup(self.fleet.close)
        self.server = self.enterContext(PageServer(seconds=8.0))
        self.book = self.fleet.book

    def submit(self, *urls: str) -> list[str]:
        lines = self.fleet.command("submit", "--timeout", "5", "-i", "-", standard_input="\n".join(urls))
        return [line.split("\t")[0] for line in lines.splitlines()]

    def state(self, page_id: str) -> str:
        return self.book.page(page_id).get("state", "")

    def has(self, page_id: str, share: float) -> bool:
        page = self.book.page(page_id)
        progress = json.loads(page.get("progress") or "{}")
        done, total = progress.get("done") or 0, progress.get("total") or 1
        return page["state"] == "running" and done > share * total

    def has_half(self, page_id: str) -> bool:
        return self.has(page_id, 0.5)

    def check_limits(self) -> bool:
        counts = self.book.counts()
        self.assertLessEqual(counts["running"], HOST_LIMIT)
        return counts["done"] + counts["failed"] == self.wanted

    def check_file(self, result: dict[str, object], kind: str, number: int) -> None:
        content = Path(str(result["path"])).read_bytes()
        self.assertEqual(hashlib.sha256(content).hexdigest(), video_sum(kind, number))
        self.assertEqual(result["sha256"], video_sum(kind, number))

    def check_nothing_left(self) -> None:
        wait_until(lambda: not self.fleet.runs(), "no run is left")
        self.assertEqual(list((self.fleet.settings.store / "work").iterdir()), [])
        client = self.book._client
        # What the broker has out or waiting would be in one of these.
        kinds = {key: client.type(key) for key in client.keys("*")}
        parts = ("unacked", ":due", ":slots:", ":line:", ":hosts")
        left = [key for key in kinds if any(part in key for part in parts)]
        self.assertEqual(left, [])
        self.assertEqual([k for k in kinds if kinds[k] == "list"], [])

    def test_every_page_gets_its_class_whatever_dies(self) -> None:
        pages = {self.server.page(kind, n): (kind, n) for n in range(EACH) for kind in KINDS}
        self.wanted = len(pages)
        first, second = self.fleet.start_worker(), self.fleet.start_worker()
        self.submit(*pages)
        slow = [Page.of(self.server.page("slow", n), OPTIONS).key for n in range(EACH)]

        wait_until(lambda: self.check_limits() or any(map(self.has_half, slow)), "half a video is there")
        halved = next(filter(self.has_half, slow))
        victim = self.fleet.worker_of(halved)
        victim.send_signal(signal.SIGKILL)
        killed_at = time.monotonic()
        victim.wait()
        self.fleet.start_worker()
        wait_until(lambda: int(self.book.page(halved).get("losses", 0)) == 1, "the death is noticed")
        self.assertLess(time.monotonic() - killed_at, 30)

        wait_until(lambda: self.check_limits() or self.book.counts()["running"] >= 2, "pages run")
        self.fleet.restart_server()
        wait_until(self.check_limits, "all pages end", 150)

        results = {}
        for line in self.fleet.command("results", "--json").splitlines():
            result = json.loads(line)
            results[result["url"]] = result
        self.assertEqual(
            {url: results[url]["class"] for url in pages},
            {url: KINDS[kind] for url, (kind, _) in pages.items()},
        )
        for url, (kind, number) in pages.items():
            if KINDS[kind] == "complete":
                self.check_file(results[url], kind, number)
        for number in range(EACH):
            self.assertEqual(self.server.fetched_from_start("slow", number), 1)
        for worker in (w for w in (first, second, self.fleet.workers[-1]) if w is not victim):
            self.assertEqual(self.fleet.stop_worker(worker), 0)
        self.check_nothing_left()

    def test_a_video_that_is_whole_when_its_worker_has_died_is_not_fetched_anew(self) -> None:
        self.server.may_end.clear()
        worker = self.fleet.start_worker()
        (page_id,) = self.submit(self.server.page("slow", 21))
        wait_until(lambda: self.has(page_id, 0.9), "all but the end is there")
        worker.send_signal(signal.SIGSTOP)  # it hears no more of its run
        self.server.may_end.set()
        wait_until(lambda: not self.fleet.runs(), "the run has ended")
        worker.send_signal(signal.SIGKILL)
        worker.wait()
        second = self.fleet.start_worker()
        wait_until(lambda: self.state(page_id) == "done", "another worker has the page")
        result = json.loads(self.book.page(page_id)["result"])
        self.check_file(result, "slow", 21)
        self.assertEqual(self.server.fetched_from_start("slow", 21), 1, self.fleet.logs())
        self.assertEqual(self.fleet.stop_worker(second), 0)
        self.check_nothing_left()

    def test_a_worker_that_stops_and_a_page_that_is_stopped(self) -> None:
        worker = self.fleet.start_worker()
        page_id, stopped, revoked = self.submit(*(self.server.page("slow", n) for n in (11, 12, 13)))
        wait_until(lambda: self.has_half(page_id), "half a video is there")
        from celery import Celery

        Celery(broker=self.fleet.settings.redis).control.revoke(revoked)
        self.fleet.command("stop", self.server.page("slow", 12))
        for ended in (stopped, revoked):
            wait_until(lambda: self.state(ended) == "failed", "the page is stopped")
            self.assertEqual(self.book.page(ended)["class"], "stopped")

        self.assertEqual(self.state(page_id), "running")
        self.assertEqual(self.fleet.stop_worker(worker), 0)
        self.assertEqual(self.state(page_id), "queued")
        self.assertEqual(self.fleet.runs(), [])
        self.fleet.start_worker()
        wait_until(lambda: self.state(page_id) == "done", "another worker goes on")
        self.assertEqual(self.server.fetched_from_start("slow", 11), 1)
        self.assertEqual(int(self.book.page(page_id)["losses"]), 0)

        joined = self.submit(self.server.page("slow", 11))
        self.assertEqual(joined, [page_id])
        self.assertEqual(self.state(page_id), "done")
        self.assertEqual(self.fleet.stop_worker(self.fleet.workers[-1]), 0)
        self.check_nothing_left()
        self.assertEqual(sum(self.book.counts()[state] for state in STATES), 3)


if __name__ == "__main__":
    unittest.main()
