"""The state of a fleet as Prometheus reads it."""

from __future__ import annotations

from collections.abc import Mapping
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

from redis import RedisError

from clipweir_fleet.book import Book

CONTENT_TYPE = "text/plain; version=0.0.4; charset=utf-8"
ENDED = "ended:"


def render(counts: Mapping[str, int], totals: Mapping[str, int], ended_last_minute: int) -> str:
    """The text of an answer."""
    lines = ["# HELP clipweir_fleet_pages Pages by state.", "# TYPE clipweir_fleet_pages gauge"]
    lines += [f'clipweir_fleet_pages{{state="{state}"}} {count}' for state, count in counts.items()]
    lines += [
        "# HELP clipweir_fleet_ended_total Pages that ended, by class.",
        "# TYPE clipweir_fleet_ended_total counter",
    ]
    lines += [
        f'clipweir_fleet_ended_total{{class="{name[len(ENDED):]}"}} {count}'
        for name, count in sorted(totals.items())
        if name.startswith(ENDED)
    ]
    lines += [
        "# HELP clipweir_fleet_retries_total Runs that were put off to be tried again.",
        "# TYPE clipweir_fleet_retries_total counter",
        f"clipweir_fleet_retries_total {totals.get('retries', 0)}",
        "# HELP clipweir_fleet_losses_total Runs whose worker died.",
        "# TYPE clipweir_fleet_losses_total counter",
        f"clipweir_fleet_losses_total {totals.get('losses', 0)}",
        "# HELP clipweir_fleet_ended_last_minute Pages that ended within the last minute.",
        "# TYPE clipweir_fleet_ended_last_minute gauge",
        f"clipweir_fleet_ended_last_minute {ended_last_minute}",
    ]
    return "\n".join(lines) + "\n"


class MetricsServer(ThreadingHTTPServer):
    """Answers ``/metrics``. Serve it with ``serve_forever()``."""

    daemon_threads = True

    def __init__(self, address: tuple[str, int], book: Book) -> None:
        """Raises OSError if the address cannot be had."""
        self.book = book
        super().__init__(address, _Handler)


class _Handler(BaseHTTPRequestHandler):
    server: MetricsServer
    timeout = 10

    def do_GET(self) -> None:
        if self.path != "/metrics":
            self.send_error(404)
            return
        book = self.server.book
        try:
            text = render(book.counts(), book.totals(), book.ended_within(60))
        except RedisError:
            self.send_error(503, "the state cannot be had")
            return
        body = text.encode()
        self.send_response(200)
        self.send_header("Content-Type", CONTENT_TYPE)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, format: str, *args: object) -> None:
        """Nothing is told of requests."""
