"""What the fleet knows of its pages, in Redis."""

from __future__ import annotations

import json
import time
from collections.abc import Callable, Iterable, Iterator
from dataclasses import dataclass
from typing import Any

import redis
from redis.backoff import ExponentialBackoff
from redis.retry import Retry

from clipweir_fleet import scripts
from clipweir_fleet.pages import Page
from clipweir_fleet.settings import Settings

STATES = ("queued", "parked", "running", "waiting", "done", "failed")
SUBMIT_BATCH = 500
READ_BATCH = 500
SEND_HOLD = 10.0  # whoever claimed a message and died is not waited for any longer
WRITE_DELAY = 3.5  # seconds; two, counted in whole ones, and some for the write itself
RESERVE = 60.0  # how long a place is kept for a page that was woken


@dataclass(frozen=True)
class Claim:
    """A page for which a message is to be sent."""

    page_id: str
    token: str
    urgent: bool


def _patience() -> Retry:
    return Retry(ExponentialBackoff(cap=2, base=0.05), 10)


def connect(settings: Settings) -> "redis.Redis[str]":
    """A connection that outlives a restart of the server by some ten seconds."""
    return redis.Redis.from_url(
        settings.redis,
        decode_responses=True,
        socket_timeout=15,
        socket_connect_timeout=5,
        health_check_interval=30,
        retry=_patience(),
        retry_on_error=[redis.ConnectionError, redis.TimeoutError],
    )


class Book:
    """The pages of a fleet. Safe to use from several threads.

    Every method raises redis.RedisError when the server cannot be had. Each change is one script,
    and doing it again, after an answer that was lost, does no harm.
    """

    def __init__(self, settings: Settings, client: "redis.Redis[str] | None" = None) -> None:
        self._settings = settings
        self._client = client or connect(settings)
        self._root = settings.prefix
        self._scripts = {
            name: self._client.register_script(scripts.PRELUDE + getattr(scripts, name))
            for name in (
                "SUBMIT", "CLAIM", "SENT", "BEGIN", "BEAT", "RETRY",
                "GIVE_BACK", "FINISH", "STOP", "HOLD", "WAKE",
            )
        }  # fmt: skip

    def submit(self, pages: Iterable[Page], again: bool = False) -> Iterator[tuple[Page, str, str]]:
        """Enters pages; yields each with "new" or "joined" and its state.

        With ``again`` a page that has failed is entered anew.
        """
        batch: list[Page] = []
        for page in pages:
            batch.append(page)
            if len(batch) == SUBMIT_BATCH:
                yield from self._submit_batch(batch, again)
                batch = []
        yield from self._submit_batch(batch, again)

    def _submit_batch(self, batch: list[Page], again: bool) -> Iterator[tuple[Page, str, str]]:
        def enter(pipeline: Any) -> None:
            for page in batch:
                arguments = [page.key, page.url, page.options, page.host, int(again)]
                self._scripts["SUBMIT"](keys=[self._root], args=arguments, client=pipeline)

        for page, (what, state) in zip(batch, self._together(enter)):
            yield page, what, state

    def claim(self, most: int) -> list[Claim]:
        """Pages whose message is due. Nobody else is given them for some seconds."""
        rows = self._run("CLAIM", most, SEND_HOLD, self._settings.max_losses, self._settings.keep)
        return [Claim(rows[i], rows[i + 1], bool(rows[i + 2])) for i in range(0, len(rows), 3)]

    def sent(self, claim: Claim) -> None:
        """The message for the page is with the broker."""
        self._run("SENT", claim.page_id, claim.token)

    def begin(self, page_id: str, token: str, worker: str) -> str:
        """Takes a page for a run: "begun", or why not ("over", "held", "early", "parked")."""
        settings = self._settings
        return self._run(
            "BEGIN", page_id, token, worker,
            settings.lease, settings.host_limit, settings.host_pause, settings.keep,
            settings.max_losses,
        )  # fmt: skip

    def beat(self, page_id: str, token: str, worker: str, progress: dict[str, Any]) -> str:
        """Keeps the lease: "ok", "stop" if the page is to be stopped, "lost" if it is another's.

        A page that the server no longer knows to be taken is taken again, unless it was given up.
        """
        return self._run("BEAT", page_id, token, worker, self._settings.lease, json.dumps(progress))

    def retry(self, page_id: str, token: str, pause: float, run_class: str) -> int:
        """Lets go of a page until later; the number of its retry, 0 if it is another's."""
        return self._run("RETRY", page_id, token, pause, run_class)

    def give_back(self, page_id: str, token: str) -> None:
        """Lets go of a page for another worker to go on at once."""
        self._run("GIVE_BACK", page_id, token)

    def finish(self, page_id: str, token: str, state: str, run_class: str, result: str = "") -> bool:
        """Ends a page as "done" or "failed"; False if it had ended, or has failed and is another's."""
        return bool(self._run("FINISH", page_id, token, state, run_class, self._settings.keep, result))

    def stop(self, page_id: str) -> str | None:
        """Asks for the end of a page; the state that it was in, None if it is not known."""
        return self._run("STOP", page_id, self._settings.keep)

    def hold_host(self, host: str, seconds: float) -> None:
        """Lets no page of the host begin for so long."""
        self._run("HOLD", host, seconds)

    def wake(self) -> int:
        """Gives free places to pages that wait for one; returns to how many."""
        settings = self._settings
        return self._run("WAKE", settings.host_limit, settings.host_pause, RESERVE, settings.keep)

    def settle(self) -> None:
        """Waits until what the server has answered so far would outlive it, were it killed.

        While its disk is slow Redis answers before it writes, for two seconds at most.
        """
        end = time.monotonic() + WRITE_DELAY
        while self._client.info("persistence").get("aof_buffer_length") and time.monotonic() < end:
            time.sleep(0.02)

    def page(self, page_id: str) -> dict[str, str]:
        """All that is known of a page; empty if nothing is."""
        return self._client.hgetall(f"{self._root}page:{page_id}")

    def ids(self, state: str) -> list[str]:
        """The pages in a state, those first that came to it first."""
        return self._client.zrange(f"{self._root}state:{state}", 0, -1)

    def pages(self, state: str) -> Iterator[tuple[str, dict[str, str]]]:
        """The pages in a state, with all that is known of them."""
        ids = self.ids(state)
        for start in range(0, len(ids), READ_BATCH):
            batch = ids[start : start + READ_BATCH]
            keys = [f"{self._root}page:{page_id}" for page_id in batch]
            read = self._together(lambda pipeline: [pipeline.hgetall(key) for key in keys])
            yield from ((page_id, page) for page_id, page in zip(batch, read) if page)

    def counts(self) -> dict[str, int]:
        """How many pages are in each state."""
        keys = [f"{self._root}state:{state}" for state in STATES]
        return dict(zip(STATES, self._together(lambda pipeline: [pipeline.zcard(key) for key in keys])))

    def totals(self) -> dict[str, int]:
        """What was counted since the fleet began: ``ended:CLASS``, ``retries``, ``losses``."""
        return {name: int(value) for name, value in self._client.hgetall(f"{self._root}totals").items()}

    def ended_within(self, seconds: float) -> int:
        """How many pages ended so lately; of the last ten minutes at most."""
        seconds_now, micros = self._client.time()
        now = seconds_now + micros / 1e6
        return self._client.zcount(f"{self._root}ended", now - seconds, "+inf")

    def _together(self, add: Callable[[Any], Any]) -> list[Any]:
        """Sends the commands that ``add`` puts into a pipeline, which has no patience of its own."""

        def attempt() -> list[Any]:
            pipeline = self._client.pipeline(transaction=False)
            add(pipeline)
            return pipeline.execute()

        return _patience().call_with_retry(attempt, lambda error: None)

    def _run(self, name: str, *arguments: Any) -> Any:
        return self._scripts[name](keys=[self._root], args=arguments)
