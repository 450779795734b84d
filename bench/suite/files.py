"""Files over several connections, with sums and events, and what the command for people costs."""

import filecmp
import os
import shutil
import sys

import tree
from costs import MIB, in_turn, ratios, run
from report import Row
from servers import Nginx, write_random

OWN = 'clipweir'
CONNECTIONS = 8
VIDEO_BYTES = 8 * MIB
JOBS = 8


class Transfers:
    """One large file, by transfers without a page."""

    def __init__(self, context):
        self.target = f'{context.folder}/arrived'
        own = [f'{context.build}/bench/filetransfer', '{address}', '{target}', '{size}']
        self.commands = {
            f'{OWN} -x': [*own, '--connections', str(CONNECTIONS), '--continue', '--events'],
            f'{OWN} -1': [*own, '--continue', '--events'],
            'aria2': ['aria2c', '-q', f'-x{CONNECTIONS}', f'-s{CONNECTIONS}',
                      '--file-allocation=none', '--dir=/', '--out={target}', '{address}'],
            'curl': ['curl', '-sf', '-o', '{target}', '{address}'],
        }
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

    def against(self, own, peer, address, original, pairs):
        return in_turn(lambda: self.fetch(own, address, original),
                       lambda: self.fetch(peer, address, original), pairs)


class Commands:
    """The command for people and its peer, with pages that play a video each."""

    def __init__(self, context, server):
        self.context = context
        self.server = server
        self.target = f'{context.folder}/videos'

    def address(self, number):
        return f'{self.server.address}/page{number}.html'

    def fetch(self, command, count):
        """The cost of a command that brings so many videos to an empty folder."""
        shutil.rmtree(self.target, ignore_errors=True)
        os.mkdir(self.target)
        cost = tree.run(['env', f'HOME={self.context.folder}', 'QT_QPA_PLATFORM=offscreen',
                         'no_proxy=*', *command])
        arrived = [name for name in os.listdir(self.target)
                   if os.path.getsize(f'{self.target}/{name}') == VIDEO_BYTES]
        if len(arrived) != count:
            sys.exit(f'{command[0]}: {len(arrived)} of {count} videos have arrived')
        return cost

    def own(self, count):
        return self.fetch([f'{self.context.build}/clipweir-get', '-q', '-d', self.target, '-j',
                           str(JOBS), '--per-host', str(JOBS),
                           *(self.address(i) for i in range(count))], count)

    def peer(self, count):
        options = f"yt-dlp -q --no-warnings -o '{self.target}/%(title)s.%(ext)s'"
        addresses = ' '.join(self.address(i) for i in range(count))
        return self.fetch(['sh', '-c', f'printf "%s\\n" {addresses} | '
                           f'xargs -P{JOBS} -n1 {options}'], count)


def write_pages(files, count):
    write_random(f'{files}/video.mp4', VIDEO_BYTES)
    for i in range(count):
        os.link(f'{files}/video.mp4', f'{files}/video{i}.mp4')
        with open(f'{files}/page{i}.html', 'w') as file:
            file.write(f'<!DOCTYPE html><html><head><title>Page {i}</title></head><body>'
                       f'<video src="/video{i}.mp4" autoplay></video></body></html>')


def measure(context):
    files = f'{context.folder}/files'
    os.mkdir(files)
    size = (24 if context.is_small else 1024) * MIB
    original = f'{files}/big'
    write_random(original, size)
    pages = 4 if context.is_small else 100
    write_pages(files, pages)
    with Nginx(context.folder, files) as server:
        yield from large(context, server, original, f'{size // MIB} MiB')
        if not shutil.which('yt-dlp'):
            context.skip('pages against yt-dlp', 'it is not installed')
            return
        commands = Commands(context, server)
        own, other = in_turn(lambda: commands.own(1), lambda: commands.peer(1), context.pairs)
        title = 'a page with a video of 8 MiB, by clipweir-get'
        yield Row(title, 'yt-dlp', 'wall time, ratio', ratios(own, other, 'wall'), 0.45)
        yield Row(title, 'yt-dlp', 'processor time, ratio', ratios(own, other, 'cpu'), 0.25)
        own, other = in_turn(lambda: commands.own(pages), lambda: commands.peer(pages),
                             1 if context.is_small else 3)
        title = f'{pages} such pages, {JOBS} at once'
        yield Row(title, 'yt-dlp', 'wall time, ratio', ratios(own, other, 'wall'), 0.3)
        yield Row(title, 'yt-dlp', 'processor time, ratio', ratios(own, other, 'cpu'), 0.3)


def large(context, server, original, size):
    transfers = Transfers(context)
    title = f'{size}, 10 MB/s a connection, {CONNECTIONS} connections'
    if shutil.which('aria2c'):
        own, other = transfers.against(f'{OWN} -x', 'aria2', f'{server.address}/limited/big',
                                       original, 1 if context.is_small else 3)
        yield Row(title, 'aria2', 'wall time, ratio', ratios(own, other, 'wall'), 1.05)
        yield Row(title, 'aria2', 'processor time, ratio', ratios(own, other, 'cpu'))
    else:
        context.skip(f'{title} against aria2', 'it is not installed')
    own, other = transfers.against(f'{OWN} -1', 'curl', f'{server.address}/big', original,
                                   context.pairs)
    title = f'{size}, one connection, with its sum and events'
    yield Row(title, 'curl', 'wall time, ratio', ratios(own, other, 'wall'), 1.1)
    yield Row(title, 'curl', 'processor time, ratio', ratios(own, other, 'cpu'))
