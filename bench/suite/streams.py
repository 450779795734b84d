"""Streams of fragments: against another downloader and against the bare transfer."""

import base64
import os
import shutil
import struct
import sys

from costs import MIB, in_turn, ratios, run
from report import Row
from servers import Nginx

NAMESPACE = 'http://ns.adobe.com/f4m/1.0'
PICTURES = 25  # in a fragment, which lasts a second
HEADER_BYTES = 13  # of an FLV file


def box(name, payload):
    return struct.pack('>I4s', len(payload) + 8, name) + payload


def bootstrap(fragments):
    """One segment of so many fragments, from 1."""
    asrt = box(b'asrt', bytes(4) + b'\0' + struct.pack('>III', 1, 1, fragments))
    afrt = box(b'afrt', bytes(4) + struct.pack('>IBIIQI', 1000, 0, 1, 1, 0, 1000))
    return box(b'abst', bytes(4) + struct.pack('>IBIQQ', 1, 0, 1000, 0, 0) + b'\0' + b'\0\0'
               + b'\0\0' + b'\1' + asrt + b'\1' + afrt)


def manifest(fragments):
    text = base64.b64encode(bootstrap(fragments)).decode()
    metadata = base64.b64encode(b'\x02\x00\x0aonMetaData\x08\0\0\0\0\0\0\x09').decode()
    return (f'<?xml version="1.0" encoding="UTF-8"?>\n<manifest xmlns="{NAMESPACE}">'
            f'<id>s</id><duration>{fragments}</duration>'
            f'<bootstrapInfo profile="named" id="b">{text}</bootstrapInfo>'
            f'<media bitrate="1000" url="s" bootstrapInfoId="b"><metadata>{metadata}</metadata>'
            f'</media></manifest>')


def fragment(number, size):
    data = b'\x22' + bytes([number & 0xFF]) * (size // PICTURES - 16)
    tags = b''
    for picture in range(PICTURES):
        stamp = (number - 1) * 1000 + picture * 1000 // PICTURES
        tags += (b'\x09' + len(data).to_bytes(3, 'big') + (stamp & 0xFFFFFF).to_bytes(3, 'big')
                 + bytes([stamp >> 24]) + bytes(3) + data
                 + (len(data) + 11).to_bytes(4, 'big'))
    return box(b'mdat', tags)


class Stream:
    """A stream on disk, as a server has it."""

    def __init__(self, files, name, fragments, size):
        self.name = name
        self.fragments = fragments
        self.total = 0  # bytes of all tags
        os.mkdir(f'{files}/{name}')
        with open(f'{files}/{name}/m.f4m', 'w') as file:
            file.write(manifest(fragments))
        for number in range(1, fragments + 1):
            data = fragment(number, size)
            self.total += len(data) - 8
            with open(f'{files}/{name}/sSeg1-Frag{number}', 'wb') as file:
                file.write(data)


class Fetcher:
    def __init__(self, build, folder):
        self.build = build
        self.target = f'{folder}/out'
        self.environment = {'CLIPWEIR_COOKIES': f'{folder}/cookies.txt', 'HOME': folder}

    def clean(self):
        shutil.rmtree(self.target, ignore_errors=True)
        os.mkdir(self.target)

    def own(self, base, stream):
        self.clean()
        cost = run([f'{self.build}/bench/hdsdownload', f'{base}/{stream.name}/m.f4m',
                    self.target], self.environment)
        # The file's header, and a tag of metadata.
        self.check('clipweir', 'out.flv', stream.total + HEADER_BYTES)
        return cost

    def yt_dlp(self, base, stream):
        self.clean()
        cost = run(['yt-dlp', '-q', '--no-cache-dir', '--proxy', '', '-o', f'{self.target}/out.flv',
                    f'{base}/{stream.name}/m.f4m'], self.environment)
        self.check('yt-dlp', 'out.flv', stream.total)
        return cost

    def curl(self, base, stream):
        self.clean()
        cost = run(['curl', '-sf', '--parallel', '--parallel-max', '8', '-o', f'{self.target}/#1',
                    f'{base}/{stream.name}/sSeg1-Frag[1-{stream.fragments}]'], self.environment)
        if len(os.listdir(self.target)) != stream.fragments:
            sys.exit('curl: fragments are missing')
        return cost

    def check(self, who, name, least):
        size = os.path.getsize(f'{self.target}/{name}')
        if not least <= size <= least + 1024:
            sys.exit(f'{who}: {size} bytes where {least} and some more are due')


def beside_bound(title, fetcher, base, stream, pairs):
    own, bound = in_turn(lambda: fetcher.own(base, stream), lambda: fetcher.curl(base, stream),
                         pairs)
    return Row(title, '8 parallel transfers of curl', 'wall time, ratio',
               ratios(own, bound, 'wall'), 1.3)


def measure(context):
    files = f'{context.folder}/files'
    os.mkdir(files)
    count, size = (10, MIB // 8) if context.is_small else (200, MIB)
    few, many = (10, 20) if context.is_small else (200, 2000)
    fetcher = Fetcher(context.build, context.folder)
    disk_fetcher = Fetcher(context.build, context.disk_folder)
    with Nginx(context.folder, files) as server:
        stream = Stream(files, 'big', count, size)
        title = f'stream of {count} x {size / MIB:g} MiB'
        for delayed, base, bar in ((f'{title}', server.address, 2),
                                   (f'{title}, answers 20 ms late', f'{server.address}/late', 5)):
            if shutil.which('yt-dlp'):
                own, other = in_turn(lambda: fetcher.own(base, stream),
                                     lambda: fetcher.yt_dlp(base, stream), context.pairs)
                yield Row(delayed, 'yt-dlp', 'times as fast', ratios(other, own, 'wall'), bar,
                          at_least=True)
            else:
                context.skip(f'{delayed} against yt-dlp', 'it is not installed')
            yield beside_bound(delayed, fetcher, base, stream, context.many_pairs)
            yield beside_bound(f'{delayed}, to the disk', disk_fetcher, base, stream,
                               context.pairs)

        short = Stream(files, 'few', few, 16 * 1024)
        long = Stream(files, 'many', many, 16 * 1024)
        own_long, own_short = in_turn(lambda: fetcher.own(server.address, long),
                                      lambda: fetcher.own(server.address, short), context.pairs)
        spread = ratios(own_long, own_short, 'wall')
        share = few / many
        yield Row(f'stream of {many} small fragments', f'{few} of them',
                  'wall time for each, ratio',
                  type(spread)(spread.median * share, spread.low * share, spread.high * share),
                  1.2)
