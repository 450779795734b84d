"""A run of clipweir as a child process, told by its events."""

from __future__ import annotations

import json
import os
import select
import signal
import subprocess
from collections.abc import Sequence
from pathlib import Path
from typing import Any

READ_BYTES = 256 * 1024
MAX_LINE = 4 * 1024 * 1024  # of one event; a longer line is skipped

Event = dict[str, Any]


class EventLines:
    """Takes a stream of bytes apart into events. What is none is left out."""

    def __init__(self) -> None:
        self._rest = bytearray()
        self._skipping = False

    def feed(self, data: bytes) -> list[Event]:
        """The events that these bytes complete."""
        events = []
        *whole, rest = data.split(b"\n")
        for piece in whole:
            event = self._event_of(piece)
            if event is not None:
                events.append(event)
        self._keep(rest)
        return events

    def _event_of(self, end_of_line: bytes) -> Event | None:
        self._keep(end_of_line)
        line, skipped = bytes(self._rest), self._skipping
        self._rest.clear()
        self._skipping = False
        if skipped:
            return None
        try:
            event = json.loads(line)
        except (ValueError, RecursionError):
            return None
        return event if isinstance(event, dict) else None

    def _keep(self, piece: bytes) -> None:
        if len(self._rest) + len(piece) > MAX_LINE:
            self._skipping = True
            self._rest.clear()
        if not self._skipping:
            self._rest += piece


def last_result(record: Path) -> Event | None:
    """The result that the run of that record told of; None if there is none.

    Raises OSError.
    """
    try:
        with open(record, "rb") as file:
            file.seek(max(0, os.fstat(file.fileno()).st_size - READ_BYTES))
            events = EventLines().feed(file.read(READ_BYTES))
    except FileNotFoundError:
        return None
    return next((event for event in reversed(events) if event.get("event") == "result"), None)


class Child:
    """One run. It is in a session of its own, so no terminal's keys and no group's signals reach it.

    What it tells goes to a file, its record, and is read from there: a run that outlives its reader
    for an instant has told all the same what became of it. Belongs to one thread.
    """

    def __init__(self, arguments: Sequence[str], folder: str, record: Path) -> None:
        """Starts the run, with a new record. Raises OSError if that cannot be."""
        # An earlier run that still has the old one must not write to this.
        record.unlink(missing_ok=True)
        self.at_end = False
        self._lines = EventLines()
        self._is_behind = False
        flags = os.O_CREAT | os.O_EXCL | os.O_APPEND | os.O_CLOEXEC
        output = os.open(record, flags | os.O_WRONLY, 0o600)
        try:
            self._record = open(record, "rb", buffering=0)
        except OSError:
            os.close(output)
            raise
        try:
            self._process = subprocess.Popen(
                arguments,
                cwd=folder,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.DEVNULL,
                start_new_session=True,
            )
        except OSError:
            self._record.close()
            raise
        finally:
            os.close(output)
        try:
            self._handle = os.pidfd_open(self._process.pid)
        except OSError:
            self._process.kill()
            self._process.wait()
            self._record.close()
            raise
        self._end = select.poll()
        self._end.register(self._handle, select.POLLIN)

    def read(self, seconds: float) -> list[Event]:
        """Waits for the end, but no longer than so long; the events that have come by then.

        Sets ``at_end`` when the run has ended and all was read.
        """
        has_ended = bool(self._end.poll(0 if self._is_behind else max(0, int(seconds * 1000))))
        data = self._record.read(READ_BYTES) or b""
        self._is_behind = len(data) == READ_BYTES
        self.at_end = has_ended and not data
        return self._lines.feed(data)

    def ask_to_stop(self) -> None:
        """Asks the run to end in order, with what it has."""
        self._send(signal.SIGTERM)

    def kill(self) -> None:
        """Ends the run at once."""
        self._send(signal.SIGKILL)

    def close(self) -> int:
        """Waits for the process; its exit code, or minus the signal that ended it."""
        try:
            return self._process.wait()
        finally:
            os.close(self._handle)
            self._record.close()

    def _send(self, number: int) -> None:
        if self._process.poll() is None:
            self._process.send_signal(number)
