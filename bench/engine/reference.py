#!/usr/bin/env python3
"""The engine against bare llama.cpp: decode and prefill tokens/s on one model, in
alternating rounds so that both see the same load on a shared machine.

Builds bench/engine/LlamaReference.cpp (once, into <build>/bench/llama_reference)
against the llama.cpp libraries installed beside the engine, from the headers their
build installed (vorn-engine-runtime.txt names them). Each round asks the engine for
three 32-token greedy replies and three fresh ~280-token prompts (as bench.py does),
then runs the reference, which repeats each three times too, with the CPU variant the
engine reports, the engine's thread count and the number of prompt tokens the engine
evaluated. Where the engine runs a wider variant than
`--baseline-variant` (haswell: AVX2, which the engine was built with before it chose at
run time), each round also runs the reference on that variant, for the speed-up in the
same run. Prints one JSON line: the medians of each side and their ratios, and the same
for the fastest round of each side.

    python3 bench/engine/reference.py --engine build/bin/vorn-engine --model M.gguf [--rounds 5]
"""

import argparse
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
from engine_process import EngineProcess  # noqa: E402

DECODE_TOKENS = 32
PREFILL_SENTENCES = 25
CTX = 4096
# Replies and prompts per round on each side; each side's round figure is their median.
REPEAT = 3


def median(xs):
    xs = sorted(xs)
    return xs[len(xs) // 2]


def physical_cores():
    """Cores, not hardware threads: the engine's threads for a model of a billion parameters."""
    siblings = set()
    for topology in glob.glob("/sys/devices/system/cpu/cpu[0-9]*/topology/thread_siblings"):
        try:
            with open(topology) as f:
                siblings.add(f.read().strip())
        except OSError:
            pass
    return len(siblings) or os.cpu_count() or 1


def build_reference(bin_dir, program):
    """Compiles the reference unless it is newer than its source and the libraries."""
    with open(os.path.join(bin_dir, "vorn-engine-runtime.txt")) as f:
        include = [line.split(" ", 1)[1].strip() for line in f if line.startswith("include ")][0]
    source = os.path.join(HERE, "LlamaReference.cpp")
    library = os.path.realpath(os.path.join(bin_dir, "libllama.so"))
    if os.path.exists(program) and os.path.getmtime(program) > max(os.path.getmtime(source),
                                                                   os.path.getmtime(library)):
        return
    os.makedirs(os.path.dirname(program), exist_ok=True)
    subprocess.run([os.environ.get("CXX", "c++"), "-O2", "-std=c++17", "-I", include, source, "-o", program,
                    "-L", bin_dir, "-lllama", "-lggml", "-lggml-base", "-ldl", "-Wl,-rpath," + bin_dir],
                   check=True)


def run_reference(command, variant):
    """The reference's figures on one CPU variant (None or "built-in": llama.cpp's own choice)."""
    if variant and variant != "built-in":
        command = command + ["--cpu-variant", variant]
    done = subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True)
    return json.loads(done.stdout)


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--engine", required=True, help="vorn-engine in a build's bin folder")
    ap.add_argument("--model", required=True)
    ap.add_argument("--program", help="where the reference is built (default: <build>/bench/llama_reference)")
    ap.add_argument("--rounds", type=int, default=5)
    ap.add_argument("--baseline-variant", default="haswell",
                    help="CPU variant to compare the engine's with on the reference (empty: none)")
    args = ap.parse_args()
    bin_dir = os.path.dirname(os.path.abspath(args.engine))
    program = args.program or os.path.join(os.path.dirname(bin_dir), "bench", "llama_reference")
    build_reference(bin_dir, program)
    threads = int(os.environ.get("VORN_ENGINE_THREADS") or physical_cores())

    tmp = tempfile.mkdtemp(prefix="vorn-reference-")
    name = os.path.basename(args.model)
    os.symlink(os.path.abspath(args.model), os.path.join(tmp, name))
    engine = EngineProcess(args.engine, tmp)
    rounds = []
    try:
        engine.call("/api/load", {"name": name, "gpu": True, "ctx": CTX})
        state = engine.state()
        variant = state.get("cpu_variant")
        compare = bool(args.baseline_variant) and variant not in (None, "built-in", args.baseline_variant)
        long_text = " ".join("the little girl went to the park with her dog" for _ in range(PREFILL_SENTENCES))
        for i in range(args.rounds):
            # As many replies and prompts as the reference repeats, for medians of the same kind.
            decodes, prefills = [], []
            for k in range(REPEAT):
                engine.call("/v1/chat/completions", {
                    "messages": [{"role": "user", "content": "Once upon a time, story %d.%d" % (i, k)}],
                    "temperature": 0, "max_tokens": DECODE_TOKENS})
                decodes.append(engine.state()["last"]["decode_tps"])
                engine.call("/v1/chat/completions", {
                    "messages": [{"role": "user", "content": "%d.%d %s" % (i, k, long_text)}],
                    "temperature": 0, "max_tokens": 1})
                last = engine.state()["last"]
                prefills.append(last["prefill_tps"])
            decode, prefill = median(decodes), median(prefills)
            command = [program, "--model", args.model, "--backends", bin_dir, "--threads", str(threads),
                       "--prompt-tokens", str(last["evaluated_tokens"]), "--decode-tokens", str(DECODE_TOKENS),
                       "--ctx", str(CTX), "--repeat", str(REPEAT)]
            reference = run_reference(command, variant)
            row = {}
            if compare:
                baseline = run_reference(command, args.baseline_variant)
                row = {"baseline_decode_tps": baseline["reference_decode_tps"],
                       "baseline_prefill_tps": baseline["reference_prefill_tps"]}
            rounds.append({**row, "engine_decode_tps": decode, "engine_prefill_tps": prefill,
                           "reference_decode_tps": reference["reference_decode_tps"],
                           "reference_prefill_tps": reference["reference_prefill_tps"],
                           "prompt_tokens": last["evaluated_tokens"], "load": round(os.getloadavg()[0], 2),
                           "reference_cpu_variant": reference["reference_cpu_variant"]})
            print("round %d: engine %.1f / %.1f, reference %.1f / %.1f tokens/s (decode / prefill), load %.1f"
                  % (i + 1, decode, prefill, reference["reference_decode_tps"],
                     reference["reference_prefill_tps"], os.getloadavg()[0]), file=sys.stderr)
    finally:
        engine.stop()
        shutil.rmtree(tmp, ignore_errors=True)

    result = {"cpu_variant": variant, "threads": threads, "rounds": len(rounds),
              "prompt_tokens": rounds[-1]["prompt_tokens"],
              "reference_cpu_variants": sorted({r["reference_cpu_variant"] for r in rounds})}
    for key in ("engine_decode_tps", "engine_prefill_tps", "reference_decode_tps", "reference_prefill_tps"):
        result[key] = median([r[key] for r in rounds])
    result["decode_ratio"] = result["engine_decode_tps"] / result["reference_decode_tps"]
    result["prefill_ratio"] = result["engine_prefill_tps"] / result["reference_prefill_tps"]
    # The fastest round of each side: what each reaches when the machine leaves it alone.
    for side in ("engine", "reference"):
        for figure in ("decode", "prefill"):
            result["%s_%s_tps_best" % (side, figure)] = max(r["%s_%s_tps" % (side, figure)] for r in rounds)
    for figure in ("decode", "prefill"):
        result["%s_ratio_best" % figure] = (result["engine_%s_tps_best" % figure]
                                            / result["reference_%s_tps_best" % figure])
    if compare:
        result["baseline_variant"] = args.baseline_variant
        for figure in ("decode", "prefill"):
            key = "baseline_%s_tps" % figure
            result[key] = median([r[key] for r in rounds])
            result["%s_over_baseline" % figure] = result["reference_%s_tps" % figure] / result[key]
    result["per_round"] = rounds
    print(json.dumps(result))


if __name__ == "__main__":
    main()
