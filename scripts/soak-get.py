#!/usr/bin/env python3
"""Many pages through clipweir-get, which is killed midway and started again. Standard library only.

usage: soak-get.py [--pages N] [--jobs N] [--build FOLDER] [--program PATH]
       1000 pages, 8 at a time, with the command and the program in build/

Serves the pages from this machine. Ends with 1 when a page is missing or comes twice, a file is not
what was served, the summary is wrong, or anything is left behind. States how much memory and how many
open files the command had early and late, and is not content when these grow with the pages. Files
are looked at and removed as they come, so that little room is needed.
"""

import argparse
import hashlib
import http.server
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time

VIDEO_BYTES = 5 * 1024 * 1024 + 4096  # what the program takes for a video at once
HOSTS = 4
NAME = re.compile(r"Clip (\d+)( \(\d+\))?\.mp4")


class Pages(http.server.BaseHTTPRequestHandler):
    """A page for each number, and its video: the number, and bytes that all share."""

    protocol_version = "HTTP/1.1"
    common = os.urandom(VIDEO_BYTES - 32)

    def log_message(self, *_):
        pass

    @classmethod
    def video(cls, number):
        return b"\0\0\0\x18ftypisom" + number.rjust(20, "0").encode() + cls.common

    def do_GET(self):
        path, _, number = self.path.strip("/").partition("/")
        if path == "page":
            body = f"<title>Clip {number}</title><video src='/video/{number}' autoplay></video>".encode()
            self.answer(200, "text/html", body)
        elif path == "video":
            body = self.video(number)
            asked = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range", ""))
            if asked and int(asked[1]) < len(body):
                first, last = int(asked[1]), int(asked[2] or len(body) - 1)
                piece = body[first:last + 1]
                span = f"bytes {first}-{first + len(piece) - 1}/{len(body)}"
                self.answer(206, "video/mp4", piece, span)
            else:
                self.answer(200, "video/mp4", body)
        else:
            self.answer(404, "text/plain", b"no")

    def answer(self, status, kind, body, span=None):
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("ETag", '"1"')
        if span:
            self.send_header("Content-Range", span)
        self.end_headers()
        try:
            self.wfile.write(body)
        except OSError:
            self.close_connection = True


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 128

    def handle_error(self, *_):  # pages go when they have seen enough
        pass


class Soak:
    def __init__(self, options, folder):
        self.options = options
        self.folder = pathlib.Path(folder)
        self.out = self.folder / "out"
        self.server = Server(("0.0.0.0", 0), Pages)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        self.arrived = {}
        self.wrong = []
        self.samples = []

    def command(self):
        port = self.server.server_address[1]
        lines = [f"http://127.0.0.{1 + i % HOSTS}:{port}/page/{i}\n" for i in range(self.options.pages)]
        (self.folder / "list").write_text("".join(lines))
        return [self.options.build / "clipweir-get", "-i", self.folder / "list", "-d", self.out, "--json",
                "-j", str(self.options.jobs), "--archive", self.folder / "done"]

    def environment(self):
        return {**os.environ, "CLIPWEIR_PROGRAM": str(self.options.program), "HOME": str(self.folder),
                "XDG_RUNTIME_DIR": str(self.folder)}

    def take(self):
        """Looks at the files that have come, and removes them."""
        for path in self.out.glob("*.mp4"):
            name = NAME.fullmatch(path.name)
            number = name and name[1]
            if not name or name[2] or hashlib.sha256(path.read_bytes()).digest() != \
                    hashlib.sha256(Pages.video(number)).digest():
                self.wrong.append(path.name)
            self.arrived[number] = self.arrived.get(number, 0) + 1
            path.unlink()

    def sample(self, process):
        try:
            status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
            files = len(os.listdir(f"/proc/{process.pid}/fd"))
        except OSError:
            return
        resident = re.search(r"VmRSS:\s+(\d+)", status)
        if resident:
            self.samples.append((len(self.arrived), int(resident[1]), files))

    def run(self, until=None):
        """Runs the command to its end, or kills it when so many pages have come. Returns its last line."""
        with open(self.folder / "events", "w+b") as events:
            with subprocess.Popen(self.command(), stdout=events, env=self.environment()) as process:
                while process.poll() is None:
                    time.sleep(0.2)
                    self.take()
                    self.sample(process)
                    if until and len(self.arrived) >= until:
                        process.send_signal(signal.SIGKILL)
            self.take()
            events.seek(0)
            return process.returncode, events.read().splitlines()

    def problems(self):
        half = self.options.pages // 2
        code, _ = self.run(half)
        if code != -signal.SIGKILL:
            yield f"the first command was to be killed, and ended with {code}"
        done = len((self.folder / "done").read_text().splitlines())
        code, lines = self.run()
        summary = json.loads(lines[-1])
        skipped = sum(json.loads(line)["event"] == "skipped" for line in lines)
        if code != 0:
            yield f"the second command ended with {code}: {summary}"
        if not done <= skipped == summary["skipped"]:
            yield f"{done} pages were done, {skipped} are skipped: {summary}"
        if summary["arrived"] + summary["skipped"] != self.options.pages:
            yield f"the summary is wrong: {summary}"
        yield from (f"not what was served: {name}" for name in self.wrong)
        yield from (f"page {number} has come {count} times" for number, count in self.arrived.items() if count > 1)
        if len(self.arrived) != self.options.pages:
            yield f"{len(self.arrived)} of {self.options.pages} pages have come"
        yield from (f"left behind: {path}" for path in self.out.rglob("*"))
        yield from self.growth()

    def growth(self):
        quarter = max(1, len(self.samples) // 4)
        early = self.samples[:quarter]
        late = self.samples[-quarter:]
        for name, place, room in (("KiB", 1, 8192), ("files", 2, 32)):
            before = max(sample[place] for sample in early)
            after = max(sample[place] for sample in late)
            print(f"early {before} {name}, late {after} {name}")
            if after > before + room:
                yield f"grown from {before} to {after} {name}"


def main():
    top = pathlib.Path(__file__).resolve().parent.parent
    parser = argparse.ArgumentParser()
    parser.add_argument("--pages", type=int, default=1000)
    parser.add_argument("--jobs", type=int, default=8)
    parser.add_argument("--build", type=pathlib.Path, default=top / "build")
    parser.add_argument("--program", type=pathlib.Path)
    options = parser.parse_args()
    options.program = options.program or options.build / "clipweir"
    with tempfile.TemporaryDirectory(prefix="soak-get-") as folder:
        began = time.monotonic()
        found = list(Soak(options, folder).problems())
        print(f"{options.pages} pages in {time.monotonic() - began:.0f} s")
    for problem in found:
        print(f"soak-get: {problem}", file=sys.stderr)
    return 1 if found else 0


sys.exit(main())
