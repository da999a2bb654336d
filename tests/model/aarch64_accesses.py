#!/usr/bin/env python3
"""Looks at what the four deciding accesses of the frame store (R1, R2, W1, W2 of protocol.h) become on AArch64.

    aarch64_accesses.py SOURCES COMPILER [--break]

SOURCES is the source tree, COMPILER a cross compiler for AArch64. R1 and W1 have to be stlr, R2 and W2 ldar: these two
are not reordered with each other, which is what protocol.h argues with. An emulator does not reorder, so that running
the tests in it says nothing of this. The lines are found by their marks in the source. --break weakens each access in
a copy of the source and passes when that is found every time.
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

STRONG = {"load": "ldar", "store": "stlr"}
# Where the access is, the translation unit that it is looked at in, and the text that names its line.
ACCESSES = {
    "R1": ("reader_video.cpp", "reader_video.cpp", "lock.store(word, std::memory_order_seq_cst);"),
    "R2": ("reader_video.cpp", "reader_video.cpp", "if (current.load(std::memory_order_seq_cst) != generation)"),
    "W1": ("publisher.cpp", "publisher.cpp", "m_store.index.generations[slot].value.store(0, std::memory_order_seq_cst);"),
    "W2": ("lock_words.h", "publisher.cpp", "page.locks[i].load(std::memory_order_seq_cst);"),
}


def lines_of(path, text):
    found = [i for i, line in enumerate(path.read_text().splitlines(), 1) if text in line]
    if not found:
        sys.exit(f"{path.name} has no line with '{text}': this check has to follow the source")
    return found


def disassembly(compiler, tree, unit):
    """With source lines, inlined ones included."""
    shm = tree / "platform/shm"
    with tempfile.TemporaryDirectory() as scratch:
        made = pathlib.Path(scratch) / "unit.o"
        subprocess.run([compiler, "-std=c++17", "-O2", "-g", "-fPIC", "-DNDEBUG", "-DSHM_BUILDING", f"-I{shm}/include",
                        f"-I{shm}/src", "-c", str(shm / "src" / unit), "-o", str(made)], check=True)
        objdump = re.sub(r"(g\+\+|clang\+\+)([-0-9.]*)$", "objdump", compiler)
        return subprocess.run([objdump, "-dl", "--inlines", "--no-show-raw-insn", str(made)], check=True, capture_output=True,
                              text=True).stdout


def instructions(listing, header, lines):
    """Mnemonics that the debug information puts on these lines."""
    # An access is inlined from <atomic>: the line is further up in the chain that comes before its instructions.
    here = False
    in_chain = False
    found = []
    for line in listing.splitlines():
        position = re.match(r"\s*(?:inlined by )?\S*/([^/\s:]+):(\d+)", line)
        instruction = re.match(r"\s+[0-9a-f]+:\s+([a-z][a-z0-9.]*)", line)
        if instruction:
            in_chain = False
            if here:
                found.append(instruction[1])
        elif position:
            here = (in_chain and here) or (position[1] == header and int(position[2]) in lines)
            in_chain = True
    return found


def weak_accesses(compiler, tree):
    weak = []
    listings = {}
    for name, (header, unit, text) in ACCESSES.items():
        lines = lines_of(tree / "platform/shm/src" / header, text.replace("seq_cst", ORDER.get(name, "seq_cst")))
        if unit not in listings:
            listings[unit] = disassembly(compiler, tree, unit)
        found = instructions(listings[unit], header, lines)
        wanted = STRONG["store" if ".store(" in text else "load"]
        if wanted not in found:
            weak.append(name)
        print(f"{name} {header}:{lines[0]}: {' '.join(found)}: {'as it must be' if wanted in found else 'NOT ' + wanted}")
    return weak


ORDER = {}  # of the accesses that --break has weakened

if len(sys.argv) < 3:
    sys.exit(__doc__)
sources, compiler = pathlib.Path(sys.argv[1]), sys.argv[2]
if sys.argv[3:] != ["--break"]:
    sys.exit(1 if weak_accesses(compiler, sources) else 0)

for name, (header, unit, text) in ACCESSES.items():
    with tempfile.TemporaryDirectory() as scratch:
        tree = pathlib.Path(scratch)
        shutil.copytree(sources / "platform/shm", tree / "platform/shm")
        path = tree / "platform/shm/src" / header
        path.write_text(path.read_text().replace(text, text.replace("seq_cst", "relaxed")))
        ORDER = {name: "relaxed"}
        if weak_accesses(compiler, tree) != [name]:
            sys.exit(f"{name} as a relaxed access was not found")
