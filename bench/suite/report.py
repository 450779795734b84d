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
            f'{memory:.0f} GiB of memory', f'{release}, Linux {platform.release().partition("-")[0]}']


def versions(programs):
    """The first line that each installed program prints of its version."""
    lines = []
    for program, option in programs:
        if not shutil.which(program):
            continue
        result = subprocess.run([program, option], capture_output=True, text=True)
        first = (result.stdout or result.stderr).strip().splitlines()[:1]
        lines.append(f'{program}: {first[0].partition(" (")[0] if first else "unknown"}')
    return lines


PEERS = (('curl', '--version'), ('wget', '--version'), ('aria2c', '--version'),
         ('yt-dlp', '--version'), ('ffmpeg', '-version'), ('chromium', '--version'), ('nginx', '-v'),
         ('qmake', '--version'))


REMARKS = '''
## Remarks

- A fragment of a stream is written twice: to the cache, by which an interrupted download goes on
  where it stopped, and to the file. Parallel transfers of curl write it once, and in memory that is
  half of what they do. On a disk the large writes of clipweir make up for it.
- Responses are read by the toolkit's HTTP code, their headers byte by byte: a tenth of a
  millisecond for each fragment, which small fragments feel.
- The server that gives 10 MB a second gives each request its first second's share at once. A file
  in pieces is more requests than one that is cut in eight, and gains some percent by that.
'''


def page(rows, date):
    """The page of the documentation."""
    lines = ['# Benchmarks', '',
             f'Made by `scripts/bench.sh` on {date}; run it to make the page anew. Every figure is',
             'the median of pairs that ran in turn (of 9, or of 25 where the ratio is near its',
             'bar), with the lowest and the highest in brackets. A ratio is of what clipweir needs',
             'to what the other needs: less is better where the bar says "at most". The files are',
             'in memory where no disk is named. A virtual machine may have to fetch that memory',
             'from its host first, which costs more than the transfer: hence the outliers.', '',
             '## Machine', '']
    lines += [f'- {line}' for line in machine() + versions(PEERS)]
    lines += ['', '## Results', '', '| work | against | figure | result | bar | |',
              '|---|---|---|---|---|---|']
    lines += [f'| {row.work} | {row.against} | {row.figure} | {row.spread} | {row.bar_text} '
              f'| {row.verdict} |' for row in rows]
    return '\n'.join(lines) + '\n' + REMARKS
