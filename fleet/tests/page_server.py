"""A web server with pages of ten kinds, each with a video of its own, that are known to the byte.

The address of a page is ``/page/KIND/NUMBER``. A kind says what happens to the page or its video,
and with which class a run of it ends in the end.
"""

from __future__ import annotations

import hashlib
import random
import re
import threading
import time
from collections import Counter
from dataclasses import dataclass, field
from datetime import datetime, timezone
from functools import lru_cache
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

# What becomes of the pages of each kind.
KINDS = {
    "plain": "complete",
    "large": "complete",
    "slow": "complete",  # the video takes seconds
    "moved": "complete",  # the video is behind a redirect
    "late": "complete",  # the page takes its time
    "broken": "complete",  # the first answer with the video ends in its middle
    "busy": "complete",  # the server is busy at first, and says for how long
    "empty": "nothingFound",  # a page without a video
    "absent": "nothingFound",  # no page at all
    "forbidden": "refused",  # the video is seen by the page and denied to the run
}
SIZES = {"large": 6 * 1024 * 1024, "slow": 3 * 1024 * 1024}
USUAL_SIZE = 700 * 1024
BLOCK = 32 * 1024
HOLD = 120.0  # seconds that the last block is held back at most
VIDEO = re.compile(r"/video/(\w+)/(\d+)\.mp4$")
PAGE = re.compile(r"/page/(\w+)/(\d+)$")
FROM_START = " from its start"
RANGE = re.compile(r"bytes=(\d+)-(\d*)$")


@lru_cache(maxsize=32)
def video_bytes(kind: str, number: int) -> bytes:
    """The video of a page: the head of an MP4 file, and bytes of which no two videos share any."""
    head = bytes.fromhex("0000001c6674797069736f6d0000020069736f6d69736f326d703431")
    noise = random.Random(f"{kind}/{number}").randbytes(SIZES.get(kind, USUAL_SIZE) + number)
    return head + noise


def video_sum(kind: str, number: int) -> str:
    """The SHA-256 sum of the video of a page."""
    return hashlib.sha256(video_bytes(kind, number)).hexdigest()


@dataclass
class Requests:
    """What was asked for, by path."""

    lock: threading.Lock = field(default_factory=threading.Lock)
    seen: Counter[str] = field(default_factory=Counter)
    reached: Counter[str] = field(default_factory=Counter)  # how far a slow video was fetched
    wasted: list[str] = field(default_factory=list)  # fetched anew, of which half was there
    answers: dict[str, list[str]] = field(default_factory=dict)  # what runs were sent of each video, and when

    def count(self, path: str) -> int:
        """Notes a request; how many there were before."""
        with self.lock:
            self.seen[path] += 1
            return self.seen[path] - 1


class PageServer(ThreadingHTTPServer):
    """Serves from a thread of its own; ``address`` is that of a page without its path."""

    daemon_threads = True
    request_queue_size = 256

    def __init__(self, seconds: float = 2.0) -> None:
        """``seconds`` is what a slow video takes."""
        super().__init__(("127.0.0.1", 0), _Handler)
        self.seconds = seconds
        self.requests = Requests()
        self.may_end = threading.Event()  # until it is set slow videos lack their last block
        self.may_end.set()
        self.address = f"http://127.0.0.1:{self.server_address[1]}"
        self._thread = threading.Thread(target=self.serve_forever, daemon=True)

    def __enter__(self) -> "PageServer":
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.shutdown()
        self._thread.join()
        self.server_close()

    def page(self, kind: str, number: int) -> str:
        """The address of a page."""
        return f"{self.address}/page/{kind}/{number}"

    def fetched_from_start(self, kind: str, number: int) -> int:
        """How often a run fetched the video from its first byte on."""
        with self.requests.lock:
            return self.requests.seen[f"/video/{kind}/{number}.mp4{FROM_START}"]

    def handle_error(self, request: object, client_address: object) -> None:
        """A client that goes away is what these tests are about."""


class _Handler(BaseHTTPRequestHandler):
    server: PageServer
    protocol_version = "HTTP/1.1"

    def log_message(self, format: str, *args: object) -> None:
        """Nothing is told of requests."""

    def do_HEAD(self) -> None:
        self._answer()

    def do_GET(self) -> None:
        self._answer()

    def _answer(self) -> None:
        if page := PAGE.match(self.path):
            self._page(page[1], int(page[2]))
        elif video := VIDEO.match(self.path):
            self._video(video[1], int(video[2]))
        elif self.path.startswith("/moved/"):
            self._head(302, {"Location": self.path.replace("/moved/", "/video/", 1), "Content-Length": "0"})
        else:
            self._head(404, {"Content-Length": "0"})

    def _page(self, kind: str, number: int) -> None:
        self.server.requests.count(self.path)
        if kind == "absent":
            self._head(404, {"Content-Length": "0"})
            return
        if kind == "late":
            time.sleep(self.server.seconds / 4)
        folder = "moved" if kind == "moved" else "video"
        video = f'<video src="/{folder}/{kind}/{number}.mp4" autoplay></video>'
        text = f"<!DOCTYPE html><title>{kind} {number}</title>{'' if kind == 'empty' else video}"
        body = text.encode()
        self._head(200, {"Content-Type": "text/html", "Content-Length": str(len(body))})
        self.wfile.write(body)

    def _video(self, kind: str, number: int) -> None:
        content = video_bytes(kind, number)
        size = len(content)
        etag = f'"{kind}-{number}"'
        asked = RANGE.match(self.headers.get("Range", ""))
        if asked and self.headers.get("If-Range", etag) != etag:
            asked = None
        # A run that fetches the file takes care that nobody packs it on the way. So do the players of
        # some engines, which tell that they are one.
        is_player = "Sec-Fetch-Dest" in self.headers
        fetched = self.headers.get("Accept-Encoding") == "identity" and not is_player
        start = int(asked[1]) if asked else 0
        end = min(size, int(asked[2]) + 1) if asked and asked[2] else size
        if fetched and self._misbehave(kind):
            return
        if start >= size:
            self._head(416, {"Content-Range": f"bytes */{size}", "Content-Length": "0"})
            return
        headers = {
            "Content-Type": "video/mp4",
            "Content-Length": str(end - start),
            "Accept-Ranges": "bytes",
            "ETag": etag,
        }
        if asked:
            headers["Content-Range"] = f"bytes {start}-{end - 1}/{size}"
        self._head(206 if asked else 200, headers)
        if self.command != "HEAD":
            self._send(kind, content, start, end, fetched)

    def _misbehave(self, kind: str) -> bool:
        """Whether the request was answered with what the kind has in store."""
        if kind == "forbidden":
            self._head(403, {"Content-Length": "0"})
            return True
        if kind == "busy" and self.server.requests.count(self.path + " busy") == 0:
            self._head(503, {"Content-Length": "0", "Retry-After": "2"})
            return True
        return False

    def _send(self, kind: str, content: bytes, start: int, end: int, fetched: bool) -> None:
        requests = self.server.requests
        cut = len(content) // 2
        breaks = kind == "broken" and fetched and start < cut < end
        if breaks and requests.count(self.path + " broken") == 0:
            end = cut
            self.close_connection = True
        pause = self.server.seconds * BLOCK / len(content) if kind == "slow" else 0.0
        if fetched and start == 0:
            requests.count(self.path + FROM_START)
            # What arrived last may not have been written down when its run was killed.
            if requests.reached[self.path] > 0.6 * len(content):
                requests.wasted.append(self.path)
        if fetched:
            now = datetime.now(timezone.utc).isoformat(timespec="milliseconds")
            before = requests.reached[self.path]
            told = f"{now} {start}-{end - 1} of {len(content)}; {before} were sent before"
            requests.answers.setdefault(self.path, []).append(told)
        for at in range(start, end, BLOCK):
            if pause and fetched and at + BLOCK >= end:
                self.server.may_end.wait(HOLD)
            self.wfile.write(content[at : min(end, at + BLOCK)])
            if pause and fetched:
                time.sleep(pause)
                requests.reached[self.path] = max(requests.reached[self.path], at)

    def _head(self, status: int, headers: dict[str, str]) -> None:
        self.send_response(status)
        for name, value in headers.items():
            self.send_header(name, value)
        self.end_headers()


if __name__ == "__main__":
    with PageServer() as server:
        print(server.address, flush=True)
        threading.Event().wait()
