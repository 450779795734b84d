"""Logs as JSON, one object a line, with the page that each is about."""

from __future__ import annotations

import json
import logging
import sys
from datetime import datetime, timezone

FIELDS = ("page", "url", "runs", "outcome", "class", "seconds", "reason", "left", "fromByte")


class JsonFormatter(logging.Formatter):
    """Makes one line of JSON of a record."""

    def format(self, record: logging.LogRecord) -> str:
        """The line, without its end."""
        line = {
            "time": datetime.fromtimestamp(record.created, timezone.utc).isoformat(timespec="milliseconds"),
            "level": record.levelname.lower(),
            "logger": record.name,
            "message": record.getMessage(),
        }
        line.update({name: getattr(record, name) for name in FIELDS if hasattr(record, name)})
        if record.exc_info:
            line["exception"] = self.formatException(record.exc_info)
        return json.dumps(line, default=str)


def set_up(level: int = logging.INFO) -> None:
    """Sends all logs to standard error."""
    handler = logging.StreamHandler(sys.stderr)
    handler.setFormatter(JsonFormatter())
    root = logging.getLogger()
    root.handlers[:] = [handler]
    root.setLevel(level)
    # What is received and what becomes of it is told by the task itself, with more.
    for noisy in ("celery.worker.strategy", "celery.app.trace"):
        logging.getLogger(noisy).setLevel(logging.CRITICAL)
