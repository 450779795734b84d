"""What the tests of the fleet have in common: a server, workers as processes, a place for files."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from collections.abc import Callable, Sequence
from dataclasses import replace
from pathlib import Path

from clipweir_fleet.book import Book
from clipweir_fleet.settings import PREFIX, Settings
from clipweir_fleet.store import Store

FLEET = Path(__file__).resolve().parent.parent
SCRIPT = FLEET.parent / "scripts" / "fleet.sh"
STUB = FLEET / "tests" / "stub_clipweir.py"
PROGRAM = os.environ.get("CLIPWEIR_PROGRAM", str(FLEET.parent / "build" / "quick" / "clipweir"))
PATIENCE = 90.0  # seconds until something counts as never happening


def wait_until(what: Callable[[], object], why: str, seconds: float = PATIENCE) -> None:
    """Waits until something is so. Raises AssertionError when it does not come to be."""
    end = time.monotonic() + seconds
    while not what():
        if time.monotonic() > end:
            raise AssertionError(f"in vain: {why}")
        time.sleep(0.05)


class Fleet:
    """A Redis of its own, a store, and workers as processes."""

    def __init__(self, **settings: object) -> None:
        self._folder = tempfile.TemporaryDirectory(prefix="clipweir-fleet-")
        self.root = Path(self._folder.name)
        (self.root / "home").mkdir()
        address = self._script("start")
        self.settings = replace(
            Settings(redis=address, store=self.root / "store", program=PROGRAM), **settings  # type: ignore
        )
        self.book = Book(self.settings)
        self.store = Store(self.settings.store)
        self.store.prepare()
        self.workers: list[subprocess.Popen[bytes]] = []

    def close(self) -> None:
        """Ends everything that was started, and removes the files.

        With CLIPWEIR_FLEET_TEST_LOGS in the environment the logs are shown before.
        """
        for worker in self.workers:
            worker.kill()
            worker.wait()
        if os.environ.get("CLIPWEIR_FLEET_TEST_LOGS"):
            print(self.logs(), file=sys.stderr)
        self._script("kill")
        self._folder.cleanup()

    def restart_server(self) -> None:
        """Ends the server in order and starts it on what it wrote."""
        self._script("restart")

    def kill_server(self) -> None:
        """Kills the server, and starts it on what it wrote."""
        self._script("kill")
        self._script("start")

    def _script(self, action: str) -> str:
        command = [str(SCRIPT), action, str(self.root / "redis")]
        done = subprocess.run(command, check=True, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
        return done.stdout.decode().strip()

    @property
    def environment(self) -> dict[str, str]:
        """The environment of the fleet's commands."""
        home = str(self.root / "home")
        kept = {k: v for k, v in os.environ.items() if not k.startswith(("XDG_", PREFIX))}
        values = {PREFIX + name.upper(): str(value) for name, value in vars(self.settings).items()}
        return {**kept, **values, "HOME": home, "PYTHONPATH": str(FLEET), "QT_QPA_PLATFORM": "offscreen"}

    def start_worker(self) -> "subprocess.Popen[bytes]":
        """Starts a worker; its log is among the files."""
        number = len(self.workers)
        log = open(self.root / f"worker{number}.log", "wb")
        with log:
            worker = subprocess.Popen(
                [*self._command(), "worker", "--name", f"w{number}"],
                env=self.environment,
                cwd=self.root,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                start_new_session=True,
            )
        self.workers.append(worker)
        return worker

    def worker_of(self, page_id: str) -> "subprocess.Popen[bytes] | None":
        """The process that runs a page."""
        name = self.book.page(page_id).get("worker", "")
        return self.workers[int(name[1 : name.index("@")])] if name else None

    def stop_worker(self, worker: "subprocess.Popen[bytes]") -> int:
        """Tells a worker to stop, and waits for it; its exit code."""
        worker.send_signal(signal.SIGTERM)
        return worker.wait(PATIENCE)

    def command(self, *arguments: str, standard_input: str = "") -> str:
        """Runs ``clipweir-fleet``; what it prints. Raises CalledProcessError when it fails."""
        done = subprocess.run(
            [*self._command(), *arguments],
            env=self.environment,
            cwd=self.root,
            check=True,
            stdout=subprocess.PIPE,
            input=standard_input.encode(),
        )
        return done.stdout.decode()

    @staticmethod
    def _command() -> Sequence[str]:
        return (sys.executable, "-m", "clipweir_fleet")

    def logs(self) -> str:
        """What all workers logged."""
        return "".join(path.read_text(errors="replace") for path in sorted(self.root.glob("worker*.log")))

    def runs(self) -> list[int]:
        """The processes that write to the store."""
        found = []
        mark = str(self.settings.store).encode()
        for folder in Path("/proc").iterdir():
            try:
                if folder.name.isdigit() and mark in (folder / "cmdline").read_bytes():
                    found.append(int(folder.name))
            except OSError:
                continue  # it has ended
        return found


class FleetTest(unittest.TestCase):
    """Has a fleet without workers for each test."""

    changed: dict[str, object] = {}

    def setUp(self) -> None:
        self.fleet = Fleet(**self.changed)
        self.addCleanup(self.fleet.close)
        self.book = self.fleet.book
