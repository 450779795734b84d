import hashlib
import json
import os
import shutil
import signal
import threading
import unittest
from pathlib import Path
from unittest import mock

import redis

from clipweir_fleet.pages import Page
from clipweir_fleet.work import Cause, Outcome, PageWork
from support import STUB, FleetTest, wait_until


class WorkTest(FleetTest):
    changed = {
        "program": str(STUB), "lease": 3.0, "beat": 0.1, "stop_grace": 0.5, "pause": 7.0, "max_retries": 2,
        "host_limit": 100, "host_pause": 0.0,
    }  # fmt: skip

    def setUp(self) -> None:
        super().setUp()
        self.cause: Cause | None = None
        self.progress: list[dict[str, object]] = []

    def enter(self, path: str, **options: "str | int | bool") -> str:
        page = Page.of(f"http://stub/{path}", options)
        list(self.book.submit([page]))
        return page.key

    def work(self) -> PageWork:
        fleet = self.fleet
        return PageWork(
            fleet.settings, self.book, fleet.store, "w", lambda: self.cause, self.progress.append
        )

    def run_page(self, path: str, **options: "str | int | bool") -> Outcome:
        return self.work().run(self.enter(path, **options))

    def begun(self) -> bool:
        """Whether the run has told of its first byte."""
        return any(p.get("done") == 1 for p in self.progress)

    def while_it_hangs(self, mode: str, then: "object") -> Outcome:
        """The outcome of a run that waits, and to which something happens meanwhile."""
        page_id = self.enter(f"hang/{mode}")
        outcomes: list[Outcome] = []
        thread = threading.Thread(target=lambda: outcomes.append(self.work().run(page_id)))
        thread.start()
        wait_until(self.begun, "the run has begun")
        then(page_id)  # type: ignore[operator]
        thread.join(60)
        self.assertFalse(thread.is_alive())
        self.assertEqual(self.fleet.runs(), [])
        return outcomes[0]

    def test_a_whole_video_is_in_its_place(self) -> None:
        outcome = self.run_page("complete/1000")
        self.assertEqual(outcome.what, "done")
        self.assertEqual(Path(outcome.result["path"]).read_bytes(), b"v" * 1000)
        page = self.book.page(outcome.result["page"])
        self.assertEqual(page["state"], "done")
        self.assertEqual(json.loads(page["result"]), outcome.result)

    def test_a_run_gets_the_options_of_a_fleet_and_of_its_page(self) -> None:
        outcome = self.run_page("arguments", timeout=9, thumb=True)
        arguments = json.loads(Path(outcome.result["path"]).read_bytes())
        for option in ("--events", "--strict", "--continue", "--streams", "--parent", "--thumb"):
            self.assertIn(option, arguments)
        for option, value in (("--engine", "auto"), ("--deadline", "10800"), ("--timeout", "9")):
            self.assertEqual(arguments[arguments.index(option) + 1], value)
        own = json.loads(Path(self.run_page("arguments", deadline=77).result["path"]).read_bytes())
        self.assertEqual(own.count("--deadline"), 1)

    def test_classes_have_their_verdicts(self) -> None:
        for name, code in (("nothingFound", 31), ("refused", 33), ("protected", 36), ("deadline", 41)):
            outcome = self.run_page(f"class/{name}/{code}")
            self.assertEqual((outcome.what, outcome.run_class), ("failed", name))
        for path, name in (
            ("class/brokenOff/34", "brokenOff"), ("class/pageUnreached/32", "pageUnreached"),
            ("class/disk/37", "disk"), ("mute/38", "busy"),
            ("signal", "engineLost"), ("mute/0", "engineLost"),
        ):  # fmt: skip
            outcome = self.run_page(path)
            self.assertEqual((outcome.what, outcome.run_class, outcome.pause), ("retry", name, 7.0))

    def test_retries_grow_slower_and_end(self) -> None:
        page_id = self.enter("class/brokenOff/34")
        pauses = []
        for _ in range(2):
            pauses.append(self.work().run(page_id).pause)
            self.book._client.hset(f"{self.fleet.settings.prefix}page:{page_id}", "notBefore", 1)
        self.assertEqual(pauses, [7.0, 14.0])
        self.assertEqual(self.work().run(page_id), Outcome("failed", "brokenOff"))
        self.assertFalse((self.fleet.settings.store / "work" / page_id).exists())

    def test_a_stopped_page_ends_in_order(self) -> None:
        outcome = self.while_it_hangs("polite", self.book.stop)
        self.assertEqual(outcome, Outcome("failed", "stopped"))

    def test_a_run_that_does_not_obey_is_killed(self) -> None:
        outcome = self.while_it_hangs("deaf", self.book.stop)
        self.assertEqual(outcome, Outcome("failed", "stopped"))

    def test_a_worker_that_stops_gives_its_page_back(self) -> None:
        for mode in ("polite", "deaf"):
            with self.subTest(mode):
                self.cause = None
                self.progress.clear()

                def shut_down(page_id: str) -> None:
                    self.page_id = page_id
                    self.cause = Cause.SHUTDOWN

                self.assertEqual(self.while_it_hangs(mode, shut_down), Outcome("returned"))
                self.assertEqual(self.book.page(self.page_id)["state"], "queued")
                self.assertTrue((self.fleet.settings.store / "work" / self.page_id).exists())

    def test_a_run_that_somebody_else_ended_is_tried_again(self) -> None:
        def end_it(_: str) -> None:
            for pid in self.fleet.runs():
                os.kill(pid, signal.SIGTERM)

        outcome = self.while_it_hangs("polite", end_it)
        self.assertEqual((outcome.what, outcome.run_class), ("retry", "stopped"))

    def test_a_run_whose_page_is_another_workers_is_killed_at_once(self) -> None:
        def take(page_id: str) -> None:
            self.book._client.hset(f"{self.fleet.settings.prefix}page:{page_id}", "token", "another")

        self.assertEqual(self.while_it_hangs("deaf", take), Outcome("lost"))

    def test_a_server_that_names_its_pause_names_it_to_all(self) -> None:
        self.run_page("pause/1000")
        self.assertEqual(self.book.begin(self.enter("complete/1"), "t", "w"), "begun")
        self.book._client.flushall()
        self.run_page("pause/90000")
        self.assertEqual(self.book.begin(self.enter("complete/2"), "t", "w"), "parked")

    def test_a_pause_that_cannot_be_told_to_all_ends_no_run(self) -> None:
        with mock.patch.object(self.book, "hold_host", side_effect=redis.ConnectionError) as hold:
            self.assertEqual(self.run_page("pause/90000").what, "done")
        hold.assert_called_once()

    def test_a_result_in_its_place_is_not_made_again(self) -> None:
        page_id = self.enter("complete/10")
        self.fleet.store.work_folder(page_id)
        self.fleet.store.video_path(page_id).write_bytes(b"already")
        self.fleet.store.publish(page_id, {"bytes": 7})
        outcome = self.work().run(page_id)
        self.assertEqual(outcome.what, "done")
        self.assertEqual(Path(outcome.result["path"]).read_bytes(), b"already")

    def test_a_video_whose_run_outlived_its_worker_is_not_made_again(self) -> None:
        page_id = self.enter("class/brokenOff/34")
        self.fleet.store.work_folder(page_id)
        self.fleet.store.video_path(page_id).write_bytes(b"already")
        told = {"event": "result", "class": "complete", "bytes": 7, "startedAt": "then"}
        told["sha256"] = hashlib.sha256(b"already").hexdigest()
        self.fleet.store.record_path(page_id).write_text(json.dumps(told) + "\n")
        outcome = self.work().run(page_id)
        self.assertEqual((outcome.what, outcome.result["startedAt"]), ("done", "then"))
        self.assertEqual(Path(outcome.result["path"]).read_bytes(), b"already")

    def test_a_video_that_had_no_room_for_its_result_is_not_made_again(self) -> None:
        page_id = self.enter("complete/1000")
        place = self.fleet.settings.store / "results" / page_id
        place.mkdir()
        (place / "something").touch()  # the rename has no way
        self.assertEqual(self.work().run(page_id).run_class, "disk")
        shutil.rmtree(place)
        made = self.fleet.store.video_path(page_id).stat()
        self.book._client.hset(f"{self.fleet.settings.prefix}page:{page_id}", "notBefore", 1)
        outcome = self.work().run(page_id)
        self.assertEqual(outcome.what, "done")
        self.assertEqual(Path(outcome.result["path"]).stat().st_ino, made.st_ino)

    def test_a_run_that_has_told_its_result_and_lingers_is_killed(self) -> None:
        outcome = self.run_page("linger/33")
        self.assertEqual((outcome.what, outcome.run_class), ("failed", "refused"))

    def test_a_store_that_fails_is_tried_again(self) -> None:
        work = self.fleet.settings.store / "work"
        work.rmdir()
        work.write_bytes(b"in the way")
        outcome = self.run_page("complete/10")
        self.assertEqual((outcome.what, outcome.run_class), ("retry", "disk"))

    def test_a_page_that_is_held_is_left_alone(self) -> None:
        page_id = self.enter("complete/10")
        self.book.begin(page_id, "another", "w")
        self.assertEqual(self.work().run(page_id), Outcome("held"))


if __name__ == "__main__":
    unittest.main()
