#!/usr/bin/env python3
"""Kills runs of a file at random moments, and looks whether the runs after them make the same file.

Needs the built program. Standard library only.
usage: scripts/soak-files.py [kills [connections [program]]]      200 kills, 1 connection
Ends with 1 when a file differs from that of the server.
"""

import http.server
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
SIZE = 48 << 20
PIECE = 64 << 10
PAUSE = 0.004  # s, between two pieces: a connection brings about 12 MB/s
MOST_IN_A_ROW = 5  # kills, before a run may come to its end
PAGE = b'<video src="/clip.mp4" autoplay></video>'


class Handler(http.server.BaseHTTPRequestHandler):
    """Serves one file with ranges and conditions (RFC 9110), slowly, so that there is something to
    be killed."""

    protocol_version = 'HTTP/1.1'

    def do_GET(self):
        if self.path != '/clip.mp4':
            return self.answer(200, 'text/html', PAGE, {})
        content = self.server.content
        headers = {'ETag': '"1"', 'Accept-Ranges': 'bytes'}
        asked = re.fullmatch(r'bytes=(\d+)-(\d*)', self.headers.get('Range', ''))
        if not asked or self.headers.get('If-Range', '"1"') != '"1"':
            return self.answer(200, 'video/mp4', content, headers)
        first, last = int(asked[1]), min(int(asked[2] or SIZE), SIZE - 1)
        headers['Content-Range'] = f'bytes {first}-{last}/{SIZE}'
        self.server.ranges += 1
        self.answer(206, 'video/mp4', content[first:last + 1], headers)

    def answer(self, status, content_type, body, headers):
        self.send_response(status)
        for name, value in headers.items():
            self.send_header(name, value)
        self.send_header('Content-Type', content_type)
        self.send_header('Content-Length', str(len(body)))
        self.end_headers()
        for position in range(0, len(body), PIECE):
            self.wfile.write(body[position:position + PIECE])
            time.sleep(PAUSE)

    def log_message(self, *_):
        pass


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def handle_error(self, *_):
        pass  # whoever asked was killed


class Soak:
    def __init__(self, program, server, connections, work):
        self.work = work
        self.content = server.content
        self.video = work / 'clip.mp4'
        self.longest = 0  # s, that a download takes
        self.command = [program, '--url', f'http://127.0.0.1:{server.server_port}/page.html',
                        '--continue', '--strict', '--eager', '--connections', str(connections),
                        '--saveto', str(self.video)]
        self.environment = dict(os.environ, QT_QPA_PLATFORM='offscreen', HOME=str(work),
                                CLIPWEIR_COOKIES=str(work / 'cookies'))

    def run(self, is_killed):
        """Whether a run came to its end, before a kill at a random moment of its download."""
        process = subprocess.Popen(self.command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                   env=self.environment, cwd=self.work, text=True)
        lines = ''
        for line in process.stderr:
            lines += line
            if line.startswith('start download video'):
                break
        start = time.monotonic()
        killer = threading.Timer(random.uniform(0, self.longest), process.kill)
        if is_killed:
            killer.start()
        lines += process.communicate()[1]
        killer.cancel()
        self.longest = self.longest or time.monotonic() - start
        if process.returncode not in (0, -9):
            sys.exit(f'a run ends with {process.returncode}:\n{lines}')
        return process.returncode == 0

    def is_same(self):
        """Whether the file is the server's, and nothing else is left."""
        is_same = self.video.read_bytes() == self.content
        left = [path.name for path in self.work.glob('clip.mp4.*')]
        self.video.unlink()
        return is_same and not left


def main():
    kills = int(sys.argv[1]) if len(sys.argv) > 1 else 200
    connections = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    program = os.path.abspath(sys.argv[3] if len(sys.argv) > 3 else ROOT / 'build/clipweir')
    with tempfile.TemporaryDirectory(prefix='soak.') as folder:
        server = Server(('127.0.0.1', 0), Handler)
        server.content = os.urandom(SIZE)
        server.ranges = 0
        threading.Thread(target=server.serve_forever, daemon=True).start()
        soak = Soak(program, server, connections, pathlib.Path(folder))
        soak.run(is_killed=False)
        done = in_a_row = 0
        files = 1
        same = int(soak.is_same())
        while done < kills or in_a_row > 0:
            if soak.run(done < kills and in_a_row < MOST_IN_A_ROW):
                files += 1
                same += soak.is_same()
                in_a_row = 0
            else:
                done += 1
                in_a_row += 1
            print(f'{done} kills, {same} of {files} files are the same', flush=True)
        print(f'{server.ranges} requests for a range')
    sys.exit(same != files)


main()
