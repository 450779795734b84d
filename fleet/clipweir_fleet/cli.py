"""The command ``clipweir-fleet``."""

from __future__ import annotations

import argparse
import json
import sys
import time
from collections.abc import Iterator, Sequence
from typing import Any, TextIO

from kombu.exceptions import OperationalError
from redis import RedisError

from clipweir_fleet import pages
from clipweir_fleet.book import STATES, Book
from clipweir_fleet.dispatch import send_due
from clipweir_fleet.pages import Page, PageError
from clipweir_fleet.settings import Settings, SettingsError

ACTIVE = ("queued", "parked", "running", "waiting")
WATCH_SECONDS = 2.0


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs the command; the exit code: 0, 1 when it could not be done, 2 for wrong arguments."""
    parsed = _parser().parse_args(arguments)
    try:
        return parsed.command(parsed, Settings.from_environment())
    except (SettingsError, PageError) as error:
        print(f"clipweir-fleet: {error}", file=sys.stderr)
        return 2
    except (RedisError, OperationalError, OSError) as error:
        print(f"clipweir-fleet: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="clipweir-fleet", description="Captures the videos of many pages on many machines."
    )
    commands = parser.add_subparsers(required=True, metavar="COMMAND")

    worker = commands.add_parser("worker", help="take pages from the queue until told to stop")
    worker.add_argument("--slots", type=int, help="pages side by side")
    worker.add_argument("--name", default="worker", help="of this worker on this machine")
    worker.set_defaults(command=_worker)

    submit = commands.add_parser("submit", help="enter pages")
    submit.add_argument("-i", "--input", metavar="LIST", help="addresses, one a line; - is standard input")
    submit.add_argument("--again", action="store_true", help="enter pages anew that have failed")
    submit.add_argument("url", nargs="*")
    options = submit.add_argument_group("options of the runs")
    for name in sorted(pages.FLAGS):
        options.add_argument(f"--{name}", dest=f"run {name}", action="store_true", default=None)
    for name in sorted(pages.NUMBERS):
        options.add_argument(f"--{name}", dest=f"run {name}", type=int, metavar="N")
    for name in sorted(pages.TEXTS):
        options.add_argument(f"--{name}", dest=f"run {name}", metavar="TEXT")
    submit.set_defaults(command=_submit)

    status = commands.add_parser("status", help="tell how far the pages are")
    status.add_argument("--watch", action="store_true", help="tell it again and again until all have ended")
    status.add_argument("--json", action="store_true")
    status.set_defaults(command=_status)

    stop = commands.add_parser("stop", help="stop pages; runs end in order")
    stop.add_argument("page", nargs="*", help="key or address")
    stop.add_argument("--all", action="store_true")
    stop.set_defaults(command=_stop)

    results = commands.add_parser("results", help="tell what became of pages that ended")
    results.add_argument("--json", action="store_true", help="an object a line")
    results.set_defaults(command=_results)

    metrics = commands.add_parser("metrics", help="serve the state for Prometheus")
    metrics.add_argument("--listen", default="127.0.0.1:9464", metavar="ADDRESS:PORT")
    metrics.set_defaults(command=_metrics)
    return parser


def _worker(parsed: argparse.Namespace, settings: Settings) -> int:
    from clipweir_fleet.task import app, store

    store()
    slots = parsed.slots if parsed.slots is not None else settings.slots
    if slots < 1:
        raise SettingsError("a worker has one slot at least")
    app.worker_main(
        [
            "worker",
            "--pool=threads",  # a page's thread waits for its run and does little else
            f"--concurrency={slots}",
            f"--hostname={parsed.name}@%h",
            "--loglevel=INFO",
            "--without-gossip",
            "--without-mingle",
            "--without-heartbeat",
        ]
    )
    return 0


def _submit(parsed: argparse.Namespace, settings: Settings) -> int:
    from clipweir_fleet.task import send

    urls: list[str] = []
    if parsed.input is not None:
        with _opened(parsed.input) as lines:
            urls += pages.read_list(lines)
    urls += parsed.url
    chosen = {
        name.removeprefix("run "): value
        for name, value in vars(parsed).items()
        if name.startswith("run ") and value is not None
    }
    # All are looked at before one is entered.
    wanted = [Page.of(url, chosen) for url in urls]
    book = Book(settings)
    for page, what, state in book.submit(wanted, parsed.again):
        print(f"{page.key}\t{what}\t{state}\t{page.url}")
    send_due(book, send)
    book.settle()
    return 0


def _opened(name: str) -> TextIO:
    return sys.stdin if name == "-" else open(name, encoding="utf-8")


def _status(parsed: argparse.Namespace, settings: Settings) -> int:
    book = Book(settings)
    while True:
        status = status_of(book)
        print(json.dumps(status) if parsed.json else text_of(status), flush=True)
        if not parsed.watch or not any(status["pages"][state] for state in ACTIVE):
            return 0
        time.sleep(WATCH_SECONDS)


def status_of(book: Book) -> dict[str, Any]:
    """How far the pages of a fleet are."""
    running = []
    for page_id, page in book.pages("running"):
        progress = json.loads(page.get("progress") or "{}")
        running.append(
            {"page": page_id, "url": page["url"], "worker": page.get("worker"), "progress": progress}
        )
    failed: dict[str, int] = {}
    for _, page in book.pages("failed"):
        failed[page["class"]] = failed.get(page["class"], 0) + 1
    return {
        "pages": book.counts(),
        "failed": failed,
        "endedLastMinute": book.ended_within(60),
        "running": running,
    }


def text_of(status: dict[str, Any]) -> str:
    """The same for people."""
    lines = ["  ".join(f"{state} {status['pages'][state]}" for state in STATES)]
    if status["failed"]:
        classes = "  ".join(f"{name} {count}" for name, count in sorted(status["failed"].items()))
        lines.append(f"failed by class: {classes}")
    lines.append(f"ended in the last minute: {status['endedLastMinute']}")
    for run in status["running"]:
        lines.append(f"  {run['page']}  {_progress_text(run['progress'])}  {run['url']}  ({run['worker']})")
    return "\n".join(lines)


def _progress_text(progress: dict[str, Any]) -> str:
    done, total = progress.get("done"), progress.get("total")
    if not done:
        return "looking"
    if not total:
        return f"{done} {progress.get('unit')}"
    return f"{100 * done // total:3d} % of {total} {progress.get('unit')}"


def _stop(parsed: argparse.Namespace, settings: Settings) -> int:
    book = Book(settings)
    if bool(parsed.page) == parsed.all:
        raise PageError("name the pages, or --all")
    wanted = set(parsed.page)
    known: set[str] = set()
    for page_id, page in _each(book, ACTIVE):
        names = {page_id, page["url"]} & wanted
        if parsed.all or names:
            known |= names
            print(f"{page_id}\t{book.stop(page_id)}\t{page['url']}")
    for missing in sorted(wanted - known):
        print(f"clipweir-fleet: neither queued nor running: {missing}", file=sys.stderr)
    return 1 if wanted - known else 0


def _results(parsed: argparse.Namespace, settings: Settings) -> int:
    for page_id, page in _each(Book(settings), ("done", "failed")):
        result = {
            **json.loads(page.get("result") or "{}"),
            "page": page_id,
            "url": page["url"],
            "options": json.loads(page["options"]),
            "state": page["state"],
            "class": page["class"],
            "runs": int(page.get("runs", 0)),
            "losses": int(page["losses"]),
        }
        if parsed.json:
            print(json.dumps(result, sort_keys=True))
        else:
            print(f"{page_id}\t{result['class']}\t{result.get('path') or '-'}\t{result['url']}")
    return 0


def _each(book: Book, states: Sequence[str]) -> Iterator[tuple[str, dict[str, str]]]:
    for state in states:
        yield from book.pages(state)


def _metrics(parsed: argparse.Namespace, settings: Settings) -> int:
    from clipweir_fleet.metrics import MetricsServer

    address, _, port = parsed.listen.rpartition(":")
    if not port.isdigit():
        raise SettingsError(f"no address and port: {parsed.listen}")
    with MetricsServer((address.strip("[]"), int(port)), Book(settings)) as server:
        shown, number = server.server_address[:2]
        print(f"http://{shown}:{number}/metrics", flush=True)
        server.serve_forever()
    return 0
