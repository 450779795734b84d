import threading
import unittest
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor

from clipweir_fleet.book import Claim
from clipweir_fleet.dispatch import Dispatcher, send_due
from clipweir_fleet.pages import Page
from support import FleetTest, wait_until

LONG = 600.0


class BookTest(FleetTest):
    changed = {"lease": LONG, "host_limit": 2, "host_pause": 0.0, "max_losses": 2}

    def enter(self, name: str = "1", host: str = "example.com") -> str:
        page = Page.of(f"http://{host}/{name}", {})
        list(self.book.submit([page]))
        return page.key

    def state(self, page_id: str) -> str:
        return self.book.page(page_id)["state"]

    def lapse(self, page_id: str) -> None:
        """Lets the lease of a page end, as time would."""
        client, root = self.book._client, self.fleet.settings.prefix
        client.hset(f"{root}page:{page_id}", "leaseEnd", 1)
        client.zadd(f"{root}due", {page_id: 1})
        client.zadd(f"{root}slots:example.com", {page_id: 1})

    def forget(self, do: Callable[[], object]) -> None:
        """Has the server forget what is done, as one does that is killed before it has written it."""
        client = self.book._client
        known = {key: client.execute_command("DUMP", key, NEVER_DECODE=True) for key in client.keys("*")}
        do()
        client.flushdb()
        for key, value in known.items():
            client.restore(key, 0, value)

    def claimed(self) -> list[str]:
        claims = self.book.claim(100)
        for claim in claims:
            self.book.sent(claim)
        return [claim.page_id for claim in claims]

    def test_a_page_is_entered_once(self) -> None:
        page = Page.of("http://example.com/1", {})
        told = list(self.book.submit([page, page])) + list(self.book.submit([page]))
        self.assertEqual([what for _, what, _ in told], ["new", "joined", "joined"])
        self.assertEqual(self.claimed(), [page.key])
        self.assertEqual(self.claimed(), [])

    def test_only_a_failed_page_is_entered_anew_and_only_when_wanted(self) -> None:
        page = Page.of("http://example.com/1", {})
        page_id = self.enter()
        self.book.begin(page_id, "a", "w")
        self.assertEqual(list(self.book.submit([page], again=True))[0][1:], ("joined", "running"))
        self.book.finish(page_id, "a", "failed", "refused")
        self.assertEqual(list(self.book.submit([page]))[0][1:], ("joined", "failed"))
        self.assertEqual(list(self.book.submit([page], again=True))[0][1:], ("new", "queued"))
        self.assertEqual(self.book.counts()["failed"], 0)
        self.assertEqual(self.book.begin(page_id, "b", "w"), "begun")

    def test_one_of_many_gets_a_page(self) -> None:
        page_id = self.enter()
        with ThreadPoolExecutor(16) as pool:
            answers = list(pool.map(lambda n: self.book.begin(page_id, str(n), "w"), range(64)))
        self.assertEqual(answers.count("begun"), 1)
        self.assertEqual(answers.count("held"), 63)

    def test_a_page_that_runs_comes_back_when_its_lease_ends_and_not_before(self) -> None:
        page_id = self.enter()
        self.claimed()
        self.assertEqual(self.book.begin(page_id, "a", "w"), "begun")
        self.assertEqual(self.claimed(), [])
        self.lapse(page_id)
        self.assertEqual(self.claimed(), [page_id])
        self.assertEqual(self.book.beat(page_id, "a", "w", {}), "lost")
        self.assertEqual(self.book.begin(page_id, "b", "w"), "begun")
        self.assertEqual(self.book.beat(page_id, "b", "w", {}), "ok")
        self.assertEqual(self.book.page(page_id)["losses"], "1")

    def test_who_lost_a_page_changes_nothing(self) -> None:
        page_id = self.enter()
        self.book.begin(page_id, "a", "w")
        self.lapse(page_id)
        self.claimed()
        self.book.begin(page_id, "b", "w")
        before = self.book.page(page_id)
        self.assertEqual(self.book.beat(page_id, "a", "w", {}), "lost")
        self.assertEqual(self.book.retry(page_id, "a", 1, "brokenOff"), 0)
        self.assertFalse(self.book.finish(page_id, "a", "failed", "refused"))
        self.book.give_back(page_id, "a")
        self.assertEqual(self.book.page(page_id), before)

    def test_a_page_over_which_workers_die_is_given_up(self) -> None:
        page_id = self.enter()
        for n in range(3):
            self.assertEqual(self.book.begin(page_id, str(n), "w"), "begun")
            self.lapse(page_id)
            self.assertEqual(self.claimed(), [page_id] if n < 2 else [])
        self.assertEqual(self.book.page(page_id)["class"], "engineLost")
        self.assertEqual(self.state(page_id), "failed")

    def test_an_ended_page_is_over(self) -> None:
        page_id = self.enter()
        self.book.begin(page_id, "a", "w")
        self.assertTrue(self.book.finish(page_id, "a", "done", "complete", "{}"))
        self.assertFalse(self.book.finish(page_id, "a", "done", "complete", "{}"))
        self.assertEqual(self.book.begin(page_id, "b", "w"), "over")
        self.assertEqual(self.claimed(), [])
        self.assertEqual(self.book.totals(), {"ended:complete": 1})
        self.assertEqual(self.book.ended_within(60), 1)
        self.assertEqual(self.book.begin("unknown", "b", "w"), "over")

    def test_a_retry_is_not_early(self) -> None:
        page_id = self.enter()
        self.book.begin(page_id, "a", "w")
        self.assertEqual(self.book.retry(page_id, "a", LONG, "brokenOff"), 1)
        self.assertEqual(self.book.begin(page_id, "b", "w"), "early")
        self.book._client.hset(f"{self.fleet.settings.prefix}page:{page_id}", "notBefore", 1)
        self.assertEqual(self.book.begin(page_id, "b", "w"), "begun")
        self.assertEqual(self.book.retry(page_id, "b", LONG, "brokenOff"), 2)

    def test_a_host_has_so_many_places_and_a_line(self) -> None:
        ids = [self.enter(str(n)) for n in range(5)]
        self.claimed()
        answers = [self.book.begin(page_id, "a", "w") for page_id in reversed(ids)]
        self.assertEqual(answers, ["begun", "begun", "parked", "parked", "parked"])
        self.assertEqual(self.book.begin(self.enter("x", "other.com"), "a", "w"), "begun")
        self.assertEqual(self.book.wake(), 0)
        self.book.finish(ids[4], "a", "failed", "refused")
        # Nobody jumps the line, which is that of the submits.
        self.assertEqual(self.book.begin(self.enter("6"), "a", "w"), "parked")
        self.assertEqual(self.book.wake(), 1)
        self.assertEqual(self.book.wake(), 0)
        claims = self.book.claim(1)
        self.assertEqual([(c.page_id, c.urgent) for c in claims], [(ids[0], True)])
        self.assertEqual(self.book.begin(ids[0], "a", "w"), "begun")

    def test_the_place_of_a_dead_run_is_free_in_time(self) -> None:
        ids = [self.enter(str(n)) for n in range(3)]
        for page_id in ids:
            self.book.begin(page_id, "a", "w")
        self.lapse(ids[0])
        self.assertEqual(self.book.wake(), 1)
        self.assertEqual(self.book.begin(ids[2], "a", "w"), "begun")

    def test_a_host_that_is_held_begins_no_page(self) -> None:
        page_id = self.enter()
        self.book.hold_host("example.com", LONG)
        self.book.hold_host("example.com", 1)  # a shorter time does not shorten it
        self.assertEqual(self.book.begin(page_id, "a", "w"), "parked")
        self.assertEqual(self.book.wake(), 0)
        self.book._client.delete(f"{self.fleet.settings.prefix}next:example.com")
        self.assertEqual(self.book.wake(), 1)

    def test_a_page_is_stopped_in_every_state(self) -> None:
        queued, running, parked, waiting = [self.enter(str(n), f"host{n}.com") for n in range(4)]
        self.book.begin(running, "a", "w")
        self.book.hold_host("host2.com", LONG)
        self.book.begin(parked, "a", "w")
        self.book.begin(waiting, "a", "w")
        self.book.retry(waiting, "a", LONG, "brokenOff")
        for page_id, state in ((queued, "queued"), (parked, "parked"), (waiting, "waiting")):
            self.assertEqual(self.book.stop(page_id), state)
            self.assertEqual(self.book.page(page_id)["class"], "stopped")
            self.assertEqual(self.book.begin(page_id, "b", "w"), "over")
        self.assertEqual(self.book.stop(running), "running")
        self.assertEqual(self.book.beat(running, "a", "w", {}), "stop")
        # Its worker dies before it has obeyed.
        self.lapse(running)
        self.claimed()
        self.assertEqual(self.book.begin(running, "b", "w"), "over")
        self.assertEqual(self.state(running), "failed")
        self.assertIsNone(self.book.stop("unknown"))

    def test_a_page_that_is_given_back_goes_first(self) -> None:
        page_id = self.enter()
        self.claimed()
        self.book.begin(page_id, "a", "w")
        self.book.give_back(page_id, "a")
        self.assertEqual([(c.page_id, c.urgent) for c in self.book.claim(9)], [(page_id, True)])

    def test_a_page_whose_sender_died_is_sent_by_another(self) -> None:
        page_id = self.enter()
        self.assertEqual(len(self.book.claim(9)), 1)
        self.assertEqual(self.book.claim(9), [])
        self.book._client.zadd(f"{self.fleet.settings.prefix}due", {page_id: 1})
        claim = self.book.claim(9)[0]
        # What was claimed anew is not taken off by the one that claimed it before.
        self.book.sent(Claim(page_id, "1.0", False))
        self.assertEqual(self.book._client.zcard(f"{self.fleet.settings.prefix}due"), 1)
        self.book.sent(claim)
        self.assertEqual(self.book._client.zcard(f"{self.fleet.settings.prefix}due"), 0)

    def test_a_restart_is_waited_for(self) -> None:
        self.fleet._script("kill")
        restart = threading.Timer(0.5, self.fleet._script, ["start"])
        restart.start()
        self.addCleanup(restart.join)
        self.assertEqual(self.book.counts()["queued"], 0)
        self.fleet._script("kill")
        again = threading.Timer(0.5, self.fleet._script, ["start"])
        again.start()
        self.addCleanup(again.join)
        self.enter()
        self.assertEqual(self.book.counts()["queued"], 1)

    def test_what_is_known_outlives_the_server(self) -> None:
        running, queued = self.enter("1"), self.enter("2")
        self.book.begin(running, "a", "w")
        self.book.settle()
        self.fleet.kill_server()
        self.assertEqual(self.book.beat(running, "a", "w", {"done": 1}), "ok")
        self.assertEqual(self.state(queued), "queued")
        self.assertEqual(self.claimed(), [queued])


    def test_a_run_that_the_server_has_forgotten_keeps_its_page(self) -> None:
        page_id = self.enter()
        self.claimed()
        self.forget(lambda: self.book.begin(page_id, "a", "w"))
        self.assertEqual(self.state(page_id), "queued")
        self.assertEqual(self.book.beat(page_id, "a", "w", {}), "ok")
        page = self.book.page(page_id)
        self.assertEqual((page["state"], page["worker"], page["runs"]), ("running", "w", "1"))
        self.assertEqual(self.book.begin(page_id, "b", "w"), "held")
        self.lapse(page_id)
        self.assertEqual(self.claimed(), [page_id])

    def test_a_run_that_the_server_has_forgotten_has_a_place_of_its_host(self) -> None:
        ids = [self.enter(str(n)) for n in range(3)]
        for page_id in ids:  # two run, one is parked
            self.book.begin(page_id, "a", "w")

        def take_a_place() -> None:
            self.book.finish(ids[0], "a", "failed", "refused")
            self.book.wake()
            self.assertEqual(self.book.begin(ids[2], "b", "w"), "begun")

        self.forget(take_a_place)
        self.assertEqual(self.state(ids[2]), "parked")
        self.assertEqual(self.book.beat(ids[2], "b", "w", {}), "ok")
        self.assertEqual(self.state(ids[2]), "running")
        self.book.finish(ids[0], "a", "failed", "refused")
        self.assertEqual(self.book.wake(), 0)  # nobody waits any more

    def test_a_page_that_the_server_has_forgotten_and_another_has_is_lost(self) -> None:
        page_id = self.enter()
        self.forget(lambda: self.book.begin(page_id, "a", "w"))
        self.book.begin(page_id, "b", "w")
        self.assertEqual(self.book.beat(page_id, "a", "w", {}), "lost")
        self.book.finish(page_id, "b", "failed", "refused")
        self.assertEqual(self.book.beat(page_id, "a", "w", {}), "lost")
        self.assertEqual(self.book.beat("unknown", "a", "w", {}), "lost")


class DispatchTest(FleetTest):
    changed = {"host_limit": 1, "host_pause": 0.0}

    def test_everything_due_is_sent_once(self) -> None:
        pages = [Page.of(f"http://h{n}.com/", {}) for n in range(1234)]
        list(self.book.submit(pages))
        sent: list[str] = []
        self.assertEqual(send_due(self.book, lambda claim: sent.append(claim.page_id)), len(pages))
        self.assertEqual(sorted(sent), sorted(page.key for page in pages))

    def test_a_dispatcher_wakes_who_waits_for_a_place(self) -> None:
        pages = [Page.of(f"http://example.com/{n}", {}) for n in range(20)]
        list(self.book.submit(pages))
        sent: list[str] = []
        lock = threading.Lock()

        def send(claim: Claim) -> None:
            if self.book.begin(claim.page_id, "a", "w") == "begun":
                self.assertEqual(self.book.counts()["running"], 1)
                self.book.finish(claim.page_id, "a", "done", "complete")
                with lock:
                    sent.append(claim.page_id)
                dispatcher.look()

        dispatcher = Dispatcher(self.book, send)
        dispatcher.start()
        self.addCleanup(dispatcher.join)
        self.addCleanup(dispatcher.end)
        wait_until(lambda: len(sent) == len(pages), "all pages had a place")


if __name__ == "__main__":
    unittest.main()
