"""Runs the benchmarks and prints what they give.

usage: run.py --build folder [--small] [--report file] [measurement ...]

--small takes seconds instead of minutes and judges nothing: it shows that the measurements work.
Ends with 1 when a bar is missed.
"""

import argparse
import dataclasses
import datetime
import importlib
import os
import shutil
import sys
import tempfile

import report

MEASUREMENTS = ('transfers', 'files', 'streams', 'manifests', 'parts', 'pages', 'engines', 'startup')


class Context:
    """What a measurement may use."""

    def __init__(self, build, is_small, folder, disk_folder):
        self.build = os.path.abspath(build)
        self.is_small = is_small
        self.pairs = 1 if is_small else 9
        self.many_pairs = 1 if is_small else 25  # where the ratio is near its bar
        self.folder = folder  # empty; in memory where there is room, so that no disk is measured
        self.disk_folder = disk_folder  # empty

    @staticmethod
    def skip(what, why):
        print(f'left out: {what}: {why}', flush=True)


def scratch_root(is_small, build):
    shared = '/dev/shm'
    needed = (1 << 28) if is_small else 12 << 30
    is_fit = os.access(shared, os.W_OK) and shutil.disk_usage(shared).free > needed
    return shared if is_fit else build


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--build', required=True)
    parser.add_argument('--small', action='store_true')
    parser.add_argument('--report')
    parser.add_argument('measurements', nargs='*', default=[], metavar='measurement')
    options = parser.parse_args()

    rows = []
    for name in options.measurements or MEASUREMENTS:
        root = scratch_root(options.small, options.build)
        with tempfile.TemporaryDirectory(prefix='bench.', dir=root) as folder, \
                tempfile.TemporaryDirectory(prefix='bench.', dir=options.build) as disk_folder:
            context = Context(options.build, options.small, folder, disk_folder)
            for row in importlib.import_module(name).measure(context):
                if options.small:
                    row = dataclasses.replace(row, bar=None)  # so little work shows nothing
                print(row, flush=True)
                rows.append(row)

    if options.report:
        with open(options.report, 'w') as file:
            file.write(report.page(rows, datetime.date.today().isoformat()))
    missed = [row for row in rows if not row.is_met]
    if missed:
        sys.exit(f'{len(missed)} of {len(rows)} bars missed')


main()
