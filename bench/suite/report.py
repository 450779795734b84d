"""The rows that the measurements give, on the terminal and as a page of the documentation."""

import dataclasses
import os
import platform
import shutil
import subprocess
from typing import Optional

from costs import Spread


@dataclasses.dataclass(frozen=True)
class Row:
    work: str
    against: str
    figure: str  # what is compared, such as "wall time, ratio"
    spread: Spread
    bar: Optional[float] = None  # None: for information
    at_least: bool = False  # the bar is a lower limit

    @property
    def is_met(self):
        if self.bar is None:
            return True
        value = self.spread.median
        return value >= self.bar if self.at_least else value <= self.bar

    @property
    def bar_text(self):
        if self.bar is None:
            return '-'
        return f'{"at least" if self.at_least else "at most"} {self.bar:g}'

    @property
    def verdict(self):
        return '' if self.bar is None else 'met' if self.is_met else 'MISSED'

    def __str__(self):
        return (f'{self.work} | {self.against} | {self.figure}: {self.spread}'
                f' | {self.bar_text} {self.verdict}').rstrip()


def machine():
    """Lines that describe the machine."""
    with open('/proc/cpuinfo') as info:
        models = [line.split(':')[1].strip() for line in info if line.startswith('model name')]
    with open('/proc/meminfo') as info:
        memory = int(info.readline().split()[1]) / 1024 / 1024
    release = platform.freedesktop_os_release().get('PRETTY_NAME', 'unknown system')
    return [f'{os.cpu_count()} x {models[0] if models else platform.machine()}, '
            f'{memory:.0f} GiB of memory', f'{release}, Linux {platform.release()}']


def versions(programs):
    """The first line that each installed program prints of its version."""
    lines = []
    for program, option in programs:
        if not shutil.which(program):
            continue
        result = subprocess.run([program, option], stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)
        first = result.stdout.strip().splitlines()[:1]
        lines.append(f'{program}: {first[0] if first else "unknown"}')
    return lines


PEERS = (('curl', '--version'), ('wget', '--version'), ('aria2c', '--version'),
         ('yt-dlp', '--version'), ('chromium', '--version'), ('nginx', '-v'),
         ('qmake', '--version'))


def page(rows, pairs, date):
    """The page of the documentation."""
    lines = ['# Benchmarks', '',
             f'Made by `scripts/bench.sh` on {date}; run it to make the page anew. Every figure is',
             f'the median of {pairs} pairs that ran in turn, with the lowest and the highest in',
             'brackets. A ratio is of what clipweir needs to what the other needs: less is better',
             'where the bar says "at most". The files are in memory where no disk is named.', '',
             '## Machine', '']
    lines += [f'- {line}' for line in machine() + versions(PEERS)]
    lines += ['', '## Results', '', '| work | against | figure | result | bar | |',
              '|---|---|---|---|---|---|']
    lines += [f'| {row.work} | {row.against} | {row.figure} | {row.spread} | {row.bar_text} '
              f'| {row.verdict} |' for row in rows]
    return '\n'.join(lines) + '\n'
