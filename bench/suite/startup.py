"""How long the program takes to start where it needs no engine."""

from costs import in_turn, ratios, run
from report import Row

RUNS = 10  # in one figure: a single start is too short to time


def measure(context):
    environment = {'HOME': context.folder, 'XDG_RUNTIME_DIR': context.folder}

    def starts(command):
        costs = [run(command, environment) for _ in range(RUNS)]
        return min(costs, key=lambda cost: cost.wall)

    own, empty = in_turn(
        lambda: starts([f'{context.build}/clipweir', '--exit', '--url', context.folder]),
        lambda: starts([f'{context.build}/bench/emptyprogram']), context.pairs)
    for figure, name in (('wall', 'wall time'), ('cpu', 'processor time')):
        yield Row('start: clipweir --exit', 'an empty widget application', f'{name}, ratio',
                  ratios(own, empty, figure), 1.5)
