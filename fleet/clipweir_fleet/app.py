"""The Celery application."""

from __future__ import annotations

from celery import Celery

from clipweir_fleet.deliveries import DeliveryKeeper
from clipweir_fleet.settings import Settings

QUEUE = "pages"
URGENT, USUAL = 0, 5  # Redis has the lowest number first

settings = Settings.from_environment()


def make_app(settings: Settings) -> Celery:
    """An application that has its broker, its results and its state in one Redis."""
    app = Celery("clipweir_fleet", broker=settings.redis, backend=settings.redis)
    prefix = settings.prefix
    app.conf.update(
        include=["clipweir_fleet.task"],
        task_default_queue=prefix + QUEUE,
        task_default_priority=USUAL,
        task_acks_late=True,
        task_reject_on_worker_lost=True,
        task_serializer="json",
        result_serializer="json",
        accept_content=["json"],
        result_expires=settings.keep,
        worker_prefetch_multiplier=1,
        worker_hijack_root_logger=False,
        broker_connection_max_retries=None,
        broker_transport_options={
            "unacked_key": prefix + "unacked",
            "unacked_index_key": prefix + "unacked_index",
            "unacked_mutex_key": prefix + "unacked_mutex",
            "visibility_timeout": settings.lease,
            # A worker that dies while it restores messages must not keep others from it for long.
            "unacked_mutex_expire": max(1, int(settings.lease)),
            "priority_steps": [URGENT, USUAL],
            "queue_order_strategy": "priority",
            "socket_keepalive": True,
            "retry_on_timeout": True,
        },
        result_backend_transport_options={
            "global_keyprefix": prefix,
            "retry_policy": {"timeout": 30.0, "max_retries": 20, "interval_step": 0.2, "interval_max": 2.0},
        },
        redis_retry_on_timeout=True,
        redis_socket_keepalive=True,
    )
    DeliveryKeeper.interval = settings.beat
    app.steps["consumer"].add(DeliveryKeeper)
    return app


app = make_app(settings)
