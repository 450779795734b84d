"""The one task of the fleet, and what a worker has beside it."""

from __future__ import annotations

import logging
import threading
from functools import lru_cache
from typing import Any

from celery import Task, signals
from celery.exceptions import Ignore, Reject
from celery.worker import state as worker_state
from kombu.exceptions import OperationalError
from redis import RedisError

from clipweir_fleet import logs
from clipweir_fleet.app import URGENT, USUAL, app, settings
from clipweir_fleet.book import Book, Claim
from clipweir_fleet.dispatch import Dispatcher
from clipweir_fleet.store import Store
from clipweir_fleet.work import Cause, Outcome, PageWork

log = logging.getLogger(__name__)

_stopping = threading.Event()
_dispatcher: Dispatcher | None = None


class PageFailed(Exception):
    """A page failed for good; the text is the class."""


@lru_cache(maxsize=None)
def book() -> Book:
    """The book of this process."""
    return Book(settings)


@lru_cache(maxsize=None)
def store() -> Store:
    """The store of this process."""
    made = Store(settings.store)
    made.prepare()
    return made


def send(claim: Claim) -> None:
    """Gives the message for a page to the broker."""
    capture.apply_async(
        (claim.page_id,), task_id=claim.page_id, priority=URGENT if claim.urgent else USUAL
    )


@app.task(bind=True, name="clipweir_fleet.capture", throws=(PageFailed,), max_retries=None)
def capture(self: Task, page_id: str) -> dict[str, Any]:
    """Captures a page, known by its key."""

    def asked() -> Cause | None:
        if _stopping.is_set():
            return Cause.SHUTDOWN
        return Cause.STOPPED if page_id in worker_state.revoked else None

    def tell(progress: dict[str, Any]) -> None:
        try:
            self.update_state(state="PROGRESS", meta=progress)
        except (RedisError, OperationalError):
            log.warning("the progress is told later", extra={"page": page_id})

    if _stopping.is_set():  # what was fetched from the queue and not begun
        raise Reject(requeue=True)
    work = PageWork(settings, book(), store(), self.request.hostname or "worker", asked, tell)
    try:
        outcome = work.run(page_id)
    except Exception:  # what the lease and the dispatcher bring back
        log.exception("a run is lost", extra={"page": page_id})
        raise
    if _dispatcher is not None:
        _dispatcher.look()
    return _answer(self, outcome)


def _answer(task: Task, outcome: Outcome) -> dict[str, Any]:
    """Tells Celery what became of the page."""
    if outcome.what == "done":
        return outcome.result
    if outcome.what == "retry":
        raise task.retry(countdown=outcome.pause, exc=PageFailed(outcome.run_class), priority=URGENT)
    if outcome.what == "failed":
        raise PageFailed(outcome.run_class)
    raise Ignore()


@signals.setup_logging.connect
def _set_up_logging(**_: Any) -> None:
    logs.set_up()


@signals.worker_ready.connect
def _begin(**_: Any) -> None:
    global _dispatcher
    _dispatcher = Dispatcher(book(), send)
    _dispatcher.start()
    log.info("the worker is ready")


@signals.worker_shutting_down.connect
def _stop(**_: Any) -> None:
    log.info("the worker stops; its runs end in order, and others go on with them")
    _stopping.set()
    if _dispatcher is not None:
        _dispatcher.end()


@signals.task_revoked.connect
def _revoked(request: Any = None, **_: Any) -> None:
    """A page that was revoked before its run began."""
    book().stop(request.id)
