//! Real models' chat templates, each written into a copy of the tiny trained
//! model and loaded in the real engine, answer every conversation shape the
//! app sends.

mod common;

use base64::Engine as _;
use common::gen::gguf_edit::with_chat_template;
use common::gen::{png, write_model, ModelShape};
use common::*;
use serde_json::{json, Value};
use std::path::{Path, PathBuf};
use vorn_engine::template::{ChatTemplate, TemplateMessage, MEDIA_MARKER};

fn shared_templates() -> PathBuf {
    Path::new(env!("CARGO_MANIFEST_DIR")).join("../../shared/templates")
}

/// The templates of the collection, by file name.
fn real_templates() -> Vec<(String, String)> {
    let mut found: Vec<(String, String)> = std::fs::read_dir(shared_templates())
        .unwrap()
        .map(|entry| entry.unwrap().path())
        .filter(|path| path.extension().is_some_and(|e| e == "jinja"))
        .map(|path| {
            let name = path.file_stem().unwrap().to_string_lossy().into_owned();
            (name, std::fs::read_to_string(&path).unwrap())
        })
        .collect();
    found.sort();
    assert_eq!(found.len(), 12, "the shared collection changed");
    found
}

/// Small templates of our own, each failing the way some published
/// templates do.
const OWN_TEMPLATES: [(&str, &str); 4] = [
    (
        "refuses-system",
        "{{ bos_token }}{% if messages[0]['role'] == 'system' %}{{ raise_exception('System role not supported') }}{% endif %}\
         {% for m in messages %}<start_of_turn>{{ 'model' if m.role == 'assistant' else m.role }}\n{{ m.content | trim }}<end_of_turn>\n{% endfor %}\
         {% if add_generation_prompt %}<start_of_turn>model\n{% endif %}",
    ),
    (
        "alternates",
        "{% if messages[0].role == 'system' %}{% set system = messages[0].content %}{% set turns = messages[1:] %}{% else %}{% set turns = messages %}{% endif %}\
         {{ bos_token }}{% for m in turns %}{% if (m.role == 'user') != (loop.index0 % 2 == 0) %}\
         {{ raise_exception('After the optional system message, conversation roles must alternate user/assistant/user/assistant/...') }}{% endif %}\
         {% if m.role == 'user' %}[INST]{% if loop.last and system is defined %}{{ system }}\n\n{% endif %}{{ m.content }}[/INST]{% else %}{{ m.content }}{{ eos_token }}{% endif %}{% endfor %}",
    ),
    (
        "refuses-system-and-alternates",
        "{{ bos_token }}{% if messages[0]['role'] == 'system' %}{{ raise_exception('System role not supported') }}{% endif %}\
         {% for m in messages %}{% if (m['role'] == 'user') != (loop.index0 % 2 == 0) %}{{ raise_exception('Conversation roles must alternate user/assistant/user/assistant/...') }}{% endif %}\
         <start_of_turn>{{ 'model' if m.role == 'assistant' else m.role }}\n{{ m.content | trim }}<end_of_turn>\n{% endfor %}\
         {% if add_generation_prompt %}<start_of_turn>model\n{% endif %}",
    ),
    (
        "dates",
        "{{ bos_token }}System: Today is {{ strftime_now('%d %b %Y') }} ({{ strftime_now('%Y-%m-%d') }}). \
         {{ 'The date is ' + date_string + '. ' }}{{ 'The time is ' + datetime + '.' }}\n\
         {% for m in messages %}{{ m.role }}: {{ m.content }}\n{% endfor %}assistant:",
    ),
];

fn message(role: &str, content: &str) -> Value {
    json!({"role": role, "content": content})
}

/// Every conversation shape the app can send to a text model.
fn shapes() -> Vec<(&'static str, Vec<Value>)> {
    let system = message("system", "You are a storyteller.");
    vec![
        ("user only", vec![user("Tell me a story.")]),
        (
            "system and turns",
            vec![
                system.clone(),
                user("Once upon a time"),
                message("assistant", "there was a cat."),
                user("What did the cat do?"),
                message("assistant", "It played."),
                user("And then?"),
            ],
        ),
        (
            "two users in a row",
            vec![user("Hello"), user("Are you there?")],
        ),
        (
            "system and two users",
            vec![system.clone(), user("Hello"), user("Are you there?")],
        ),
        (
            "earlier reasoning",
            vec![
                user("Hi"),
                json!({"role": "assistant",
                       "content": "<think>The user greets me.</think>Hello, friend.",
                       "reasoning_content": "The user greets me."}),
                user("Tell me a story."),
            ],
        ),
        (
            "after an edit",
            vec![
                system,
                user("Once upon a time"),
                message("assistant", "there was a dog."),
                user("A dog?"),
                user("No, a cat."),
            ],
        ),
    ]
}

fn all_templates() -> Vec<(String, String)> {
    let mut templates = real_templates();
    templates.extend(OWN_TEMPLATES.map(|(n, t)| (n.to_string(), t.to_string())));
    templates
}

/// The messages as the engine hands them to the template; an image part
/// becomes the media marker.
fn template_messages(messages: &[Value]) -> Vec<TemplateMessage> {
    messages
        .iter()
        .map(|m| {
            let content = match &m["content"] {
                Value::String(text) => text.clone(),
                parts => parts
                    .as_array()
                    .unwrap()
                    .iter()
                    .map(|p| match p["type"].as_str().unwrap() {
                        "image_url" => format!("{MEDIA_MARKER}\n"),
                        _ => p["text"].as_str().unwrap().to_string(),
                    })
                    .collect(),
            };
            TemplateMessage {
                role: m["role"].as_str().unwrap().into(),
                content,
            }
        })
        .collect()
}

fn image_part() -> Value {
    let png = png(16, 16, 3);
    let url = format!(
        "data:image/png;base64,{}",
        base64::engine::general_purpose::STANDARD.encode(png)
    );
    json!({"type": "image_url", "image_url": {"url": url}})
}

/// Conversations with an image, for models with a projector.
fn image_shapes() -> Vec<(&'static str, Vec<Value>)> {
    let asking = json!({"role": "user", "content": [image_part(), {"type": "text", "text": "What is this?"}]});
    vec![
        ("image", vec![asking.clone()]),
        (
            "system and image",
            vec![message("system", "You describe pictures."), asking],
        ),
    ]
}

#[test]
fn every_template_renders_every_shape_with_its_texts() {
    let mut shapes = shapes();
    shapes.extend(image_shapes());
    for (name, source) in all_templates() {
        let template = ChatTemplate::new(Some(source), "<s>".into(), "</s>".into());
        for (shape, messages) in &shapes {
            let messages = template_messages(messages);
            let text = template
                .render(&messages)
                .unwrap_or_else(|e| panic!("{name} | {shape}: {e}"));
            let images = messages
                .iter()
                .map(|m| m.content.matches(MEDIA_MARKER).count())
                .sum::<usize>();
            assert_eq!(
                text.matches(MEDIA_MARKER).count(),
                images,
                "{name} | {shape}"
            );
            for m in &messages {
                let words = m.content.replace(MEDIA_MARKER, "");
                let words = words.trim();
                if m.role == "assistant" && words.starts_with("<think>") {
                    assert!(!text.contains("greets me"), "{name} | {shape}: {text}");
                    assert!(text.contains("Hello, friend."), "{name} | {shape}: {text}");
                } else {
                    assert!(
                        text.contains(words),
                        "{name} | {shape}: {words:?} not in {text}"
                    );
                }
            }
        }
    }
}

#[test]
fn real_templates_answer_every_shape() {
    let dir = temp_dir("real-templates");
    let templates = all_templates();
    for (name, source) in &templates {
        with_chat_template(
            &shared_models().join("stories260K.gguf"),
            &dir.join(format!("{name}.gguf")),
            source,
        );
    }
    let e = Engine::start(&dir);
    let mut failures = Vec::new();
    let mut answered = 0;
    let shapes = shapes();
    for (name, _) in &templates {
        let r = e.load(&format!("{name}.gguf"));
        assert_eq!(r.status, 200, "{name}: {}", r.text());
        for (shape, messages) in &shapes {
            let r = e.chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 3}));
            if r.status == 200 && r.json()["choices"][0]["message"]["content"].is_string() {
                answered += 1;
            } else {
                failures.push(format!("{name} | {shape} | {} {}", r.status, r.text()));
            }
        }
    }
    let total = templates.len() * shapes.len();
    eprintln!("{answered} of {total} template x shape pairs answered");
    for failure in &failures {
        eprintln!("{failure}");
    }
    assert!(failures.is_empty(), "{}", failures.join("\n"));
}

/// Loops for ever when the conversation has more than one message, and
/// refuses one message, but only that one.
const TROUBLED: &str = "{% if messages | length > 1 %}{% for a in range(100000) %}{% for b in range(100000) %}x{% endfor %}{% endfor %}{% endif %}\
    {% if messages[0].content == 'forbidden' %}{{ raise_exception('This conversation is not allowed.') }}{% endif %}\
    {% for m in messages %}{{ m.role }}: {{ m.content }}\n{% endfor %}assistant:";

#[test]
fn a_template_that_fails_is_reported_and_the_engine_keeps_serving() {
    let dir = temp_dir("troubled-template");
    with_chat_template(
        &shared_models().join("stories260K.gguf"),
        &dir.join("troubled.gguf"),
        TROUBLED,
    );
    let e = Engine::start(&dir);
    assert_eq!(e.load("troubled.gguf").status, 200);
    let answer =
        |messages: Value| e.chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 2}));
    let r = answer(json!([user("Once upon a time")]));
    assert_eq!(r.status, 200, "{}", r.text());

    let r = answer(json!([user("forbidden")]));
    assert_eq!(r.status, 500, "{}", r.text());
    assert_eq!(
        r.error(),
        "The model's chat template could not render the conversation: \"This conversation is not allowed.\""
    );
    // The template is stopped by its fuel, also when streaming.
    for stream in [false, true] {
        let r = e.chat(&json!({"messages": [user("Hi"), user("Hello?")], "stream": stream}));
        assert_eq!(r.status, 500, "{}", r.text());
        assert!(
            r.error()
                .contains("could not render the conversation: it ran too long"),
            "{}",
            r.error()
        );
    }
    let r = answer(json!([user("Once upon a time")]));
    assert_eq!(r.status, 200, "{}", r.text());
    assert_eq!(e.state()["loaded"], "troubled.gguf");
}

#[test]
fn images_reach_the_projector_through_real_templates() {
    let dir = temp_dir("template-images");
    let base = dir.join("base.gguf.tmp");
    write_model(
        &base,
        &shared_models().join("vocab/ggml-vocab-llama-spm.gguf"),
        &ModelShape {
            arch: "gemma3",
            n_embd: 128,
            n_layer: 1,
            n_head: 4,
            n_ff: 256,
            seed: 5,
        },
    );
    let chosen = [
        "meta-llama-Llama-3.2-3B-Instruct",
        "deepseek-ai-DeepSeek-R1-Distill-Llama-8B",
        "refuses-system-and-alternates",
    ];
    let templates: Vec<(String, String)> = all_templates()
        .into_iter()
        .filter(|(name, _)| chosen.contains(&name.as_str()))
        .collect();
    assert_eq!(templates.len(), chosen.len());
    for (name, source) in &templates {
        with_chat_template(&base, &dir.join(format!("{name}.gguf")), source);
    }
    std::fs::remove_file(&base).unwrap();
    std::os::unix::fs::symlink(
        shared_models().join("mmproj/mmproj-tinygemma3.gguf"),
        dir.join("mmproj-tinygemma3.gguf"),
    )
    .unwrap();
    let e = Engine::start(&dir);
    for (name, _) in &templates {
        let r = e.load(&format!("{name}.gguf"));
        assert_eq!(r.status, 200, "{name}: {}", r.text());
        assert_eq!(e.state()["vision"], true, "{name}");
        for (shape, messages) in image_shapes() {
            let prompt_tokens = |messages: &Vec<Value>| {
                let r = e.chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 2}));
                assert_eq!(r.status, 200, "{name} | {shape}: {}", r.text());
                r.json()["usage"]["prompt_tokens"].as_i64().unwrap()
            };
            let with_image = prompt_tokens(&messages);
            let mut without = messages.clone();
            without.last_mut().unwrap()["content"] = json!("What is this?");
            // The image's embeddings took the marker's place in the prompt.
            let without = prompt_tokens(&without);
            assert!(
                with_image > without + 4,
                "{name} | {shape}: {with_image} vs {without}"
            );
        }
    }
}
