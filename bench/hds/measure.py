"""Makes streams, serves them, downloads them with hdsdownload and prints what that costs.

usage: measure.py work-folder build-folder
"""

import asyncio
import base64
import functools
import multiprocessing
import os
import shutil
import struct
import subprocess
import sys
import time
import urllib.request

MIB = 1 << 20
FRAGMENT_COUNTS = (250, 500, 1000, 2000)
FRAGMENT_BYTES = MIB // 2  # 2,000 of them are a stream of 1,000 MiB
MEMORY_LIMIT_MIB = 32  # growth of peak memory from the shortest stream to the longest
TIME_LIMIT = 1.3  # time per fragment of the longest stream over that of the shortest

DELAY_SECONDS = 0.020
DELAYED_FRAGMENTS = 200
DELAYED_BYTES = MIB
SPEEDUP_LIMIT = 5
ROUNDS = 3


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
    return (f'<manifest><bootstrapInfo id="b">{text}</bootstrapInfo>'
            f'<media bitrate="1" url="s"/></manifest>').encode()


@functools.lru_cache(maxsize=None)  # made once, so that serving them costs little
def fragment(number, size):
    """A second of 25 pictures that fill the size."""
    data = b'\x22' + bytes([number & 0xFF]) * (size // 25 - 16)
    tags = b''
    for picture in range(25):
        stamp = (number - 1) * 1000 + picture * 40
        tags += (b'\x09' + len(data).to_bytes(3, 'big') + (stamp & 0xFFFFFF).to_bytes(3, 'big')
                 + bytes([stamp >> 24]) + bytes(3) + data
                 + (len(data) + 11).to_bytes(4, 'big'))
    return box(b'mdat', tags)


class Answers:
    """Serves streams of any length; waits before each answer. Asked for "most", it tells how many
    fragments were being answered at once at most."""

    def __init__(self, fragment_bytes, delay):
        self.fragment_bytes = fragment_bytes
        self.delay = delay
        self.at_once = self.most_at_once = 0

    async def body_of(self, name):
        if name == 'most':
            return str(self.most_at_once).encode()
        if name.endswith('.f4m'):
            return manifest(int(name[:-4]))
        self.at_once += 1
        self.most_at_once = max(self.most_at_once, self.at_once)
        await asyncio.sleep(self.delay)
        return fragment(int(name.rpartition('Frag')[2]), self.fragment_bytes)

    async def answer(self, reader, writer):
        try:
            head = await reader.readuntil(b'\r\n\r\n')
            name = head.split(b' ')[1].decode().rpartition('/')[2]
            body = await self.body_of(name)
            writer.write(b'HTTP/1.1 200 OK\r\nContent-Length: %d\r\nConnection: close\r\n\r\n'
                         % len(body))
            writer.write(body)
            await writer.drain()
            if 'Frag' in name:
                self.at_once -= 1
            writer.close()
        except (asyncio.IncompleteReadError, ConnectionError):
            pass


def serve(port_to, fragment_bytes, delay):
    async def run():
        server = await asyncio.start_server(Answers(fragment_bytes, delay).answer, '127.0.0.1', 0)
        port_to.send(server.sockets[0].getsockname()[1])
        await server.serve_forever()

    asyncio.run(run())


class Server:
    """A process of its own: the peak memory of a child counts that of its parent at its start."""

    def __init__(self, fragment_bytes, delay):
        receiver, sender = multiprocessing.Pipe()
        self.process = multiprocessing.Process(target=serve, args=(sender, fragment_bytes, delay),
                                               daemon=True)
        self.process.start()
        self.address = f'http://127.0.0.1:{receiver.recv()}'

    def most_at_once(self):
        with urllib.request.urlopen(f'{self.address}/most') as reply:
            return int(reply.read())

    def stop(self):
        self.process.terminate()
        self.process.join()


def download(build, work, address, fragments, fragment_bytes, pannel):
    """Downloads a stream; returns wall seconds, processor seconds and peak memory in MiB."""
    folder = f'{work}/out'
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    os.sync()  # what an earlier run left to be written out must not slow this one down
    environment = dict(os.environ, CLIPWEIR_COOKIES=f'{work}/cookies.txt')
    start = time.monotonic()
    process = subprocess.Popen(
        [f'{build}/bench/hdsdownload', f'{address}/{fragments}.f4m', folder, '--pannel',
         str(pannel)],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=environment)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.monotonic() - start
    size = os.path.getsize(f'{folder}/out.flv')
    expected = 13 + (len(fragment(1, fragment_bytes)) - 8) * fragments
    if status != 0 or size != expected:
        sys.exit(f'{fragments} fragments: status {status}, {size} bytes instead of {expected}')
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024


def main():
    work, build = sys.argv[1:3]
    missed = []

    def check(what, value, limit, is_fine):
        print(f'{what}: {value:.2f} (limit {limit})')
        if not is_fine:
            missed.append(what)

    print(f'streams of {FRAGMENT_BYTES // 1024} KiB fragments, 8 workers, best of {ROUNDS}')
    print(f'{"fragments":>9} {"MiB":>6} {"wall s":>7} {"cpu s":>7} {"ms each":>8} {"peak MiB":>9}')
    server = Server(FRAGMENT_BYTES, 0)
    costs = {}
    for count in FRAGMENT_COUNTS:
        figures = [download(build, work, server.address, count, FRAGMENT_BYTES, 8)
                   for _ in range(ROUNDS)]
        wall, cpu = min(f[0] for f in figures), min(f[1] for f in figures)
        peak = max(f[2] for f in figures)
        costs[count] = wall / count, peak
        print(f'{count:9} {count * FRAGMENT_BYTES // MIB:6} {wall:7.2f} {cpu:7.2f} '
              f'{wall / count * 1000:8.2f} {peak:9.1f}')
    server.stop()
    first, last = costs[FRAGMENT_COUNTS[0]], costs[FRAGMENT_COUNTS[-1]]
    check('time per fragment, longest / shortest', last[0] / first[0], TIME_LIMIT,
          last[0] / first[0] <= TIME_LIMIT)
    check('growth of peak memory in MiB', last[1] - first[1], MEMORY_LIMIT_MIB,
          last[1] - first[1] <= MEMORY_LIMIT_MIB)

    print(f'{DELAYED_FRAGMENTS} fragments of {DELAYED_BYTES // MIB} MiB, '
          f'{DELAY_SECONDS * 1000:.0f} ms before each answer, best of {ROUNDS}')
    walls = {}
    for pannel in (1, 2, 4, 8):
        server = Server(DELAYED_BYTES, DELAY_SECONDS)
        walls[pannel] = min(download(build, work, server.address, DELAYED_FRAGMENTS,
                                     DELAYED_BYTES, pannel)[0] for _ in range(ROUNDS))
        most = server.most_at_once()
        print(f'pannel {pannel}: {walls[pannel]:.2f} s, at most {most} requests at once')
        if most > pannel:
            missed.append('requests at once')
        server.stop()
    check('pannel 1 / pannel 8', walls[1] / walls[8], SPEEDUP_LIMIT,
          walls[1] / walls[8] >= SPEEDUP_LIMIT)
    sys.exit(f'missed: {", ".join(missed)}' if missed else 0)


main()
