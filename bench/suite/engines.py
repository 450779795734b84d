"""Page runs over the engine that is a program of its own, and the choice between the two."""

import concurrent.futures
import os
import shutil
import subprocess
import sys
import threading
import time

import pages
import tree
from costs import Cost, Spread, in_turn, ratios
from report import Row

SHELL = '/usr/lib/chromium/chromium-headless-shell'


class Peak(threading.Thread):
    """Watches the memory of a process and all that it starts."""

    def __init__(self, pid):
        super().__init__(daemon=True)
        self.pid = pid
        self.highest = 0
        self.stopped = threading.Event()
        self.start()

    def run(self):
        while not self.stopped.wait(tree.SAMPLE_SECONDS):
            members = [self.pid, *tree.descendants(self.pid)]
            self.highest = max(self.highest, sum(tree.share(pid) for pid in members))

    def mib(self):
        self.stopped.set()
        self.join()
        return self.highest / 1024


def run(context, server, engine, watches_memory=False):
    """A page run up to the start of its download, with all processes that it has had."""
    folder = f'{context.folder}/run'
    shutil.rmtree(folder, ignore_errors=True)
    os.mkdir(folder)
    environment = dict(os.environ, QT_QPA_PLATFORM='offscreen', HOME=context.folder,
                       CLIPWEIR_COOKIES=f'{folder}/cookies.txt')
    server.server.first_at = None
    start = time.monotonic()
    process = subprocess.Popen(
        [f'{context.build}/clipweir', '--url', server.address, '--saveto', f'{folder}/clip.mp4',
         '--engine', engine], stderr=subprocess.PIPE, env=environment, cwd=folder)
    memory = Peak(process.pid) if watches_memory else None
    for line in process.stderr:
        if line.startswith(b'start download video'):
            cost = Cost(time.monotonic() - start, tree.seconds_with_children(process.pid),
                        memory.mib() if memory else 0)
            break
    else:
        sys.exit(f'the page run found no video: exit code {process.wait()}')
    process.stderr.read()
    if process.wait() != 0:
        sys.exit(f'the page run failed with exit code {process.returncode}')
    return cost, server.server.first_at - start


def dump(context, server, program):
    """Another program that loads the page and prints its document."""
    profile = f'{context.folder}/profile'
    shutil.rmtree(profile, ignore_errors=True)
    server.server.first_at = None
    start = time.monotonic()
    cost = tree.run(program + ['--no-sandbox', f'--user-data-dir={profile}', '--dump-dom',
                               server.address])
    return cost, server.server.first_at - start


def costs(results):
    return [cost for cost, _ in results]


def in_groups(own, other, figure):
    """Ratios of the sums of a few runs each: the system counts a run in steps of a twentieth."""
    count = min(3, len(own))
    return Spread.of([sum(getattr(cost, figure) for cost in own[i::count])
                      / sum(getattr(cost, figure) for cost in other[i::count])
                      for i in range(count)])


def leftovers(folder):
    """What runs have left: processes of an engine or its keeper, and files."""
    processes = 0
    for name in os.listdir('/proc'):
        try:
            with open(f'/proc/{name}/cmdline', 'rb') as file:
                words = file.read()
            with open(f'/proc/{name}/comm') as file:
                comm = file.read().strip()
        except OSError:
            continue
        processes += b'--remote-debugging-pipe' in words or comm == 'engine keeper'
    return processes + len(os.listdir(folder))


def many_runs(context, server, count):
    temporary = f'{context.folder}/temporary'
    os.makedirs(temporary, exist_ok=True)

    def one(number):
        folder = f'{context.folder}/many-{number}'
        os.mkdir(folder)
        environment = dict(os.environ, QT_QPA_PLATFORM='offscreen', HOME=folder, TMPDIR=temporary,
                           CLIPWEIR_COOKIES=f'{folder}/cookies.txt')
        done = subprocess.run(
            [f'{context.build}/clipweir', '--url', f'{server.address}?{number}', '--saveto',
             f'{folder}/clip.mp4', '--engine', 'chromium'], stderr=subprocess.PIPE,
            env=environment, cwd=folder, check=True)
        if b'finished:success' not in done.stderr:
            sys.exit(f'run {number} brought no video: {done.stderr.decode()}')
        shutil.rmtree(folder)

    with concurrent.futures.ThreadPoolExecutor(4) as places:
        list(places.map(one, range(count)))
    left = leftovers(temporary)
    return Spread(left, left, left)


def measure(context):
    if not os.path.exists(SHELL):
        return context.skip('runs over the current engine', 'it is not installed')
    requests = 20 if context.is_small else 200
    title = f'page run over chromium, {requests} requests, to the start of the download'
    with pages.Server(requests) as server:
        if shutil.which('chromium'):
            own, other = in_turn(lambda: run(context, server, 'chromium', True),
                                 lambda: dump(context, server, pages.CHROMIUM), context.pairs)
            for figure, name, bar in (('cpu', 'processor time', 0.5), ('peak', 'peak memory', 0.6)):
                yield Row(title, 'headless Chromium loads it', f'{name} of all processes, ratio',
                          ratios(costs(own), costs(other), figure), bar)
        else:
            context.skip(f'{title} against Chromium', 'it is not installed')
        own, other = in_turn(lambda: run(context, server, 'chromium'),
                             lambda: dump(context, server, [SHELL]), context.pairs)
        yield Row(title, 'chromium-headless-shell prints its document',
                  'processor time of all processes, ratio', ratios(costs(own), costs(other), 'cpu'),
                  1.3)
        firsts = Spread.of([a[1] / b[1] for a, b in zip(own, other)])
        yield Row('from the start to the first request, over chromium',
                  'chromium-headless-shell prints the document', 'wall time, ratio', firsts, 1.3)

        own, other = in_turn(lambda: run(context, server, 'auto'),
                             lambda: run(context, server, 'webkit'), context.many_pairs)
        for figure, name in (('cpu', 'processor time'), ('wall', 'wall time')):
            yield Row(f'page run with --engine auto, {requests} requests', '--engine webkit',
                      f'{name}, ratio', in_groups(costs(own), costs(other), figure), 1.05)

    count = 4 if context.is_small else 300
    with pages.Server(3) as server:
        yield Row(f'{count} page runs over chromium, four at a time', 'nothing',
                  'processes and files left', many_runs(context, server, count), 0)
