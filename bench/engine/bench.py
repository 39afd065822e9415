#!/usr/bin/env python3
"""Engine benchmark: decode and prefill speed, and how the time to first
token of a follow-up turn grows with the conversation.

Starts the real vorn-engine on a free port with a temporary models folder
holding a link to the tiny test model, then reports figures as JSON lines
and a short summary. Standard library only.
"""

import argparse
import json
import os
import shutil
import sys
import tempfile
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
from engine_process import REPO, EngineProcess, default_binary  # noqa: E402


class Engine(EngineProcess):
    def stream(self, body):
        """Returns (seconds to the first content delta, seconds in all)."""
        body = dict(body, stream=True)
        req = urllib.request.Request(self.base + "/v1/chat/completions", data=json.dumps(body).encode(),
                                     headers={"Content-Type": "application/json"})
        t0 = time.perf_counter()
        first = None
        text = []
        with urllib.request.urlopen(req, timeout=600) as r:
            for raw in r:
                line = raw.decode().strip()
                if not line.startswith("data: "):
                    continue
                payload = line[6:]
                if payload == "[DONE]":
                    break
                ev = json.loads(payload)
                content = ev.get("choices", [{}])[0].get("delta", {}).get("content")
                if content:
                    if first is None:
                        first = time.perf_counter() - t0
                    text.append(content)
        total = time.perf_counter() - t0
        return (first if first is not None else total), total, "".join(text)


def png_bytes(w, h, seed):
    """A small uncompressed PNG, so the benchmark needs no image files."""
    import struct
    import zlib
    raw = b"".join(b"\x00" + bytes(((x * 7 + y * 3 + seed) % 256) for x in range(w) for _ in range(3)) for y in range(h))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xffffffff)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(raw)) + chunk(b"IEND", b""))


def image_bench(engine, tmp, args):
    """Time to first token of a follow-up question about an image that was
    sent to /api/encode while the user typed, against a follow-up question
    of the same length without image, in the same conversation."""
    import base64
    for path in (args.image_model, args.projector):
        os.symlink(os.path.abspath(path), os.path.join(tmp, os.path.basename(path)))
    engine.call("/api/load", {"name": os.path.basename(args.image_model), "gpu": True, "ctx": args.ctx})
    if not engine.state().get("vision"):
        return {"image_error": "the projector was not paired with the model"}
    plain, with_image, reused, cached, evaluated = [], [], [], [], []
    for i in range(args.repeat):
        url = "data:image/png;base64," + base64.b64encode(png_bytes(64, 64, i)).decode()
        messages = [{"role": "user", "content": "Conversation %d: tell me about your day." % i}]
        _, _, text = engine.stream({"messages": messages, "temperature": 0, "max_tokens": 16})
        messages += [{"role": "assistant", "content": text},
                     {"role": "user", "content": "Question A: what is in the picture?"}]
        first, _, text = engine.stream({"messages": messages, "temperature": 0, "max_tokens": 16})
        plain.append(first)
        evaluated.append(engine.state()["last"].get("evaluated_tokens"))
        messages.append({"role": "assistant", "content": text})
        engine.call("/api/encode", {"url": url})
        messages.append({"role": "user", "content": [
            {"type": "image_url", "image_url": {"url": url}},
            {"type": "text", "text": "Question B: what is in the picture?"}]})
        first, _, _ = engine.stream({"messages": messages, "temperature": 0, "max_tokens": 16})
        with_image.append(first)
        last = engine.state()["last"]
        reused.append(last.get("reused_images"))
        cached.append(last.get("cached_tokens"))
        evaluated.append(last.get("evaluated_tokens"))
    return {"ttft_plain_followup_ms": median(plain) * 1000,
            "ttft_preencoded_image_followup_ms": median(with_image) * 1000,
            "image_ttft_ratio": median(with_image) / median(plain),
            "image_cached_tokens": cached, "image_reused_encodings": reused,
            "evaluated_tokens_plain_then_image": evaluated}


def median(xs):
    xs = sorted(xs)
    return xs[len(xs) // 2]


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--engine", default=default_binary(), help="path of the vorn-engine binary")
    ap.add_argument("--model", default=os.path.join(REPO, "..", "shared", "models", "stories260K.gguf"))
    ap.add_argument("--ctx", type=int, default=4096)
    ap.add_argument("--decode-tokens", type=int, default=256)
    ap.add_argument("--prefill-sentences", type=int, default=120,
                    help="length of the fresh prompt for prefill, in 10-word sentences")
    ap.add_argument("--turns", type=int, default=10)
    ap.add_argument("--reply-tokens", type=int, default=48, help="reply length in the follow-up turns")
    ap.add_argument("--conversations", type=int, default=3, help="conversations to take the turn medians over")
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--image-model", help="a vision model; with --projector also measures image questions")
    ap.add_argument("--projector", help="the image projector that goes with --image-model")
    args = ap.parse_args()
    if not args.engine or not os.path.exists(args.engine):
        raise SystemExit("vorn-engine binary not found; build it or pass --engine")

    tmp = tempfile.mkdtemp(prefix="vorn-bench-")
    name = os.path.basename(args.model)
    os.symlink(os.path.abspath(args.model), os.path.join(tmp, name))
    engine = Engine(args.engine, tmp)
    results = {}
    try:
        engine.call("/api/load", {"name": name, "gpu": True, "ctx": args.ctx})
        st = engine.state()
        results["backend"] = st.get("backend")
        results["cpu_variant"] = st.get("cpu_variant")
        results["model_rss_mb"] = round(engine.rss_mb(), 1)
        results["model_rss_file_mb"] = round(engine.rss_mb("RssFile"), 1)

        # Decode: greedy, a fixed number of tokens, fresh prompt each time.
        decode, prefill = [], []
        for i in range(args.repeat):
            engine.call("/v1/chat/completions", {
                "messages": [{"role": "user", "content": "Once upon a time, story %d" % i}],
                "temperature": 0, "max_tokens": args.decode_tokens})
            decode.append(engine.state()["last"]["decode_tps"])
        # Prefill: a long prompt that shares nothing with the cache.
        long_text = " ".join("the little girl went to the park with her dog" for _ in range(args.prefill_sentences))
        for i in range(args.repeat):
            engine.call("/v1/chat/completions", {
                "messages": [{"role": "user", "content": "%d %s" % (i, long_text)}],
                "temperature": 0, "max_tokens": 1})
            last = engine.state()["last"]
            prefill.append(last["prefill_tps"])
        results["decode_tps"] = median(decode)
        results["prefill_tps"] = median(prefill)
        results["prefill_prompt_tokens"] = last["prompt_tokens"]
        # What the last prefill evaluated; the rest of its prompt came from the cache.
        results["prefill_evaluated_tokens"] = last["evaluated_tokens"]

        # Follow-up turns: time to first token of turn N against turn 1, the median over
        # several conversations, each opening with its own words so none reuses another.
        ttft = [[] for _ in range(args.turns)]
        server_ttft = [[] for _ in range(args.turns)]
        evaluated = []
        for conversation in range(args.conversations):
            messages = [{"role": "system", "content": "Story %d. You tell short stories." % conversation}]
            for turn in range(1, args.turns + 1):
                messages.append({"role": "user", "content": "Turn %d: tell me what the cat did next in the garden." % turn})
                first, _, text = engine.stream({"messages": messages, "temperature": 0, "max_tokens": args.reply_tokens})
                last = engine.state()["last"]
                ttft[turn - 1].append(first)
                server_ttft[turn - 1].append(last["ttft_ms"])
                if conversation == 0:
                    evaluated.append(last.get("evaluated_tokens"))
                messages.append({"role": "assistant", "content": text})
        first_turn, last_turn = median(ttft[0]), median(ttft[-1])
        results["conversations"] = args.conversations
        results["ttft_turn1_ms"] = first_turn * 1000
        results["ttft_turn%d_ms" % args.turns] = last_turn * 1000
        results["ttft_ratio_turn%d_over_turn1" % args.turns] = last_turn / first_turn if first_turn > 0 else None
        results["server_ttft_ms_per_turn"] = [round(median(x), 3) for x in server_ttft]
        results["evaluated_prompt_tokens_per_turn"] = evaluated
        results["final_prompt_tokens"] = engine.state()["last"]["prompt_tokens"]
        if args.image_model and args.projector:
            results.update(image_bench(engine, tmp, args))
    finally:
        engine.stop()
        shutil.rmtree(tmp, ignore_errors=True)

    print(json.dumps(results))
    print("decode %.1f tok/s, prefill %.1f tok/s, turn-%d/turn-1 time to first token %.2f"
          % (results["decode_tps"], results["prefill_tps"], args.turns,
             results["ttft_ratio_turn%d_over_turn1" % args.turns] or float("nan")), file=sys.stderr)


if __name__ == "__main__":
    main()
