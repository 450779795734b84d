"""Processor time and memory of a program with all the processes that it starts."""

import ctypes
import os
import subprocess
import sys
import time

from costs import Cost

SAMPLE_SECONDS = 0.02
PR_SET_CHILD_SUBREAPER = 36
TICKS = os.sysconf('SC_CLK_TCK')


def processor_seconds(pid):
    """User and system time of a process so far, its living threads included."""
    with open(f'/proc/{pid}/stat') as file:
        fields = file.read().rpartition(')')[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def seconds_with_children(pid):
    """The same, with the children that it has waited for and theirs."""
    with open(f'/proc/{pid}/stat') as file:
        fields = file.read().rpartition(')')[2].split()
    return sum(int(field) for field in fields[11:15]) / TICKS


def status_kib(pid, name):
    with open(f'/proc/{pid}/status') as file:
        return next(int(line.split()[1]) for line in file if line.startswith(f'{name}:'))


def peak(pid):
    """The peak memory of one process, in MiB."""
    return status_kib(pid, 'VmHWM') / 1024


def share(pid):
    """The memory of a process in KiB; what it shares is divided among those who share it."""
    try:
        with open(f'/proc/{pid}/smaps_rollup') as file:
            return next(int(line.split()[1]) for line in file if line.startswith('Pss:'))
    except (OSError, StopIteration):
        return 0


def descendants(root):
    parents = {}
    for name in os.listdir('/proc'):
        if not name.isdigit():
            continue
        try:
            with open(f'/proc/{name}/stat') as file:
                parents.setdefault(int(file.read().rpartition(')')[2].split()[1]),
                                   []).append(int(name))
        except OSError:
            pass
    found, waiting = [], [root]
    while waiting:
        children = parents.get(waiting.pop(), [])
        found += children
        waiting += children
    return found


def measured(arguments, result_to):
    """In a process of its own, so that everything that the program leaves is its child."""
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    start = time.monotonic()
    process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    highest, status, cpu = 0, None, 0.0
    while True:
        try:
            pid, ended, usage = os.wait4(-1, os.WNOHANG)
        except ChildProcessError:
            break
        if pid == 0:
            highest = max(highest, sum(share(child) for child in descendants(os.getpid())))
            time.sleep(SAMPLE_SECONDS)
            continue
        cpu += usage.ru_utime + usage.ru_stime
        if pid == process.pid:
            status = ended
    os.write(result_to, f'{status} {time.monotonic() - start} {cpu} {highest / 1024}'.encode())
    os._exit(0)


def run(arguments):
    """Runs a command with all that it starts; returns their cost."""
    result_from, result_to = os.pipe()
    child = os.fork()
    if child == 0:
        measured(arguments, result_to)
    os.close(result_to)
    os.waitpid(child, 0)
    with os.fdopen(result_from) as file:
        status, wall, cpu, highest = file.read().split()
    if status != '0':
        sys.exit(f'{arguments[0]} failed with status {status}')
    return Cost(float(wall), float(cpu), float(highest))
