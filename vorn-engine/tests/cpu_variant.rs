//! The CPU variant of llama.cpp that the engine loads: the best one this CPU can run,
//! or the one VORN_CPU_VARIANT names; and generation with it.

mod common;

use common::*;
use serde_json::json;

/// Greedy reply of the tiny model; the engine's completion must hold tokens.
fn generates(e: &Engine) {
    assert_eq!(e.load("stories260K.gguf").status, 200);
    let r = e
        .chat(&json!({"messages": [user("Once upon a time")], "temperature": 0, "max_tokens": 16}));
    assert_eq!(r.status, 200, "{}", r.text());
    let v = r.json();
    assert!(v["usage"]["completion_tokens"].as_i64().unwrap() > 0, "{v}");
    assert!(
        !v["choices"][0]["message"]["content"]
            .as_str()
            .unwrap()
            .is_empty(),
        "{v}"
    );
}

#[cfg(target_arch = "x86_64")]
mod x86 {
    use super::*;
    use std::path::Path;

    /// The instructions each of ggml's x86 CPU variants is compiled for.
    fn instructions(variant: &str) -> Option<Vec<&'static str>> {
        let avx2 = ["sse4.2", "avx", "f16c", "fma", "avx2", "bmi2"];
        let avx512 = ["avx512f", "avx512cd", "avx512vl", "avx512dq", "avx512bw"];
        let mut set: Vec<&str> = match variant {
            "x64" => vec![],
            "sse42" => vec!["sse4.2"],
            "sandybridge" => vec!["sse4.2", "avx"],
            "ivybridge" => vec!["sse4.2", "avx", "f16c"],
            "piledriver" => vec!["sse4.2", "avx", "f16c", "fma"],
            "haswell" | "alderlake" | "skylakex" | "cannonlake" | "cascadelake" | "icelake"
            | "cooperlake" | "zen4" | "sapphirerapids" => avx2.to_vec(),
            _ => return None,
        };
        if matches!(
            variant,
            "skylakex"
                | "cannonlake"
                | "cascadelake"
                | "icelake"
                | "cooperlake"
                | "zen4"
                | "sapphirerapids"
        ) {
            set.extend(avx512);
        }
        let extra: &[&str] = match variant {
            "alderlake" => &["avxvnni"],
            "cannonlake" => &["avx512vbmi"],
            "cascadelake" => &["avx512vnni"],
            "icelake" => &["avx512vbmi", "avx512vnni"],
            "cooperlake" => &["avx512vnni", "avx512bf16"],
            "zen4" | "sapphirerapids" => &["avx512vbmi", "avx512vnni", "avx512bf16"],
            _ => &[],
        };
        set.extend(extra);
        Some(set)
    }

    fn cpu_has(instruction: &str) -> bool {
        match instruction {
            "sse4.2" => is_x86_feature_detected!("sse4.2"),
            "avx" => is_x86_feature_detected!("avx"),
            "f16c" => is_x86_feature_detected!("f16c"),
            "fma" => is_x86_feature_detected!("fma"),
            "avx2" => is_x86_feature_detected!("avx2"),
            "bmi2" => is_x86_feature_detected!("bmi2"),
            "avxvnni" => is_x86_feature_detected!("avxvnni"),
            "avx512f" => is_x86_feature_detected!("avx512f"),
            "avx512cd" => is_x86_feature_detected!("avx512cd"),
            "avx512vl" => is_x86_feature_detected!("avx512vl"),
            "avx512dq" => is_x86_feature_detected!("avx512dq"),
            "avx512bw" => is_x86_feature_detected!("avx512bw"),
            "avx512vbmi" => is_x86_feature_detected!("avx512vbmi"),
            "avx512vnni" => is_x86_feature_detected!("avx512vnni"),
            "avx512bf16" => is_x86_feature_detected!("avx512bf16"),
            other => panic!("unknown instruction set {other}"),
        }
    }

    fn runs_here(variant: &str) -> bool {
        instructions(variant)
            .unwrap_or_else(|| panic!("unknown CPU variant {variant}"))
            .iter()
            .all(|i| cpu_has(i))
    }

    /// The CPU variants installed beside the engine binary.
    fn installed() -> Vec<String> {
        let folder = Path::new(env!("CARGO_BIN_EXE_vorn-engine"))
            .parent()
            .unwrap();
        let mut names: Vec<String> = std::fs::read_dir(folder)
            .unwrap()
            .filter_map(|e| {
                let file = e.ok()?.file_name().into_string().ok()?;
                Some(
                    file.strip_prefix("libggml-cpu-")?
                        .strip_suffix(".so")?
                        .to_string(),
                )
            })
            .collect();
        names.sort();
        names
    }

    #[test]
    fn the_best_variant_for_this_cpu_is_loaded() {
        let installed = installed();
        // At least a baseline, an AVX2 and an AVX-512 build ship with the engine.
        for needed in ["x64", "haswell", "skylakex"] {
            assert!(
                installed.iter().any(|v| v == needed),
                "{needed} missing from {installed:?}"
            );
        }
        // Empty: the engine's own choice, whatever the test's environment says.
        let e = Engine::start_with_env(&stories_dir("variant"), &[("VORN_CPU_VARIANT", "")]);
        let state = e.state();
        let chosen = state["cpu_variant"]
            .as_str()
            .unwrap_or_else(|| panic!("no CPU variant: {state}"));
        assert!(
            installed.iter().any(|v| v == chosen),
            "{chosen} is not one of {installed:?}"
        );
        assert!(
            runs_here(chosen),
            "{chosen} needs instructions this CPU lacks"
        );
        // No installed variant that runs here is built for more than the chosen one.
        let mine = instructions(chosen).unwrap();
        for other in installed.iter().filter(|v| runs_here(v)) {
            let theirs = instructions(other).unwrap();
            let wider = theirs.len() > mine.len() && mine.iter().all(|i| theirs.contains(i));
            assert!(
                !wider,
                "{other} runs here and is wider than the chosen {chosen}"
            );
        }
        generates(&e);
        assert_eq!(e.state()["cpu_variant"], chosen);
    }

    #[test]
    fn the_baseline_variant_can_be_forced_and_generates() {
        let e = Engine::start_with_env(&stories_dir("baseline"), &[("VORN_CPU_VARIANT", "x64")]);
        assert_eq!(e.state()["cpu_variant"], "x64");
        generates(&e);
    }

    #[test]
    fn a_variant_that_cannot_run_gives_a_clear_error() {
        let mut refused = vec!["nonesuch".to_string(), "../x64".to_string()];
        // A variant this CPU lacks the instructions for, where one is installed.
        refused.extend(installed().into_iter().filter(|v| !runs_here(v)).take(1));
        for name in refused {
            let e = Engine::start_with_env(&stories_dir("refused"), &[("VORN_CPU_VARIANT", &name)]);
            assert!(e.state()["cpu_variant"].is_null(), "{name}");
            let r = e.load("stories260K.gguf");
            assert_eq!(r.status, 500, "{name}: {}", r.text());
            assert!(
                r.error().contains("VORN_CPU_VARIANT"),
                "{name}: {}",
                r.error()
            );
            // The engine keeps answering.
            assert_eq!(e.state()["loaded"], serde_json::Value::Null);
        }
    }
}

#[cfg(not(target_arch = "x86_64"))]
#[test]
fn the_built_in_cpu_code_generates() {
    let e = Engine::start(&stories_dir("variant"));
    assert_eq!(e.state()["cpu_variant"], "built-in");
    generates(&e);
}
