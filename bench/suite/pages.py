"""Page runs: what one costs beside another engine, and how soon it starts to download."""

import http.server
import os
import shutil
import subprocess
import sys
import threading
import time

import tree
from costs import MIB, Cost, Spread, in_turn, ratios
from report import Row

TICK_MS = 5000  # between two looks at what has been found
PICTURE = (b'\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x01\0\0\0\x01\x08\x06\0\0\0\x1f\x15\xc4\x89'
           b'\0\0\0\rIDATx\x9cc\xf8\xcf\xc0P\x0f\0\x04\x85\x01\x80\x84\xa9\x8c!\0\0\0\0IEND\xaeB`\x82')
VIDEO_BYTES = 6 * MIB

CHROMIUM = ['chromium', '--headless', '--no-sandbox', '--disable-gpu', '--disable-quic',
            '--no-first-run', '--disable-background-networking', '--disable-component-update',
            '--disable-sync', '--no-proxy-server']


class Site(http.server.BaseHTTPRequestHandler):
    protocol_version = 'HTTP/1.1'

    def do_GET(self):
        site = self.server
        if site.first_at is None:
            site.first_at = time.monotonic()
        if self.path.partition('?')[0] == '/page':
            self.answer('text/html', site.page)
        elif self.path.endswith('.js'):
            self.answer('text/javascript', b'document.title += "."; // ' + b'x' * 2000)
        elif self.path.endswith('.css'):
            self.answer('text/css', b'p { margin: 1px } /* ' + b'x' * 2000 + b'*/')
        elif self.path.endswith('.mp4'):
            time.sleep(site.delay)
            if site.video_at is None:
                site.video_at = time.monotonic()
            self.answer('video/mp4', site.video)
        else:
            self.answer('image/png', PICTURE)

    def answer(self, content_type, body):
        self.send_response(200)
        self.send_header('Content-Type', content_type)
        self.send_header('Content-Length', str(len(body)))
        self.end_headers()
        try:
            self.wfile.write(body)
        except OSError:
            pass  # the reader has seen enough

    def log_message(self, *_):
        pass


class Listener(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def handle_error(self, *_):
        pass  # readers may leave at any time


class Server:
    """A site whose page makes so many requests, a video's among them."""

    def __init__(self, requests, delay=0, video_bytes=VIDEO_BYTES):
        kinds = ('<img src="/{}.png">', '<script src="/{}.js"></script>',
                 '<link rel="stylesheet" href="/{}.css">', '<img src="/{}.gif">')
        parts = ''.join(kinds[i % len(kinds)].format(i) for i in range(requests - 2))
        text = (f'<!DOCTYPE html><html><head><title>A page</title></head><body>{parts}'
                + ''.join(f'<p>Paragraph {i} of the page.</p>' for i in range(requests))
                + '<script>var r = new XMLHttpRequest(); r.open("GET", "/clip.mp4"); r.send();'
                  '</script></body></html>')
        self.server = Listener(('127.0.0.1', 0), Site)
        self.server.page = text.encode()
        self.server.delay = delay
        self.server.video = bytes(video_bytes)
        self.server.video_at = None
        self.server.first_at = None
        self.address = f'http://127.0.0.1:{self.server.server_port}/page'

    def __enter__(self):
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        return self

    def __exit__(self, *_):
        self.server.shutdown()
        self.server.server_close()


class Run:
    """A page run: what it had cost when its download started, the moment of that, and its peak
    memory in the end."""

    def __init__(self, context, address):
        folder = f'{context.folder}/run'
        shutil.rmtree(folder, ignore_errors=True)
        os.mkdir(folder)
        environment = dict(os.environ, QT_QPA_PLATFORM='offscreen', HOME=context.folder,
                           CLIPWEIR_COOKIES=f'{folder}/cookies.txt')
        start = time.monotonic()
        process = subprocess.Popen(
            [f'{context.build}/clipweir', '--url', address, '--saveto', f'{folder}/clip.mp4'],
            stderr=subprocess.PIPE, env=environment, cwd=folder)
        for line in process.stderr:
            if line.startswith(b'start download video'):
                self.at = time.monotonic()
                self.cost = Cost(self.at - start, tree.processor_seconds(process.pid),
                                 tree.peak(process.pid))
                break
        else:
            sys.exit(f'the page run found no video: exit code {process.wait()}')
        process.stderr.read()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        self.peak = usage.ru_maxrss / 1024
        if process.returncode != 0:
            sys.exit(f'the page run failed with exit code {process.returncode}')


def chromium(context, address):
    profile = f'{context.folder}/profile'
    shutil.rmtree(profile, ignore_errors=True)
    return tree.run(CHROMIUM + [f'--user-data-dir={profile}', '--dump-dom', address])


def measure(context):
    requests = 20 if context.is_small else 200
    title = f'page run, {requests} requests, to the start of the download'
    with Server(requests) as server:
        if shutil.which('chromium'):
            own, other = in_turn(lambda: Run(context, server.address).cost,
                                 lambda: chromium(context, server.address), context.pairs)
            yield Row(title, 'headless Chromium loads it', 'processor time, ratio',
                      ratios(own, other, 'cpu'), 0.5)
            yield Row(title, 'headless Chromium loads it', 'peak memory, ratio',
                      ratios(own, other, 'peak'), 0.5)
        else:
            context.skip(f'{title} against Chromium', 'it is not installed')

    big, small = (12 if context.is_small else 1024), VIDEO_BYTES // MIB
    runs = []
    for size in (big, small):
        with Server(3, video_bytes=size * MIB) as server:
            runs.append(Run(context, server.address))
    growth = runs[0].peak - runs[1].peak
    yield Row(f'peak memory, page run with a video of {big} MiB', f'{small} MiB', 'MiB more',
              Spread(growth, growth, growth), 32)

    # Videos that arrive at any time between two looks.
    waits = []
    for i in range(context.pairs):
        with Server(3, delay=i * TICK_MS / 1000 / context.pairs) as server:
            run = Run(context, server.address)
            waits.append((run.at - server.server.video_at) * 1000)
    yield Row('from the first byte of a video that is good enough to its download',
              f'one tick of {TICK_MS} ms', 'longest wait in ms',
              Spread(max(waits), min(waits), max(waits)), TICK_MS + 50)
