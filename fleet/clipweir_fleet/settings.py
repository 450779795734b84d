"""What an operator sets, read from the environment once."""

from __future__ import annotations

import os
from collections.abc import Mapping
from dataclasses import dataclass, fields
from pathlib import Path

PREFIX = "CLIPWEIR_FLEET_"


class SettingsError(ValueError):
    """A variable of the environment has a value that cannot be used."""


@dataclass(frozen=True)
class Settings:
    """All settings; ``CLIPWEIR_FLEET_`` and the name in capitals is the variable of each.

    Times are in seconds.
    """

    redis: str = "redis://127.0.0.1:6379/0"
    prefix: str = "clipweir:"  # what the names of the fleet's keys in Redis begin with
    store: Path = Path("/var/lib/clipweir-fleet")  # shared by all workers
    program: str = "clipweir"
    slots: int = 2  # pages that a worker runs side by side
    deadline: int = 3 * 3600  # of one run
    run_retries: int = 2  # within one run, which goes on where it stopped
    lease: float = 15.0  # a page whose worker is silent for so long is taken up by another
    beat: float = 2.0  # how often a worker says that it lives
    stop_grace: float = 10.0  # what a run may take to stop in order
    max_retries: int = 6  # runs of a page beyond the first, where another may help
    pause: float = 15.0  # before the first of them; it doubles each time
    pause_most: float = 1800.0
    max_losses: int = 50  # workers that may die over a page before the page is given up
    host_limit: int = 4  # pages of one host at once, in the whole fleet
    host_pause: float = 0.5  # between the beginnings of two pages of one host
    keep: int = 7 * 24 * 3600  # how long the state of an ended page is kept

    def __post_init__(self) -> None:
        if self.beat <= 0 or self.lease < 3 * self.beat:
            raise SettingsError("the lease must last three beats at least")
        for name in ("slots", "deadline", "host_limit"):
            if getattr(self, name) < 1:
                raise SettingsError(f"{PREFIX}{name.upper()} must be 1 at least")

    @classmethod
    def from_environment(cls, environment: Mapping[str, str] = os.environ) -> "Settings":
        """Reads the settings.

        Raises SettingsError for a value that cannot be used.
        """
        values = {}
        for field in fields(cls):
            text = environment.get(PREFIX + field.name.upper())
            if text is None:
                continue
            try:
                values[field.name] = type(field.default)(text)
            except ValueError as error:
                raise SettingsError(f"{PREFIX}{field.name.upper()}: {error}") from error
        return cls(**values)
