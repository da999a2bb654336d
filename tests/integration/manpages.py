#!/usr/bin/env python3
"""manpages.py MAN HELP...: the page MAN tells of every option and every exit code that the programs' help tells of, and
of no others. A HELP is a command, its words joined by commas."""
import pathlib
import re
import subprocess
import sys


def options_of(text):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z-]+", text))


def main():
    page = re.sub(r"\\f[A-Z]", "", pathlib.Path(sys.argv[1]).read_text()).replace("\\-", "-")
    help_text = "".join(subprocess.run(command.split(","), stdout=subprocess.PIPE, text=True, check=True).stdout
                        for command in sys.argv[2:])
    if "Usage:" not in help_text:
        sys.exit("the programs gave no help")
    # What another program's options are called is not ours to tell of.
    known = options_of(help_text)
    missing = known - options_of(page)
    strange = options_of(page) - known
    if missing or strange or len(known) < 5:
        sys.exit(f"{sys.argv[1]}: not told of: {sorted(missing)}; told of and not there: {sorted(strange)}")
    codes = re.search(r"^\.SH EXIT STATUS\n(.*?)^\.SH", page, re.M | re.S)
    told = {int(code) for code in re.findall(r"^(\d+)\t", codes.group(1), re.M)} if codes else set()
    wanted = help_text[re.search(r"Exit (codes|status)", help_text).start():]
    wanted = wanted[:wanted.index("\n\n")]
    listed = {int(code) for code in re.findall(r"(?:^|[\s,:])(\d+)\s+[a-z]", wanted)}
    if told != listed or len(told) < 3:
        sys.exit(f"{sys.argv[1]}: exit codes {sorted(told)}, the help has {sorted(listed)}")


main()
