"""A run of clipweir as a child process, told by its events."""

from __future__ import annotations

import json
import os
import select
import signal
import subprocess
from collections.abc import Sequence
from typing import Any

READ_BYTES = 64 * 1024
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


class Child:
    """One run. It is in a session of its own, so no terminal's keys and no group's signals reach it.

    Belongs to one thread, which has to read until the end.
    """

    def __init__(self, arguments: Sequence[str], folder: str) -> None:
        """Starts the run. Raises OSError if the program cannot be started."""
        self._process = subprocess.Popen(
            arguments,
            cwd=folder,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            start_new_session=True,
        )
        assert self._process.stdout is not None
        self._pipe = self._process.stdout.fileno()
        self._poll = select.poll()
        self._poll.register(self._pipe, select.POLLIN)
        self._lines = EventLines()
        self.at_end = False

    def read(self, seconds: float) -> list[Event]:
        """The events that arrive next, after so long at the latest. Sets ``at_end`` at the end."""
        if not self._poll.poll(max(0, int(seconds * 1000))):
            return []
        data = os.read(self._pipe, READ_BYTES)
        self.at_end = not data
        return self._lines.feed(data)

    def ask_to_stop(self) -> None:
        """Asks the run to end in order, with what it has."""
        self._send(signal.SIGTERM)

    def kill(self) -> None:
        """Ends the run at once."""
        self._send(signal.SIGKILL)

    def close(self, seconds: float) -> int:
        """Waits for the process, which has closed its output, and kills one that lingers."""
        try:
            code = self._process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.kill()
            code = self._process.wait()
        finally:
            self._process.stdout.close()  # type: ignore[union-attr]
        return code

    def _send(self, number: int) -> None:
        if self._process.poll() is None:
            self._process.send_signal(number)
