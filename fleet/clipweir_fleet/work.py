"""One run of a page by a worker, from its lease to its verdict."""

from __future__ import annotations

import enum
import json
import logging
import time
import uuid
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

import redis

from clipweir_fleet.book import Book
from clipweir_fleet.child import Child, Event, last_result
from clipweir_fleet.classes import Verdict, class_of_exit, pause_before, verdict_of
from clipweir_fleet.pages import arguments_of, host_of
from clipweir_fleet.settings import Settings
from clipweir_fleet.store import Store

log = logging.getLogger(__name__)

DEADLINE_GRACE = 30.0  # a run ends by its own deadline; one that does not is ended
FIRST_PAUSE_MS = 1000  # what a run waits before its first retry unless its server says otherwise
MOST_PAUSE_MS = 60_000


class Cause(enum.Enum):
    """Why a run is to end before it is done."""

    STOPPED = "stopped"  # somebody stopped the page
    SHUTDOWN = "shutdown"  # the worker stops, another goes on
    LOST = "lost"  # the page is another worker's
    DEADLINE = "deadline"  # the run's time is over, and it has not noticed


@dataclass(frozen=True)
class Outcome:
    """What became of a page that a worker was sent."""

    # done, retry, failed; or over, held, early, parked, returned, lost: nothing more to be done here
    what: str
    run_class: str = ""
    pause: float = 0.0  # before a retry
    result: dict[str, Any] = field(default_factory=dict)


Progress = Callable[[dict[str, Any]], None]
Asked = Callable[[], "Cause | None"]


class PageWork:
    """Runs clipweir for one page and holds the page's lease meanwhile. Made for one run."""

    def __init__(
        self, settings: Settings, book: Book, store: Store, worker: str, asked: Asked, progress: Progress
    ) -> None:
        """``asked`` says whether the run is to end; ``progress`` is told how far it is."""
        self._settings = settings
        self._book = book
        self._store = store
        self._worker = worker
        self._asked = asked
        self._tell = progress
        self._token = uuid.uuid4().hex
        self._page_id = ""
        self._host = ""
        self._progress: dict[str, Any] = {}
        self._result: Event | None = None
        self._cause: Cause | None = None
        self._next_beat = 0.0
        self._lease_end = 0.0
        self._is_asked_to_stop = False
        self._kill_at = float("inf")
        self._deadline_at = float("inf")

    def run(self, page_id: str) -> Outcome:
        """Takes the page if it is to be had, and sees it to an outcome that is in the book."""
        self._page_id = page_id
        begun_at = time.monotonic()
        begun = self._book.begin(page_id, self._token, self._worker)
        if begun != "begun":
            return Outcome(begun)
        self._lease_end = begun_at + self._settings.lease
        page = self._book.page(page_id)
        self._host = host_of(page["url"])
        log.info("a run begins", extra={"page": page_id, "url": page["url"], "runs": int(page["runs"])})
        outcome = self._attempt(page)
        log.info(
            "a run has ended",
            extra={
                "page": page_id,
                "outcome": outcome.what,
                "class": outcome.run_class,
                "seconds": round(time.monotonic() - begun_at, 3),
            },
        )
        return outcome

    def _attempt(self, page: dict[str, str]) -> Outcome:
        try:
            there = self._store.result(self._page_id)
            if there is not None:  # a worker died between the rename and its word
                self._store.drop_work(self._page_id)
                return self._done(there)
            told = last_result(self._store.record_path(self._page_id))
            if told is not None and self._store.has_video(self._page_id, told, self._beat_in_time):
                # A run came to its end, and its worker did not, or had no room for the result.
                log.info("an earlier run has the video", extra={"page": self._page_id})
                self._result = told
                return self._done(self._store.publish(self._page_id, self._told(page)))
            run_class = self._run_class(page)
            if run_class == "complete":
                return self._done(self._store.publish(self._page_id, self._told(page)))
        except OSError:
            log.exception("the store or the program fails", extra={"page": self._page_id})
            run_class = "disk"
        return self._settle(page, run_class)

    def _settle(self, page: dict[str, str], run_class: str) -> Outcome:
        """Enters what becomes of a page that is not done."""
        if self._cause is Cause.LOST:
            return Outcome("lost")
        if self._cause is None:
            self._cause = self._asked()
        if self._cause is Cause.SHUTDOWN and verdict_of(run_class) is Verdict.RETRY:
            self._book.give_back(self._page_id, self._token)
            return Outcome("returned")
        by_us = self._cause in (Cause.STOPPED, Cause.DEADLINE)
        if by_us:
            run_class = self._cause.value  # type: ignore[union-attr]
        retry = int(page["retries"]) + 1
        if not by_us and verdict_of(run_class) is Verdict.RETRY and retry <= self._settings.max_retries:
            pause = pause_before(retry, self._settings.pause, self._settings.pause_most)
            if not self._book.retry(self._page_id, self._token, pause, run_class):
                return Outcome("lost")
            return Outcome("retry", run_class, pause)
        if not self._book.finish(self._page_id, self._token, "failed", run_class):
            return Outcome("lost")
        self._store.drop_work(self._page_id)
        return Outcome("failed", run_class)

    def _done(self, result: dict[str, Any]) -> Outcome:
        self._book.finish(self._page_id, self._token, "done", "complete", json.dumps(result))
        return Outcome("done", "complete", result=result)

    def _told(self, page: dict[str, str]) -> dict[str, Any]:
        """What is kept beside a video: what its run told, and whose it is."""
        told = self._result or {}
        kept = {name: told.get(name) for name in ("class", "bytes", "sha256", "startedAt", "endedAt")}
        return {**kept, "page": self._page_id, "url": page["url"], "options": page["options"]}

    def _arguments(self, page: dict[str, str]) -> list[str]:
        settings = self._settings
        chosen = arguments_of(page["options"])
        standard = ["--events", "--strict", "--continue", "--streams", "--parent"]
        standard += ["--retries", str(settings.run_retries)]
        if "--engine" not in chosen:
            standard += ["--engine", "auto"]
        if "--deadline" not in chosen:
            standard += ["--deadline", str(settings.deadline)]
        video = str(self._store.video_path(self._page_id))
        return [settings.program, "--url", page["url"], "--saveto", video, *standard, *chosen]

    def _run_class(self, page: dict[str, str]) -> str:
        """Runs the program to its end; the class of the run."""
        folder = self._store.work_folder(self._page_id)
        arguments = self._arguments(page)
        limit = float(arguments[arguments.index("--deadline") + 1])
        log.info("it is run", extra={"page": self._page_id, "left": self._store.left(self._page_id)})
        child = Child(arguments, str(folder), self._store.record_path(self._page_id))
        self._deadline_at = time.monotonic() + limit + DEADLINE_GRACE
        try:
            while not child.at_end:
                for event in child.read(self._next_look()):
                    self._take(event)
                self._look_around(child)
        except BaseException:
            child.kill()
            raise
        finally:
            code = child.close()
        return self._result["class"] if self._result else class_of_exit(code)

    def _next_look(self) -> float:
        now = time.monotonic()
        return max(0.0, min(0.5, self._next_beat - now, self._kill_at - now))

    def _take(self, event: Event) -> None:
        name = event.get("event")
        if name == "progress":
            self._progress = {key: event.get(key) for key in ("unit", "done", "total", "rate")}
        elif name == "resumed":
            self._progress = {"unit": "bytes", "done": event.get("fromByte"), "total": None, "rate": None}
            extra = {"page": self._page_id, "fromByte": event.get("fromByte")}
            log.info("it goes on with what an earlier run left", extra=extra)
        elif name == "begunAgain":
            extra = {"page": self._page_id, "reason": str(event.get("reason"))}
            log.info("what an earlier run left is of no use", extra=extra)
        elif name == "retry":
            self._heed_pause(event)
        elif name == "result" and isinstance(event.get("class"), str):
            self._result = event
            # Nothing is left for it to do but to end.
            self._kill_at = min(self._kill_at, time.monotonic() + self._settings.stop_grace)

    def _heed_pause(self, event: Event) -> None:
        """A server that names the time to wait names it to the whole fleet."""
        pause, attempt = event.get("pauseMs"), event.get("attempt")
        if not isinstance(pause, int) or not isinstance(attempt, int):
            return
        usual = min(MOST_PAUSE_MS, FIRST_PAUSE_MS * 2 ** min(max(attempt, 1) - 1, 16))
        if pause > usual:
            try:
                self._book.hold_host(self._host, pause / 1000)
            except redis.RedisError:  # the run heeds it all the same
                log.warning("the others are not told of a pause", extra={"page": self._page_id})

    def _look_around(self, child: Child) -> None:
        self._beat_in_time()
        now = time.monotonic()
        if self._cause is None:
            self._cause = self._asked()
        if self._cause is None and now >= self._deadline_at:
            self._cause = Cause.DEADLINE
        if self._cause is not None and not self._is_asked_to_stop:
            self._is_asked_to_stop = True
            # Another worker may be at the page any moment: there is no time for an end in order.
            grace = 0.0 if self._cause is Cause.LOST else self._settings.stop_grace
            self._kill_at = min(self._kill_at, now + grace)
            child.ask_to_stop()
        if now >= self._kill_at:
            child.kill()
            self._kill_at = now + self._settings.stop_grace

    def _beat_in_time(self) -> None:
        now = time.monotonic()
        if now < self._next_beat:
            return
        self._next_beat = now + self._settings.beat
        try:
            answer = self._book.beat(self._page_id, self._token, self._worker, self._progress)
        except redis.RedisError:
            # As long as the lease lasts nobody else can have the page.
            if time.monotonic() >= self._lease_end:
                self._cause = Cause.LOST
            return
        if answer == "lost":
            self._cause = Cause.LOST
            return
        self._lease_end = now + self._settings.lease
        if answer == "stop" and self._cause is None:
            self._cause = Cause.STOPPED
        self._tell(self._progress)
