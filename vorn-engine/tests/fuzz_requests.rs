//! Fuzz target: the engine's HTTP API, in-process. Each input is a request
//! written like HTTP/1 ("METHOD target", header lines, a blank line, the
//! body), sent through the real router with no model loaded. Rules: no
//! panic anywhere (handlers, blocking tasks, the inference thread), every
//! answer a documented status, every error `{"error": text}` as JSON,
//! refused hosts, origins and missing app headers always 403, bodies that
//! are not JSON never reach a handler, and memory proportional to the input.
//!
//!   scripts/engine-cargo test --test fuzz_requests
//!   VORN_FUZZ_SECONDS=600 scripts/engine-cargo test --test fuzz_requests

mod fuzzing;

use axum::body::Body;
use axum::http::{header, HeaderName, HeaderValue, Method, Request, Uri};
use base64::Engine as _;
use fuzzing::rng::Rng;
use fuzzing::{memory, shape, Target};
use serde_json::{json, Value};
use std::path::PathBuf;
use tower::ServiceExt;
use vorn_engine::{engine, server};

const PORT: u16 = 4000;
const HOST: &str = "127.0.0.1:4000";
/// Downloads go to the hub named by HF_ENDPOINT; here a local port where
/// nothing listens, so none leaves the machine.
const HUB: &str = "http://127.0.0.1:1";

const ROUTES: [&str; 7] = [
    "/api/state",
    "/api/load",
    "/api/unload",
    "/api/pull",
    "/api/encode",
    "/api/count",
    "/v1/chat/completions",
];
const OTHER_PATHS: [&str; 10] = [
    "/",
    "/api/",
    "/api/state/",
    "/API/STATE",
    "/v1/models",
    "/api/load?name=x",
    "//api/load",
    "/api/%6coad",
    "/v1/chat/completions/",
    "http://127.0.0.1:4000/api/state",
];
const METHODS: [&str; 10] = [
    "GET", "POST", "POST", "POST", "PUT", "DELETE", "OPTIONS", "HEAD", "PATCH", "BREW",
];
const GOOD_HOSTS: [&str; 4] = [HOST, "localhost:4000", "LOCALHOST:4000", " 127.0.0.1:4000 "];
const BAD_HOSTS: [&str; 7] = [
    "",
    "127.0.0.1",
    "127.0.0.1:4001",
    "evil.com:4000",
    "localhost.evil.com",
    "[::1]:4000",
    "0.0.0.0:4000",
];
const ORIGINS: [&str; 7] = [
    "http://127.0.0.1:4000",
    "http://localhost:4000",
    "null",
    "https://evil.com",
    "http://127.0.0.1:4001",
    "",
    "http://localhost:4000.evil.com",
];
const CONTENT_TYPES: [&str; 8] = [
    "application/json",
    "application/json; charset=utf-8",
    "APPLICATION/JSON",
    "text/plain",
    "application/jsonx",
    "multipart/form-data",
    "",
    " application/json ;",
];
/// Files in the models folder; none of them a loadable model, so that no
/// request makes llama.cpp load anything.
const NAMES: [&str; 16] = [
    "garbage.gguf",
    "mmproj.gguf",
    "folder.gguf",
    "dangling.gguf",
    "notes.txt",
    "missing.gguf",
    "new.gguf",
    "NEW.GGUF",
    "../x.gguf",
    ".hidden.gguf",
    "a/b.gguf",
    "c:x.gguf",
    "é.gguf",
    "x.gguf.part",
    "",
    "..",
];
const URLS: [&str; 9] = [
    "https://huggingface.co/org/repo/resolve/main/m.gguf",
    "http://127.0.0.1:1/org/repo/resolve/main/m.gguf",
    "https://evil.com/m.gguf",
    "https://huggingface.co:444/m.gguf",
    "ftp://huggingface.co/m.gguf",
    "not a url",
    "",
    "https://huggingface.co/../../etc/passwd",
    "https://user:pw@huggingface.co/m.gguf?download=true#x",
];
const ROLES: [&str; 6] = ["user", "system", "assistant", "tool", "", "<__media__>"];

// ---- the input format ---------------------------------------------------

struct Decoded {
    request: Request<Body>,
    method: Method,
    path: String,
    host_may_pass: bool,
    origin_refused: bool,
    app_header_missing: bool,
    json_declared: bool,
    /// The body's "name", when it has one.
    name: Option<String>,
}

fn contains_ignore_case(hay: &[u8], needle: &str) -> bool {
    hay.to_ascii_lowercase()
        .windows(needle.len())
        .any(|w| w == needle.as_bytes())
}

fn names_us(value: &[u8]) -> bool {
    contains_ignore_case(value, "127.0.0.1:4000") || contains_ignore_case(value, "localhost:4000")
}

/// Turns an input into a request, as far as it makes one: a method or a
/// target that is not valid HTTP falls back to POST and `/`, header lines
/// that are not valid HTTP are left out.
fn decode(input: &[u8]) -> Decoded {
    let (head, body) = match input.windows(2).position(|w| w == b"\n\n") {
        Some(at) => (&input[..at], &input[at + 2..]),
        None => (input, &b""[..]),
    };
    let mut lines = head.split(|b| *b == b'\n');
    let first = lines.next().unwrap_or_default();
    let (method, target) = match first.iter().position(|b| *b == b' ') {
        Some(at) => (&first[..at], &first[at + 1..]),
        None => (first, &b"/"[..]),
    };
    let method = Method::from_bytes(method).unwrap_or(Method::POST);
    let uri = Uri::try_from(target).unwrap_or_else(|_| Uri::from_static("/"));
    let mut request = Request::builder().method(method.clone()).uri(uri.clone());
    let mut hosts = Vec::new();
    let mut origins = Vec::new();
    let mut app = Vec::new();
    let mut types = Vec::new();
    for line in lines {
        let Some(colon) = line.iter().position(|b| *b == b':') else {
            continue;
        };
        let name = line[..colon].trim_ascii();
        let value = line[colon + 1..].trim_ascii_start();
        let (Ok(name), Ok(value)) = (HeaderName::from_bytes(name), HeaderValue::from_bytes(value))
        else {
            continue;
        };
        match name {
            header::HOST => hosts.push(value.as_bytes().to_vec()),
            header::ORIGIN => origins.push(value.as_bytes().to_vec()),
            header::CONTENT_TYPE => types.push(value.as_bytes().to_vec()),
            ref n if n.as_str() == "x-vorn-app" => app.push(value.as_bytes().to_vec()),
            _ => {}
        }
        request = request.header(name, value);
    }
    let path = uri.path().to_string();
    // What the guard could possibly accept; anything outside it must be
    // refused whatever the details of the check.
    let host_may_pass = if hosts.is_empty() {
        uri.authority()
            .is_some_and(|a| names_us(a.as_str().as_bytes()))
    } else {
        hosts.iter().any(|h| names_us(h))
    };
    let origin_refused = !origins.is_empty() && !origins.iter().any(|o| names_us(o));
    let app_header_missing = path.starts_with("/api/") && !app.iter().any(|v| v.contains(&b'1'));
    let json_declared = types.iter().any(|t| contains_ignore_case(t, "json"));
    let name = serde_json::from_slice::<Value>(body)
        .ok()
        .and_then(|v| v.get("name")?.as_str().map(str::to_string));
    Decoded {
        request: request
            .body(Body::from(body.to_vec()))
            .expect("a request from checked parts"),
        method,
        path,
        host_may_pass,
        origin_refused,
        app_header_missing,
        json_declared,
        name,
    }
}

fn encode(method: &str, target: &str, headers: &[(&str, &str)], body: &[u8]) -> Vec<u8> {
    let mut out = format!("{method} {target}\n").into_bytes();
    for (k, v) in headers {
        out.extend_from_slice(format!("{k}: {v}\n").as_bytes());
    }
    out.push(b'\n');
    out.extend_from_slice(body);
    out
}

fn app_headers() -> Vec<(&'static str, &'static str)> {
    vec![
        ("Host", HOST),
        ("Content-Type", "application/json"),
        ("X-Vorn-App", "1"),
    ]
}

// ---- building bodies ----------------------------------------------------

fn random_value(rng: &mut Rng, depth: u32) -> Value {
    match rng.below(if depth > 3 { 6 } else { 8 }) {
        0 => Value::Null,
        1 => json!(rng.one_in(2)),
        2 => json!(rng.interesting_u64()),
        3 => json!(-(rng.small(1000) as i64)),
        4 => json!([1e308, -0.0, 0.5, 1e-300][rng.below(4)]),
        5 => json!(random_text(rng)),
        6 => Value::Array(
            (0..rng.small(4))
                .map(|_| random_value(rng, depth + 1))
                .collect(),
        ),
        _ => {
            let mut map = serde_json::Map::new();
            for _ in 0..rng.small(4) {
                let key = if rng.one_in(2) {
                    (*rng.pick(&["name", "url", "type", "text", "role", "content"])).to_string()
                } else {
                    random_text(rng)
                };
                map.insert(key, random_value(rng, depth + 1));
            }
            Value::Object(map)
        }
    }
}

fn random_text(rng: &mut Rng) -> String {
    match rng.below(5) {
        0 => String::new(),
        1 => "<__media__>".repeat(1 + rng.small(3)),
        2 => String::from_utf8_lossy(&rng.junk(32)).into_owned(),
        _ => (0..rng.small(20))
            .map(|_| (b'a' + rng.below(26) as u8) as char)
            .collect(),
    }
}

/// A plausible value most of the time, anything at all otherwise.
fn or_random(rng: &mut Rng, plausible: impl FnOnce(&mut Rng) -> Value) -> Value {
    if rng.one_in(5) {
        random_value(rng, 1)
    } else {
        plausible(rng)
    }
}

fn data_url(rng: &mut Rng) -> String {
    let n = rng.small(300);
    let bytes = rng.bytes(n);
    let mut b64 = base64::engine::general_purpose::STANDARD.encode(bytes);
    if rng.one_in(4) && !b64.is_empty() {
        let at = rng.below(b64.len());
        let noise = *rng.pick(&[" ", "\n", "@", "=", "-_", "\u{e9}"]);
        b64.insert_str(at, noise);
    }
    let meta = *rng.pick(&[
        "data:image/png;base64,",
        "data:image/jpeg;BASE64,",
        "data:;base64,",
        "data:image/png,",
        "DATA:image/png;base64,",
        "data:image/png;base64",
        "https://example.com/i.png?",
    ]);
    format!("{meta}{b64}")
}

fn content(rng: &mut Rng) -> Value {
    match rng.below(4) {
        0 => json!(random_text(rng)),
        1 => Value::Null,
        _ => {
            let parts: Vec<Value> = (0..rng.small(4))
                .map(|_| match rng.below(4) {
                    0 => json!({"type": "image_url", "image_url": {"url": data_url(rng)}}),
                    1 => json!({"type": "image_url", "image_url": data_url(rng)}),
                    2 => json!({"type": "text", "text": or_random(rng, |r| json!(random_text(r)))}),
                    _ => or_random(
                        rng,
                        |r| json!({"type": *r.pick(&["video", "text", "image_url"])}),
                    ),
                })
                .collect();
            Value::Array(parts)
        }
    }
}

/// Makes a random value for one optional field.
type ValueMaker = fn(&mut Rng) -> Value;

fn chat_body(rng: &mut Rng) -> Value {
    let messages: Vec<Value> = (0..rng.small(5))
        .map(|_| {
            or_random(rng, |r| {
                json!({"role": or_random(r, |r| json!(*r.pick(&ROLES))), "content": content(r)})
            })
        })
        .collect();
    let mut body = json!({ "messages": messages });
    let optional: [(&str, ValueMaker); 10] = [
        ("stream", |r| json!(r.one_in(2))),
        ("temperature", |r| json!(r.small(30) as f64 / 10.0)),
        ("top_p", |r| json!(r.small(10) as f64 / 10.0)),
        ("min_p", |r| json!(r.small(10) as f64 / 10.0)),
        ("top_k", |r| json!(r.small(100))),
        ("seed", |r| json!(r.interesting_u64())),
        ("max_tokens", |r| json!(r.small(64))),
        ("max_completion_tokens", |r| json!(r.interesting_u64())),
        ("stop", |r| json!([random_text(r), random_text(r)])),
        ("stop", |r| json!(random_text(r))),
    ];
    for (key, make) in optional {
        if rng.one_in(3) {
            body[key] = or_random(rng, make);
        }
    }
    body
}

fn body_for(rng: &mut Rng, path: &str) -> Value {
    match path {
        "/api/load" => json!({
            "name": or_random(rng, |r| json!(*r.pick(&NAMES))),
            "gpu": or_random(rng, |r| json!(r.one_in(2))),
            "ctx": or_random(rng, |r| json!(r.interesting_u64())),
        }),
        "/api/pull" => json!({
            "name": or_random(rng, |r| json!(*r.pick(&NAMES))),
            "url": or_random(rng, |r| json!(*r.pick(&URLS))),
        }),
        "/api/encode" => json!({ "url": or_random(rng, |r| json!(data_url(r))) }),
        "/v1/chat/completions" | "/api/count" => chat_body(rng),
        _ => random_value(rng, 0),
    }
}

fn generate_request(rng: &mut Rng) -> Vec<u8> {
    let path = if rng.one_in(8) {
        *rng.pick(&OTHER_PATHS)
    } else {
        *rng.pick(&ROUTES)
    };
    let method = if path == "/api/state" && rng.one_in(2) {
        "GET"
    } else {
        *rng.pick(&METHODS)
    };
    let mut headers: Vec<(&str, &str)> = Vec::new();
    for _ in 0..1 + usize::from(rng.one_in(20)) {
        match rng.below(20) {
            0 => {}
            1 | 2 => headers.push(("Host", *rng.pick(&BAD_HOSTS))),
            _ => headers.push(("Host", *rng.pick(&GOOD_HOSTS))),
        }
    }
    if rng.one_in(4) {
        headers.push(("Origin", *rng.pick(&ORIGINS)));
    }
    if !rng.one_in(8) {
        headers.push((
            "X-Vorn-App",
            *rng.pick(&["1", "1", "1", " 1 ", "0", "", "11"]),
        ));
    }
    for _ in 0..usize::from(!rng.one_in(8)) + usize::from(rng.one_in(20)) {
        let t = if rng.one_in(4) {
            *rng.pick(&CONTENT_TYPES)
        } else {
            "application/json"
        };
        headers.push(("Content-Type", t));
    }
    let length;
    if rng.one_in(10) {
        length = rng.interesting_u64().to_string();
        headers.push(("Content-Length", &length));
    }
    let mut body = if rng.one_in(10) {
        rng.junk(64)
    } else {
        serde_json::to_vec(&body_for(rng, path.split('?').next().unwrap_or(path)))
            .expect("JSON text")
    };
    if rng.one_in(10) {
        body.truncate(rng.below(body.len() + 1));
    }
    encode(method, path, &headers, &body)
}

// ---- mutations that know the format --------------------------------------

/// Replaces a random node of a JSON value.
fn mutate_value(rng: &mut Rng, v: &mut Value, depth: u32) {
    let descend = depth < 8 && rng.below(3) != 0;
    match v {
        Value::Object(map) if descend && !map.is_empty() => {
            let key = map
                .keys()
                .nth(rng.below(map.len()))
                .cloned()
                .unwrap_or_default();
            match rng.below(6) {
                0 => {
                    map.remove(&key);
                }
                1 => {
                    let k =
                        (*rng.pick(&["messages", "content", "image_url", "stop", "name", "url"]))
                            .to_string();
                    map.insert(k, random_value(rng, depth));
                }
                _ => {
                    if let Some(child) = map.get_mut(&key) {
                        mutate_value(rng, child, depth + 1);
                    }
                }
            }
        }
        Value::Array(items) if descend && !items.is_empty() => {
            let i = rng.below(items.len());
            match rng.below(5) {
                0 => {
                    items.remove(i);
                }
                1 => {
                    let copy = items[i].clone();
                    items.push(copy);
                }
                _ => mutate_value(rng, &mut items[i], depth + 1),
            }
        }
        _ => {
            *v = match rng.below(4) {
                0 => json!([v.clone()]),
                1 => json!({ "type": "image_url", "image_url": {"url": data_url(rng)} }),
                _ => random_value(rng, depth),
            }
        }
    }
}

/// A seed input: method, path, headers and JSON body (null for none).
type SeedRequest<'a> = (&'a str, &'a str, &'a [(&'a str, &'a str)], Value);

struct RequestTarget {
    runtime: tokio::runtime::Runtime,
    router: axum::Router,
    dir: PathBuf,
}

impl RequestTarget {
    fn new() -> Self {
        let dir = std::env::temp_dir().join(format!("vorn-engine-fuzz-{}", std::process::id()));
        let _ = std::fs::remove_dir_all(&dir);
        std::fs::create_dir_all(dir.join("folder.gguf")).expect("models folder");
        std::fs::write(dir.join("garbage.gguf"), b"not a model\n".repeat(100)).unwrap();
        std::fs::write(dir.join("notes.txt"), b"x").unwrap();
        let models = std::path::Path::new(env!("CARGO_MANIFEST_DIR")).join("../../shared/models");
        let _ = std::os::unix::fs::symlink(
            models.join("mmproj/mmproj-tinygemma3.gguf"),
            dir.join("mmproj.gguf"),
        );
        let _ = std::os::unix::fs::symlink("/nonexistent/m.gguf", dir.join("dangling.gguf"));

        let runtime = tokio::runtime::Builder::new_current_thread()
            .enable_all()
            .build()
            .expect("runtime");
        let router = {
            let _inside = runtime.enter();
            server::router(server::App::new(dir.clone(), PORT))
        };
        RequestTarget {
            runtime,
            router,
            dir,
        }
    }
}

impl Drop for RequestTarget {
    fn drop(&mut self) {
        let _ = std::fs::remove_dir_all(&self.dir);
    }
}

/// Statuses the API answers with; 500 only where the engine reports a file
/// it cannot use.
fn documented(status: u16, method: &Method, path: &str) -> bool {
    matches!(status, 200 | 400 | 403 | 404 | 405 | 409 | 413 | 415)
        || (status == 500 && method == Method::POST && path == "/api/load")
}

impl Target for RequestTarget {
    const NAME: &'static str = "fuzz_requests";
    const MAX_LEN: usize = 256 * 1024;
    const QUIET: &'static [&'static str] = &["vorn-engine: download of "];

    fn seeds(&mut self) -> Vec<Vec<u8>> {
        let h = app_headers();
        let chat = json!({"messages": [
            {"role": "system", "content": "Be brief."},
            {"role": "user", "content": [
                {"type": "image_url", "image_url": {"url": "data:image/png;base64,aGk="}},
                {"type": "text", "text": "What is this?"}
            ]},
            {"role": "assistant", "content": "A <__media__> test."},
            {"role": "user", "content": "Thanks"}
        ], "stream": true, "temperature": 0.7, "top_p": 0.9, "min_p": 0.05, "top_k": 40,
           "seed": 7, "max_tokens": 32, "stop": ["</s>", "\n\n"]});
        let plain: &[(&str, &str)] = &[("Host", HOST), ("Content-Type", "application/json")];
        let bodies: [SeedRequest; 10] = [
            ("GET", "/api/state", &h, Value::Null),
            (
                "POST",
                "/api/load",
                &h,
                json!({"name": "garbage.gguf", "gpu": false, "ctx": 2048}),
            ),
            ("POST", "/api/load", &h, json!({"name": "mmproj.gguf"})),
            ("POST", "/api/unload", &h, json!({})),
            (
                "POST",
                "/api/pull",
                &h,
                json!({"name": "new.gguf", "url": "https://huggingface.co/org/repo/resolve/main/m.gguf"}),
            ),
            (
                "POST",
                "/api/encode",
                &h,
                json!({"url": "data:image/png;base64,aGk="}),
            ),
            ("POST", "/api/count", &h, chat.clone()),
            ("POST", "/v1/chat/completions", plain, chat),
            (
                "POST",
                "/v1/chat/completions",
                plain,
                json!({"messages": [{"role": "user", "content": "Hi"}]}),
            ),
            (
                "OPTIONS",
                "/v1/chat/completions",
                &[("Host", HOST), ("Origin", "https://evil.com")],
                Value::Null,
            ),
        ];
        bodies
            .iter()
            .map(|(m, p, h, b)| {
                let body = if b.is_null() {
                    Vec::new()
                } else {
                    b.to_string().into_bytes()
                };
                encode(m, p, h, &body)
            })
            .collect()
    }

    fn dictionary(&self) -> Vec<Vec<u8>> {
        [
            "\n\n",
            "\nHost: 127.0.0.1:4000",
            "\nHost: localhost:4001",
            "\nX-Vorn-App: 1",
            "\nContent-Type: application/json",
            "\nContent-Type: text/plain",
            "\nOrigin: null",
            "\nContent-Length: 18446744073709551615",
            "POST /api/load",
            "GET /api/state",
            "POST /v1/chat/completions",
            "POST /api/count",
            "\"messages\"",
            "\"content\"",
            "\"role\"",
            "\"image_url\"",
            "\"url\"",
            "\"type\":\"text\"",
            "\"name\":\"garbage.gguf\"",
            "data:image/png;base64,",
            "<__media__>",
            "1e309",
            "-0",
            "18446744073709551616",
            "\\ud800",
            "\\u0000",
            "null",
            "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[",
        ]
        .iter()
        .map(|s| s.as_bytes().to_vec())
        .collect()
    }

    fn generate(&mut self, rng: &mut Rng) -> Vec<u8> {
        generate_request(rng)
    }

    fn mutate(&mut self, rng: &mut Rng, data: &mut Vec<u8>) -> bool {
        let split = data.windows(2).position(|w| w == b"\n\n");
        if let Some(at) = split.filter(|_| rng.one_in(2)) {
            if let Ok(mut v) = serde_json::from_slice::<Value>(&data[at + 2..]) {
                mutate_value(rng, &mut v, 0);
                data.truncate(at + 2);
                data.extend_from_slice(v.to_string().as_bytes());
                return true;
            }
        }
        // A header line added, dropped or replaced.
        let end = split.unwrap_or(data.len());
        let lines: Vec<usize> = (0..end).filter(|i| data[*i] == b'\n').collect();
        let line = match rng.below(6) {
            0 => format!("\nHost: {}", rng.pick(&BAD_HOSTS)),
            1 => format!("\nOrigin: {}", rng.pick(&ORIGINS)),
            2 => format!("\nContent-Type: {}", rng.pick(&CONTENT_TYPES)),
            3 => format!("\nContent-Length: {}", rng.interesting_u64()),
            4 => format!("\nX-Vorn-App: {}", rng.pick(&["0", "1", ""])),
            _ => String::new(),
        };
        match lines.get(rng.below(lines.len() + 1)) {
            Some(&at) if line.is_empty() => {
                let next = data[at + 1..end]
                    .iter()
                    .position(|b| *b == b'\n')
                    .map_or(end, |n| at + 1 + n);
                data.drain(at..next);
            }
            Some(&at) => {
                data.splice(at..at, line.bytes());
            }
            None => {
                data.splice(end..end, line.bytes());
            }
        }
        true
    }

    fn run(&mut self, input: &[u8]) -> Result<String, String> {
        let base = memory::start();
        let d = decode(input);
        let router = self.router.clone();
        let request = d.request;
        let answer = self.runtime.block_on(async move {
            let response = router
                .oneshot(request)
                .await
                .expect("the router is infallible");
            let status = response.status().as_u16();
            let headers = response.headers().clone();
            let body = axum::body::to_bytes(response.into_body(), 64 << 20).await;
            (status, headers, body)
        });
        let used = memory::peak_since(base);
        let (status, headers, body) = answer;
        let limit = (16 << 20) + 32 * input.len();
        if used > limit {
            return Err(format!(
                "a {}-byte request used {used} bytes of memory (limit {limit})",
                input.len()
            ));
        }
        let body = body.map_err(|e| format!("the answer's body could not be read: {e}"))?;
        let what = format!("{} {} answered {status}", d.method, d.path);
        if !documented(status, &d.method, &d.path) {
            return Err(format!("{what}: {}", String::from_utf8_lossy(&body)));
        }
        if headers.contains_key(header::ACCESS_CONTROL_ALLOW_ORIGIN) {
            return Err(format!("{what} with Access-Control-Allow-Origin"));
        }
        let refused = !d.host_may_pass || d.origin_refused || d.app_header_missing;
        if refused && status != 403 {
            return Err(format!("{what} although it had to be refused with 403"));
        }
        // The checks run before routing, so this holds for unknown paths too.
        if d.method == Method::POST && !d.json_declared && !matches!(status, 403 | 415) {
            return Err(format!("{what} to a body not declared as JSON"));
        }
        let error = if body.is_empty() && d.method == Method::HEAD {
            String::new()
        } else {
            let json_type = headers
                .get(header::CONTENT_TYPE)
                .and_then(|v| v.to_str().ok())
                .is_some_and(|t| t.starts_with("application/json"));
            if !json_type {
                return Err(format!("{what} without a JSON content type"));
            }
            let v: Value = serde_json::from_slice(&body)
                .map_err(|e| format!("{what} with a body that is not JSON ({e})"))?;
            let Some(object) = v.as_object() else {
                return Err(format!("{what} with {v}, not an object"));
            };
            if status >= 400 {
                let text = object
                    .get("error")
                    .and_then(Value::as_str)
                    .unwrap_or_default();
                if object.len() != 1 || text.trim().is_empty() {
                    return Err(format!("{what} with {v}, not {{\"error\": text}}"));
                }
                text.to_string()
            } else {
                String::new()
            }
        };
        let route = if ROUTES.contains(&d.path.as_str()) {
            d.path.as_str()
        } else {
            "other"
        };
        let method = match d.method.as_str() {
            m @ ("GET" | "POST" | "HEAD" | "OPTIONS" | "PUT" | "DELETE" | "PATCH") => m,
            _ => "OTHER",
        };
        // Model names from the request show up in messages; they are not a path.
        let error = match d.name.as_deref().filter(|n| !n.is_empty()) {
            Some(name) if error.starts_with(name) => format!("NAME{}", &error[name.len()..]),
            Some(name) => error
                .replace(&format!("named {name}"), "named NAME")
                .replace(&format!("behind {name}"), "behind NAME"),
            None => error,
        };
        Ok(format!("{method} {route} {status} {}", shape(&error, 40)))
    }
}

fn main() {
    let args: Vec<String> = std::env::args().collect();
    if (3..=4).contains(&args.len()) && args[1] == engine::PROBE_FLAG {
        // The engine checks model files in a child process started from its
        // own executable, which here is this one.
        let projector = args.get(3).map(std::path::Path::new);
        std::process::exit(engine::probe_main(
            std::path::Path::new(&args[2]),
            projector,
        ));
    }
    std::env::set_var("HF_ENDPOINT", HUB);
    std::env::remove_var("HF_TOKEN");
    fuzzing::main(RequestTarget::new);
}
