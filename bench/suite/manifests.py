"""Streams by playlist or manifest: against other downloaders and against the bare transfer."""

import os
import shutil
import subprocess

from costs import MIB, Spread, in_turn, ratios, run
from report import Row
from servers import Nginx

CLIP_SECONDS = 4
KINDS = {
    'HLS (TS)': ('ts', 'l.m3u8', ['-f', 'hls', '-hls_time', '1', '-hls_playlist_type', 'vod',
                                  '-hls_segment_filename', 's%d.ts']),
    'HLS (fMP4)': ('fmp4', 'l.m3u8', ['-f', 'hls', '-hls_time', '1', '-hls_playlist_type', 'vod',
                                      '-hls_segment_type', 'fmp4', '-hls_segment_filename',
                                      's%d.m4s']),
    'DASH': ('dash', 'm.mpd', ['-f', 'dash', '-seg_duration', '1']),
}


def ffmpeg(arguments, folder):
    subprocess.run(['ffmpeg', '-v', 'error', '-y'] + arguments, cwd=folder, check=True,
                   stdin=subprocess.DEVNULL)


def make_clip(folder, bandwidth):
    """Noise, whose bytes come out as wished."""
    rate = str(bandwidth)
    ffmpeg(['-f', 'lavfi', '-i', 'nullsrc=s=640x360:r=25,geq=random(1)*255:128:128', '-f', 'lavfi',
            '-i', 'sine', '-t', str(CLIP_SECONDS), '-c:v', 'libx264', '-preset', 'ultrafast', '-g',
            '25', '-bf', '0', '-b:v', rate, '-minrate', rate, '-maxrate', rate, '-bufsize',
            str(bandwidth // 2), '-pix_fmt', 'yuv420p', '-c:a', 'aac', 'clip.mp4'], folder)


def make_stream(folder, files, kind, name, seconds):
    _, manifest, options = KINDS[kind]
    os.mkdir(f'{files}/{name}')
    ffmpeg(['-stream_loop', str(seconds // CLIP_SECONDS - 1), '-i', f'{folder}/clip.mp4', '-c',
            'copy'] + options + [manifest], f'{files}/{name}')
    return f'{name}/{manifest}'


class Fetcher:
    def __init__(self, build, folder):
        self.build = build
        self.target = f'{folder}/out'
        self.environment = {'CLIPWEIR_COOKIES': f'{folder}/cookies.txt', 'HOME': folder}

    def clean(self):
        shutil.rmtree(self.target, ignore_errors=True)
        os.mkdir(self.target)

    def own(self, address):
        self.clean()
        return run([f'{self.build}/bench/streamdownload', address, self.target], self.environment)

    def yt_dlp(self, address):
        self.clean()
        return run(['yt-dlp', '-q', '--no-cache-dir', '--proxy', '', '-N', '8', '-o',
                    f'{self.target}/out.mp4', address], self.environment)

    def ffmpeg(self, address):
        self.clean()
        return run(['ffmpeg', '-v', 'error', '-i', address, '-c', 'copy', f'{self.target}/o.mp4'])

    def curl_and_ffmpeg(self, address, count):
        """Of a transport stream, whose segments can be joined by their bytes."""
        self.clean()
        base = address.rpartition('/')[0]
        return run(['sh', '-ec', f'''
            curl -sf --parallel --parallel-max 8 -o '#1' '{base}/s[0-{count - 1}].ts'
            for n in $(seq {count}); do cat $((n - 1)); done |
                ffmpeg -v error -i - -c copy o.mp4'''], cwd=self.target)


def measure_kind(context, fetcher, kind, base, path, title, is_late):
    address = f'{base}/{path}'
    own = lambda: fetcher.own(address)
    if shutil.which('yt-dlp'):
        mine, other = in_turn(own, lambda: fetcher.yt_dlp(address), context.pairs)
        yield Row(title, 'yt-dlp -N 8', 'times as fast', ratios(other, mine, 'wall'),
                  2.3 if is_late else 5, at_least=True)
    else:
        context.skip(f'{title} against yt-dlp', 'it is not installed')
    mine, other = in_turn(own, lambda: fetcher.ffmpeg(address), context.pairs)
    if is_late:
        yield Row(title, 'ffmpeg -c copy', 'times as fast', ratios(other, mine, 'wall'), 4,
                  at_least=True)
    else:
        yield Row(title, 'ffmpeg -c copy', 'processor time, ratio', ratios(mine, other, 'cpu'), 1.0)


def measure(context):
    files = f'{context.folder}/files'
    os.mkdir(files)
    seconds, bandwidth = (8, MIB) if context.is_small else (200, 8 * MIB)
    make_clip(context.folder, bandwidth)
    fetcher = Fetcher(context.build, context.folder)
    with Nginx(context.folder, files) as server:
        late = f'{server.address}/late'
        paths = {kind: make_stream(context.folder, files, kind, KINDS[kind][0], seconds)
                 for kind in KINDS}
        for kind, path in paths.items():
            title = f'{kind} of {seconds} x {bandwidth / 8 / MIB:g} MiB'
            yield from measure_kind(context, fetcher, kind, server.address, path, title, False)
            yield from measure_kind(context, fetcher, kind, late, path,
                                    f'{title}, answers 20 ms late', True)
        title = f'HLS (TS) of {seconds} x {bandwidth / 8 / MIB:g} MiB, answers 20 ms late'
        address = f'{late}/{paths["HLS (TS)"]}'
        mine, other = in_turn(lambda: fetcher.own(address),
                              lambda: fetcher.curl_and_ffmpeg(address, seconds),
                              context.many_pairs)
        yield Row(title, '8 parallel transfers of curl, then ffmpeg', 'wall time, ratio',
                  ratios(mine, other, 'wall'), 1.2)

        shutil.rmtree(f'{files}/fmp4')
        shutil.rmtree(f'{files}/dash')
        many = make_stream(context.folder, files, 'HLS (TS)', 'many', 10 * seconds)
        few = f'{server.address}/{paths["HLS (TS)"]}'
        pairs = 1 if context.is_small else 3
        long, short = in_turn(lambda: fetcher.own(f'{server.address}/{many}'),
                              lambda: fetcher.own(few), pairs)
        yield Row(f'HLS (TS) of {10 * seconds} segments', f'{seconds} of them',
                  'memory at its peak, MiB more',
                  Spread.of([a.peak - b.peak for a, b in zip(long, short)]), 16)
