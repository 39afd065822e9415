//! The context people can see and control, through the real engine: model
//! details in the listing, the context a model loads with, what each reply
//! says about the context, and counting a conversation's tokens.

mod common;

use common::gen::HeaderValue::{self, Text, Uint};
use common::gen::{write_header, write_model_with, Extras, ModelShape};
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
    // A 1B-shaped llama with 128K of trained context.
    let llama = |extra: &[(&'static str, HeaderValue<'static>)]| {
        let mut keys = vec![
            ("general.architecture", Text("llama")),
            ("llama.context_length", Uint(131_072)),
            ("llama.block_count", Uint(16)),
            ("llama.embedding_length", Uint(2048)),
            ("llama.attention.head_count", Uint(32)),
            ("llama.attention.head_count_kv", Uint(8)),
        ];
        keys.extend_from_slice(extra);
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
    write_model_with(
        &dir.join("huge-context.gguf"),
        &shared_models().join("vocab/ggml-vocab-llama-spm.gguf"),
        &ModelShape::tiny_llama(3),
        &Extras {
            context_length: Some(1 << 30),
            ..Extras::default()
        },
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

fn count(e: &Engine, body: &Value) -> Response {
    e.api("POST", "/api/count", Some(&body.to_string()))
}

/// A count that worked: (tokens, size, dropped messages).
fn counted(e: &Engine, body: &Value) -> (i64, i64, i64) {
    let r = count(e, body);
    assert_eq!(r.status, 200, "{}", r.text());
    let v = r.json();
    assert_eq!(v.as_object().unwrap().len(), 3, "{v}");
    (
        v["tokens"].as_i64().unwrap(),
        v["size"].as_i64().unwrap(),
        v["dropped_messages"].as_i64().unwrap(),
    )
}

const SYSTEM: &str = "You are a storyteller who always answers with a short tale.";

/// A system message, then `turns` questions and answers, then a question.
fn conversation(turns: usize) -> Vec<Value> {
    let mut messages = vec![json!({"role": "system", "content": SYSTEM})];
    for i in 0..turns {
        messages.push(user(&format!(
            "Turn {i}: tell me what the little dog found in the park."
        )));
        messages.push(json!({"role": "assistant", "content": format!(
            "In turn {i} the little dog found a red ball under the big tree."
        )}));
    }
    messages.push(user("And what happened next?"));
    messages
}

/// A reply, non-streamed or streamed: its usage and context objects.
fn reply_figures(e: &Engine, body: &Value) -> (Value, Value) {
    let r = e.chat(body);
    assert_eq!(r.status, 200, "{}", r.text());
    if body["stream"] == true {
        let events = r.events();
        assert_eq!(events.last().unwrap(), "[DONE]");
        // Only the last chunk carries them.
        for event in &events[..events.len() - 2] {
            let chunk: Value = serde_json::from_str(event).unwrap();
            assert!(
                chunk.get("usage").is_none() && chunk.get("context").is_none(),
                "{chunk}"
            );
        }
        let last: Value = serde_json::from_str(&events[events.len() - 2]).unwrap();
        assert!(last["choices"][0]["finish_reason"].is_string(), "{last}");
        (last["usage"].clone(), last["context"].clone())
    } else {
        let v = r.json();
        (v["usage"].clone(), v["context"].clone())
    }
}

#[test]
fn replies_and_counts_say_how_the_conversation_fits() {
    let e = Engine::start(&stories_dir("fit"));
    let r = load(&e, "stories260K.gguf", json!(512));
    assert_eq!(r.status, 200, "{}", r.text());

    // A conversation that fits: nothing left out, streamed or not.
    let short = conversation(1);
    let (tokens, size, dropped) = counted(&e, &json!({"messages": short}));
    assert_eq!((size, dropped), (512, 0));
    for stream in [false, true] {
        let body = json!({"messages": short, "max_tokens": 8, "temperature": 0, "stream": stream});
        let (usage, context) = reply_figures(&e, &body);
        assert_eq!(usage["prompt_tokens"], tokens, "{usage}");
        let completion = usage["completion_tokens"].as_i64().unwrap();
        assert!((1..=8).contains(&completion), "{usage}");
        assert_eq!(usage["total_tokens"], tokens + completion);
        assert_eq!(context, json!({"size": 512, "dropped_messages": 0}));
        let last = &e.state()["last"];
        assert_eq!(
            (
                &last["context_size"],
                &last["dropped_messages"],
                &last["prompt_tokens"]
            ),
            (&json!(512), &json!(0), &json!(tokens))
        );
        // The count before the first reply evaluated nothing: it did it all.
        if !stream {
            assert_eq!(last["evaluated_tokens"], tokens, "{last}");
        }
    }

    // Thirty turns do not fit: the oldest give way, the system message stays.
    let long = conversation(30);
    let body = json!({"messages": long, "max_tokens": 8});
    let (tokens, size, dropped) = counted(&e, &body);
    assert_eq!(size, 512);
    assert!(dropped > 0 && dropped < long.len() as i64 - 1, "{dropped}");
    assert!(tokens + 8 <= 512, "{tokens}");
    // What is sent is exactly the system message and the messages after the cut.
    let mut kept = vec![long[0].clone()];
    kept.extend_from_slice(&long[1 + dropped as usize..]);
    assert_eq!(
        counted(&e, &json!({"messages": kept, "max_tokens": 8})),
        (tokens, 512, 0)
    );
    let without_system = &kept[1..];
    let (alone, _, _) = counted(&e, &json!({"messages": without_system, "max_tokens": 8}));
    assert!(alone < tokens, "{alone} {tokens}");
    // The reply agrees with the count, streamed and not.
    for stream in [true, false] {
        let body = json!({"messages": long, "max_tokens": 8, "temperature": 0, "stream": stream});
        let (usage, context) = reply_figures(&e, &body);
        assert_eq!(usage["prompt_tokens"], tokens);
        assert_eq!(context, json!({"size": 512, "dropped_messages": dropped}));
        let last = &e.state()["last"];
        assert_eq!(
            (&last["context_size"], &last["dropped_messages"]),
            (&json!(512), &json!(dropped))
        );
    }
    // Without a limit the reply may take a quarter of the context, so the
    // prompt has less room and more is left out.
    let (roomy, _, more) = counted(&e, &json!({"messages": long}));
    assert!(more >= dropped && roomy + 128 <= 512, "{roomy} {more}");
    // The count also reads max_completion_tokens, as replies do.
    assert_eq!(
        counted(&e, &json!({"messages": long, "max_completion_tokens": 8})),
        (tokens, 512, dropped)
    );
}

#[test]
fn counting_leaves_the_cache_and_the_cut_alone() {
    let e = Engine::start(&stories_dir("cache"));
    assert_eq!(load(&e, "stories260K.gguf", json!(512)).status, 200);
    let mut long = conversation(30);
    let body =
        |messages: &Vec<Value>| json!({"messages": messages, "max_tokens": 8, "temperature": 0});
    let first = e.chat(&body(&long)).json();
    let dropped = first["context"]["dropped_messages"].as_i64().unwrap();
    let prompt = first["usage"]["prompt_tokens"].as_i64().unwrap();
    assert!(dropped > 0);

    // Counting other conversations in between: one cut elsewhere, one that fits.
    let other: Vec<Value> = conversation(40)
        .into_iter()
        .map(|mut m| {
            m["content"] = json!(format!("Other: {}", m["content"].as_str().unwrap()));
            m
        })
        .collect();
    let (_, _, other_dropped) = counted(&e, &json!({"messages": other, "max_tokens": 8}));
    assert!(other_dropped > 0);
    counted(&e, &json!({"messages": [user("Something else entirely.")]}));

    // The next turn keeps the first turn's cut and finds it in the cache.
    long.push(json!({"role": "assistant", "content": first["choices"][0]["message"]["content"]}));
    long.push(user("Tell me one more."));
    let (tokens, _, predicted) = counted(&e, &body(&long));
    assert_eq!(predicted, dropped);
    // A fresh cut, without the first one to follow, would leave out more.
    let fresh = {
        let mut changed = long.clone();
        changed[1 + dropped as usize]["content"] = json!("Tell me what the cat found in the park.");
        counted(&e, &body(&changed)).2
    };
    assert!(fresh > dropped, "{fresh} {dropped}");
    let second = e.chat(&body(&long)).json();
    assert_eq!(second["context"]["dropped_messages"], dropped);
    assert_eq!(second["usage"]["prompt_tokens"], tokens);
    let last = &e.state()["last"];
    assert!(
        last["cached_tokens"].as_i64().unwrap() >= prompt - 1,
        "{last}, first prompt {prompt}"
    );
}

#[test]
fn one_message_longer_than_the_context() {
    let e = Engine::start(&stories_dir("long-message"));
    assert_eq!(load(&e, "stories260K.gguf", json!(128)).status, 200);
    let long_text = "The little dog ran to the park and found a red ball. ".repeat(40);
    let messages = json!([{"role": "system", "content": "Be kind."}, user(&long_text)]);
    let body = json!({"messages": messages, "max_tokens": 8, "temperature": 0});
    let (tokens, size, dropped) = counted(&e, &body);
    assert_eq!((size, dropped), (128, 0));
    assert_eq!(tokens, 128 - 8);
    let (usage, context) = reply_figures(&e, &body);
    assert_eq!(usage["prompt_tokens"], tokens);
    assert_eq!(context, json!({"size": 128, "dropped_messages": 0}));
    // The system message and the newest message's end stay: the same cut of
    // a longer text keeps the same tokens.
    let longer = format!("Some other words at the start. {long_text}");
    let other = json!({"messages": [{"role": "system", "content": "Be kind."}, user(&longer)], "max_tokens": 8});
    assert_eq!(counted(&e, &other).0, tokens);

    // A system message that alone does not fit cannot be kept: refused.
    let messages = json!([{"role": "system", "content": long_text}, user("Hi")]);
    for path in ["/api/count", "/v1/chat/completions"] {
        let r = e.api(
            "POST",
            path,
            Some(&json!({"messages": messages, "max_tokens": 8}).to_string()),
        );
        assert_eq!(r.status, 400, "{}", r.text());
        assert_eq!(
            r.error(),
            "The system message is too long for the model's context."
        );
    }
    assert_serving(&e);
}

#[test]
fn count_refusals() {
    let e = Engine::start(&stories_dir("count-errors"));
    let body = json!({"messages": [user("Hi")]}).to_string();
    let r = e.api("POST", "/api/count", Some(&body));
    assert_eq!(
        (r.status, r.error()),
        (409, "No model is loaded.".to_string())
    );
    assert_eq!(load(&e, "stories260K.gguf", json!(512)).status, 200);
    // Without the app's header.
    let host = e.host();
    let r = request(
        e.port,
        "POST",
        "/api/count",
        &[
            ("Host", host.as_str()),
            ("Content-Type", "application/json"),
        ],
        Some(body.as_bytes()),
    )
    .unwrap();
    assert_eq!(r.status, 403);
    for (bad, error) in [
        (
            "{",
            "Invalid JSON: EOF while parsing an object at line 1 column 1",
        ),
        ("[]", "The request body must be a JSON object."),
        ("{}", "\"messages\" must be an array."),
        (r#"{"messages": []}"#, "\"messages\" must not be empty."),
        (
            r#"{"messages": [{"content": "x"}]}"#,
            "Every message needs a \"role\" text.",
        ),
        (
            r#"{"messages": [{"role": "user", "content": "x"}], "max_tokens": -1}"#,
            "\"max_tokens\" must be a non-negative integer.",
        ),
    ] {
        let r = e.api("POST", "/api/count", Some(bad));
        assert_eq!((r.status, r.error()), (400, error.to_string()), "{bad}");
    }
    // An image for a model without vision, as in chat.
    let image = json!({"messages": [user_parts(json!([
        {"type": "text", "text": "What is this?"},
        {"type": "image_url", "image_url": {"url": "data:image/png;base64,aGk="}},
    ]))]});
    let r = count(&e, &image);
    assert_eq!(
        (r.status, r.error()),
        (400, "The loaded model does not accept images.".to_string())
    );
    assert_serving(&e);
}

fn user_parts(parts: Value) -> Value {
    json!({"role": "user", "content": parts})
}

#[test]
fn images_count_the_tokens_their_embeddings_take() {
    use base64::Engine as _;
    let dir = vision_dir("count-vision");
    let e = Engine::start(&dir);
    assert_eq!(load(&e, "tinygemma3.gguf", json!(2048)).status, 200);
    assert_eq!(e.state()["vision"], true);
    let png = common::gen::png(32, 32, 7);
    let url = format!(
        "data:image/png;base64,{}",
        base64::engine::general_purpose::STANDARD.encode(png)
    );
    let with_image = json!({"messages": [user_parts(json!([
        {"type": "image_url", "image_url": {"url": url}},
        {"type": "text", "text": "What is in the picture?"},
    ]))], "max_tokens": 4, "temperature": 0});
    let without_image = json!({"messages": [user_parts(json!([
        {"type": "text", "text": "What is in the picture?"},
    ]))], "max_tokens": 4, "temperature": 0});
    let (tokens, size, dropped) = counted(&e, &with_image);
    assert_eq!((size, dropped), (2048, 0));
    let (plain, _, _) = counted(&e, &without_image);
    // The image's positions and the line break after its marker.
    assert!(tokens > plain + 4, "{tokens} vs {plain}");

    // Counting encoded and evaluated nothing: the reply evaluates it all.
    let (usage, context) = reply_figures(&e, &with_image);
    assert_eq!(usage["prompt_tokens"], tokens);
    assert_eq!(context, json!({"size": 2048, "dropped_messages": 0}));
    // The count decoded the image; the reply found its pixels.
    let last = &e.state()["last"];
    assert_eq!(
        (
            &last["evaluated_tokens"],
            &last["reused_images"],
            &last["decoded_images"]
        ),
        (&json!(tokens), &json!(0), &json!(0)),
        "{last}"
    );
    // A broken image is refused as in chat.
    let broken = json!({"messages": [user_parts(json!([
        {"type": "image_url", "image_url": {"url": "data:image/png;base64,AAAA"}},
    ]))]});
    assert_eq!(count(&e, &broken).status, 400);
    assert_eq!(counted(&e, &with_image).0, tokens);
}
