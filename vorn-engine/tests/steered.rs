//! Random-weight models steered to write chosen tokens: " Hello", then a
//! turn end or a reasoning tag, over and over. The turn ends a model's
//! template and vocabulary name stop the reply; reasoning streams apart
//! from the answer where the template marks it.

mod common;

use common::gen::{write_model_with, Extras, ModelShape, CONTROL, USER_DEFINED};
use common::*;
use serde_json::{json, Value};
use std::path::Path;

const CHATML: &str = "{% for m in messages %}{{ '<|im_start|>' + m.role + '\\n' + m.content + '<|im_end|>\\n' }}{% endfor %}\
    {% if add_generation_prompt %}{{ '<|im_start|>assistant\\n' }}{% endif %}";

/// Turn tokens that llama.cpp does not know by name.
const TURN_TOKENS: &str = "{{ bos_token }}{% for m in messages %}{{ '<|START_OF_TURN_TOKEN|>' }}\
    {{ '<|USER_TOKEN|>' if m.role == 'user' else '<|CHATBOT_TOKEN|>' if m.role == 'assistant' else '<|SYSTEM_TOKEN|>' }}\
    {{ m.content + '<|END_OF_TURN_TOKEN|>' }}{% endfor %}\
    {% if add_generation_prompt %}{{ '<|START_OF_TURN_TOKEN|><|CHATBOT_TOKEN|>' }}{% endif %}";

/// A format whose turns end with a line break: it names no turn token.
const PLAIN: &str =
    "{% for m in messages %}{{ m.role + ': ' + m.content + '\\n' }}{% endfor %}assistant:";

const ADDED: [(&str, i32); 9] = [
    ("<|im_start|>", CONTROL),
    ("<|im_end|>", CONTROL),
    ("<|START_OF_TURN_TOKEN|>", CONTROL),
    ("<|END_OF_TURN_TOKEN|>", CONTROL),
    ("<|USER_TOKEN|>", CONTROL),
    ("<|CHATBOT_TOKEN|>", CONTROL),
    ("<|SYSTEM_TOKEN|>", CONTROL),
    ("<think>", USER_DEFINED),
    ("</think>", USER_DEFINED),
];

fn steered_model(dir: &Path, name: &str, template: &str, then: &str) {
    steered_model_with(dir, name, template, then, &ADDED);
}

fn steered_model_with(dir: &Path, name: &str, template: &str, then: &str, added: &[(&str, i32)]) {
    write_model_with(
        &dir.join(name),
        &shared_models().join("vocab/ggml-vocab-llama-spm.gguf"),
        &ModelShape::tiny_llama(3),
        &Extras {
            chat_template: Some(template),
            added_tokens: added,
            steer: Some(("▁Hello", then)),
            ..Extras::default()
        },
    );
}

fn real_template(name: &str) -> String {
    std::fs::read_to_string(
        Path::new(env!("CARGO_MANIFEST_DIR")).join(format!("../../shared/templates/{name}.jinja")),
    )
    .unwrap()
}

/// The chunks of a streamed reply, checked for its frame: the role first,
/// a finish reason last, then [DONE].
fn stream_chunks(r: &Response) -> Vec<Value> {
    assert_eq!(r.status, 200, "{}", r.text());
    let events = r.events();
    assert_eq!(events.last().map(String::as_str), Some("[DONE]"));
    let chunks: Vec<Value> = events[..events.len() - 1]
        .iter()
        .map(|e| serde_json::from_str(e).unwrap())
        .collect();
    assert_eq!(chunks[0]["choices"][0]["delta"]["role"], "assistant");
    assert!(chunks.last().unwrap()["choices"][0]["finish_reason"].is_string());
    chunks
}

/// The concatenated deltas of one member across a stream.
fn joined(chunks: &[Value], member: &str) -> String {
    chunks
        .iter()
        .filter_map(|c| c["choices"][0]["delta"][member].as_str())
        .collect()
}

fn finish_reason(chunks: &[Value]) -> &str {
    chunks.last().unwrap()["choices"][0]["finish_reason"]
        .as_str()
        .unwrap()
}

#[test]
fn turn_end_tokens_stop_the_reply() {
    let dir = temp_dir("turn-ends");
    steered_model(&dir, "chatml.gguf", CHATML, "<|im_end|>");
    steered_model(&dir, "turns.gguf", TURN_TOKENS, "<|END_OF_TURN_TOKEN|>");
    steered_model(&dir, "plain.gguf", PLAIN, "<|END_OF_TURN_TOKEN|>");
    let e = Engine::start(&dir);
    let ask = json!({"messages": [user("Hi")], "temperature": 0, "max_tokens": 4});
    let stream =
        json!({"messages": [user("Hi")], "temperature": 0, "max_tokens": 4, "stream": true});

    // <|im_end|> is in llama.cpp's own end-of-generation set; the other
    // one stops the reply because the template closes turns with it.
    for model in ["chatml.gguf", "turns.gguf"] {
        assert_eq!(e.load(model).status, 200, "{model}");
        let r = e.chat(&ask);
        assert_eq!(r.status, 200, "{model}: {}", r.text());
        let v = r.json();
        assert_eq!(
            v["choices"][0]["message"]["content"], " Hello",
            "{model}: {v}"
        );
        assert_eq!(v["choices"][0]["finish_reason"], "stop", "{model}: {v}");
        assert_eq!(v["usage"]["completion_tokens"], 1, "{model}: {v}");
        let r = e.chat(&stream);
        let chunks = stream_chunks(&r);
        assert_eq!(joined(&chunks, "content"), " Hello", "{model}");
        assert_eq!(finish_reason(&chunks), "stop");
        assert!(!r.text().contains("END_OF_TURN") && !r.text().contains("im_end"));
    }

    // The same weights under a template that names no turn token: the
    // token is not a turn end there, so the reply runs to its limit (and
    // the control token's text never shows).
    assert_eq!(e.load("plain.gguf").status, 200);
    let v = e.chat(&ask).json();
    assert_eq!(v["choices"][0]["finish_reason"], "length", "{v}");
    assert_eq!(v["choices"][0]["message"]["content"], " Hello Hello", "{v}");
    assert_eq!(v["usage"]["completion_tokens"], 4, "{v}");
}

#[test]
fn reasoning_streams_apart_where_the_template_marks_it() {
    let dir = temp_dir("reasoning");
    // The prompt of this template opens the reasoning section itself.
    let deepseek = real_template("deepseek-ai-DeepSeek-R1-Distill-Qwen-32B");
    steered_model(&dir, "thinker.gguf", &deepseek, "</think>");
    let qwen = real_template("Qwen-Qwen2.5-7B-Instruct");
    steered_model(&dir, "plain.gguf", &qwen, "</think>");
    let e = Engine::start(&dir);
    let body = |stream: bool| json!({"messages": [user("Hi")], "temperature": 0, "max_tokens": 3, "stream": stream});

    assert_eq!(e.load("thinker.gguf").status, 200);
    let chunks = stream_chunks(&e.chat(&body(true)));
    assert_eq!(joined(&chunks, "reasoning_content"), "Hello");
    assert_eq!(joined(&chunks, "content"), "Hello");
    // Reasoning comes first, and no chunk carries both.
    let kinds: Vec<&str> = chunks[1..]
        .iter()
        .filter_map(|c| {
            let delta = &c["choices"][0]["delta"];
            match (
                delta["reasoning_content"].is_string(),
                delta["content"].is_string(),
            ) {
                (true, false) => Some("reasoning"),
                (false, true) => Some("content"),
                (false, false) => None,
                (true, true) => panic!("both in one chunk: {c}"),
            }
        })
        .collect();
    assert_eq!(kinds, ["reasoning", "content"]);
    assert_eq!(finish_reason(&chunks), "length");
    let v = e.chat(&body(false)).json();
    assert_eq!(
        v["choices"][0]["message"]["reasoning_content"], "Hello",
        "{v}"
    );
    assert_eq!(v["choices"][0]["message"]["content"], "Hello", "{v}");

    // Without reasoning in the template, the same output is all answer.
    assert_eq!(e.load("plain.gguf").status, 200);
    let r = e.chat(&body(true));
    let chunks = stream_chunks(&r);
    assert_eq!(joined(&chunks, "content"), " Hello</think> Hello");
    assert!(!r.text().contains("reasoning_content"), "{}", r.text());
    let v = e.chat(&body(false)).json();
    assert_eq!(
        v["choices"][0]["message"]["content"],
        " Hello</think> Hello"
    );
    assert!(
        v["choices"][0]["message"]
            .get("reasoning_content")
            .is_none(),
        "{v}"
    );

    // Earlier reasoning never reaches the prompt, whether the template
    // drops it itself (the first) or not (the second).
    for model in ["thinker.gguf", "plain.gguf"] {
        assert_eq!(e.load(model).status, 200);
        let prompt_tokens = |answer: Value| {
            let messages = json!([user("Hi"), answer, user("More")]);
            let r = e.chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 1}));
            assert_eq!(r.status, 200, "{}", r.text());
            r.json()["usage"]["prompt_tokens"].as_i64().unwrap()
        };
        let bare = prompt_tokens(json!({"role": "assistant", "content": "Hello"}));
        let with_reasoning = prompt_tokens(json!({"role": "assistant",
            "content": "<think>\nA long and winding line of thought.\n</think>\n\nHello",
            "reasoning_content": "A long and winding line of thought."}));
        assert_eq!(bare, with_reasoning, "{model}");
    }
}

#[test]
fn reasoning_tags_that_are_control_tokens_still_split_the_reply() {
    let dir = temp_dir("control-reasoning");
    // llama.cpp renders control tokens as nothing; these tags must still show.
    let mut added = ADDED;
    for (text, kind) in added.iter_mut() {
        if text.ends_with("think>") {
            *kind = CONTROL;
        }
    }
    let deepseek = real_template("deepseek-ai-DeepSeek-R1-Distill-Qwen-32B");
    steered_model_with(&dir, "thinker.gguf", &deepseek, "</think>", &added);
    let e = Engine::start(&dir);
    assert_eq!(e.load("thinker.gguf").status, 200);
    let body = |stream: bool| json!({"messages": [user("Hi")], "temperature": 0, "max_tokens": 3, "stream": stream});

    let chunks = stream_chunks(&e.chat(&body(true)));
    assert_eq!(joined(&chunks, "reasoning_content"), "Hello");
    assert_eq!(joined(&chunks, "content"), "Hello");
    let v = e.chat(&body(false)).json();
    assert_eq!(
        v["choices"][0]["message"]["reasoning_content"], "Hello",
        "{v}"
    );
    assert_eq!(v["choices"][0]["message"]["content"], "Hello", "{v}");
}
