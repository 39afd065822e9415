#!/usr/bin/env python3
"""Context benchmark: what /api/count costs, and how well the models listing's
KV estimate predicts memory.

1. Counting: /api/count on a conversation of --turns turns, against the prefill of
   the same tokens (a reply to that conversation on a cold cache), and the follow-up
   turn with and without a count before it (a count must not slow the next turn).
2. KV memory: for each context, a fresh engine loads the model and its anonymous
   resident memory (RssAnon) is read; the growth over a load at --base-ctx is set
   against the estimate from the listing, kv_bytes_per_token x (ctx - base).

Prints one JSON object and a summary on stderr. Standard library only.
"""

import argparse
import json
import os
import shutil
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
from engine_process import EngineProcess, default_binary, folder_with, median  # noqa: E402


def conversation(turns, tag):
    """A system message, `turns` questions and answers, and a last question."""
    messages = [{"role": "system", "content": "%s: you tell short, kind stories." % tag}]
    for turn in range(turns):
        messages.append({"role": "user", "content":
                         "Turn %d: what did the little cat find in the garden after the rain stopped?" % turn})
        messages.append({"role": "assistant", "content":
                         "After the rain the little cat found a shiny blue stone under the old apple tree, "
                         "and she carried it home to show her friend the dog (turn %d)." % turn})
    messages.append({"role": "user", "content": "And what happened the next morning?"})
    return messages


def timed(call):
    start = time.perf_counter()
    value = call()
    return time.perf_counter() - start, value


def count_bench(engine, model, args):
    engine.call("/api/load", {"name": model, "gpu": True, "ctx": args.ctx})
    results = {"count_ctx": args.ctx, "count_turns": args.turns}
    counts, prefills, tokens = [], [], None
    for i in range(args.prefill_repeat):
        messages = conversation(args.turns, "%d-%d" % (i, time.time_ns()))
        body = {"messages": messages, "max_tokens": 1, "temperature": 0}
        for _ in range(args.counts):
            seconds, counted = timed(lambda: engine.call("/api/count", body))
            counts.append(seconds)
        tokens = counted["tokens"]
        results["count_dropped_messages"] = counted["dropped_messages"]
        # The same tokens evaluated: a reply on a cache that shares next to nothing.
        reply = engine.call("/v1/chat/completions", body)
        last = engine.state()["last"]
        if reply["usage"]["prompt_tokens"] != tokens:
            results["count_mismatch"] = [tokens, reply["usage"]["prompt_tokens"]]
        # The engine's prefill rate over what it evaluated, for all of the counted tokens.
        prefills.append(tokens / last["prefill_tps"] if last["prefill_tps"] else float("nan"))
        results["prefill_evaluated_tokens"] = last["evaluated_tokens"]
    results["count_prompt_tokens"] = tokens
    results["count_ms"] = median(counts) * 1000
    results["count_ms_runs"] = [round(c * 1000, 2) for c in counts]
    results["prefill_same_tokens_ms"] = median(prefills) * 1000
    results["prefill_same_tokens_ms_runs"] = [round(p * 1000) for p in prefills]
    results["count_over_prefill"] = median(counts) / median(prefills)

    # The next turn after a count, against the same next turn without one: the same
    # conversation each time, after an unrelated reply that leaves nothing of it in the
    # cache, so both answer the same first turn and evaluate the same follow-up.
    followups = {"with_count": [], "without_count": []}
    evaluated = {"with_count": [], "without_count": []}
    for i in range(args.followup_repeat):
        for kind in ("without_count", "with_count"):
            engine.call("/v1/chat/completions", {"messages": [{"role": "user", "content": "Unrelated %d." % i}],
                                                 "max_tokens": 1})
            messages = conversation(args.followup_turns, "followup %d" % i)
            body = {"messages": messages, "max_tokens": 8, "temperature": 0}
            reply = engine.call("/v1/chat/completions", body)
            messages += [{"role": "assistant", "content": reply["choices"][0]["message"]["content"]},
                         {"role": "user", "content": "Tell me one more thing about the stone."}]
            if kind == "with_count":
                # Another conversation counted in between, as a footer meter would.
                engine.call("/api/count", {"messages": conversation(args.turns, "other")})
            engine.call("/v1/chat/completions", dict(body, messages=messages))
            last = engine.state()["last"]
            results["followup_prompt_tokens"] = last["prompt_tokens"]
            followups[kind].append(last["ttft_ms"])
            evaluated[kind].append(last["evaluated_tokens"])
    results["followup_ttft_ms_without_count"] = median(followups["without_count"])
    results["followup_ttft_ms_with_count"] = median(followups["with_count"])
    results["followup_ttft_ratio_with_over_without_count"] = (
        median(followups["with_count"]) / median(followups["without_count"]))
    results["followup_evaluated_tokens_without_count"] = evaluated["without_count"]
    results["followup_evaluated_tokens_with_count"] = evaluated["with_count"]

    # A context the conversation does not fit: counting then also renders and
    # tokenizes each shorter version it tries.
    engine.call("/api/load", {"name": model, "gpu": True, "ctx": args.cut_ctx})
    body = {"messages": conversation(args.turns, "cut"), "max_tokens": 1}
    cut = []
    for _ in range(args.counts * args.prefill_repeat):
        seconds, counted = timed(lambda: engine.call("/api/count", body))
        cut.append(seconds)
    results["count_cut_ctx"] = args.cut_ctx
    results["count_cut_ms"] = median(cut) * 1000
    results["count_cut_tokens"] = counted["tokens"]
    results["count_cut_dropped_messages"] = counted["dropped_messages"]
    return results


def rss_anon_after_load(binary, folder, model, ctx):
    engine = EngineProcess(binary, folder)
    try:
        engine.call("/api/load", {"name": model, "gpu": True, "ctx": ctx})
        state = engine.state()
        if state.get("ctx") != ctx:
            raise RuntimeError("loaded with ctx %s, asked %d" % (state.get("ctx"), ctx))
        entry = next(m for m in state["models"] if m["name"] == model)
        return engine.rss_mb("RssAnon") * (1 << 20), entry
    finally:
        engine.stop()


def kv_bench(binary, folder, model, args):
    contexts = [int(c) for c in args.kv_contexts.split(",")]
    base, entry = [], None
    measured = {c: [] for c in contexts}
    for _ in range(args.kv_repeat):
        anon, entry = rss_anon_after_load(binary, folder, model, args.base_ctx)
        base.append(anon)
        for ctx in contexts:
            measured[ctx].append(rss_anon_after_load(binary, folder, model, ctx)[0])
    per_token = entry.get("kv_bytes_per_token")
    if not per_token:
        return {"kv_error": "the listing gives no kv_bytes_per_token for %s" % model}
    results = {"kv_bytes_per_token": per_token, "kv_base_ctx": args.base_ctx,
               "kv_base_rss_anon_mb": round(median(base) / 1e6, 1), "kv": []}
    for ctx in contexts:
        growth = median(measured[ctx]) - median(base)
        estimate = per_token * (ctx - args.base_ctx)
        results["kv"].append({"ctx": ctx, "estimate_mb": round(estimate / 1e6, 1),
                              "measured_mb": round(growth / 1e6, 1),
                              "measured_over_estimate": round(growth / estimate, 3),
                              "runs_mb": [round((m - median(base)) / 1e6, 1) for m in measured[ctx]]})
    return results


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--engine", default=default_binary(), help="path of the vorn-engine binary")
    ap.add_argument("--model", required=True, help="a GGUF model whose trained context covers --kv-contexts")
    ap.add_argument("--ctx", type=int, default=8192, help="context for the counting part")
    ap.add_argument("--turns", type=int, default=30)
    ap.add_argument("--followup-turns", type=int, default=4,
                    help="turns before the follow-up whose first-token time is compared")
    ap.add_argument("--prefill-repeat", type=int, default=2, help="conversations counted and then answered")
    ap.add_argument("--counts", type=int, default=7, help="counts per conversation")
    ap.add_argument("--followup-repeat", type=int, default=3)
    ap.add_argument("--cut-ctx", type=int, default=1024, help="a context the conversation does not fit")
    ap.add_argument("--base-ctx", type=int, default=256)
    ap.add_argument("--kv-contexts", default="2048,8192,32768")
    ap.add_argument("--kv-repeat", type=int, default=3)
    ap.add_argument("--skip-count", action="store_true")
    ap.add_argument("--skip-kv", action="store_true")
    args = ap.parse_args()
    if not args.engine or not os.path.exists(args.engine):
        raise SystemExit("vorn-engine binary not found; build it or pass --engine")

    tmp, name = folder_with(args.model, "vorn-bench-context-")
    results = {}
    try:
        if not args.skip_count:
            engine = EngineProcess(args.engine, tmp)
            try:
                results.update(count_bench(engine, name, args))
            finally:
                engine.stop()
        if not args.skip_kv:
            results.update(kv_bench(args.engine, tmp, name, args))
    finally:
        shutil.rmtree(tmp, ignore_errors=True)

    print(json.dumps(results))
    if "count_ms" in results:
        print("count %.1f ms vs prefill %.0f ms of the same %d tokens (%.5fx); follow-up ttft with/without a "
              "count %.2fx; count with %d of %d messages left out to fit %d tokens: %.1f ms"
              % (results["count_ms"], results["prefill_same_tokens_ms"], results["count_prompt_tokens"],
                 results["count_over_prefill"], results["followup_ttft_ratio_with_over_without_count"],
                 results["count_cut_dropped_messages"], 2 * args.turns + 1, args.cut_ctx,
                 results["count_cut_ms"]), file=sys.stderr)
    for row in results.get("kv", []):
        print("ctx %d: KV estimate %.1f MB, measured growth %.1f MB (%.3fx)"
              % (row["ctx"], row["estimate_mb"], row["measured_mb"], row["measured_over_estimate"]), file=sys.stderr)


if __name__ == "__main__":
    main()
