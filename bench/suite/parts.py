"""The program's inner parts, in memory."""

import json
import subprocess
import sys

from costs import Spread
from report import Row

SIZES = (1_000_000, 4_000_000, 16_000_000)
LINEAR = 2  # a quadratic scan would show the factor between the sizes, 4 or 16


def figures(context):
    """For every benchmark its processor times in ms, repetition by repetition."""
    arguments = [f'{context.build}/bench/bench_parts', '--benchmark_format=json',
                 f'--benchmark_repetitions={context.pairs}',
                 '--benchmark_enable_random_interleaving=true']
    if context.is_small:
        arguments += ['--benchmark_min_time=0.01', '--benchmark_filter=-/16000000']
    result = subprocess.run(arguments, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    if result.returncode != 0:
        sys.exit(f'bench_parts: exit code {result.returncode}')
    times = {}
    for run in json.loads(result.stdout)['benchmarks']:
        if run.get('error_occurred'):
            sys.exit(f'{run["name"]}: {run["error_message"]}')
        if run['run_type'] == 'iteration':
            times.setdefault(run['run_name'], []).append((run['repetition_index'],
                                                          run['cpu_time']))
    return {name: [time for _, time in sorted(runs)] for name, runs in times.items()}


def quotient(first, second):
    return Spread.of([a / b for a, b in zip(first, second)])


def measure(context):
    times = figures(context)
    yield Row('manifest stage, 12 renditions with 200 kB of bootstrap each',
              'one pass of QXmlStreamReader', 'processor time, ratio',
              quotient(times['manifestStage'], times['manifestReader']), 20)
    yield Row('FLV assembly of 1 MiB fragments', 'memcpy of the same bytes',
              'processor time, ratio', quotient(times['assembly'], times['copy']), 4)
    for kind in ('ordinary', 'hostile'):
        pages = {size: times[f'scan/{kind}/{size}'] for size in SIZES
                 if f'scan/{kind}/{size}' in times}
        for size, page in pages.items():
            megabytes = Spread.of([size / 1000 / time for time in page])
            yield Row(f'scan of {size // 1_000_000} MB of {kind} page text', 'itself',
                      'MB in a second', megabytes, 100 if kind == 'ordinary' else None,
                      at_least=True)
            if size != SIZES[0]:
                yield Row(f'scan of {size // 1_000_000} MB of {kind} page text', '1 MB of it',
                          'processor time for each MB, ratio',
                          quotient([time * SIZES[0] / size for time in page], pages[SIZES[0]]),
                          LINEAR)
