#!/usr/bin/env python3
"""Engine memory and download benchmark on loopback.

Reports, as one JSON line on stdout:
- engine_idle_rss_mb: resident memory of a fresh engine with no model;
- engine_tiny_model_rss_mb: the same after loading the tiny test model;
- link_mb_s: how fast a plain client saves a file from a local test server to disk;
- download_mb_s: how fast the engine downloads the same file through HF_ENDPOINT,
  from the pull request until the file is in place; download_ratio = download / link;
- resume_ok, resumed_from: a download killed with SIGKILL part-way restarts from its
  .part file (the server sees a Range request) and ends with identical bytes.
Standard library only.
"""

import argparse
import hashlib
import http.server
import json
import os
import shutil
import signal
import sys
import tempfile
import threading
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
from engine_process import REPO, EngineProcess as Engine, free_port  # noqa: E402
MODEL = os.path.join(REPO, "..", "shared", "models", "stories260K.gguf")


class FileHandler(http.server.BaseHTTPRequestHandler):
    """Serves one file at any path, honouring "Range: bytes=N-"; can throttle."""

    protocol_version = "HTTP/1.1"
    path_on_disk = None
    throttle = 0.0  # seconds between 1 MiB pieces
    ranges = []

    def log_message(self, *args):
        pass

    def do_GET(self):
        size = os.path.getsize(self.path_on_disk)
        start = 0
        header = self.headers.get("Range")
        if header and header.startswith("bytes=") and header.endswith("-"):
            start = int(header[6:-1])
            FileHandler.ranges.append(start)
            self.send_response(206)
            self.send_header("Content-Range", f"bytes {start}-{size - 1}/{size}")
        else:
            self.send_response(200)
        self.send_header("Content-Length", str(size - start))
        self.send_header("Content-Type", "application/octet-stream")
        self.end_headers()
        try:
            with open(self.path_on_disk, "rb") as f:
                f.seek(start)
                while True:
                    chunk = f.read(1 << 20)
                    if not chunk:
                        break
                    self.wfile.write(chunk)
                    if self.throttle:
                        time.sleep(self.throttle)
        except (BrokenPipeError, ConnectionResetError):
            pass


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as f:
        for chunk in iter(lambda: f.read(1 << 20), b""):
            digest.update(chunk)
    return digest.hexdigest()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--engine", default=os.path.join(
        os.environ.get("CARGO_TARGET_DIR", os.path.expanduser("~/.cache/vorn/cargo-target")), "release", "vorn-engine"))
    parser.add_argument("--size-mb", type=int, default=512)
    args = parser.parse_args()
    work = tempfile.mkdtemp(prefix="vorn-bench-")
    results = {}
    try:
        models = os.path.join(work, "models")
        os.makedirs(models)
        os.symlink(os.path.abspath(MODEL), os.path.join(models, "stories260K.gguf"))

        engine = Engine(args.engine, models)
        time.sleep(0.5)
        results["engine_idle_rss_mb"] = round(engine.rss_mb(), 1)
        engine.call("api/load", {"name": "stories260K.gguf", "gpu": True, "ctx": 4096})
        results["engine_tiny_model_rss_mb"] = round(engine.rss_mb(), 1)
        engine.stop()

        # A file of random bytes, served from loopback.
        payload = os.path.join(work, "payload.bin")
        with open(payload, "wb") as f:
            for _ in range(args.size_mb):
                f.write(os.urandom(1 << 20))
        FileHandler.path_on_disk = payload
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), FileHandler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        hub = f"http://127.0.0.1:{server.server_address[1]}"
        link_path = "/bench/repo/resolve/main/payload.gguf"

        # The link's speed: a plain client saving the file into the same folder.
        plain = os.path.join(models, "plain-copy.bin")
        started = time.perf_counter()
        with urllib.request.urlopen(hub + link_path) as reply, open(plain, "wb") as out:
            while True:
                chunk = reply.read(1 << 20)
                if not chunk:
                    break
                out.write(chunk)
        link_seconds = time.perf_counter() - started
        os.remove(plain)
        results["link_mb_s"] = round(args.size_mb / link_seconds, 1)

        env = dict(os.environ, HF_ENDPOINT=hub)
        engine = Engine(args.engine, models, env)
        target = os.path.join(models, "payload.gguf")
        started = time.perf_counter()
        engine.call("api/pull", {"name": "payload.gguf", "url": "https://huggingface.co" + link_path})
        while not os.path.exists(target):
            time.sleep(0.005)
        download_seconds = time.perf_counter() - started
        results["download_mb_s"] = round(args.size_mb / download_seconds, 1)
        results["download_ratio"] = round(link_seconds / download_seconds, 3)
        expected = sha256(payload)
        results["download_intact"] = sha256(target) == expected
        os.remove(target)

        # Kill the engine part-way through a slowed download, then pull again.
        FileHandler.throttle = 0.01
        engine.call("api/pull", {"name": "payload.gguf", "url": "https://huggingface.co" + link_path})
        part = target + ".part"
        while not os.path.exists(part) or os.path.getsize(part) < (args.size_mb << 20) // 3:
            time.sleep(0.01)
        engine.stop(signal.SIGKILL)
        kept = os.path.getsize(part)
        FileHandler.throttle = 0.0
        FileHandler.ranges.clear()
        engine = Engine(args.engine, models, env)
        engine.call("api/pull", {"name": "payload.gguf", "url": "https://huggingface.co" + link_path})
        while not os.path.exists(target):
            time.sleep(0.01)
        resumed = FileHandler.ranges[0] if FileHandler.ranges else 0
        results["resumed_from_mb"] = round(resumed / (1 << 20), 1)
        results["kept_mb"] = round(kept / (1 << 20), 1)
        results["resume_ok"] = bool(0 < resumed <= kept and sha256(target) == expected)
        engine.stop()
        server.shutdown()
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print(json.dumps(results))


if __name__ == "__main__":
    sys.exit(main())
