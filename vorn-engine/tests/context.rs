//! The context people can see and control, through the real engine: model
//! details in the listing, the context a model loads with, what each reply
//! says about the context, and counting a conversation's tokens.

mod common;

use common::gen::HeaderValue::{Text, Uint};
use common::gen::{write_header, write_model_with_context, ModelShape};
use common::*;
use serde_json::{json, Value};

/// The listing entry of one model.
fn model_entry(state: &Value, name: &str) -> Value {
    state["models"]
        .as_array()
        .unwrap()
        .iter()
        .find(|m| m["name"] == name)
        .unwrap_or_else(|| panic!("{name} is not listed: {state}"))
        .clone()
}

#[test]
fn models_list_what_their_headers_state() {
    let dir = stories_dir("details");
    std::os::unix::fs::symlink(
        shared_models().join("mmproj/mmproj-tinygemma3.gguf"),
        dir.join("mmproj.gguf"),
    )
    .unwrap();
    let llama = |extra: &[(&'static str, common::gen::HeaderValue<'static>)]| {
        let mut keys = vec![
            ("general.architecture", Text("llama")),
            ("llama.context_length", Uint(131_072)),
            ("llama.block_count", Uint(16)),
            ("llama.embedding_length", Uint(2048)),
            ("llama.attention.head_count", Uint(32)),
            ("llama.attention.head_count_kv", Uint(8)),
        ];
        for (key, value) in extra {
            keys.push((
                key,
                match value {
                    Text(t) => Text(t),
                    Uint(n) => Uint(*n),
                },
            ));
        }
        keys
    };
    // Tensors: 8192 F32 elements (32,768 bytes) and 65,536 Q4_K ones (36,864 bytes).
    let tensors: &[(&str, &[u64], u32)] = &[
        ("output_norm.weight", &[8192], 0),
        ("blk.0.attn_q.weight", &[256, 256], 12),
    ];
    write_header(
        &dir.join("q4km.gguf"),
        &llama(&[("general.file_type", Uint(15))]),
        tensors,
    );
    write_header(
        &dir.join("q8.gguf"),
        &llama(&[("general.file_type", Uint(7))]),
        tensors,
    );
    // Without a file type the type of most weight bytes names it.
    write_header(&dir.join("no-file-type.gguf"), &llama(&[]), tensors);
    // A header that states nothing about its model.
    write_header(
        &dir.join("bare.gguf"),
        &[("general.architecture", Text("mystery"))],
        &[],
    );
    let e = Engine::start(&dir);
    let state = e.state();
    let kv = 16 * 8 * (64 + 64) * 2;
    let details = |quantization: &str| {
        json!({"architecture": "llama", "context_length": 131072, "parameters": 8192 + 65536,
               "quantization": quantization, "kv_bytes_per_token": kv, "projector": false})
    };
    for (name, quantization) in [
        ("q4km.gguf", "Q4_K_M"),
        ("q8.gguf", "Q8_0"),
        ("no-file-type.gguf", "Q4_K"),
    ] {
        let mut entry = model_entry(&state, name);
        entry.as_object_mut().unwrap().remove("name");
        entry.as_object_mut().unwrap().remove("size");
        assert_eq!(entry, details(quantization), "{name}");
    }
    assert_eq!(
        model_entry(&state, "stories260K.gguf"),
        json!({"name": "stories260K.gguf", "size": 1185376, "projector": false,
               "architecture": "llama", "context_length": 2048, "parameters": 292800,
               "quantization": "F32", "kv_bytes_per_token": 5 * 4 * (8 + 8) * 2})
    );
    assert_eq!(
        model_entry(&state, "mmproj.gguf"),
        json!({"name": "mmproj.gguf", "size": 1039072, "projector": true,
               "architecture": "clip", "parameters": 844288, "quantization": "Q8_0"})
    );
    let bare = model_entry(&state, "bare.gguf");
    assert_eq!(bare["architecture"], "mystery");
    for missing in [
        "context_length",
        "parameters",
        "quantization",
        "kv_bytes_per_token",
    ] {
        assert!(bare.get(missing).is_none(), "{bare}");
    }
    // A file that changes is read again.
    std::fs::remove_file(dir.join("q8.gguf")).unwrap();
    write_header(
        &dir.join("q8.gguf"),
        &llama(&[("general.file_type", Uint(18))]),
        tensors,
    );
    assert_eq!(model_entry(&e.state(), "q8.gguf")["quantization"], "Q6_K");
}

fn load(e: &Engine, name: &str, ctx: Value) -> Response {
    e.api(
        "POST",
        "/api/load",
        Some(&json!({"name": name, "gpu": true, "ctx": ctx}).to_string()),
    )
}

/// A short reply works: the engine is serving.
fn assert_serving(e: &Engine) {
    let r =
        e.chat(&json!({"messages": [user("Once upon a time")], "max_tokens": 4, "temperature": 0}));
    assert_eq!(r.status, 200, "{}", r.text());
}

#[test]
fn contexts_up_to_the_trained_one() {
    let dir = stories_dir("ctx");
    // A model that claims a billion-token context: 512 bytes of KV cache per
    // token make that 512 GiB, beyond any memory this runs on.
    write_model_with_context(
        &dir.join("huge-context.gguf"),
        &shared_models().join("vocab/ggml-vocab-llama-spm.gguf"),
        &ModelShape {
            arch: "llama",
            n_embd: 64,
            n_layer: 2,
            n_head: 4,
            n_ff: 128,
            seed: 3,
        },
        1 << 30,
    );
    let e = Engine::start(&dir);
    assert_eq!(
        model_entry(&e.state(), "huge-context.gguf")["kv_bytes_per_token"],
        512
    );

    // 0 is the trained context.
    let r = load(&e, "stories260K.gguf", json!(0));
    assert_eq!(r.status, 200, "{}", r.text());
    let state = e.state();
    assert_eq!(
        (&state["loaded"], &state["ctx"]),
        (&json!("stories260K.gguf"), &json!(2048))
    );
    assert_serving(&e);

    // Above what the model takes: refused before the loaded model is touched.
    for ctx in [4097u64, 1 << 33] {
        let r = load(&e, "stories260K.gguf", json!(ctx));
        assert_eq!(r.status, 400, "{}", r.text());
        assert_eq!(
            r.error(),
            format!("A context of {ctx} tokens is more than stories260K.gguf takes: at most 4096 tokens (it was trained with 2048).")
        );
        let state = e.state();
        assert_eq!(
            (&state["loaded"], &state["ctx"]),
            (&json!("stories260K.gguf"), &json!(2048))
        );
        assert_serving(&e);
    }
    // Negative and fractional contexts stay malformed.
    for ctx in [json!(-1), json!(1.5), json!("2048")] {
        let r = load(&e, "stories260K.gguf", ctx);
        assert_eq!(r.status, 400, "{}", r.text());
    }
    // Up to 4096 tokens load on any model, as they always did.
    let r = load(&e, "stories260K.gguf", json!(4096));
    assert_eq!(r.status, 200, "{}", r.text());
    assert_eq!(e.state()["ctx"], 4096);

    // A context whose KV cache cannot fit in memory is refused quickly with
    // the reason; nothing is loaded afterwards and the engine carries on.
    let started = std::time::Instant::now();
    let r = load(&e, "huge-context.gguf", json!(0));
    assert_eq!(r.status, 500, "{}", r.text());
    let error = r.error();
    assert!(
        error.starts_with(&format!(
            "A context of {} tokens for huge-context.gguf needs 549.8 GB of memory for its KV cache, but only ",
            1u64 << 30
        )),
        "{error}"
    );
    assert!(
        error.ends_with(" is available; choose a smaller context."),
        "{error}"
    );
    assert!(started.elapsed().as_secs() < 60);
    let state = e.state();
    assert_eq!((&state["loaded"], &state["ctx"]), (&Value::Null, &json!(0)));
    let r = e.chat(&json!({"messages": [user("Hi")]}));
    assert_eq!(r.status, 409, "{}", r.text());

    // The same model with a context that fits.
    let r = load(&e, "huge-context.gguf", json!(1024));
    assert_eq!(r.status, 200, "{}", r.text());
    assert_eq!(e.state()["ctx"], 1024);
    assert_serving(&e);
    let r = load(&e, "stories260K.gguf", json!(null));
    assert_eq!(r.status, 200, "{}", r.text());
    assert_eq!(e.state()["ctx"], 4096);
    assert_serving(&e);
}
