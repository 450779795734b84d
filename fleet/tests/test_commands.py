"""The commands, with a worker that runs a program that stands in for clipweir."""

import json
import signal
import subprocess
import time
import unittest
import urllib.request

from support import STUB, FleetTest, wait_until

LEASE = 3.0


class CommandsTest(FleetTest):
    changed = {
        "program": str(STUB), "lease": LEASE, "beat": 0.3, "pause": 0.1, "max_retries": 1,
        "slots": 4, "host_limit": 100, "host_pause": 0.0, "stop_grace": 1.0,
    }  # fmt: skip

    def state(self, page_id: str) -> str:
        return self.book.page(page_id).get("state", "")

    def submit(self, *arguments: str) -> list[str]:
        lines = self.fleet.command("submit", *arguments).splitlines()
        return [line.split("\t")[0] for line in lines]

    def statuses(self, *arguments: str) -> list[dict[str, object]]:
        return [json.loads(line) for line in self.fleet.command("status", "--json", *arguments).splitlines()]

    def test_pages_go_their_way(self) -> None:
        listed = self.fleet.root / "list.txt"
        listed.write_text("# pages\nhttp://stub/complete/10\n\nhttp://stub/class/refused/33\n")
        # Entered while no worker is there.
        ids = self.submit("-i", str(listed), "http://stub/class/brokenOff/34", "http://stub/hang/polite")
        self.assertEqual(self.statuses()[0]["pages"]["queued"], 4)
        self.assertEqual(self.submit("http://stub/complete/10"), ids[:1])
        self.fleet.start_worker()
        wait_until(lambda: [self.state(i) for i in ids] == ["done", "failed", "failed", "running"], "all")
        self.assertEqual(self.book.page(ids[2])["retries"], "1")

        wait_until(lambda: self.statuses()[0]["running"][0]["progress"], "the progress is seen")
        status = self.statuses()[0]
        self.assertEqual(status["failed"], {"refused": 1, "brokenOff": 1})
        self.assertEqual(status["running"][0]["url"], "http://stub/hang/polite")
        self.assertIn(" 25 % of 4 bytes", self.fleet.command("status"))

        from celery import Celery
        from celery.result import AsyncResult

        address = self.fleet.settings.redis
        remote = Celery(broker=address, backend=address)
        remote.conf.result_backend_transport_options = {"global_keyprefix": self.fleet.settings.prefix}
        celery_states = [AsyncResult(i, app=remote).state for i in ids]
        self.assertEqual(celery_states, ["SUCCESS", "FAILURE", "FAILURE", "PROGRESS"])

        self.fleet.command("stop", "--all")
        self.assertEqual(self.statuses("--watch")[-1]["pages"]["running"], 0)
        results = [json.loads(line) for line in self.fleet.command("results", "--json").splitlines()]
        self.assertEqual(
            {r["page"]: r["class"] for r in results},
            dict(zip(ids, ("complete", "refused", "brokenOff", "stopped"))),
        )
        self.assertEqual(results[0]["bytes"], 10)

    def test_wrong_arguments_are_told(self) -> None:
        for arguments in (
            ("submit", "no-address"), ("submit", "--saveto", "x", "http://stub/"), ("stop",), ("unknown",),
            ("metrics", "--listen", "nowhere"), ("worker", "--slots", "0"),
        ):  # fmt: skip
            with self.subTest(arguments), self.assertRaises(subprocess.CalledProcessError) as caught:
                self.fleet.command(*arguments)
            self.assertEqual(caught.exception.returncode, 2)
        with self.assertRaises(subprocess.CalledProcessError) as caught:
            self.fleet.command("stop", "http://stub/nobody")
        self.assertEqual(caught.exception.returncode, 1)
        self.assertEqual(sum(self.book.counts().values()), 0)

    def test_the_state_is_served(self) -> None:
        command = [*self.fleet._command(), "metrics", "--listen", "127.0.0.1:0"]
        server = subprocess.Popen(command, env=self.fleet.environment, stdout=subprocess.PIPE)
        self.addCleanup(server.wait)
        self.addCleanup(server.kill)
        address = server.stdout.readline().decode().strip()
        server.stdout.close()
        with urllib.request.urlopen(address, timeout=30) as answer:
            self.assertIn(b'clipweir_fleet_pages{state="queued"} 0', answer.read())

    def test_a_long_page_is_taken_once(self) -> None:
        """It lasts many times as long as a message may be out, with two workers that look for such."""
        for _ in range(2):
            self.fleet.start_worker()
        page_id, = self.submit("http://stub/hang/polite")
        wait_until(lambda: self.state(page_id) == "running" and self.fleet.runs(), "it runs")
        first = self.book.page(page_id)["token"]
        end = time.monotonic() + 5 * LEASE
        while time.monotonic() < end:
            self.assertEqual(self.book.page(page_id)["token"], first)
            self.assertEqual(len(self.fleet.runs()), 1)
            time.sleep(0.1)
        self.assertEqual(self.fleet.logs().count("a run begins"), 1)
        # The broker still has the one message out, and nobody was given another.
        client, root = self.book._client, self.fleet.settings.prefix
        self.assertEqual(client.hlen(root + "unacked"), 1)

    def test_what_a_killed_worker_had_is_taken_up(self) -> None:
        worker = self.fleet.start_worker()
        hanging = self.submit(*(f"http://stub/hang/polite/{n}" for n in range(3)))
        waiting, = self.submit("http://stub/class/brokenOff/34")
        wait_until(lambda: all(self.state(i) == "running" for i in hanging), "they run")
        worker.send_signal(signal.SIGKILL)
        worker.wait()
        killed = time.monotonic()
        self.fleet.start_worker()
        wait_until(
            lambda: all(self.book.page(i)["losses"] == "1" and self.state(i) == "running" for i in hanging),
            "they are taken up",
        )
        self.assertLess(time.monotonic() - killed, 30)
        wait_until(lambda: self.state(waiting) == "failed", "what waited for its retry has had it")
        self.assertEqual(self.book.page(waiting)["class"], "brokenOff")

    def test_a_server_that_is_killed_loses_nothing(self) -> None:
        worker = self.fleet.start_worker()
        hanging, = self.submit("http://stub/hang/polite")
        wait_until(lambda: self.state(hanging) == "running", "it runs")
        self.book.settle()
        self.fleet.kill_server()
        later, = self.submit("http://stub/complete/10")
        wait_until(lambda: self.state(later) == "done", "the worker is connected again")
        self.assertEqual(self.state(hanging), "running")
        self.assertEqual(self.book.page(hanging)["runs"], "1")
        self.assertEqual(self.fleet.stop_worker(worker), 0)
        self.assertEqual(self.state(hanging), "queued")


if __name__ == "__main__":
    unittest.main()
