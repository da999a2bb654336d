#!/usr/bin/env python3
"""completion.py SCRIPT MAN ZEVSHM: the bash completion SCRIPT offers what the program's help tells of and nothing else:
every command, every option of each, which of them take a value, and the stores that are there. Every command has a
place in the page MAN, with all of its options."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

script, page, zevshm = sys.argv[1:]
faults = []


def expect(what, got, wanted):
    if got != wanted:
        faults.append(f"{what}: {sorted(got)}, not {sorted(wanted)}")


def help_of(*words):
    return subprocess.run([zevshm, *words, "--help"], stdout=subprocess.PIPE, text=True, check=True).stdout


def bash(text, *arguments):
    done = subprocess.run(["bash", "-c", "set -u\nsource \"$1\"\nshift\n" + text, "bash", script, *arguments],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if done.returncode != 0 or done.stderr:
        sys.exit(f"bash: exit {done.returncode}: {done.stderr}")
    return set(done.stdout.split("\n")) - {""}


def complete(*words):
    """What is offered for the last word of a command line."""
    return bash("COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _zevshm; printf '%s\\n' \"${COMPREPLY[@]}\"", zevshm, *words)


usage = help_of()
listed = usage[usage.index("Commands:"):]
commands = re.findall(r"^  ([a-z]+) ", listed[:listed.index("\n\n")], re.M)
if len(commands) < 4:
    sys.exit(f"the help lists only {commands}")
manual = re.sub(r"\\f[A-Z]", "", pathlib.Path(page).read_text()).replace("\\-", "-")

expect("commands", complete(""), {*commands, "--help", "--version"})
for command in commands:
    told = help_of(command)
    options = dict(re.findall(r"^  (--[a-z0-9-]+)(?: (\S+))?  +\S", told, re.M))
    if "--help" not in options:
        sys.exit(f"{command}: no options in its help")
    expect(f"options of {command}", complete(command, "--"), set(options))
    values = {option for option, value in options.items() if value}
    offered = {word[:-1] for word in bash(f"_zevshm_options {command} | tr ' ' '\\n'") if word.endswith("=")}
    expect(f"options of {command} with a value", offered, values)
    section = re.search(rf"^\.SH {command.upper()}\n(.*?)(?=^\.SH )", manual, re.M | re.S)
    synopsis = manual[:manual.index(".SH DESCRIPTION")]
    if not section or f"zevshm {command}" not in synopsis:
        faults.append(f"{command}: no section of its own in the man page, or not in its synopsis")
        continue
    # --help is told of once for all.
    in_manual = set(re.findall(r"--[a-z][a-z0-9-]+", section.group(1)))
    missing = set(options) - in_manual - {"--help"}
    if missing:
        faults.append(f"{command}: the man page does not tell of {sorted(missing)}")
    if "Examples:" not in told:
        faults.append(f"{command}: no examples in its help")

expect("beginnings", complete("sn"), {"snapshot"})
expect("values", complete("publish", "--format", "y"), {"yuv420p", "yvu420p"})
expect("values after =", complete("publish", "--format", "=", "n"), {"nv12"})
expect("values right after =", complete("dump", "--format", "="), {"png", "y4m"})
with tempfile.TemporaryDirectory() as stores:
    os.environ["ZEV_SHM_DIR"] = stores
    expect("stores where there are none", complete("info", ""), set())
    publishers = [subprocess.Popen([zevshm, "publish", name, "test:", "--size", "320x240"]) for name in ("cam1", "cam2")]
    try:
        limit = time.monotonic() + 60
        while time.monotonic() < limit and complete("info", "") != {"cam1", "cam2"}:
            time.sleep(0.05)
        expect("stores", complete("info", ""), {"cam1", "cam2"})
        expect("stores after options", complete("record", "--seconds", "5", "--overwrite", "cam1"), {"cam1"})
        expect("stores after an option with =", complete("record", "--seconds", "=", "5", "cam2"), {"cam2"})
        expect("no third word", complete("info", "cam1", "c"), set())
    finally:
        for publisher in publishers:
            publisher.terminate()
            publisher.wait()
    pathlib.Path(stores, "film.mkv").touch()
    os.chdir(stores)
    expect("files", complete("publish", "cam1", "fi"), {"film.mkv"})
    expect("inputs", complete("publish", "cam1", "te"), {"test:"})
    expect("files to write", complete("record", "cam1", "fi"), {"film.mkv"})
    expect("outputs", complete("relay", "cam1", "rt"), {"rtsp://", "rtmp://"})

if faults:
    sys.exit("\n".join(faults))
