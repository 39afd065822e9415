#!/usr/bin/env python3
"""The real app's start and idle memory.

- app_first_frame_ms: from spawning `vorn` (offscreen, a fresh temporary home) to the
  window's first swapped frame, the median of several runs; the app reports the clock
  at that frame when VORN_STARTUP_REPORT is set.
- app_idle_rss_mb, engine_idle_rss_mb: resident memory of the app (window shown) and of
  the engine it started, once the status line says the engine is ready, no model loaded.
- app_tiny_model_rss_mb, engine_tiny_model_rss_mb: the same after the engine loaded the
  tiny test model and the app showed "Model ready".

With --conversation, instead: the first frame and the app's memory with a conversation
of 400 messages selected (Markdown replies: headings, lists, a table, code) against one
of 2 messages (conversation_first_frame_ms_<count>, conversation_rss_mb_<count>).

Prints "figure: value" lines. Standard library only.
"""

import argparse
import json
import os
import queue
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request
import uuid

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
from engine_process import REPO, rss_mb  # noqa: E402
TINY_MODEL = os.path.join(REPO, "..", "shared", "models", "stories260K.gguf")
READY = "Ready on this computer"


def home_environment(home):
    env = dict(os.environ)
    env.update({
        "HOME": home,
        "XDG_DATA_HOME": os.path.join(home, ".local", "share"),
        "XDG_CONFIG_HOME": os.path.join(home, ".config"),
        "XDG_CACHE_HOME": os.path.join(home, ".cache"),
        "XDG_STATE_HOME": os.path.join(home, ".local", "state"),
        "QT_QPA_PLATFORM": "offscreen",
    })
    return env


class App:
    """The real app in a temporary home; its report lines arrive on a queue."""

    def __init__(self, binary, mode, prepare=None):
        self.home = tempfile.mkdtemp(prefix="vorn-bench-home-")
        if prepare:
            prepare(self.home)
        env = home_environment(self.home)
        env["VORN_STARTUP_REPORT"] = mode
        self.lines = queue.Queue()
        self.spawned_ns = time.monotonic_ns()
        self.process = subprocess.Popen([binary], env=env, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for raw in self.process.stderr:
            self.lines.put(raw.decode(errors="replace").rstrip("\n"))
        self.lines.put(None)

    def wait_for(self, prefix, timeout):
        """The value of the first report line starting with prefix, or None."""
        deadline = time.monotonic() + timeout
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                return None
            try:
                line = self.lines.get(timeout=left)
            except queue.Empty:
                return None
            if line is None:
                return None
            if line.startswith(prefix):
                return line[len(prefix):].strip()

    def engine_pid(self):
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                with open(f"/proc/{entry}/stat") as f:
                    stat = f.read()
            except OSError:
                continue
            name = stat[stat.index("(") + 1:stat.rindex(")")]
            parent = int(stat[stat.rindex(")") + 2:].split()[1])
            if parent == self.process.pid and name == "vorn-engine":
                return int(entry)
        return None

    def finish(self):
        engine = self.engine_pid()
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout=20)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        # The engine ends with its parent; make sure of it before the home goes.
        if engine is not None:
            deadline = time.monotonic() + 10
            while os.path.exists(f"/proc/{engine}") and time.monotonic() < deadline:
                time.sleep(0.1)
            if os.path.exists(f"/proc/{engine}"):
                os.kill(engine, signal.SIGTERM)
        shutil.rmtree(self.home, ignore_errors=True)


def engine_port(pid):
    with open(f"/proc/{pid}/cmdline", "rb") as f:
        arguments = f.read().decode().split("\0")
    return int(arguments[arguments.index("--port") + 1])


def first_frame(binary, runs):
    times = []
    for _ in range(runs):
        app = App(binary, "quit")
        try:
            clock = app.wait_for("first_frame_clock_ns:", 60)
            if clock is None:
                raise SystemExit("the app showed no frame within 60 s")
            times.append((int(clock) - app.spawned_ns) / 1e6)
            app.process.wait(timeout=30)
        finally:
            app.finish()
    return times


MARKDOWN_REPLY = """## Answer %d

Here is what **matters**, with `inline code` and a [link](https://example.com):

1. The first point, *emphasised*.
2. The second point.
   - a nested detail
3. The third point.

| name | value | note |
|------|------:|------|
| alpha | 1 | first |
| beta | 22 | second |

```python
def answer(number):
    return number * %d
```

> A closing remark in a quote."""


def write_conversation(home, count):
    """A history whose one conversation holds count messages, half of them Markdown replies."""
    messages = []
    for index in range(count):
        user = index % 2 == 0
        messages.append({
            "id": str(uuid.UUID(int=index + 1)).upper(),
            "role": "user" if user else "assistant",
            "text": "Question %d: how does this work?" % index if user else MARKDOWN_REPLY % (index, index),
        })
    history = [{"id": str(uuid.UUID(int=10 ** 6)).upper(), "title": "Long conversation", "messages": messages}]
    folder = os.path.join(home, ".local", "share", "Vorn")
    os.makedirs(folder, mode=0o700)
    with open(os.path.join(folder, "conversations.json"), "w") as f:
        json.dump(history, f, separators=(",", ":"))


def conversation_first_frame(binary, runs, count, settle):
    """First-frame times and the app's memory a moment later, count messages selected."""
    times = []
    memory = []
    for _ in range(runs):
        app = App(binary, "1", lambda home: write_conversation(home, count))
        try:
            clock = app.wait_for("first_frame_clock_ns:", 60)
            if clock is None:
                raise SystemExit("the app showed no frame within 60 s")
            times.append((int(clock) - app.spawned_ns) / 1e6)
            time.sleep(settle)
            memory.append(rss_mb(app.process.pid))
        finally:
            app.finish()
    return times, memory


def idle_memory(binary, settle):
    def link_tiny_model(home):
        models = os.path.join(home, ".vorn", "models")
        os.makedirs(models)
        os.symlink(os.path.abspath(TINY_MODEL), os.path.join(models, "stories260K.gguf"))

    results = {}
    app = App(binary, "1", link_tiny_model)
    try:
        if app.wait_for("activity: " + READY, 60) is None:
            raise SystemExit("the app did not say \"%s\" within 60 s" % READY)
        time.sleep(settle)
        engine = app.engine_pid()
        if engine is None:
            raise SystemExit("no engine process under the app")
        results["app_idle_rss_mb"] = round(rss_mb(app.process.pid), 1)
        results["engine_idle_rss_mb"] = round(rss_mb(engine), 1)

        # The same call the app makes when the model is chosen in the library.
        request = urllib.request.Request(
            "http://127.0.0.1:%d/api/load" % engine_port(engine),
            data=json.dumps({"name": "stories260K.gguf", "gpu": True, "ctx": 4096}).encode(),
            headers={"Content-Type": "application/json", "X-Vorn-App": "1"})
        urllib.request.urlopen(request, timeout=120).read()
        if app.wait_for("activity: Model ready", 60) is None:
            raise SystemExit("the app did not show the loaded model within 60 s")
        time.sleep(settle)
        results["app_tiny_model_rss_mb"] = round(rss_mb(app.process.pid), 1)
        results["engine_tiny_model_rss_mb"] = round(rss_mb(engine), 1)
    finally:
        app.finish()
    return results


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--app", default=os.path.join(REPO, "build", "bin", "vorn"), help="the vorn binary")
    parser.add_argument("--runs", type=int, default=7, help="starts to take the median of")
    parser.add_argument("--settle", type=float, default=3.0, help="seconds to wait before reading memory")
    parser.add_argument("--conversation", action="store_true",
                        help="compare a 400-message conversation with a 2-message one instead")
    args = parser.parse_args()
    if not os.path.exists(args.app):
        raise SystemExit("vorn not found at %s; build it or pass --app" % args.app)

    if args.conversation:
        # Interleaved, so both sizes see the same load on a shared machine.
        results = {2: ([], []), 400: ([], [])}
        for _ in range(args.runs):
            for count in (2, 400):
                times, memory = conversation_first_frame(args.app, 1, count, 1.0)
                results[count][0].extend(times)
                results[count][1].extend(memory)
        for count, (times, memory) in results.items():
            print("conversation_first_frame_ms_%d: %.0f" % (count, statistics.median(times)))
            print("conversation_first_frame_ms_%d_runs: %s" % (count, " ".join("%.0f" % t for t in times)))
            print("conversation_rss_mb_%d: %.1f" % (count, statistics.median(memory)))
        return

    times = first_frame(args.app, args.runs)
    print("app_first_frame_ms: %.0f" % statistics.median(times))
    print("app_first_frame_ms_runs: %s" % " ".join("%.0f" % t for t in times))
    for name, value in idle_memory(args.app, args.settle).items():
        print("%s: %s" % (name, value))
    sys.stdout.flush()


if __name__ == "__main__":
    main()
