"""What runs of programs cost, and how the costs of two programs compare."""

import dataclasses
import os
import statistics
import subprocess
import sys
import time

MIB = 1 << 20


@dataclasses.dataclass(frozen=True)
class Cost:
    wall: float  # seconds
    cpu: float  # seconds of user and system time
    peak: float  # MiB, of the largest process


def plain(figure):
    """Three digits that count, and never an exponent."""
    return f'{figure:.3g}' if abs(figure) < 999.5 else f'{figure:.0f}'


@dataclasses.dataclass(frozen=True)
class Spread:
    """The median of some figures, with the lowest and the highest."""
    median: float
    low: float
    high: float

    @staticmethod
    def of(figures):
        return Spread(statistics.median(figures), min(figures), max(figures))

    def __str__(self):
        return f'{plain(self.median)} ({plain(self.low)} to {plain(self.high)})'


def run(arguments, environment=None, cwd=None):
    """Runs a command whose failure ends the benchmark; returns its cost."""
    os.sync()  # what an earlier run left to be written out must not slow this one down
    full_environment = dict(os.environ, QT_QPA_PLATFORM='offscreen', no_proxy='*',
                            **(environment or {}))
    start = time.monotonic()
    process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, env=full_environment, cwd=cwd)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.monotonic() - start
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f'{" ".join(arguments)}: exit code {process.returncode}')
    return Cost(wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024)


def in_turn(first, second, pairs):
    """Calls two functions in turn, after one uncounted pair; returns two lists of results."""
    first(), second()
    results = [(first(), second()) for _ in range(pairs)]
    return [a for a, _ in results], [b for _, b in results]


def ratios(first, second, figure):
    """The ratios of a figure, pair by pair."""
    return Spread.of([getattr(a, figure) / getattr(b, figure) for a, b in zip(first, second)])
