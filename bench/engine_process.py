"""The real vorn-engine, started on a free loopback port for a benchmark, and the few
calls the benchmarks make to it. Standard library only."""

import json
import os
import signal
import socket
import subprocess
import tempfile
import time
import urllib.request

REPO = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))


def default_binary():
    """The engine cargo last built, or None."""
    target = os.environ.get("CARGO_TARGET_DIR", os.path.expanduser("~/.cache/vorn/cargo-target"))
    for candidate in (os.path.join(target, "release", "vorn-engine"),
                      os.path.join(REPO, "vorn-engine", "target", "release", "vorn-engine")):
        if os.path.exists(candidate):
            return candidate
    return None


def median(xs):
    xs = sorted(xs)
    return xs[len(xs) // 2]


def folder_with(model, prefix="vorn-bench-"):
    """A temporary models folder holding a link to `model`; returns (folder, file name)."""
    folder = tempfile.mkdtemp(prefix=prefix)
    name = os.path.basename(model)
    os.symlink(os.path.abspath(model), os.path.join(folder, name))
    return folder, name


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def rss_mb(pid, field="VmRSS"):
    """Resident memory of a process in MB; field RssFile gives the part that maps files."""
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1]) / 1024
    return float("nan")


class EngineProcess:
    def __init__(self, binary, models_dir, env=None):
        self.port = free_port()
        self.base = "http://127.0.0.1:%d" % self.port
        self.process = subprocess.Popen(
            [binary, "app", "--port", str(self.port), "--models-dir", models_dir, "--no-open"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
        deadline = time.time() + 20
        while time.time() < deadline:
            try:
                self.state()
                return
            except OSError:
                time.sleep(0.05)
        self.process.kill()
        raise RuntimeError("engine did not answer")

    def call(self, path, body=None, timeout=600):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request("%s/%s" % (self.base, path.lstrip("/")), data=data,
                                         headers={"Content-Type": "application/json", "X-Vorn-App": "1"})
        with urllib.request.urlopen(request, timeout=timeout) as reply:
            return json.loads(reply.read() or b"{}")

    def state(self):
        return self.call("api/state")

    def rss_mb(self, field="VmRSS"):
        return rss_mb(self.process.pid, field)

    def stop(self, sig=signal.SIGTERM):
        self.process.send_signal(sig)
        self.process.wait(timeout=20)
