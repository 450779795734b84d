"""A page: its address, its options, and the key that both give."""

from __future__ import annotations

import hashlib
import json
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from urllib.parse import urlsplit

# The options of a run that a submit may name: the word, and what its value is.
FLAGS = frozenset({"thumb", "f4f", "eager", "keepimage", "no-click", "partial"})
NUMBERS = frozenset({"timeout", "stall", "memory", "format", "quality", "deadline"})
TEXTS = frozenset({"proxy", "engine"})

MAX_URL = 16 * 1024
RESERVED = ("#",)  # a line of a list that begins so is a remark

Options = Mapping[str, "str | int | bool"]


class PageError(ValueError):
    """An address or an option that no page can have."""


@dataclass(frozen=True)
class Page:
    """One page to capture."""

    url: str
    options: str  # compact JSON with sorted keys, so that equal options are equal texts

    @classmethod
    def of(cls, url: str, options: Options) -> "Page":
        """A page from what a user gave.

        Raises PageError if the address is none of the web or an option is not known.
        """
        return cls(_checked_url(url), json.dumps(_checked(options), sort_keys=True, separators=(",", ":")))

    @property
    def key(self) -> str:
        """What the page is known by everywhere: the same address and options, the same key."""
        return hashlib.sha256(f"{self.url}\n{self.options}".encode()).hexdigest()[:32]

    @property
    def host(self) -> str:
        """The server that the page comes from, as its limits count it."""
        return host_of(self.url)


def host_of(url: str) -> str:
    """The host and, where it is named, the port of an address."""
    parts = urlsplit(url)
    return (parts.hostname or "") + (f":{parts.port}" if parts.port else "")


def arguments_of(options: str) -> list[str]:
    """The arguments of a run for the options of a page."""
    arguments: list[str] = []
    for name, value in sorted(json.loads(options).items()):
        if name in FLAGS:
            arguments.append(f"--{name}")
        else:
            arguments += [f"--{name}", str(value)]
    return arguments


def read_list(lines: Iterable[str]) -> list[str]:
    """The addresses of a list: one a line, without empty lines and remarks."""
    stripped = (line.strip() for line in lines)
    return [line for line in stripped if line and not line.startswith(RESERVED)]


def _checked_url(url: str) -> str:
    if len(url) > MAX_URL or any(c.isspace() or ord(c) < 0x20 for c in url):
        raise PageError(f"no address: {url[:200]!r}")
    try:
        parts = urlsplit(url)
        port = parts.port
    except ValueError as error:
        raise PageError(f"no address: {url[:200]!r}") from error
    if parts.scheme.lower() not in ("http", "https") or not parts.hostname or port == 0:
        raise PageError(f"no address of the web: {url[:200]!r}")
    return url


def _checked(options: Options) -> dict[str, str | int | bool]:
    checked: dict[str, str | int | bool] = {}
    for name, value in options.items():
        if name in FLAGS and value is True:
            checked[name] = True
        elif name in NUMBERS and isinstance(value, int) and not isinstance(value, bool):
            checked[name] = value
        # A value that looks like an option would be one.
        elif name in TEXTS and isinstance(value, str) and value and value[0] not in "-/":
            checked[name] = value
        else:
            raise PageError(f"no such option or value: {name}={value!r}")
    return checked
