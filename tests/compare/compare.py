#!/usr/bin/env python3
"""Puts the same faults to three ways that video takes between processes on one machine, and prints what each did: the frame
store (zevshm publish, and a reader that opens the store anew when its writer has gone), GStreamer's shmsink and shmsrc, and
PipeWire (pipewiresink and pipewiresrc, a daemon and a session manager of its own).

  tests/compare/compare.py [--json] [store] [gstreamer] [pipewire]    all of them, or these

Needs a release build; for the others gst-launch-1.0 with its base, bad and pipewire plugins, pipewire, wireplumber and
dbus-run-session (Debian: gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-bad gstreamer1.0-pipewire pipewire
pipewire-bin wireplumber dbus-daemon). Takes about a minute and a half each. It is not a test: nothing of what the others do is
required, and of the store only what tests already require.

Every consumer prints a line for each frame it gets; the times are those of the lines. Processes are not restarted by this
program when they end: what ends stays ended, unless the fault is a restart. A pipeline that is to live on can be written as a
program around GStreamer's and PipeWire's libraries; what is compared is what comes with each of them.
"""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BIN = ROOT / "build" / "release" / "bin"
FPS = 25
CAPS = "video/x-raw,format=I420,width={0},height={1},framerate=25/1"
SIZE = (640, 360)
OTHER_SIZE = (320, 240)
STOPPED_S = 10
CONSUMER_KILLS = 30


class Process:
    """A program whose standard output is read, a time for every line that tells of a frame."""

    def __init__(self, command, environment):
        self.frames = []
        self.text = []
        self.child = subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                      start_new_session=True)
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.child.stdout:
            if line.startswith("frame ") or "last-message = chain" in line:
                self.frames.append(time.monotonic())
            elif "last-message" not in line:
                self.text.append(line.strip())

    def send(self, number):
        try:
            os.killpg(self.child.pid, number)
        except ProcessLookupError:
            pass

    def kill(self):
        self.send(signal.SIGKILL)
        self.child.wait()
        self.reader.join(5)

    @property
    def ended(self):
        return self.child.poll() is not None

    def wait_frames(self, count, limit_s=20):
        """Whether so many more frames come."""
        wanted = len(self.frames) + count
        end = time.monotonic() + limit_s
        while len(self.frames) < wanted and time.monotonic() < end and not self.ended:
            time.sleep(0.01)
        return len(self.frames) >= wanted

    def since(self, begin, end=None):
        return [t for t in list(self.frames) if t >= begin and (end is None or t < end)]

    def longest_gap(self, begin, end):
        times = [begin, *self.since(begin, end), end]
        return max(b - a for a, b in zip(times, times[1:]))

    def complaint(self):
        """What it said when it failed."""
        for line in self.text:
            if re.search(r"error|fail|could not|cannot", line, re.I):
                return line
        return ""


class Transport:
    """A folder and an environment of its own, and how its producers and consumers are started."""

    def __init__(self):
        self.folder = Path(tempfile.mkdtemp(prefix="compare-"))
        self.folder.chmod(0o700)
        self.home = tempfile.mkdtemp(prefix="compare-home-")
        self.environment = dict(os.environ, HOME=self.home, XDG_RUNTIME_DIR=str(self.folder), ZEV_SHM_DIR=str(self.folder),
                                LC_ALL="C")
        self.processes = []

    def start(self, command):
        process = Process(command, self.environment)
        self.processes.append(process)
        return process

    def close(self):
        for process in reversed(self.processes):
            process.kill()
        shutil.rmtree(self.folder, ignore_errors=True)
        shutil.rmtree(self.home, ignore_errors=True)


class Store(Transport):
    name = "the frame store"

    def producer(self, size=SIZE):
        return self.start([str(BIN / "zevshm"), "publish", "compare", "test:", "--fps", str(FPS), "--size", "%dx%d" % size,
                           "--no-audio"])

    def consumer(self):
        return self.start([str(BIN / "frame_lines"), "compare"])


class GStreamer(Transport):
    name = "shmsink, shmsrc"

    def producer(self, size=SIZE):
        return self.start(["gst-launch-1.0", "videotestsrc", "is-live=true", "!", CAPS.format(*size), "!", "shmsink",
                           f"socket-path={self.folder}/socket", "wait-for-connection=false"])

    def consumer(self):
        # The reader has to know the format.
        return self.start(["gst-launch-1.0", "-v", "shmsrc", f"socket-path={self.folder}/socket", "is-live=true",
                           "do-timestamp=true", "!", CAPS.format(*SIZE), "!", "identity", "silent=false", "!", "fakesink",
                           "sync=false"])


class PipeWire(Transport):
    name = "PipeWire"

    def __init__(self):
        super().__init__()
        self.bus = self.start(["dbus-daemon", "--session", "--nofork", f"--address=unix:path={self.folder}/bus"])
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={self.folder}/bus"
        time.sleep(0.5)
        self.start(["pipewire"])
        time.sleep(1)
        self.start(["wireplumber"])
        time.sleep(3)

    def producer(self, size=SIZE):
        return self.start(["gst-launch-1.0", "videotestsrc", "is-live=true", "!", CAPS.format(*size), "!", "pipewiresink",
                           "mode=provide", "stream-properties=props,media.class=Video/Source,node.name=compare"])

    def consumer(self):
        return self.start(["gst-launch-1.0", "-v", "pipewiresrc", "target-object=compare", "!", "video/x-raw", "!", "identity",
                           "silent=false", "!", "fakesink", "sync=false"])


TRANSPORTS = {"store": Store, "gstreamer": GStreamer, "pipewire": PipeWire}


class NoPicture(Exception):
    pass


def begin(transport, consumers):
    """A producer, and consumers that all get frames."""
    producer = transport.producer()
    time.sleep(1.5)
    readers = [transport.consumer() for _ in range(consumers)]
    for reader in readers:
        if not reader.wait_frames(2 * FPS):
            raise NoPicture(reader.complaint() or producer.complaint() or "no frames at all")
    return producer, readers


def mapping_rights(process):
    """The rights of the consumer's shared mappings that are larger than half a luma plane."""
    rights = set()
    for line in Path(f"/proc/{process.child.pid}/maps").read_text().splitlines():
        extent, mode, *_ = line.split()
        first, last = (int(x, 16) for x in extent.split("-"))
        if mode[3] == "s" and last - first > SIZE[0] * SIZE[1] // 2:
            rights.add(mode)
    return sorted(rights)


def producer_killed(transport):
    """kill -9 of the producer; 3 s later another, of another size, is started with the same command."""
    def files():
        # In /dev/shm other programs of this machine may make some at the same time, too.
        return {*transport.folder.iterdir(), *Path("/dev/shm").iterdir()}
    without = files()
    producer, (reader,) = begin(transport, 1)
    result = {"rights_of_readers_mapping": mapping_rights(reader)}
    producer.kill()
    killed = time.monotonic()
    time.sleep(3)
    result["reader_ended"] = reader.ended
    result["reader_said"] = reader.complaint()
    frames = reader.since(killed)
    result["last_frame_after_s"] = round(frames[-1] - killed, 3) if frames else 0
    result["files_left"] = sorted(p.name for p in files() - without)
    again = transport.producer(OTHER_SIZE)
    started = time.monotonic()
    reader.wait_frames(2 * FPS, 8)
    frames = reader.since(started)
    result["new_producer_ended"] = again.ended
    result["new_producer_said"] = again.complaint()
    result["reader_frames_again_s"] = round(frames[0] - started, 3) if frames else None
    result["reader_frames_in_8s"] = len(frames)
    return result


def consumers_killed(transport):
    """Consumers are stopped with frames in their hands and killed with -9, one after the other, beside one that reads on."""
    producer, (watcher,) = begin(transport, 1)
    descriptors = lambda: len(list(Path(f"/proc/{producer.child.pid}/fd").iterdir()))
    before = descriptors()
    begun = time.monotonic()
    got = 0
    for _ in range(CONSUMER_KILLS):
        victim = transport.consumer()
        got += victim.wait_frames(3, 5)
        victim.send(signal.SIGSTOP)
        time.sleep(0.1)
        victim.kill()
        if producer.ended or watcher.ended:
            break
    done = time.monotonic()
    alive = watcher.wait_frames(FPS, 5)
    # The server of a transport has had time to notice.
    time.sleep(1)
    return {"victims_that_got_frames": got, "watcher_fps": round(len(watcher.since(begun, done)) / (done - begun), 1),
            "watcher_longest_gap_s": round(watcher.longest_gap(begun, done), 3), "watcher_alive": alive,
            "producer_ended": producer.ended,
            "producer_descriptors": None if producer.ended else f"{before} -> {descriptors()}"}


def consumer_stopped(transport):
    """A consumer is stopped for 10 s beside one that reads on, and then continues."""
    producer, (victim, watcher) = begin(transport, 2)
    begun = time.monotonic()
    victim.send(signal.SIGSTOP)
    time.sleep(STOPPED_S)
    victim.send(signal.SIGCONT)
    continued = time.monotonic()
    result = {"watcher_fps": round(len(watcher.since(begun, continued)) / STOPPED_S, 1),
              "watcher_longest_gap_s": round(watcher.longest_gap(begun, continued), 3)}
    alive = watcher.wait_frames(FPS, 8)
    result["watcher_alive_after"] = alive
    victim.wait_frames(4 * FPS, 6)
    burst = victim.since(continued, continued + 0.3)
    result["victim_frames_in_first_300ms"] = len(burst)
    result["victim_alive_after"] = len(victim.since(continued + 1)) > FPS
    for who, process in ("victim", victim), ("watcher", watcher), ("producer", producer):
        result[who + "_ended"] = process.ended
        result[who + "_said"] = process.complaint()
    return result


FAULTS = {"producer killed, restarted with another size": producer_killed,
          "consumers killed with frames in hand": consumers_killed,
          "a consumer stopped for 10 s": consumer_stopped}


def main():
    as_json = "--json" in sys.argv
    names = [a for a in sys.argv[1:] if a != "--json"] or list(TRANSPORTS)
    if "-h" in names or "--help" in names:
        print(__doc__.strip())
        return 0
    unknown = [name for name in names if name not in TRANSPORTS]
    if unknown:
        print(f"compare: no '{unknown[0]}'; there are {', '.join(TRANSPORTS)}", file=sys.stderr)
        return 2
    everything = {}
    for name in names:
        for fault, run in FAULTS.items():
            transport = TRANSPORTS[name]()
            try:
                result = run(transport)
            except NoPicture as error:
                result = {"no picture": str(error)}
            except FileNotFoundError as error:
                if str(error.filename).startswith("/proc/"):
                    result = {"no picture": "a process ended by itself"}
                else:
                    print(f"compare: no {error.filename}; see --help for what is needed", file=sys.stderr)
                    return 1
            finally:
                transport.close()
            everything.setdefault(name, {})[fault] = result
            if not as_json:
                print(f"{TRANSPORTS[name].name}: {fault}")
                for key, value in result.items():
                    print(f"    {key.replace('_', ' ')}: {value}")
                sys.stdout.flush()
    if as_json:
        print(json.dumps(everything, indent=2))
    return 0


if __name__ == "__main__":
    sys.exit(main())
