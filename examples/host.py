#!/usr/bin/env python3
"""A host for clipweir: runs it, shows a progress bar, and prints what was found.

usage: host.py program page-address [clipweir option ...]

Ctrl-C asks the run to stop by a second run with "--exit"; another Ctrl-C kills it.
Exit codes: 0 the video arrived, 1 it did not, 130 stopped.
"""

import json
import re
import signal
import subprocess
import sys

PARSING = ' parsing... '
PROGRESS = re.compile(r'"downloaded:(-?\d+)/(-?\d+)" ')
FINISHED = re.compile(r'(thumb|video) download finished:(success|failed|canceled) ')
BAR_WIDTH = 40


class Host:
    def __init__(self, program, page, options):
        self.program = program
        self.page = page
        self.record = None
        self.results = {}
        self.listening = False  # the run can be asked to stop
        self.stop_wanted = False
        self.exit_run = None
        # In a session of its own the program does not get the terminal's Ctrl-C: stopping it is
        # this program's decision.
        self.run = subprocess.Popen([program, '--url', page, *options], stderr=subprocess.PIPE,
                                    start_new_session=True)

    def work(self):
        signal.signal(signal.SIGINT, self.interrupted)
        print('looking for a video ...', flush=True)
        for line in self.run.stderr:
            self.take(line.decode('utf-8', 'replace').rstrip('\n'))
        self.run.wait()
        if self.exit_run:
            self.exit_run.wait()
        return self.report()

    def take(self, line):
        if line.startswith('"{') and line.endswith('" '):
            self.record = json.loads(line[1:-2])
        elif line.endswith(PARSING):
            self.listening = True
            self.ask_to_stop()
        elif match := PROGRESS.fullmatch(line):
            self.show_progress(int(match[1]), int(match[2]))
        elif match := FINISHED.fullmatch(line):
            self.results[match[1]] = match[2]

    @staticmethod
    def show_progress(received, total):
        if total > 0:
            share = min(received / total, 1)
            bar = '#' * int(share * BAR_WIDTH)
            print(f'\r[{bar:<{BAR_WIDTH}}] {share:4.0%} of {total} bytes', end='', flush=True)
        else:  # the server did not say how long the file is
            print(f'\r{received} bytes', end='', flush=True)

    def interrupted(self, *_):
        if self.stop_wanted:
            self.run.kill()
        self.stop_wanted = True
        self.ask_to_stop()

    def ask_to_stop(self):
        if self.stop_wanted and self.listening and not self.exit_run:
            self.exit_run = subprocess.Popen([self.program, '--exit', '--url', self.page],
                                             stderr=subprocess.DEVNULL, start_new_session=True)

    def report(self):
        print()
        for what, how in self.results.items():
            print(f'{what}: {how}')
        if self.record:
            print(json.dumps(self.record, indent=4, ensure_ascii=False))
        else:
            print('no video was found')
        if self.results.get('video') == 'success':
            return 0
        if self.stop_wanted:
            print('stopped')
            return 130
        if self.run.returncode != 0:
            print(f'the program ended with exit code {self.run.returncode}')
        return 1


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    try:
        host = Host(sys.argv[1], sys.argv[2], sys.argv[3:])
    except OSError as error:
        sys.exit(f'{sys.argv[1]} does not start: {error}')
    sys.exit(host.work())


main()
