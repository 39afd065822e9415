//! Tests with random-weight models generated from real vocabularies: the
//! model's own chat template, and image input through the tiny projector.

mod common;

use base64::Engine as _;
use common::gen::{png, write_model, ModelShape};
use common::*;
use serde_json::{json, Value};

fn data_url(bytes: &[u8]) -> String {
    format!(
        "data:image/png;base64,{}",
        base64::engine::general_purpose::STANDARD.encode(bytes)
    )
}

#[test]
fn model_with_its_own_chat_template() {
    let dir = temp_dir("phi3");
    write_model(
        &dir.join("tiny-phi3.gguf"),
        &shared_models().join("vocab/ggml-vocab-phi-3.gguf"),
        &ModelShape::tiny_llama(11),
    );
    let e = Engine::start(&dir);
    let r = e.load("tiny-phi3.gguf");
    assert_eq!(r.status, 200, "{}", r.text());
    let mut messages = vec![user("Hello there")];
    let r = e.chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 8}));
    assert_eq!(r.status, 200, "{}", r.text());
    let v = r.json();
    let reply = v["choices"][0]["message"]["content"]
        .as_str()
        .unwrap()
        .to_string();
    // The phi-3 template wraps the turn in <|user|> ... <|end|> <|assistant|>,
    // which are single special tokens: a handful of tokens in all.
    let prompt = v["usage"]["prompt_tokens"].as_i64().unwrap();
    assert!((4..=12).contains(&prompt), "{v}");
    messages.push(json!({"role": "assistant", "content": reply}));
    messages.push(user("And then?"));
    let r =
        e.chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 8, "stream": true}));
    assert_eq!(r.status, 200, "{}", r.text());
    assert_eq!(r.events().last().unwrap(), "[DONE]");
    let last = e.state()["last"].clone();
    assert!(
        last["cached_tokens"].as_i64().unwrap() >= prompt - 1,
        "{last}"
    );
}

fn image_question(url: &str, text: &str) -> Value {
    json!({"role": "user", "content": [
        {"type": "image_url", "image_url": {"url": url}},
        {"type": "text", "text": text}
    ]})
}

#[test]
fn image_chat_with_projector() {
    let dir = vision_dir("vision");
    std::os::unix::fs::symlink(
        shared_models().join("stories260K.gguf"),
        dir.join("stories260K.gguf"),
    )
    .unwrap();
    let e = Engine::start(&dir);

    let img = data_url(&png(32, 32, 1));
    // No model: no vision.
    assert_eq!(
        e.api(
            "POST",
            "/api/encode",
            Some(&json!({"url": img}).to_string())
        )
        .status,
        409
    );
    // A model whose width does not match gets no projector.
    assert_eq!(e.load("stories260K.gguf").status, 200);
    assert_eq!(e.state()["vision"], false);
    assert_eq!(
        e.api(
            "POST",
            "/api/encode",
            Some(&json!({"url": img}).to_string())
        )
        .status,
        409
    );

    let r = e.load("tinygemma3.gguf");
    assert_eq!(r.status, 200, "{}", r.text());
    let s = e.state();
    assert_eq!(s["vision"], true, "{s}");
    assert_eq!(s["projector"], "mmproj-tinygemma3.gguf");

    for bad in [
        "data:image/png;base64,AAAA",
        "data:image/png;base64,@@",
        "https://example.com/x.png",
        "data:text/plain,hi",
    ] {
        let r = e.api(
            "POST",
            "/api/encode",
            Some(&json!({"url": bad}).to_string()),
        );
        assert_eq!(r.status, 400, "{bad}: {}", r.text());
    }
    let r = e.api(
        "POST",
        "/api/encode",
        Some(&json!({"url": img}).to_string()),
    );
    assert_eq!(r.status, 200, "{}", r.text());

    let content = json!([
        {"type": "image_url", "image_url": {"url": img}},
        {"type": "text", "text": "What is in the picture?"}
    ]);
    let mut messages = vec![json!({"role": "user", "content": content})];
    let r =
        e.chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 6, "stream": true}));
    assert_eq!(r.status, 200, "{}", r.text());
    let ev = r.events();
    assert_eq!(ev.last().unwrap(), "[DONE]");
    let fin: Value = serde_json::from_str(&ev[ev.len() - 2]).unwrap();
    let with_image = fin["usage"]["prompt_tokens"].as_i64().unwrap();
    // /api/encode already placed the image where a new conversation puts
    // it, so only the question after it was evaluated.
    let last = e.state()["last"].clone();
    assert!(last["evaluated_tokens"].as_i64().unwrap() < 30, "{last}");
    assert!(
        last["cached_tokens"].as_i64().unwrap() > with_image - 30,
        "{last}"
    );
    // /api/encode also decoded it.
    assert_eq!(last["decoded_images"], 0, "{last}");

    // Pre-encoded, then asked in another conversation than the one it was
    // guessed for: the stored encoder output is decoded in place.
    let second = data_url(&png(32, 32, 5));
    assert_eq!(
        e.api(
            "POST",
            "/api/encode",
            Some(&json!({"url": second}).to_string())
        )
        .status,
        200
    );
    let r = e.chat(&json!({"messages": [user("A different conversation."), {"role": "assistant", "content": "Yes."},
        {"role": "user", "content": [{"type": "image_url", "image_url": {"url": second}}, {"type": "text", "text": "Look."}]}],
        "temperature": 0, "max_tokens": 2}));
    assert_eq!(r.status, 200, "{}", r.text());
    assert_eq!(e.state()["last"]["reused_images"], 1);

    // A different image in a fresh conversation is encoded on the spot.
    let other = data_url(&png(40, 24, 9));
    let r = e.chat(&json!({"messages": [{"role": "user", "content": [
        {"type": "image_url", "image_url": {"url": other}}, {"type": "text", "text": "And this?"}
    ]}], "temperature": 0, "max_tokens": 2}));
    assert_eq!(r.status, 200, "{}", r.text());
    assert_eq!(e.state()["last"]["reused_images"], 0);
    assert_eq!(e.state()["last"]["decoded_images"], 1);

    // The same question without the image is shorter by the image's tokens.
    let r = e.chat(
        &json!({"messages": [user("What is in the picture?")], "temperature": 0, "max_tokens": 2}),
    );
    let without = r.json()["usage"]["prompt_tokens"].as_i64().unwrap();
    assert!(with_image > without + 4, "{with_image} vs {without}");

    // A follow-up reuses the cached image positions.
    let first = e
        .chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 4}))
        .json();
    messages
        .push(json!({"role": "assistant", "content": first["choices"][0]["message"]["content"]}));
    messages.push(user("Tell me more."));
    let r = e.chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 4}));
    assert_eq!(r.status, 200, "{}", r.text());
    let last = e.state()["last"].clone();
    assert!(
        last["cached_tokens"].as_i64().unwrap() >= with_image - 1,
        "{last}"
    );
    assert_eq!(last["decoded_images"], 0, "{last}");

    // A JPEG-looking but broken image is a clear 400.
    let r = e.chat(&json!({"messages": [{"role": "user", "content": [
        {"type": "image_url", "image_url": {"url": "data:image/jpeg;base64,/9j/4AAQSkZJRgABAQ=="}},
        {"type": "text", "text": "?"}
    ]}]}));
    assert_eq!(r.status, 400, "{}", r.text());
}

#[test]
fn images_sent_on_every_turn_are_decoded_once() {
    let dir = vision_dir("vision-turns");
    let e = Engine::start(&dir);
    assert_eq!(e.load("tinygemma3.gguf").status, 200);
    let first = data_url(&png(48, 40, 3));
    let second = data_url(&png(24, 24, 4));
    let mut messages = vec![image_question(&first, "What is this?")];
    let mut decoded = Vec::new();
    for turn in 0..4 {
        let r = e.chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 3}));
        assert_eq!(r.status, 200, "{}", r.text());
        let reply = r.json()["choices"][0]["message"]["content"].clone();
        decoded.push(e.state()["last"]["decoded_images"].as_i64().unwrap());
        messages.push(json!({"role": "assistant", "content": reply}));
        messages.push(if turn == 1 {
            image_question(&second, "And this one?")
        } else {
            user("Tell me more.")
        });
    }
    // Each image is decoded on the turn that brings it, never again.
    assert_eq!(decoded, [1, 0, 1, 0]);
    // Nor in a new conversation, nor after the model is loaded again.
    let r = e.chat(&json!({"messages": [image_question(&second, "Again?")], "max_tokens": 2}));
    assert_eq!(r.status, 200, "{}", r.text());
    assert_eq!(e.state()["last"]["decoded_images"], 0);
    assert_eq!(e.load("tinygemma3.gguf").status, 200);
    let r = e.chat(&json!({"messages": messages, "max_tokens": 2}));
    assert_eq!(r.status, 200, "{}", r.text());
    assert_eq!(e.state()["last"]["decoded_images"], 0);
}

/// Resident memory of a process, in bytes.
fn resident_bytes(pid: u32) -> u64 {
    let status = std::fs::read_to_string(format!("/proc/{pid}/status")).unwrap();
    let line = status.lines().find(|l| l.starts_with("VmRSS:")).unwrap();
    let kb: u64 = line.split_whitespace().nth(1).unwrap().parse().unwrap();
    kb * 1024
}

#[test]
fn vision_models_come_and_go_with_their_images() {
    // Contexts, projectors and encoder outputs are made and freed with every
    // load: load, encode, ask, load another, ask, unload, several times.
    // Trained on 32768 tokens, so that each context is large enough for a
    // leak to show.
    let dir = vision_dir_with(
        "vision-cycle",
        &["tinygemma3.gguf", "tinygemma3b.gguf"],
        Some(32768),
    );
    let e = Engine::start(&dir);
    let load = |name: &str| {
        let r = e.api(
            "POST",
            "/api/load",
            Some(&json!({"name": name, "gpu": true, "ctx": 32768}).to_string()),
        );
        assert_eq!(r.status, 200, "{}", r.text());
        assert_eq!(e.state()["vision"], true);
    };
    let encode = |url: &str| {
        let r = e.api(
            "POST",
            "/api/encode",
            Some(&json!({"url": url}).to_string()),
        );
        assert_eq!(r.status, 200, "{}", r.text());
    };
    // Asked in another conversation than /api/encode guessed, so that the
    // kept encoder output is what places the image.
    let ask = |url: &str| {
        let r = e.chat(
            &json!({"messages": [user("Hello."), {"role": "assistant", "content": "Hi."},
            image_question(url, "What is it?")], "temperature": 0, "max_tokens": 2}),
        );
        assert_eq!(r.status, 200, "{}", r.text());
        e.state()["last"].clone()
    };
    let mut resident = Vec::new();
    for round in 0..6u8 {
        let image = data_url(&png(32, 32, 100 + round));
        load("tinygemma3.gguf");
        encode(&image);
        let last = ask(&image);
        assert_eq!(last["reused_images"], 1, "{last}");
        assert_eq!(last["decoded_images"], 0, "{last}");
        // Another model: the first one's context, projector and encoder
        // outputs are gone; the decoded pixels are not.
        load("tinygemma3b.gguf");
        let last = ask(&image);
        assert_eq!(last["reused_images"], 0, "{last}");
        assert_eq!(last["decoded_images"], 0, "{last}");
        let other = data_url(&png(16, 40, 200 + round));
        encode(&other);
        assert_eq!(ask(&other)["reused_images"], 1);
        let r = e.api("POST", "/api/unload", Some("{}"));
        assert_eq!(r.status, 200, "{}", r.text());
        assert_eq!(e.state()["loaded"], Value::Null);
        resident.push(resident_bytes(e.child.id()));
    }
    // Every round makes two 32768-token contexts, some 40 MB each: a round
    // that kept them would add 80 MB. Memory that stays within the
    // allocator's own slack after the first rounds means they were freed.
    let growth = resident[5].saturating_sub(resident[1]);
    assert!(growth < 96 << 20, "resident after each round: {resident:?}");
}

#[test]
fn files_that_make_llama_cpp_abort_are_refused() {
    let dir = temp_dir("abort");
    let vocab = shared_models().join("vocab/ggml-vocab-llama-spm.gguf");
    // llama.cpp asserts (and would abort the process) on these layer counts.
    write_model(
        &dir.join("no-layers.gguf"),
        &vocab,
        &ModelShape {
            arch: "llama",
            n_embd: 32,
            n_layer: 0,
            n_head: 4,
            n_ff: 64,
            seed: 1,
        },
    );
    write_model(
        &dir.join("too-many-layers.gguf"),
        &vocab,
        &ModelShape {
            arch: "llama",
            n_embd: 8,
            n_layer: 600,
            n_head: 2,
            n_ff: 8,
            seed: 1,
        },
    );
    std::os::unix::fs::symlink(
        shared_models().join("stories260K.gguf"),
        dir.join("stories260K.gguf"),
    )
    .unwrap();
    let e = Engine::start(&dir);
    for name in ["no-layers.gguf", "too-many-layers.gguf"] {
        let r = e.load(name);
        assert_eq!(r.status, 500, "{name}: {}", r.text());
        assert!(r.error().contains(name), "{}", r.error());
    }
    assert_eq!(e.load("stories260K.gguf").status, 200);
    let r = e.chat(&json!({"messages": [user("Hi")], "max_tokens": 2}));
    assert_eq!(r.status, 200, "{}", r.text());
}
