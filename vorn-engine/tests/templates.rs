//! Real models' chat templates, each written into a copy of the tiny trained
//! model and loaded in the real engine, answer every conversation shape the
//! app sends.

mod common;

use common::gguf_edit::with_chat_template;
use common::*;
use serde_json::{json, Value};
use std::path::{Path, PathBuf};

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

#[test]
fn real_templates_answer_every_shape() {
    let dir = temp_dir("real-templates");
    let mut templates = real_templates();
    templates.extend(OWN_TEMPLATES.map(|(n, t)| (n.to_string(), t.to_string())));
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
