#!/usr/bin/python3
"""Stands in for the program: does what the address of its page says.

http://stub/complete/SIZE    writes so many bytes, with events
http://stub/class/NAME/CODE  ends so
http://stub/hang/MODE        says that it has begun and waits: "polite" ends as stopped on SIGTERM,
                             "deaf" does not heed it
http://stub/mute/CODE        ends without a result
http://stub/linger/CODE      tells of a refusal and does not end
http://stub/signal           ends by a signal
http://stub/pause/MS         tells of a retry after so long, then is complete
http://stub/arguments        writes its arguments as the video
"""

import hashlib
import json
import os
import signal
import sys
import time
from urllib.parse import urlsplit


def tell(event: str, **members: object) -> None:
    print(json.dumps({"version": 1, "event": event, "elapsedMs": 0, **members}), flush=True)


def end(run_class: str, code: int, **members: object) -> None:
    tell("result", **{"class": run_class, "classCode": code, "exitCode": code, **members})
    sys.exit(code)


def complete(path: str, content: bytes) -> None:
    with open(path, "wb") as file:
        file.write(content)
    tell("progress", kind="video", unit="bytes", done=len(content), total=len(content), rate=1)
    end("complete", 0, path=path, bytes=len(content), sha256=hashlib.sha256(content).hexdigest())


def main() -> None:
    arguments = dict(zip(sys.argv[1:], sys.argv[2:]))
    path = arguments["--saveto"]
    what, *rest = urlsplit(arguments["--url"]).path.strip("/").split("/")
    tell("page", url=arguments["--url"])
    if what == "complete":
        complete(path, b"v" * int(rest[0]))
    if what == "arguments":
        complete(path, json.dumps(sys.argv[1:]).encode())
    if what == "class":
        end(rest[0], int(rest[1]))
    if what == "pause":
        tell("retry", kind="video", attempt=1, most=2, pauseMs=int(rest[0]), cause="refused")
        complete(path, b"v")
    if what == "mute":
        sys.exit(int(rest[0]))
    if what == "linger":
        tell("result", **{"class": "refused", "classCode": int(rest[0]), "exitCode": int(rest[0])})
        time.sleep(3600)
    if what == "signal":
        os.kill(os.getpid(), signal.SIGABRT)
    if what == "hang":
        stop = signal.SIG_IGN if rest[0] == "deaf" else lambda *_: end("stopped", 40)
        signal.signal(signal.SIGTERM, stop)
        tell("progress", kind="video", unit="bytes", done=1, total=4, rate=None)
        parent = os.getppid()
        while os.getppid() == parent:
            time.sleep(0.05)


main()
