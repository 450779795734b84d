#!/usr/bin/env python3
"""Stands in for the program: tells the events that the page's address asks for.

The query of the address says what: do=complete (the usual), fail (with class=NAME), hang, stubborn,
crash, silent, junk, link; times=N makes only the first N runs of the page do so, which complete afterwards.
title, bytes, format, height, count and rest are of the video. FAKE_LOG names a file that gets a line for each
begin and end of a run.
"""

import hashlib
import json
import os
import pathlib
import signal
import sys
import time
import urllib.parse

CODES = {"complete": 0, "engineMissing": 11, "nothingFound": 31, "pageUnreached": 32, "refused": 33,
         "brokenOff": 34, "incomplete": 35, "protected": 36, "disk": 37, "busy": 38,
         "unsupported": 39, "stopped": 40, "deadline": 41, "engineLost": 42}


def value(name):
    return sys.argv[sys.argv.index(name) + 1] if name in sys.argv else None


address = value("--url")
save_to = pathlib.Path(value("--saveto"))
wishes = dict(urllib.parse.parse_qsl(urllib.parse.urlsplit(address).query))
began = time.monotonic()


def log(what):
    if "FAKE_LOG" not in os.environ:
        return
    line = json.dumps({"what": what, "url": address, "pid": os.getpid(), "arguments": sys.argv[1:],
                       "cookies": os.environ.get("CLIPWEIR_COOKIES"), "group": os.getpgrp()})
    with open(os.environ["FAKE_LOG"], "a", encoding="utf-8") as file:
        file.write(line + "\n")


def tell(event, **members):
    elapsed = int((time.monotonic() - began) * 1000)
    print(json.dumps({"version": 1, "event": event, "elapsedMs": elapsed, **members}, ensure_ascii=False), flush=True)


def end(name, path=None, content=None):
    log("end")
    tell("result", **{"class": name}, classCode=CODES[name], exitCode=CODES[name],
         path=path and str(path), bytes=None if content is None else len(content),
         sha256=None if content is None else hashlib.sha256(content).hexdigest(),
         startedAt="2024-01-01T00:00:00.000Z", analysedAt=None, endedAt="2024-01-01T00:00:01.000Z")
    sys.exit(CODES[name])


def content():
    return (b"\0\0\0\x18ftypisom" + address.encode() * 1000)[:int(wishes.get("bytes", "5000"))]


def record():
    tell("page", url=address)
    file = {"height": int(wishes.get("height", "0")), "nSize": len(content()),
            "strFormat": wishes.get("format", "mp4"), "urlType": "http", "videoUrl": address + "&video",
            "width": 0}
    tell("record", record={"fileList": [file], "playList": [], "selectedVideo": 0, "thumbUrl": "",
                           "title": wishes.get("title", "")})
    tell("transferBegun", kind="video", url=address, path=str(save_to))


def complete():
    record()
    body = content()
    tell("progress", kind="video", unit="bytes", done=0, total=len(body), rate=None)
    if "--partial" in sys.argv:
        signal.pause()
    save_to.write_bytes(body)
    if "--thumb" in sys.argv:
        name = hashlib.md5(address.encode()).hexdigest().upper() + ".thumb"
        (save_to.parent / name).write_bytes(b"\x89PNG\r\n\x1a\n")
    tell("progress", kind="video", unit="bytes", done=len(body), total=len(body), rate=1000.0)
    tell("transferEnded", kind="video", outcome="success")
    end("complete", save_to, body)


def on_stop(*_):
    end("stopped")


signal.signal(signal.SIGTERM, on_stop)
log("begin")
wish = wishes.get("do", "complete")
if "times" in wishes:
    marks = pathlib.Path(os.environ["FAKE_LOG"]).read_text(encoding="utf-8").splitlines()
    runs = [line for line in map(json.loads, marks) if line["url"] == address and line["what"] == "begin"]
    if len(runs) > int(wishes["times"]):
        wish = "complete"

if wish == "complete":
    complete()
elif wish == "fail":
    tell("page", url=address)
    if "reason" in wishes:
        tell("warning", text=wishes["reason"])
    end(wishes["class"])
elif wish == "hang":
    record()
    save_to.with_name(save_to.name + ".part").write_bytes(b"half")
    tell("progress", kind="video", unit="bytes", done=4, total=5000, rate=2.0)
    while True:
        signal.pause()
elif wish == "stubborn":
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    record()
    while True:
        signal.pause()
elif wish == "crash":
    print("\x1b[31mout of luck\x07", file=sys.stderr, flush=True)
    os.abort()
elif wish == "silent":
    sys.exit(0)
elif wish == "junk":
    os.write(1, b"no json\n{\"version\":1}\n[]\n\xff\xfe\n" + b"x" * 9000000 + b"\n")
    complete()
elif wish == "link":
    record()
    save_to.symlink_to("/etc/passwd")
    end("complete", save_to, b"")
