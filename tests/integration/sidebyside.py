"""Runs test programs at the same time, for those that wait most of the time; then shows what each printed.

    sidebyside.py -- PROGRAM ARGUMENT... [-- PROGRAM ARGUMENT...]...

Exit status: 1 when one of them failed, else 77 when one skipped something, else 0. What comes last is the output of one
that decided it. None of them outlives this program.
"""
import ctypes
import re
import signal
import subprocess
import sys
import tempfile

# As CTest recognizes them (tests/CMakeLists.txt): GTest's and Qt Test's last words.
SKIPPED = [r"\n.  SKIPPED . [^\n]+\n\Z",
           r"\nTotals: [0-9]+ passed, 0 failed, [1-9][0-9]* skipped, [^\n]*\n[*]+ Finished testing of [^\n]*\n\Z"]
PR_SET_PDEATHSIG = 1


def commands(arguments):
    result = []
    for argument in arguments:
        if argument == "--":
            result.append([])
        elif not result:
            raise SystemExit(__doc__)
        else:
            result[-1].append(argument)
    if not result or not all(result):
        raise SystemExit(__doc__)
    return result


def verdict(status, output):
    """0 passed, 1 skipped, 2 failed: in the order in which they are shown."""
    if status == 77 or status == 0 and any(re.search(pattern, output) for pattern in SKIPPED):
        return 1
    return 0 if status == 0 else 2


def main():
    libc = ctypes.CDLL(None)
    runs = []
    for command in commands(sys.argv[1:]):
        output = tempfile.TemporaryFile()
        runs.append((command, output, subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
            preexec_fn=lambda: libc.prctl(PR_SET_PDEATHSIG, signal.SIGTERM))))
    results = []
    for command, output, process in runs:
        status = process.wait()
        output.seek(0)
        text = output.read().decode(errors="replace")
        results.append((verdict(status, text), command, status, text))
    results.sort(key=lambda result: result[0])
    for _, command, status, text in results:
        print(f"{' '.join(command)}: {'signal' if status < 0 else 'exit status'} {abs(status)}\n{text}", end="")
    return (0, 77, 1)[results[-1][0]]


if __name__ == "__main__":
    sys.exit(main())
