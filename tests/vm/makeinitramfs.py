#!/usr/bin/env python3
"""makeinitramfs.py KERNELROOT BUSYBOX INIT OUT MODULE...

Writes a small initramfs: busybox, /init, and the named kernel modules with everything they depend on. /mods/order lists
them in the order to insert, each with the module it was asked for by. Needs Python only: no cpio, no kmod.
"""

import gzip
import io
import lzma
import os
import re
import stat
import sys


def normalized(path):
    """A module's name: the kernel takes - and _ for the same."""
    return os.path.basename(path).split(".ko")[0].replace("-", "_")


class Modules:
    """The modules of an unpacked kernel package, and those chosen from it with what they need, in order."""

    def __init__(self, kernel_root):
        folder = os.path.join(kernel_root, "lib/modules")
        self.version = os.listdir(folder)[0]
        base = os.path.join(folder, self.version)
        self.files = {}
        for path, _, names in os.walk(os.path.join(base, "kernel")):
            self.files.update((normalized(n), os.path.join(path, n)) for n in names if ".ko" in n)
        with open(os.path.join(base, "modules.builtin")) as lines:
            self.builtin = {normalized(line.strip()) for line in lines}
        self.chosen = {}  # name -> (asked for by, content), in the order to insert

    def add(self, name, asked_by):
        if name in self.chosen or name in self.builtin:
            return
        if name not in self.files:
            sys.exit(f"makeinitramfs: kernel {self.version} has no module {name}")
        with open(self.files[name], "rb") as file:
            content = file.read()
        if self.files[name].endswith(".xz"):
            content = lzma.decompress(content)
        depends = re.search(rb"\0depends=([^\0]*)\0", content)
        if depends and depends.group(1):
            for needed in depends.group(1).decode().split(","):
                self.add(needed.replace("-", "_"), asked_by)
        self.chosen[name] = (asked_by, content)


class Archive:
    """A cpio archive in the "new ASCII" layout that the kernel unpacks."""

    def __init__(self):
        self.buffer = io.BytesIO()
        self.inode = 0

    def add(self, name, mode, content=b"", device=(0, 0)):
        self.inode += 1
        path = name.encode() + b"\0"
        fields = (self.inode, mode, 0, 0, 1, 0, len(content), 0, 0, *device, len(path), 0)
        self.buffer.write(b"070701" + b"".join(b"%08X" % value for value in fields) + path)
        self.pad()
        self.buffer.write(content)
        self.pad()

    def pad(self):
        self.buffer.write(b"\0" * (-self.buffer.tell() % 4))


def main():
    kernel_root, busybox, init, out, *wanted = sys.argv[1:]
    modules = Modules(kernel_root)
    for name in wanted:
        modules.add(normalized(name), normalized(name))

    archive = Archive()
    for folder in ("bin", "dev", "proc", "sys", "root", "mods"):
        archive.add(folder, stat.S_IFDIR | 0o755)
    archive.add("dev/console", stat.S_IFCHR | 0o600, device=(5, 1))
    with open(busybox, "rb") as file:
        archive.add("bin/busybox", stat.S_IFREG | 0o755, file.read())
    archive.add("bin/sh", stat.S_IFLNK | 0o777, b"busybox")
    with open(init, "rb") as file:
        archive.add("init", stat.S_IFREG | 0o755, file.read())
    for name, (_, content) in modules.chosen.items():
        archive.add(f"mods/{name}.ko", stat.S_IFREG | 0o644, content)
    order = "".join(f"{asked_by} {name}\n" for name, (asked_by, _) in modules.chosen.items())
    archive.add("mods/order", stat.S_IFREG | 0o644, order.encode())
    archive.add("TRAILER!!!", 0)

    # Into place by renaming: two virtual machines may be started at once.
    partial = f"{out}.{os.getpid()}"
    with gzip.GzipFile(partial, "wb", 1, mtime=0) as packed:
        packed.write(archive.buffer.getvalue())
    os.rename(partial, out)


main()
