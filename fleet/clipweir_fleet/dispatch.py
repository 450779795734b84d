"""Hands pages that are due to the broker."""

from __future__ import annotations

import logging
import threading
from collections.abc import Callable

from kombu.exceptions import OperationalError
from redis import RedisError

from clipweir_fleet.book import Book, Claim

log = logging.getLogger(__name__)

BATCH = 100
INTERVAL = 1.0  # seconds


def send_due(book: Book, send: Callable[[Claim], None]) -> int:
    """Sends a message for every page that is due; returns for how many."""
    count = 0
    while claims := book.claim(BATCH):
        for claim in claims:
            send(claim)
            book.sent(claim)
        count += len(claims)
    return count


class Dispatcher(threading.Thread):
    """Looks every second for what is due, and for places that are free. Every worker has one."""

    def __init__(self, book: Book, send: Callable[[Claim], None]) -> None:
        super().__init__(name="dispatcher", daemon=True)
        self._book = book
        self._send = send
        self._end = threading.Event()
        self._nudge = threading.Event()

    def run(self) -> None:
        """Runs until ``end()``."""
        while not self._end.is_set():
            try:
                self._book.wake()
                send_due(self._book, self._send)
            except (RedisError, OperationalError, OSError):
                log.warning("the server does not answer")
            self._nudge.wait(INTERVAL)
            self._nudge.clear()

    def look(self) -> None:
        """Has it look at once: a place has become free."""
        self._nudge.set()

    def end(self) -> None:
        """Ends it soon."""
        self._end.set()
        self._nudge.set()
