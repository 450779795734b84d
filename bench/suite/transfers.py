"""One file over HTTP: against curl, wget and aria2, over a long way, and in memory."""

import filecmp
import os
import shutil
import sys

from costs import MIB, Spread, in_turn, ratios, run
from report import Row
from servers import Nginx, Relay, write_random

OWN = 'clipweir'
PEERS = {
    'curl': ['curl', '-sf', '-o', '{target}', '{address}'],
    'wget': ['wget', '-q', '--no-proxy', '-O', '{target}', '{address}'],
    'aria2 -x1': ['aria2c', '-q', '-x1', '--file-allocation=none', '--dir=/', '--out={target}',
                  '--allow-overwrite=true', '{address}'],
}


class Fetcher:
    def __init__(self, context):
        self.target = f'{context.folder}/arrived'
        self.commands = dict(PEERS)
        self.commands[OWN] = [f'{context.build}/bench/httpdownload', '{address}', '{target}',
                              '{size}']
        self.environment = {'CLIPWEIR_COOKIES': f'{context.folder}/cookies.txt'}

    def fetch(self, name, address, original):
        """Fetches a file and compares it with the original; returns the cost."""
        if os.path.exists(self.target):
            os.remove(self.target)
        cost = run([word.format(target=self.target, address=address,
                                size=os.path.getsize(original)) for word in self.commands[name]],
                   self.environment)
        if not filecmp.cmp(self.target, original, shallow=False):
            sys.exit(f'{name}: what arrived is not what was served')
        return cost


def against(fetcher, peer, address, original, pairs):
    return in_turn(lambda: fetcher.fetch(OWN, address, original),
                   lambda: fetcher.fetch(peer, address, original), pairs)


def measure(context):
    files = f'{context.folder}/files'
    os.mkdir(files)
    size = 8 * MIB if context.is_small else 1024 * MIB
    title = f'{size // MIB} MiB over HTTP'
    original = f'{files}/big'
    write_random(original, size)
    fetcher = Fetcher(context)
    with Nginx(context.folder, files) as server:
        for peer in PEERS:
            if not shutil.which(PEERS[peer][0]):
                context.skip(f'{title} against {peer}', 'it is not installed')
                continue
            own, other = against(fetcher, peer, f'{server.address}/big', original, context.pairs)
            bar = 1.1 if peer == 'curl' else None
            yield Row(title, peer, 'wall time, ratio', ratios(own, other, 'wall'), bar)
            yield Row(title, peer, 'processor time, ratio', ratios(own, other, 'cpu'), bar)

        with Relay(int(server.address.rpartition(':')[2]), 0.050) as far:
            own, other = against(fetcher, 'curl', f'{far.address}/big', original,
                                 context.many_pairs)
            yield Row(f'{title}, 50 ms round trip', 'curl', 'wall time, ratio',
                      ratios(own, other, 'wall'), 1.05)

        yield growth(context, fetcher, server, files)


def growth(context, fetcher, server, files):
    big = 4 * MIB if context.is_small else 4096 * MIB
    small = MIB
    for size in (small, big):
        # Content does not matter here: a hole is quickly made.
        with open(f'{files}/{size}', 'wb') as file:
            file.truncate(size)
    own_big, own_small = in_turn(
        lambda: fetcher.fetch(OWN, f'{server.address}/{big}', f'{files}/{big}'),
        lambda: fetcher.fetch(OWN, f'{server.address}/{small}', f'{files}/{small}'),
        context.pairs)
    spread = Spread.of([a.peak - b.peak for a, b in zip(own_big, own_small)])
    return Row(f'peak memory, {big // MIB} MiB over HTTP', '1 MiB', 'MiB more', spread, 32)
