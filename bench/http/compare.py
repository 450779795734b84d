"""Runs the downloads of http-download.sh and prints what they cost.

usage: compare.py server-address work-folder build-folder rounds
"""

import filecmp
import os
import subprocess
import sys
import time

MIB = 1 << 20
SIZE_MIB = 1024
TIME_LIMIT = 1.1
MEMORY_LIMIT_MIB = 32


def run(arguments):
    """Runs a command; returns wall seconds, processor seconds and peak memory in MiB."""
    environment = dict(os.environ, QT_QPA_PLATFORM='offscreen', no_proxy='*')
    start = time.monotonic()
    process = subprocess.Popen(arguments, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               env=environment)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.monotonic() - start
    if status != 0:
        sys.exit(f'{arguments[0]} failed with status {status}')
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024


class Bench:
    def __init__(self, address, work, build):
        self.address = address
        self.work = work
        self.build = build

    def fetch(self, command, mib):
        """Runs a command that writes the file of that size; checks what arrived."""
        target = f'{self.work}/arrived.mp4'
        if os.path.exists(target):
            os.remove(target)
        # What an earlier run left to be written out must not slow this one down.
        os.sync()
        cost = run([argument.format(address=self.address, mib=mib, target=target, bytes=mib * MIB)
                    for argument in command])
        if not filecmp.cmp(target, f'{self.work}/files/{mib}.mp4', shallow=False):
            sys.exit(f'{command[0]}: the file that arrived is another one')
        return cost

    def curl(self):
        return ['curl', '-sf', '-o', '{target}', '{address}/{mib}.mp4']

    def transfer(self):
        return [f'{self.build}/bench/httpdownload', '{address}/{mib}.mp4', '{target}', '{bytes}']

    def page_run(self):
        # A small file does not end the search, the time limit does.
        return [f'{self.build}/clipweir', '--url', '{address}/{mib}.html', '--saveto', '{target}',
                '--timeout', '6']


def main():
    address, work, build, rounds = sys.argv[1:5]
    bench = Bench(address, work, build)
    os.environ['CLIPWEIR_COOKIES'] = f'{work}/cookies.txt'

    costs = {'curl': [], 'clipweir': []}
    bench.fetch(bench.curl(), SIZE_MIB)  # so that both find the file in memory
    for _ in range(int(rounds)):
        costs['curl'].append(bench.fetch(bench.curl(), SIZE_MIB))
        costs['clipweir'].append(bench.fetch(bench.transfer(), SIZE_MIB))

    print(f'{SIZE_MIB} MiB from nginx on loopback to disk, {rounds} rounds')
    print(f'{"":10} {"wall s: best":>13} {"median":>7} {"cpu s: best":>13} {"median":>7}')
    best = {}
    for name, figures in costs.items():
        walls = sorted(figure[0] for figure in figures)
        cpus = sorted(figure[1] for figure in figures)
        best[name] = walls[0], cpus[0]
        middle = len(figures) // 2
        print(f'{name:10} {walls[0]:13.3f} {walls[middle]:7.3f} {cpus[0]:13.3f} {cpus[middle]:7.3f}')

    missed = []

    def check(what, value, limit, unit=''):
        print(f'{what}: {value:.2f}{unit} (limit {limit}{unit})')
        if value > limit:
            missed.append(what)

    for i, what in enumerate(('wall time', 'processor time')):
        check(f'{what} clipweir / curl', best['clipweir'][i] / best['curl'][i], TIME_LIMIT)
    for what, command in (('transfer', bench.transfer()), ('page run', bench.page_run())):
        growth = bench.fetch(command, SIZE_MIB)[2] - bench.fetch(command, 1)[2]
        check(f'peak memory of a {what}, {SIZE_MIB} MiB less 1 MiB', growth, MEMORY_LIMIT_MIB,
              ' MiB')
    sys.exit(f'over the limit: {", ".join(missed)}' if missed else 0)


main()
