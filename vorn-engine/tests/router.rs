//! The HTTP layer through the real router, in-process and without a model:
//! the request guards, body reading and field checking, each with the exact
//! status and `{"error": text}` the app and other clients see.

use axum::body::Body;
use axum::http::{header, Request, StatusCode};
use common::gen::HeaderValue::{Text, Uint};
use serde_json::{json, Value};
use std::path::{Path, PathBuf};
use std::sync::OnceLock;
use tower::ServiceExt;
use vorn_engine::server;

mod common;

const PORT: u16 = 4000;
const HOST: &str = "127.0.0.1:4000";
const HUB_LINK: &str = "https://huggingface.co/org/repo/resolve/main/model.gguf";

/// The router over a models folder of its own. llama.cpp starts once per
/// process, so every test shares one engine.
struct TestApp {
    router: axum::Router,
    dir: PathBuf,
}

/// Image links that are not usable data URLs, with the error each one gets.
const BAD_DATA_URLS: [(&str, &str); 5] = [
    (
        "https://example.com/a.png",
        "Images must be sent as data URLs.",
    ),
    ("data:image/png;base64", "Malformed data URL."),
    (
        "data:image/png,aGk=",
        "Image data URLs must be base64 encoded.",
    ),
    (
        "data:image/png;base64,@@@",
        "The image data is not valid base64.",
    ),
    ("data:image/png;base64,", "The image is empty."),
];

static APP: OnceLock<TestApp> = OnceLock::new();

impl TestApp {
    fn shared() -> &'static TestApp {
        APP.get_or_init(|| {
            let dir = Path::new(env!("CARGO_TARGET_TMPDIR")).join("router-models");
            let _ = std::fs::remove_dir_all(&dir);
            std::fs::create_dir_all(dir.join("folder.gguf")).unwrap();
            std::fs::write(dir.join("garbage.gguf"), b"not a model\n".repeat(100)).unwrap();
            std::os::unix::fs::symlink("/nonexistent/m.gguf", dir.join("dangling.gguf")).unwrap();
            std::os::unix::fs::symlink(
                shared_models().join("mmproj/mmproj-tinygemma3.gguf"),
                dir.join("mmproj.gguf"),
            )
            .unwrap();
            // A header that states a trained context, without tensor data.
            common::gen::write_header(
                &dir.join("header-only.gguf"),
                &[
                    ("general.architecture", Text("llama")),
                    ("general.file_type", Uint(15)),
                    ("llama.context_length", Uint(8192)),
                    ("llama.block_count", Uint(2)),
                    ("llama.embedding_length", Uint(64)),
                    ("llama.attention.head_count", Uint(4)),
                    ("llama.attention.head_count_kv", Uint(2)),
                ],
                &[("token_embd.weight", &[64, 100], 12)],
            );
            let router = server::router(server::App::new(dir.clone(), PORT));
            TestApp { router, dir }
        })
    }

    async fn send(&self, request: Request<Body>) -> Reply {
        let response = self
            .router
            .clone()
            .oneshot(request)
            .await
            .expect("the router is infallible");
        let status = response.status();
        let headers = response.headers().clone();
        let body = axum::body::to_bytes(response.into_body(), 1 << 20)
            .await
            .expect("body");
        Reply {
            status,
            headers,
            body: body.to_vec(),
        }
    }

    /// A GET with exactly these headers.
    async fn get(&self, path: &str, headers: &[(&str, &str)]) -> Reply {
        self.send(request("GET", path, headers, "")).await
    }

    /// A request with the headers the app sends on `/api/*`.
    async fn api(&self, method: &str, path: &str, body: &str) -> Reply {
        let mut request = Request::builder()
            .method(method)
            .uri(path)
            .header(header::HOST, HOST)
            .header("x-vorn-app", "1");
        if method == "POST" {
            request = request.header(header::CONTENT_TYPE, "application/json");
        }
        self.send(request.body(Body::from(body.to_string())).unwrap())
            .await
    }

    async fn post(&self, path: &str, body: Value) -> Reply {
        self.api("POST", path, &body.to_string()).await
    }
}

fn shared_models() -> PathBuf {
    Path::new(env!("CARGO_MANIFEST_DIR")).join("../../shared/models")
}

struct Reply {
    status: StatusCode,
    headers: axum::http::HeaderMap,
    body: Vec<u8>,
}

impl Reply {
    fn json(&self) -> Value {
        serde_json::from_slice(&self.body)
            .unwrap_or_else(|e| panic!("not JSON ({e}): {}", String::from_utf8_lossy(&self.body)))
    }

    /// Asserts an error reply: this status, `{"error": text}` and nothing else.
    #[track_caller]
    fn assert_error(&self, status: u16, text: &str) {
        let body = self.json();
        assert_eq!(
            (self.status.as_u16(), &body),
            (status, &json!({ "error": text })),
        );
        assert_eq!(
            self.headers.get(header::CONTENT_TYPE).unwrap(),
            "application/json"
        );
        assert!(!self
            .headers
            .contains_key(header::ACCESS_CONTROL_ALLOW_ORIGIN));
    }
}

fn request(method: &str, path: &str, headers: &[(&str, &str)], body: &str) -> Request<Body> {
    let mut request = Request::builder().method(method).uri(path);
    for (name, value) in headers {
        request = request.header(*name, *value);
    }
    request.body(Body::from(body.to_string())).unwrap()
}

fn data_url(bytes: &[u8]) -> String {
    use base64::Engine as _;
    format!(
        "data:image/png;base64,{}",
        base64::engine::general_purpose::STANDARD.encode(bytes)
    )
}

fn user(content: Value) -> Value {
    json!({"role": "user", "content": content})
}

#[tokio::test]
async fn host_must_be_our_loopback_address() {
    let app = TestApp::shared();
    let refused = "Requests must be addressed to the engine's loopback address.";
    for host in [
        "evil.example:4000",
        "127.0.0.1",
        "127.0.0.1:4001",
        "localhost.evil.example:4000",
        "[::1]:4000",
        "",
    ] {
        let reply = app
            .get("/api/state", &[("host", host), ("x-vorn-app", "1")])
            .await;
        reply.assert_error(403, refused);
    }
    let reply = app.get("/api/state", &[("x-vorn-app", "1")]).await;
    reply.assert_error(403, refused);
    // Two Host headers are ambiguous, even when both are ours.
    let reply = app
        .get(
            "/api/state",
            &[("host", HOST), ("host", HOST), ("x-vorn-app", "1")],
        )
        .await;
    reply.assert_error(403, refused);
    // The Host check runs before routing: unknown paths are refused the same way.
    let reply = app.get("/nothing", &[("host", "evil.example:4000")]).await;
    reply.assert_error(403, refused);
    for host in [HOST, "localhost:4000", "LOCALHOST:4000", " 127.0.0.1:4000 "] {
        let reply = app
            .get("/api/state", &[("host", host), ("x-vorn-app", "1")])
            .await;
        assert_eq!(reply.status, 200, "{host}");
    }
}

#[tokio::test]
async fn cross_site_origins_are_refused() {
    let app = TestApp::shared();
    for origin in [
        "https://evil.example",
        "null",
        "",
        "http://127.0.0.1:4001",
        "http://localhost:4000.evil.example",
    ] {
        let reply = app
            .get(
                "/api/state",
                &[("host", HOST), ("x-vorn-app", "1"), ("origin", origin)],
            )
            .await;
        reply.assert_error(403, "Cross-site requests are not allowed.");
    }
    let reply = app
        .send(request(
            "OPTIONS",
            "/v1/chat/completions",
            &[
                ("host", HOST),
                ("origin", "https://evil.example"),
                ("access-control-request-method", "POST"),
            ],
            "",
        ))
        .await;
    reply.assert_error(403, "Cross-site requests are not allowed.");
    for origin in ["http://127.0.0.1:4000", "http://localhost:4000"] {
        let reply = app
            .get(
                "/api/state",
                &[("host", HOST), ("x-vorn-app", "1"), ("origin", origin)],
            )
            .await;
        assert_eq!(reply.status, 200, "{origin}");
        assert!(!reply
            .headers
            .contains_key(header::ACCESS_CONTROL_ALLOW_ORIGIN));
    }
}

#[tokio::test]
async fn api_paths_need_the_app_header() {
    let app = TestApp::shared();
    for value in [None, Some("0"), Some(""), Some("yes")] {
        let mut headers = vec![("host", HOST)];
        if let Some(v) = value {
            headers.push(("x-vorn-app", v));
        }
        let reply = app.get("/api/state", &headers).await;
        reply.assert_error(403, "Missing X-Vorn-App header.");
        // Also on paths that do not exist under /api/.
        let reply = app.get("/api/nothing", &headers).await;
        reply.assert_error(403, "Missing X-Vorn-App header.");
        headers.push(("content-type", "application/json"));
        let body = r#"{"messages": [{"role": "user", "content": "Hi"}]}"#;
        let reply = app
            .send(request("POST", "/api/count", &headers, body))
            .await;
        reply.assert_error(403, "Missing X-Vorn-App header.");
    }
    // The chat endpoint does not need it: the app does not send it there.
    let reply = app
        .send(request(
            "POST",
            "/v1/chat/completions",
            &[("host", HOST), ("content-type", "application/json")],
            r#"{"messages": []}"#,
        ))
        .await;
    reply.assert_error(400, "\"messages\" must not be empty.");
}

#[tokio::test]
async fn post_bodies_must_be_declared_json() {
    let app = TestApp::shared();
    let refused = "Request bodies must be application/json.";
    for content_type in [
        None,
        Some("text/plain"),
        Some("application/jsonx"),
        Some("multipart/form-data"),
        Some("application/x-www-form-urlencoded"),
    ] {
        let mut headers = vec![("host", HOST), ("x-vorn-app", "1")];
        if let Some(t) = content_type {
            headers.push(("content-type", t));
        }
        for path in [
            "/api/unload",
            "/api/count",
            "/v1/chat/completions",
            "/api/nothing",
        ] {
            let reply = app.send(request("POST", path, &headers, "{}")).await;
            reply.assert_error(415, refused);
        }
    }
    for content_type in ["application/json; charset=utf-8", "APPLICATION/JSON"] {
        let reply = app
            .send(request(
                "POST",
                "/api/unload",
                &[
                    ("host", HOST),
                    ("x-vorn-app", "1"),
                    ("content-type", content_type),
                ],
                "{}",
            ))
            .await;
        assert_eq!(reply.status, 200, "{content_type}");
        assert_eq!(reply.json(), json!({"ok": true}));
    }
    // A GET may carry the header, as the app sends it.
    let reply = app
        .get(
            "/api/state",
            &[
                ("host", HOST),
                ("x-vorn-app", "1"),
                ("content-type", "application/json"),
            ],
        )
        .await;
    assert_eq!(reply.status, 200);
}

#[tokio::test]
async fn bodies_above_the_limit_are_refused() {
    let app = TestApp::shared();
    let headers = [
        ("host", HOST),
        ("x-vorn-app", "1"),
        ("content-type", "application/json"),
    ];
    // Declared too large: refused before the body is read.
    let mut declared = request("POST", "/api/load", &headers, "{}");
    declared
        .headers_mut()
        .insert(header::CONTENT_LENGTH, "268435457".parse().unwrap());
    app.send(declared)
        .await
        .assert_error(413, "The request body is too large.");
    // Streamed without a length: refused once it passes 256 MiB.
    let block = bytes::Bytes::from(vec![b' '; 1 << 20]);
    let blocks = (0..257).map(move |_| Ok::<_, std::io::Error>(block.clone()));
    let mut streamed = Request::builder().method("POST").uri("/api/load");
    for (name, value) in headers {
        streamed = streamed.header(name, value);
    }
    let streamed = streamed
        .body(Body::from_stream(futures_util::stream::iter(blocks)))
        .unwrap();
    app.send(streamed)
        .await
        .assert_error(413, "The request body is too large.");
}

#[tokio::test]
async fn bodies_arriving_in_pieces_are_read_whole() {
    let app = TestApp::shared();
    // A chat with an image, streamed without a length in pieces that cut
    // through keys, escapes and the data URL.
    let url = format!("data:image/png;base64,{}", "aGkh".repeat(5000));
    let send = |url: String| async move {
        let body = json!({"messages": [{"role": "user", "content": [
            {"type": "image_url", "image_url": {"url": url}},
            {"type": "text", "text": "What is \"this\"?\n"}
        ]}], "max_tokens": 3})
        .to_string();
        let pieces: Vec<Result<bytes::Bytes, std::io::Error>> = body
            .as_bytes()
            .chunks(7)
            .map(|piece| Ok(bytes::Bytes::copy_from_slice(piece)))
            .collect();
        let request = Request::builder()
            .method("POST")
            .uri("/v1/chat/completions")
            .header("host", HOST)
            .header("x-vorn-app", "1")
            .header("content-type", "application/json")
            .body(Body::from_stream(futures_util::stream::iter(pieces)))
            .unwrap();
        app.send(request).await
    };
    // Read and checked to the end: only the missing model is left to refuse.
    send(url.clone())
        .await
        .assert_error(409, "No model is loaded.");
    // The URL was read whole: one bad character at its end is found.
    send(format!("{url}@"))
        .await
        .assert_error(400, "The image data is not valid base64.");
}

#[tokio::test]
async fn unknown_paths_and_methods() {
    let app = TestApp::shared();
    for path in ["/", "/nothing", "/v1/models", "/v1/chat/completions/"] {
        let reply = app.get(path, &[("host", HOST)]).await;
        reply.assert_error(404, "Not found.");
    }
    let reply = app.api("GET", "/api/state/", "").await;
    reply.assert_error(404, "Not found.");
    for (method, path) in [
        ("DELETE", "/api/state"),
        ("PUT", "/api/load"),
        ("GET", "/api/load"),
        ("GET", "/api/pull"),
        ("PATCH", "/api/encode"),
    ] {
        let reply = app.api(method, path, "").await;
        reply.assert_error(405, "Method not allowed.");
    }
    let reply = app.get("/v1/chat/completions", &[("host", HOST)]).await;
    reply.assert_error(405, "Method not allowed.");
}

#[tokio::test]
async fn state_without_a_model() {
    let app = TestApp::shared();
    let reply = app.api("GET", "/api/state", "").await;
    assert_eq!(reply.status, 200);
    let state = reply.json();
    assert_eq!(state["version"], env!("CARGO_PKG_VERSION"));
    assert_eq!(state["dir"], app.dir.to_string_lossy().as_ref());
    assert_eq!(state["loaded"], Value::Null);
    assert_eq!(state["backend"], "cpu");
    assert_eq!(state["ctx"], 0);
    assert_eq!(state["vision"], false);
    assert_eq!(state["projector"], Value::Null);
    assert_eq!(state["downloads"], json!([]));
    assert_eq!(
        state["models"],
        json!([
            {"name": "dangling.gguf", "size": 0, "projector": false},
            {"name": "garbage.gguf", "size": 1200, "projector": false},
            {"name": "header-only.gguf", "size": 353, "projector": false,
             "architecture": "llama", "context_length": 8192, "parameters": 6400,
             "quantization": "Q4_K_M", "kv_bytes_per_token": 2 * 2 * (16 + 16) * 2},
            {"name": "mmproj.gguf", "size": 1039072, "projector": true,
             "architecture": "clip", "parameters": 844288, "quantization": "Q8_0"},
        ])
    );
    assert_eq!(state["last"]["completion_tokens"], 0);
    // HEAD answers like GET, without a body.
    let reply = app.api("HEAD", "/api/state", "").await;
    assert_eq!(reply.status, 200);
    assert!(reply.body.is_empty());
}

#[tokio::test]
async fn malformed_bodies() {
    let app = TestApp::shared();
    for path in [
        "/api/load",
        "/api/unload",
        "/api/pull",
        "/api/encode",
        "/api/count",
        "/v1/chat/completions",
    ] {
        app.api("POST", path, "{not json")
            .await
            .assert_error(400, "Invalid JSON: key must be a string at line 1 column 2");
        app.api("POST", path, "").await.assert_error(
            400,
            "Invalid JSON: EOF while parsing a value at line 1 column 0",
        );
        app.api("POST", path, "{} {}")
            .await
            .assert_error(400, "Invalid JSON: trailing characters at line 1 column 4");
        app.api("POST", path, r#"{"a": 1e400}"#)
            .await
            .assert_error(400, "Invalid JSON: number out of range at line 1 column 11");
        for not_object in ["[1]", "\"text\"", "5", "null", "true"] {
            app.api("POST", path, not_object)
                .await
                .assert_error(400, "The request body must be a JSON object.");
        }
    }
}

/// The error of a "ctx" that is not a whole number of tokens.
const CTX: &str = "\"ctx\" must be a whole number of tokens (0 for the model's trained context).";

#[tokio::test]
async fn load_fields() {
    let app = TestApp::shared();
    let name = "\"name\" must be a text.";
    for body in [
        json!({}),
        json!({"name": null}),
        json!({"name": 5}),
        json!({"name": ["a.gguf"]}),
        json!({"gpu": "yes", "ctx": -1, "name": 5}),
    ] {
        app.post("/api/load", body).await.assert_error(400, name);
    }
    for gpu in [json!("yes"), json!(1), json!([true])] {
        app.post(
            "/api/load",
            json!({"name": "a.gguf", "gpu": gpu, "ctx": "x"}),
        )
        .await
        .assert_error(400, "\"gpu\" must be true or false.");
    }
    for ctx in [
        json!(-1),
        json!(1.5),
        json!(4096.0),
        json!("4096"),
        json!(true),
        json!(18_446_744_073_709_551_616.0),
    ] {
        app.post("/api/load", json!({"name": "a.gguf", "ctx": ctx}))
            .await
            .assert_error(400, CTX);
    }
    // Field checks come before the name rules.
    app.post("/api/load", json!({"name": "../a.gguf", "ctx": -1}))
        .await
        .assert_error(400, CTX);
    for bad in [
        "../a.gguf",
        ".hidden.gguf",
        "a/b.gguf",
        "",
        "..",
        "a\\b.gguf",
    ] {
        app.post("/api/load", json!({"name": bad}))
            .await
            .assert_error(400, "The model name must be a plain file name.");
    }
    // Null and absent fields take their defaults; how large a context may
    // be depends on the model, so the name is checked first.
    for body in [
        json!({"name": "missing.gguf", "gpu": null, "ctx": null}),
        json!({"name": "missing.gguf", "gpu": true, "ctx": 0}),
        json!({"name": "missing.gguf", "ctx": 1_048_577, "other": [1, 2]}),
        json!({"name": "missing.gguf", "ctx": u64::MAX}),
    ] {
        app.post("/api/load", body)
            .await
            .assert_error(404, "No model named missing.gguf.");
    }
    // Above the trained context: refused before anything is unloaded.
    for ctx in [8193u64, 1 << 40] {
        app.post("/api/load", json!({"name": "header-only.gguf", "ctx": ctx}))
            .await
            .assert_error(
                400,
                &format!("A context of {ctx} tokens is more than header-only.gguf takes: at most 8192 tokens, the context it was trained with."),
            );
    }
    app.post("/api/load", json!({"name": "folder.gguf"}))
        .await
        .assert_error(400, "folder.gguf is a folder.");
    app.post("/api/load", json!({"name": "dangling.gguf"}))
        .await
        .assert_error(404, "The file behind dangling.gguf is missing.");
    let reply = app.post("/api/load", json!({"name": "garbage.gguf"})).await;
    assert_eq!(reply.status, 500);
    let error = reply.json()["error"].as_str().unwrap().to_string();
    assert!(
        error.starts_with("garbage.gguf is not a usable GGUF file: "),
        "{error}"
    );
    app.post("/api/load", json!({"name": "mmproj.gguf"}))
        .await
        .assert_error(
            500,
            "mmproj.gguf is an image projector, not a model; load its model instead.",
        );
    // The last key of a repeated one counts.
    app.api(
        "POST",
        "/api/load",
        r#"{"name": 5, "name": "missing.gguf"}"#,
    )
    .await
    .assert_error(404, "No model named missing.gguf.");
}

#[tokio::test]
async fn unload_takes_any_object() {
    let app = TestApp::shared();
    for body in ["{}", r#"{"name": 5}"#, r#"{"a": [1, {"b": null}]}"#] {
        let reply = app.api("POST", "/api/unload", body).await;
        assert_eq!(
            (reply.status.as_u16(), reply.json()),
            (200, json!({"ok": true}))
        );
    }
}

#[tokio::test]
async fn pull_fields() {
    let app = TestApp::shared();
    for body in [
        json!({}),
        json!({"name": 5, "url": 5}),
        json!({"url": HUB_LINK}),
    ] {
        app.post("/api/pull", body)
            .await
            .assert_error(400, "\"name\" must be a text.");
    }
    for url in [json!(null), json!(5), json!({"url": HUB_LINK})] {
        app.post("/api/pull", json!({"name": "new.gguf", "url": url}))
            .await
            .assert_error(400, "\"url\" must be a text.");
    }
    for name in ["new.bin", "../new.gguf", ".new.gguf", "a/new.gguf", ".gguf"] {
        app.post("/api/pull", json!({"name": name, "url": HUB_LINK}))
            .await
            .assert_error(400, "The name must be a plain file name ending in .gguf.");
    }
    app.post(
        "/api/pull",
        json!({"name": "new.gguf", "url": "not a link"}),
    )
    .await
    .assert_error(400, "The download link is not a valid URL.");
    for url in [
        "https://evil.example/model.gguf",
        "http://huggingface.co/org/repo/resolve/main/model.gguf",
        "https://huggingface.co:8443/model.gguf",
    ] {
        app.post("/api/pull", json!({"name": "new.gguf", "url": url}))
            .await
            .assert_error(
                400,
                "Only https links to the Hugging Face hub can be downloaded.",
            );
    }
    for name in ["garbage.gguf", "dangling.gguf", "folder.gguf"] {
        app.post("/api/pull", json!({"name": name, "url": HUB_LINK}))
            .await
            .assert_error(
                409,
                &format!("A model named {name} is already in the folder."),
            );
    }
}

#[tokio::test]
async fn encode_fields() {
    let app = TestApp::shared();
    for body in [
        json!({}),
        json!({"url": 5}),
        json!({"url": {"url": "data:,"}}),
    ] {
        app.post("/api/encode", body)
            .await
            .assert_error(400, "\"url\" must be a text.");
    }
    for (url, text) in BAD_DATA_URLS {
        app.post("/api/encode", json!({ "url": url }))
            .await
            .assert_error(400, text);
    }
    // A good image with no vision model loaded.
    app.post(
        "/api/encode",
        json!({"url": "data:image/png;BASE64,aG k=\n"}),
    )
    .await
    .assert_error(409, "No model with image support is loaded.");
}

#[tokio::test]
async fn chat_sampling_fields() {
    let app = TestApp::shared();
    let messages = json!([user(json!("Hi"))]);
    let chat = |extra: Value| {
        let mut body = json!({ "messages": messages });
        for (k, v) in extra.as_object().unwrap() {
            body[k] = v.clone();
        }
        app.post("/v1/chat/completions", body)
    };
    for stream in [json!("yes"), json!(1)] {
        chat(json!({"stream": stream, "temperature": "hot"}))
            .await
            .assert_error(400, "\"stream\" must be true or false.");
    }
    for key in ["temperature", "top_p", "min_p", "top_k"] {
        for value in [json!("0.5"), json!("hot"), json!(true), json!([1])] {
            chat(json!({ key: value, "max_tokens": -1 }))
                .await
                .assert_error(400, &format!("\"{key}\" must be a number."));
        }
    }
    // Checked in this order, whatever the order of the keys.
    chat(json!({"top_k": "x", "min_p": "x", "top_p": "x", "temperature": "x"}))
        .await
        .assert_error(400, "\"temperature\" must be a number.");
    chat(json!({"top_k": "x", "min_p": "x", "top_p": "x"}))
        .await
        .assert_error(400, "\"top_p\" must be a number.");
    chat(json!({"top_k": "x", "min_p": "x"}))
        .await
        .assert_error(400, "\"min_p\" must be a number.");
    for max in [json!(-1), json!(1.5), json!("8"), json!(false)] {
        chat(json!({"max_tokens": max, "stop": 5}))
            .await
            .assert_error(400, "\"max_tokens\" must be a non-negative integer.");
        // The other spelling reports under the same name.
        chat(json!({ "max_completion_tokens": max }))
            .await
            .assert_error(400, "\"max_tokens\" must be a non-negative integer.");
    }
    for stop in [json!(5), json!([1]), json!(["a", null]), json!({"a": "b"})] {
        chat(json!({ "stop": stop, "messages": [] }))
            .await
            .assert_error(400, "\"stop\" must be a text or an array of texts.");
    }
    // Accepted as they are, then refused for want of a model: nulls take the
    // defaults, numbers of any kind are numbers, a max_tokens that is given
    // (even null) hides max_completion_tokens, and a seed that is not a
    // non-negative integer picks a random one.
    for extra in [
        json!({}),
        json!({"stream": null, "temperature": null, "top_p": null, "min_p": null, "top_k": null,
               "max_tokens": null, "stop": null, "seed": null}),
        json!({"stream": true, "temperature": 0, "top_p": 0.9, "min_p": 1e-3, "top_k": -5,
               "max_tokens": 0, "stop": "x", "seed": 7}),
        json!({"temperature": 1e300, "top_k": 4.5, "max_tokens": 99_999_999_999_u64, "stop": []}),
        json!({"max_tokens": null, "max_completion_tokens": "x"}),
        json!({"max_tokens": 4, "max_completion_tokens": "x"}),
        json!({"seed": "x"}),
        json!({"seed": -1}),
        json!({"seed": 1.5}),
        json!({"stop": ["a", "b"], "tools": [], "n": "x", "unknown": {"x": 1}}),
    ] {
        chat(extra.clone())
            .await
            .assert_error(409, "No model is loaded.");
    }
}

#[tokio::test]
async fn chat_messages() {
    let app = TestApp::shared();
    let chat = |messages: Value| app.post("/v1/chat/completions", json!({ "messages": messages }));
    for messages in [Value::Null, json!("Hi"), json!({"role": "user"}), json!(5)] {
        chat(messages)
            .await
            .assert_error(400, "\"messages\" must be an array.");
    }
    app.post("/v1/chat/completions", json!({}))
        .await
        .assert_error(400, "\"messages\" must be an array.");
    chat(json!([]))
        .await
        .assert_error(400, "\"messages\" must not be empty.");
    let role = "Every message needs a \"role\" text.";
    for message in [
        json!({"content": "Hi"}),
        json!({"role": 5, "content": "Hi"}),
        json!({"role": null, "content": 5}),
        json!(5),
        json!("user"),
        json!(["user", "Hi"]),
        json!(null),
    ] {
        chat(json!([message])).await.assert_error(400, role);
    }
    let content = "\"content\" must be a text or an array of parts.";
    for value in [json!(5), json!(true), json!({"type": "text", "text": "Hi"})] {
        chat(json!([user(value)])).await.assert_error(400, content);
    }
    for part in [json!({"type": "text"}), json!({"type": "text", "text": 5})] {
        chat(json!([user(json!([part]))]))
            .await
            .assert_error(400, "A text part needs a \"text\" text.");
    }
    for part in [
        json!({"type": "image_url"}),
        json!({"type": "image_url", "image_url": null}),
        json!({"type": "image_url", "image_url": 5}),
        json!({"type": "image_url", "image_url": {}}),
        json!({"type": "image_url", "image_url": {"url": 5}}),
        json!({"type": "image_url", "image_url": ["data:image/png;base64,aGk="]}),
    ] {
        chat(json!([user(json!([part]))]))
            .await
            .assert_error(400, "An image part needs a URL.");
    }
    for part in [
        json!({"type": "audio"}),
        json!({"type": 5, "text": "Hi"}),
        json!({"text": "Hi"}),
        json!("Hi"),
        json!(["text", "Hi"]),
        json!(null),
    ] {
        chat(json!([user(json!([part]))]))
            .await
            .assert_error(400, "Unknown content part type.");
    }
    for (url, text) in BAD_DATA_URLS {
        let part = json!({"type": "image_url", "image_url": {"url": url}});
        chat(json!([user(json!([part]))]))
            .await
            .assert_error(400, text);
        let part = json!({"type": "image_url", "image_url": url});
        chat(json!([user(json!([part]))]))
            .await
            .assert_error(400, text);
    }
    // Messages are checked in order, each message's role before its content.
    let bad_image = json!({"type": "image_url", "image_url": "data:,x"});
    chat(json!([user(json!([bad_image])), {"content": "no role"}]))
        .await
        .assert_error(400, "Image data URLs must be base64 encoded.");
    chat(json!([{"content": [bad_image]}]))
        .await
        .assert_error(400, role);
    chat(json!([user(json!([{"type": "text"}, bad_image]))]))
        .await
        .assert_error(400, "A text part needs a \"text\" text.");
    // Message checks come after the sampling fields and before the model check.
    app.post(
        "/v1/chat/completions",
        json!({"messages": [5], "temperature": "hot"}),
    )
    .await
    .assert_error(400, "\"temperature\" must be a number.");
    // Well-formed conversations, images included, wait for a model.
    let image = data_url(b"not really a picture");
    for messages in [
        json!([user(json!("Hi"))]),
        json!([{"role": "system", "content": null}, user(json!("Hi"))]),
        json!([{"role": "anything", "content": "Hi", "name": "x"}]),
        json!([user(json!([
            {"type": "text", "text": "What is this?"},
            {"type": "image_url", "image_url": {"url": image, "detail": "high"}},
            {"type": "image_url", "image_url": image},
        ]))]),
        json!([user(json!([]))]),
    ] {
        chat(messages)
            .await
            .assert_error(409, "No model is loaded.");
    }
}

#[tokio::test]
async fn count_fields() {
    let app = TestApp::shared();
    let count = |body: Value| app.post("/api/count", body);
    for messages in [Value::Null, json!("Hi"), json!(5)] {
        count(json!({ "messages": messages }))
            .await
            .assert_error(400, "\"messages\" must be an array.");
    }
    count(json!({}))
        .await
        .assert_error(400, "\"messages\" must be an array.");
    count(json!({"messages": []}))
        .await
        .assert_error(400, "\"messages\" must not be empty.");
    count(json!({"messages": [{"content": "Hi"}]}))
        .await
        .assert_error(400, "Every message needs a \"role\" text.");
    count(json!({"messages": [user(json!([{"type": "audio"}]))]}))
        .await
        .assert_error(400, "Unknown content part type.");
    for (url, text) in BAD_DATA_URLS {
        let part = json!({"type": "image_url", "image_url": {"url": url}});
        count(json!({"messages": [user(json!([part]))]}))
            .await
            .assert_error(400, text);
    }
    // The reply's limit is checked first, in both spellings.
    for limit in ["max_tokens", "max_completion_tokens"] {
        count(json!({"messages": 5, limit: -1}))
            .await
            .assert_error(400, "\"max_tokens\" must be a non-negative integer.");
    }
    // Well-formed conversations, images included, wait for a model; the
    // chat request's other fields are accepted and ignored.
    let image = data_url(b"not really a picture");
    for body in [
        json!({"messages": [user(json!("Hi"))]}),
        json!({"messages": [{"role": "system", "content": "Be brief."}, user(json!("Hi"))],
               "max_tokens": 16, "temperature": "hot", "stream": 5}),
        json!({"messages": [user(json!([
            {"type": "text", "text": "What is this?"},
            {"type": "image_url", "image_url": {"url": image}},
        ]))]}),
    ] {
        count(body).await.assert_error(409, "No model is loaded.");
    }
    // Counting is a POST.
    app.api("GET", "/api/count", "")
        .await
        .assert_error(405, "Method not allowed.");
}
