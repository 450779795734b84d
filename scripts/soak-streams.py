#!/usr/bin/env python3
"""Kills runs of a stream at random moments, and looks whether the next run makes the same file.

Needs the built program and ffmpeg. Standard library only.
usage: scripts/soak-streams.py [rounds [program]]      100 rounds of up to 3 kills each
Ends with 1 when a file differs from that of an undisturbed run.
"""

import hashlib
import http.server
import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = b'<script>var x = new XMLHttpRequest(); x.open("GET", "l.m3u8"); x.send();</script>'
LONGEST = 1.5  # s, that a run lives after its download has begun


class Handler(http.server.SimpleHTTPRequestHandler):
    """Segments come slowly, so that there is something to be killed."""

    def copyfile(self, source, outputfile):
        while piece := source.read(16 * 1024):
            outputfile.write(piece)
            if self.path.endswith('.ts'):
                time.sleep(0.02)

    def log_message(self, *_):
        pass


class Server(http.server.ThreadingHTTPServer):
    def handle_error(self, *_):
        pass  # whoever asked was killed


def make_stream(folder):
    inputs = ['-f', 'lavfi', '-i', 'testsrc2=size=320x180:rate=25', '-f', 'lavfi', '-i', 'sine']
    subprocess.run(['ffmpeg', '-v', 'error', *inputs, '-t', '20', '-c:v', 'libx264', '-preset',
                    'ultrafast', '-g', '25', '-c:a', 'aac', '-f', 'hls', '-hls_time', '1',
                    '-hls_playlist_type', 'vod', 'l.m3u8'], cwd=folder, check=True)
    (folder / 'page.html').write_bytes(PAGE)


class Soak:
    def __init__(self, program, address, work):
        self.work = work
        self.video = work / 'video.mp4'
        self.command = [program, '--url', address, '--streams', '--continue', '--strict', '--eager',
                        '--connections', '3', '--saveto', str(self.video)]
        self.environment = dict(os.environ, QT_QPA_PLATFORM='offscreen', HOME=str(work),
                                CLIPWEIR_COOKIES=str(work / 'cookies'))

    def start(self):
        return subprocess.Popen(self.command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                env=self.environment, cwd=self.work, text=True)

    def kill_one(self):
        process = self.start()
        for line in process.stderr:
            if line.startswith('start download video'):
                break
        time.sleep(random.uniform(0, LONGEST))
        process.kill()
        process.communicate()

    def whole(self):
        """The sum of the file of a run that nobody disturbs."""
        process = self.start()
        lines = process.communicate()[1]
        if process.returncode != 0:
            sys.exit(f'a run ends with {process.returncode}:\n{lines}')
        return hashlib.sha256(self.video.read_bytes()).hexdigest()

    def clean(self):
        self.video.unlink(missing_ok=True)
        shutil.rmtree(self.work / 'streamtmp', ignore_errors=True)


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 100
    program = os.path.abspath(sys.argv[2] if len(sys.argv) > 2 else ROOT / 'build/clipweir')
    with tempfile.TemporaryDirectory(prefix='soak.') as folder:
        files, work = pathlib.Path(folder) / 'files', pathlib.Path(folder) / 'work'
        files.mkdir()
        work.mkdir()
        make_stream(files)
        server = Server(('127.0.0.1', 0), lambda *args: Handler(*args, directory=str(files)))
        threading.Thread(target=server.serve_forever, daemon=True).start()
        soak = Soak(program, f'http://127.0.0.1:{server.server_port}/page.html', work)
        expected = soak.whole()
        same = 0
        for number in range(rounds):
            soak.clean()
            for _ in range(random.randint(1, 3)):
                soak.kill_one()
            same += soak.whole() == expected
            print(f'{same} of {number + 1} files are the same', flush=True)
    sys.exit(same != rounds)


main()
