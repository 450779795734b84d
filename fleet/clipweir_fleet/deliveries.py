"""Keeps the messages of a living worker its own, and brings back those of a dead one.

Over Redis, Celery gives a message that was not acknowledged to another worker once it was out for
the visibility timeout, whether its worker lives or not, and looks for such messages every hundred
seconds. Here the timeout is short, a living worker says again and again that its messages are in good
hands, and looks for those of others as often.

A worker whose slots are taken asks for no message, and the end of a task in a thread does not wake the
loop that would ask again: it would sleep on, for seconds. So it is woken in short intervals.
"""

from __future__ import annotations

import logging
import time
from typing import Any

import redis
from celery import bootsteps

log = logging.getLogger(__name__)


class DeliveryKeeper(bootsteps.StartStopStep):
    """A part of the worker's consumer; runs in its loop."""

    requires = {"celery.worker.consumer.tasks:Tasks"}
    interval = 2.0
    turn = 0.1  # seconds that a free slot waits for its next page at most

    def __init__(self, consumer: Any, **options: Any) -> None:
        super().__init__(consumer, **options)
        self._timers: list[Any] = []

    def start(self, consumer: Any) -> None:
        """Begins, whenever the worker is connected anew."""
        self._timers = [
            consumer.timer.call_repeatedly(self.interval, self._keep, (consumer,)),
            consumer.timer.call_repeatedly(self.turn, lambda: None),
        ]

    def stop(self, consumer: Any) -> None:
        """Ends with the connection."""
        for timer in self._timers:
            timer.cancel()
        self._timers = []

    def _keep(self, consumer: Any) -> None:
        try:
            touch(consumer.task_consumer.channel)
        except redis.RedisError:
            # The consumer notices by itself, and connects anew.
            log.warning("the broker does not answer")


def touch(channel: Any) -> None:
    """Says that what this channel was given is in good hands, and restores what others lost."""
    now = time.time()
    # A message that was acknowledged meanwhile is no more in the index, and stays away ("xx").
    held = {tag: now for tag in list(channel.qos._delivered)}
    if held:
        with channel.conn_or_acquire() as client:
            client.zadd(channel.unacked_index_key, held, xx=True)
    channel.qos.restore_visible(num=channel.unacked_restore_limit, interval=1)
