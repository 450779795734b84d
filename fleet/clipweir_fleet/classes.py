"""What follows from what became of a run."""

from __future__ import annotations

import enum


class Verdict(enum.Enum):
    """What becomes of a page after a run."""

    DONE = "done"
    RETRY = "retry"
    FAILED = "failed"


# The exit codes of a run with --strict. The classes and their numbers are clipweir's; a test compares
# them with its own table.
CLASS_OF_CODE: dict[int, str] = {
    0: "complete",
    11: "engineMissing",
    12: "noDisplay",
    13: "noOutputFolder",
    14: "noPageUrl",
    23: "noArguments",
    31: "nothingFound",
    32: "pageUnreached",
    33: "refused",
    34: "brokenOff",
    35: "incomplete",
    36: "protected",
    37: "disk",
    38: "busy",
    39: "unsupported",
    40: "stopped",
    41: "deadline",
    42: "engineLost",
}

# Another run may do better: the network, a server, a disk or a machine was in the way. A run that was
# stopped by none of the fleet was so by its machine.
RETRIED = frozenset(
    {"brokenOff", "pageUnreached", "engineLost", "incomplete", "disk", "busy", "noOutputFolder", "stopped"}
)


def verdict_of(run_class: str) -> Verdict:
    """What becomes of a page whose run ended so; an unknown class fails for good."""
    if run_class == "complete":
        return Verdict.DONE
    return Verdict.RETRY if run_class in RETRIED else Verdict.FAILED


def class_of_exit(code: int) -> str:
    """The class of a run that told no result: by its exit code, else it was lost."""
    run_class = CLASS_OF_CODE.get(code, "engineLost")
    # Without a result nobody vouches for the file.
    return "engineLost" if run_class == "complete" else run_class


def pause_before(retry: int, first: float, most: float) -> float:
    """Seconds to wait before the retry of that number, 1 for the first."""
    return min(most, first * 2.0 ** min(retry - 1, 30))
