#!/usr/bin/env python3
"""Large images in a conversation: what a later turn pays for an image the
conversation already carries, and how much memory one large image costs.

- turn 2 of a conversation whose first message carries a ~5 MB image, against
  the same turn 2 without the image (time of the whole request, and the
  engine's own time to first token);
- the engine's peak memory over one request with a ~30 MB image, above its
  memory before the request, and what it still holds after it (the image's
  pixels, kept for the next turns).

Starts the real vorn-engine with a vision model and its projector (see
bench/README.md). Standard library only; prints one JSON line on stdout and a
summary on stderr.
"""

import argparse
import base64
import json
import os
import shutil
import struct
import sys
import tempfile
import time
import urllib.request
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
from engine_process import EngineProcess, default_binary  # noqa: E402


def noise_png(megabytes, seed):
    """A PNG of random pixels stored without compression: the file is about
    `megabytes` large and decodes to about as many bytes of pixels."""
    side = int((megabytes * 1e6 / 3) ** 0.5)
    rows = []
    block = os.urandom(side * 3)
    for y in range(side):
        # Each row differs; random bytes are slow to make in Python, so rows
        # are rotations of one random row with the seed mixed in.
        shift = (y * 7919 + seed) % len(block)
        rows.append(b"\x00" + block[shift:] + block[:shift])
    raw = b"".join(rows)

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xffffffff)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", side, side, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(raw, 0)) + chunk(b"IEND", b""))


def data_url(png):
    return "data:image/png;base64," + base64.b64encode(png).decode()


def median(xs):
    xs = sorted(xs)
    return xs[len(xs) // 2]


def status_kb(pid, field):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return 0


def timed_chat(engine, messages):
    """Seconds for the whole (one-token) reply, the body encoded beforehand,
    and the engine's ttft_ms."""
    body = json.dumps({"messages": messages, "temperature": 0, "max_tokens": 1}).encode()
    request = urllib.request.Request(engine.base + "/v1/chat/completions", data=body,
                                     headers={"Content-Type": "application/json"})
    t0 = time.perf_counter()
    with urllib.request.urlopen(request, timeout=600) as reply:
        reply.read()
    seconds = time.perf_counter() - t0
    return seconds, engine.state()["last"]["ttft_ms"]


def turn_two(engine, args):
    """Turn 2 with and without a ~5 MB image in turn 1, in alternation."""
    with_image, without, engine_with, engine_without = [], [], [], []
    for i in range(args.repeat):
        url = data_url(noise_png(args.image_mb, i))
        for image in (True, False):
            first = "Conversation %d: what is in this picture?" % i
            content = ([{"type": "image_url", "image_url": {"url": url}}, {"type": "text", "text": first}]
                       if image else first)
            messages = [{"role": "user", "content": content}]
            timed_chat(engine, messages)
            messages += [{"role": "assistant", "content": "A picture."},
                         {"role": "user", "content": "Tell me more about it."}]
            seconds, ttft = timed_chat(engine, messages)
            (with_image if image else without).append(seconds)
            (engine_with if image else engine_without).append(ttft)
    return {
        "image_mb": round(len(noise_png(args.image_mb, 0)) / 1e6, 2),
        "turn2_with_image_ms": median(with_image) * 1000,
        "turn2_without_image_ms": median(without) * 1000,
        "turn2_image_ratio": median(with_image) / median(without),
        "turn2_engine_ttft_with_image_ms": median(engine_with),
        "turn2_engine_ttft_without_image_ms": median(engine_without),
    }


def peak_memory(engine, args):
    """Peak resident memory over one request with a large image, above the
    resident memory just before it."""
    png = noise_png(args.large_image_mb, 99)
    url = data_url(png)
    pid = engine.process.pid
    # Writing 5 to clear_refs resets the peak (VmHWM) to the current size.
    with open("/proc/%d/clear_refs" % pid, "w") as f:
        f.write("5")
    before = status_kb(pid, "VmRSS")
    engine.call("/v1/chat/completions", {"messages": [{"role": "user", "content": [
        {"type": "image_url", "image_url": {"url": url}}, {"type": "text", "text": "What is this?"}]}],
        "temperature": 0, "max_tokens": 1})
    peak = status_kb(pid, "VmHWM")
    after = status_kb(pid, "VmRSS")
    return {"large_image_mb": round(len(png) / 1e6, 1), "large_image_body_mb": round(len(url) / 1e6, 1),
            "rss_before_mb": round(before / 1024, 1), "peak_rss_mb": round(peak / 1024, 1),
            "peak_above_before_mb": round((peak - before) / 1024, 1),
            "kept_after_mb": round((after - before) / 1024, 1)}


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--engine", default=default_binary(), help="path of the vorn-engine binary")
    ap.add_argument("--image-model", required=True)
    ap.add_argument("--projector", required=True)
    ap.add_argument("--image-mb", type=float, default=5)
    ap.add_argument("--large-image-mb", type=float, default=30)
    ap.add_argument("--repeat", type=int, default=5)
    args = ap.parse_args()
    if not args.engine or not os.path.exists(args.engine):
        raise SystemExit("vorn-engine binary not found; build it or pass --engine")

    results = {}
    for step in (turn_two, peak_memory):
        # A fresh engine for each, so the memory figure starts from a clean process.
        tmp = tempfile.mkdtemp(prefix="vorn-bench-images-")
        for path in (args.image_model, args.projector):
            os.symlink(os.path.abspath(path), os.path.join(tmp, os.path.basename(path)))
        engine = EngineProcess(args.engine, tmp)
        try:
            engine.call("/api/load", {"name": os.path.basename(args.image_model), "gpu": True, "ctx": 4096})
            if not engine.state().get("vision"):
                raise SystemExit("the projector was not paired with the model")
            results.update(step(engine, args))
        finally:
            engine.stop()
            shutil.rmtree(tmp, ignore_errors=True)
    print(json.dumps(results))
    print("turn 2 with a %.1f MB image %.0f ms vs %.0f ms without (%.2fx); peak memory with a %.0f MB image "
          "%.0f MB above the %.0f MB before"
          % (results["image_mb"], results["turn2_with_image_ms"], results["turn2_without_image_ms"],
             results["turn2_image_ratio"], results["large_image_mb"], results["peak_above_before_mb"],
             results["rss_before_mb"]), file=sys.stderr)


if __name__ == "__main__":
    main()
