//! HTTP API on the loopback interface.

use crate::download;
use crate::engine::{ChatJob, ChatMessage, Command, EngineError, Event, Image, LoadRequest};
use crate::names;
use crate::security;
use crate::state::{lock, Shared};
use crate::template::MEDIA_MARKER;
use axum::body::{Body, Bytes};
use axum::extract::{Request, State};
use axum::http::{header, HeaderMap, Method, StatusCode};
use axum::middleware::{self, Next};
use axum::response::{IntoResponse, Response};
use axum::routing::{get, post};
use axum::Router;
use base64::Engine as _;
use serde_json::{json, Value};
use sha2::{Digest, Sha256};
use std::sync::atomic::{AtomicBool, Ordering};
use std::sync::{mpsc, Arc, Mutex};
use tokio::sync::{mpsc as tmpsc, oneshot};

/// Large enough for a conversation carrying several 30 MB images.
pub const BODY_LIMIT: usize = 256 * 1024 * 1024;

#[derive(Clone)]
pub struct App {
    pub shared: Arc<Shared>,
    pub engine: Arc<Mutex<mpsc::Sender<Command>>>,
    pub downloads: download::Downloader,
}

impl App {
    /// The state, the inference thread and the downloader for one models folder.
    pub fn new(dir: std::path::PathBuf, port: u16) -> App {
        let shared = Arc::new(Shared::new(dir, port));
        App {
            engine: Arc::new(Mutex::new(crate::engine::spawn(shared.clone()))),
            downloads: download::Downloader::new(shared.clone()),
            shared,
        }
    }
}

#[derive(Debug)]
pub struct ApiError(pub StatusCode, pub String);

impl ApiError {
    pub fn new(status: u16, msg: impl Into<String>) -> Self {
        Self(
            StatusCode::from_u16(status).unwrap_or(StatusCode::INTERNAL_SERVER_ERROR),
            msg.into(),
        )
    }
}

impl From<EngineError> for ApiError {
    fn from(e: EngineError) -> Self {
        ApiError::new(e.status, e.message)
    }
}

impl IntoResponse for ApiError {
    fn into_response(self) -> Response {
        (self.0, axum::Json(json!({ "error": self.1 }))).into_response()
    }
}

type ApiResult = Result<Response, ApiError>;

pub fn router(app: App) -> Router {
    Router::new()
        .route("/api/state", get(state))
        .route("/api/load", post(load))
        .route("/api/unload", post(unload))
        .route("/api/pull", post(pull))
        .route("/api/encode", post(encode))
        .route("/v1/chat/completions", post(chat))
        .fallback(not_found)
        .method_not_allowed_fallback(method_not_allowed)
        .layer(middleware::from_fn_with_state(app.clone(), guard))
        .layer(axum::extract::DefaultBodyLimit::disable())
        .with_state(app)
}

async fn not_found() -> ApiError {
    ApiError::new(404, "Not found.")
}

async fn method_not_allowed() -> ApiError {
    ApiError::new(405, "Method not allowed.")
}

fn header_str<'a>(headers: &'a HeaderMap, name: header::HeaderName) -> Option<&'a str> {
    let mut all = headers.get_all(&name).iter();
    let first = all.next()?;
    if all.next().is_some() {
        // Duplicated security headers are ambiguous; treat them as invalid.
        return Some("\u{0}");
    }
    Some(first.to_str().unwrap_or("\u{0}"))
}

/// Refuses requests from anything but the app before any handler runs.
async fn guard(State(app): State<App>, req: Request, next: Next) -> Response {
    let port = app.shared.port;
    let headers = req.headers();
    let host =
        header_str(headers, header::HOST).or_else(|| req.uri().authority().map(|a| a.as_str()));
    if !security::host_allowed(host, port) {
        return ApiError::new(
            403,
            "Requests must be addressed to the engine's loopback address.",
        )
        .into_response();
    }
    if !security::origin_allowed(header_str(headers, header::ORIGIN), port) {
        return ApiError::new(403, "Cross-site requests are not allowed.").into_response();
    }
    if req.uri().path().starts_with("/api/")
        && header_str(headers, header::HeaderName::from_static("x-vorn-app")).map(str::trim)
            != Some("1")
    {
        return ApiError::new(403, "Missing X-Vorn-App header.").into_response();
    }
    if req.method() == Method::POST {
        if !security::is_json_content_type(header_str(headers, header::CONTENT_TYPE)) {
            return ApiError::new(415, "Request bodies must be application/json.").into_response();
        }
        let declared =
            header_str(headers, header::CONTENT_LENGTH).and_then(|v| v.trim().parse::<u64>().ok());
        if declared.is_some_and(|n| n > BODY_LIMIT as u64) {
            return ApiError::new(413, "The request body is too large.").into_response();
        }
    }
    let mut resp = next.run(req).await;
    resp.headers_mut()
        .remove(header::ACCESS_CONTROL_ALLOW_ORIGIN);
    resp
}

async fn read_json(body: Body) -> Result<Value, ApiError> {
    let bytes: Bytes = axum::body::to_bytes(body, BODY_LIMIT).await.map_err(|e| {
        let mut too_big = false;
        let mut src: Option<&dyn std::error::Error> = Some(&e);
        while let Some(s) = src {
            too_big |= s.to_string().contains("length limit");
            src = s.source();
        }
        if too_big {
            ApiError::new(413, "The request body is too large.")
        } else {
            ApiError::new(400, "The request body could not be read.")
        }
    })?;
    let v: Value = serde_json::from_slice(&bytes)
        .map_err(|e| ApiError::new(400, format!("Invalid JSON: {e}")))?;
    if !v.is_object() {
        return Err(ApiError::new(
            400,
            "The request body must be a JSON object.",
        ));
    }
    Ok(v)
}

fn send(app: &App, cmd: Command) -> Result<(), ApiError> {
    lock(&app.engine)
        .send(cmd)
        .map_err(|_| ApiError::new(500, "The inference thread has stopped."))
}

async fn state(State(app): State<App>) -> ApiResult {
    let shared = app.shared.clone();
    let body = tokio::task::spawn_blocking(move || {
        let loaded = lock(&shared.loaded).clone();
        let last = lock(&shared.last).clone();
        json!({
            "version": env!("CARGO_PKG_VERSION"),
            "dir": shared.dir.to_string_lossy(),
            "loaded": loaded.as_ref().map(|l| l.name.clone()),
            "backend": loaded.as_ref().map(|l| l.backend).unwrap_or("cpu"),
            "ctx": loaded.as_ref().map(|l| l.ctx as i64).unwrap_or(0),
            "vision": loaded.as_ref().map(|l| l.vision).unwrap_or(false),
            "projector": loaded.as_ref().and_then(|l| l.projector.clone()),
            "models": shared.list_models(),
            "downloads": shared.download_states(),
            "last": last,
        })
    })
    .await
    .map_err(|_| ApiError::new(500, "Could not read the state."))?;
    Ok(axum::Json(body).into_response())
}

/// Picks the projector that fits a model: same embedding width, preferring
/// the one whose name shares the model's stem.
fn pick_projector(app: &App, model_name: &str) -> Option<(String, std::path::PathBuf)> {
    let shared = &app.shared;
    let model_path = shared.dir.join(model_name);
    let model_embd = shared.header_info(&model_path)?.embedding;
    let mut best: Option<(usize, String)> = None;
    for m in shared.list_models() {
        if !m.projector {
            continue;
        }
        let path = shared.dir.join(&m.name);
        let Some(info) = shared.header_info(&path) else {
            continue;
        };
        if info.embedding.is_none() || info.embedding != model_embd {
            continue;
        }
        let score = names::projector_affinity(model_name, &m.name);
        if best.as_ref().is_none_or(|(s, _)| score > *s) {
            best = Some((score, m.name.clone()));
        }
    }
    best.map(|(_, name)| {
        let path = shared.dir.join(&name);
        (name, path)
    })
}

async fn load(State(app): State<App>, req: Request) -> ApiResult {
    let v = read_json(req.into_body()).await?;
    let name = v
        .get("name")
        .and_then(Value::as_str)
        .ok_or_else(|| ApiError::new(400, "\"name\" must be a text."))?;
    let gpu = match v.get("gpu") {
        None | Some(Value::Null) => false,
        Some(Value::Bool(b)) => *b,
        Some(_) => return Err(ApiError::new(400, "\"gpu\" must be true or false.")),
    };
    let ctx = match v.get("ctx") {
        None | Some(Value::Null) => 4096,
        Some(c) => c
            .as_u64()
            .filter(|c| *c <= 1 << 20)
            .ok_or_else(|| ApiError::new(400, "\"ctx\" must be a positive integer."))?
            as u32,
    };
    if !names::is_plain_file_name(name) {
        return Err(ApiError::new(
            400,
            "The model name must be a plain file name.",
        ));
    }
    let path = app.shared.dir.join(name);
    match std::fs::symlink_metadata(&path) {
        Err(_) => return Err(ApiError::new(404, format!("No model named {name}."))),
        Ok(m) if m.is_dir() => return Err(ApiError::new(400, format!("{name} is a folder."))),
        Ok(_) => {}
    }
    match std::fs::metadata(&path) {
        Ok(m) if m.is_file() => {}
        Ok(_) => return Err(ApiError::new(400, format!("{name} is not a file."))),
        Err(_) => {
            return Err(ApiError::new(
                404,
                format!("The file behind {name} is missing."),
            ))
        }
    }
    let projector = {
        let app = app.clone();
        let name = name.to_string();
        tokio::task::spawn_blocking(move || pick_projector(&app, &name))
            .await
            .ok()
            .flatten()
    };
    let (tx, rx) = oneshot::channel();
    send(
        &app,
        Command::Load(
            LoadRequest {
                name: name.to_string(),
                path,
                gpu,
                ctx,
                projector,
            },
            tx,
        ),
    )?;
    rx.await
        .map_err(|_| ApiError::new(500, "The inference thread stopped while loading."))??;
    Ok(axum::Json(json!({ "ok": true })).into_response())
}

async fn unload(State(app): State<App>, req: Request) -> ApiResult {
    read_json(req.into_body()).await?;
    let (tx, rx) = oneshot::channel();
    send(&app, Command::Unload(tx))?;
    let _ = rx.await;
    Ok(axum::Json(json!({ "ok": true })).into_response())
}

async fn pull(State(app): State<App>, req: Request) -> ApiResult {
    let v = read_json(req.into_body()).await?;
    let name = v
        .get("name")
        .and_then(Value::as_str)
        .ok_or_else(|| ApiError::new(400, "\"name\" must be a text."))?;
    let url = v
        .get("url")
        .and_then(Value::as_str)
        .ok_or_else(|| ApiError::new(400, "\"url\" must be a text."))?;
    app.downloads.start(name, url)?;
    Ok(axum::Json(json!({ "ok": true })).into_response())
}

/// Decodes a `data:` URL into its bytes.
pub fn decode_data_url(url: &str) -> Result<Vec<u8>, ApiError> {
    let rest = url
        .strip_prefix("data:")
        .ok_or_else(|| ApiError::new(400, "Images must be sent as data URLs."))?;
    let (meta, data) = rest
        .split_once(',')
        .ok_or_else(|| ApiError::new(400, "Malformed data URL."))?;
    if !meta.to_ascii_lowercase().ends_with(";base64") {
        return Err(ApiError::new(
            400,
            "Image data URLs must be base64 encoded.",
        ));
    }
    let clean: Vec<u8> = data.bytes().filter(|b| !b.is_ascii_whitespace()).collect();
    let bytes = base64::engine::general_purpose::STANDARD
        .decode(&clean)
        .map_err(|_| ApiError::new(400, "The image data is not valid base64."))?;
    if bytes.is_empty() {
        return Err(ApiError::new(400, "The image is empty."));
    }
    Ok(bytes)
}

fn image_from_url(url: &str) -> Result<Image, ApiError> {
    let bytes = decode_data_url(url)?;
    let hash = hex::encode(Sha256::digest(&bytes));
    Ok(Image {
        hash,
        bytes: Arc::new(bytes),
    })
}

async fn encode(State(app): State<App>, req: Request) -> ApiResult {
    let v = read_json(req.into_body()).await?;
    let url = v
        .get("url")
        .and_then(Value::as_str)
        .ok_or_else(|| ApiError::new(400, "\"url\" must be a text."))?;
    let image = tokio::task::spawn_blocking({
        let url = url.to_string();
        move || image_from_url(&url)
    })
    .await
    .map_err(|_| ApiError::new(500, "decode failed"))??;
    let vision = lock(&app.shared.loaded)
        .as_ref()
        .map(|l| l.vision)
        .unwrap_or(false);
    if !vision {
        return Err(ApiError::new(409, "No model with image support is loaded."));
    }
    let (tx, rx) = oneshot::channel();
    send(&app, Command::Encode(image, tx))?;
    rx.await
        .map_err(|_| ApiError::new(500, "The inference thread stopped."))??;
    Ok(axum::Json(json!({ "ok": true })).into_response())
}

fn parse_messages(v: &Value) -> Result<Vec<ChatMessage>, ApiError> {
    let list = v
        .get("messages")
        .and_then(Value::as_array)
        .ok_or_else(|| ApiError::new(400, "\"messages\" must be an array."))?;
    if list.is_empty() {
        return Err(ApiError::new(400, "\"messages\" must not be empty."));
    }
    let mut out = Vec::with_capacity(list.len());
    for m in list {
        let role = m
            .get("role")
            .and_then(Value::as_str)
            .ok_or_else(|| ApiError::new(400, "Every message needs a \"role\" text."))?;
        let mut content = String::new();
        let mut images = Vec::new();
        match m.get("content") {
            None | Some(Value::Null) => {}
            Some(Value::String(s)) => content.push_str(s),
            Some(Value::Array(parts)) => {
                for p in parts {
                    match p.get("type").and_then(Value::as_str) {
                        Some("text") => {
                            let t = p.get("text").and_then(Value::as_str).ok_or_else(|| {
                                ApiError::new(400, "A text part needs a \"text\" text.")
                            })?;
                            content.push_str(t);
                        }
                        Some("image_url") => {
                            let url = match p.get("image_url") {
                                Some(Value::String(s)) => s.as_str(),
                                Some(o) => {
                                    o.get("url").and_then(Value::as_str).ok_or_else(|| {
                                        ApiError::new(400, "An image part needs a URL.")
                                    })?
                                }
                                None => {
                                    return Err(ApiError::new(400, "An image part needs a URL."))
                                }
                            };
                            images.push(image_from_url(url)?);
                            content.push_str(MEDIA_MARKER);
                            content.push('\n');
                        }
                        _ => return Err(ApiError::new(400, "Unknown content part type.")),
                    }
                }
            }
            Some(_) => {
                return Err(ApiError::new(
                    400,
                    "\"content\" must be a text or an array of parts.",
                ))
            }
        }
        if images.is_empty() && content.contains(MEDIA_MARKER) {
            // A user must not smuggle image slots in through plain text.
            content = content.replace(MEDIA_MARKER, "<_media_>");
        }
        out.push(ChatMessage {
            role: role.to_string(),
            content,
            images,
        });
    }
    Ok(out)
}

fn num(v: &Value, key: &str, default: f64) -> Result<f64, ApiError> {
    match v.get(key) {
        None | Some(Value::Null) => Ok(default),
        Some(x) => x
            .as_f64()
            .filter(|f| f.is_finite())
            .ok_or_else(|| ApiError::new(400, format!("\"{key}\" must be a number."))),
    }
}

struct CancelOnDrop(Arc<AtomicBool>);

impl Drop for CancelOnDrop {
    fn drop(&mut self) {
        self.0.store(true, Ordering::Relaxed);
    }
}

fn now() -> u64 {
    std::time::SystemTime::now()
        .duration_since(std::time::UNIX_EPOCH)
        .map(|d| d.as_secs())
        .unwrap_or(0)
}

async fn chat(State(app): State<App>, req: Request) -> ApiResult {
    let v = read_json(req.into_body()).await?;
    let stream = match v.get("stream") {
        None | Some(Value::Null) => false,
        Some(Value::Bool(b)) => *b,
        Some(_) => return Err(ApiError::new(400, "\"stream\" must be true or false.")),
    };
    let temperature = num(&v, "temperature", 0.8)?.clamp(0.0, 10.0) as f32;
    let top_p = num(&v, "top_p", 1.0)?.clamp(0.0, 1.0) as f32;
    let min_p = num(&v, "min_p", 0.0)?.clamp(0.0, 1.0) as f32;
    let top_k = num(&v, "top_k", 0.0)?.clamp(0.0, 1e6) as i32;
    let seed = match v.get("seed").and_then(Value::as_u64) {
        Some(s) => s as u32,
        None => rand_seed(),
    };
    let max_tokens = match v
        .get("max_tokens")
        .or_else(|| v.get("max_completion_tokens"))
    {
        None | Some(Value::Null) => None,
        Some(x) => Some(
            x.as_u64()
                .ok_or_else(|| {
                    ApiError::new(400, "\"max_tokens\" must be a non-negative integer.")
                })?
                .min(u32::MAX as u64) as u32,
        ),
    };
    let stop = match v.get("stop") {
        None | Some(Value::Null) => Vec::new(),
        Some(Value::String(s)) => vec![s.clone()],
        Some(Value::Array(a)) => a
            .iter()
            .map(|s| s.as_str().map(str::to_string))
            .collect::<Option<Vec<_>>>()
            .ok_or_else(|| ApiError::new(400, "\"stop\" must be a text or an array of texts."))?,
        Some(_) => {
            return Err(ApiError::new(
                400,
                "\"stop\" must be a text or an array of texts.",
            ))
        }
    };
    let vv = v.clone();
    let messages = tokio::task::spawn_blocking(move || parse_messages(&vv))
        .await
        .map_err(|_| ApiError::new(500, "parse failed"))??;
    let loaded = lock(&app.shared.loaded).clone();
    let Some(loaded) = loaded else {
        return Err(ApiError::new(409, "No model is loaded."));
    };
    if !loaded.vision && messages.iter().any(|m| !m.images.is_empty()) {
        return Err(ApiError::new(
            400,
            "The loaded model does not accept images.",
        ));
    }

    let (tx, mut rx) = tmpsc::unbounded_channel();
    let cancel = Arc::new(AtomicBool::new(false));
    let guard = CancelOnDrop(cancel.clone());
    send(
        &app,
        Command::Chat(ChatJob {
            messages,
            temperature,
            top_p,
            top_k,
            min_p,
            seed,
            max_tokens,
            stop,
            events: tx,
            cancel,
        }),
    )?;

    // Errors found before generation starts get a proper status.
    match rx.recv().await {
        Some(Event::Started) => {}
        Some(Event::Error(e)) => return Err(e.into()),
        _ => return Err(ApiError::new(500, "The engine stopped before answering.")),
    }
    let id = format!("chatcmpl-{:x}{:08x}", now(), rand_seed());
    let model = loaded.name.clone();
    let created = now();

    if !stream {
        let mut text = String::new();
        let _guard = guard;
        loop {
            match rx.recv().await {
                Some(Event::Delta(t)) => text.push_str(&t),
                Some(Event::Done {
                    finish_reason,
                    prompt_tokens,
                    completion_tokens,
                }) => {
                    return Ok(axum::Json(json!({
                        "id": id,
                        "object": "chat.completion",
                        "created": created,
                        "model": model,
                        "choices": [{
                            "index": 0,
                            "message": {"role": "assistant", "content": text},
                            "finish_reason": finish_reason,
                        }],
                        "usage": {
                            "prompt_tokens": prompt_tokens,
                            "completion_tokens": completion_tokens,
                            "total_tokens": prompt_tokens + completion_tokens,
                        }
                    }))
                    .into_response());
                }
                Some(Event::Error(e)) => return Err(e.into()),
                Some(Event::Started) => {}
                None => return Err(ApiError::new(500, "The engine stopped while answering.")),
            }
        }
    }

    let chunk = move |delta: Value, finish: Value, usage: Option<Value>| -> Bytes {
        let mut obj = json!({
            "id": id,
            "object": "chat.completion.chunk",
            "created": created,
            "model": model,
            "choices": [{"index": 0, "delta": delta, "finish_reason": finish}],
        });
        if let Some(u) = usage {
            obj["usage"] = u;
        }
        Bytes::from(format!("data: {obj}\n\n"))
    };
    let first = chunk(
        json!({"role": "assistant", "content": ""}),
        Value::Null,
        None,
    );
    let stream = async_stream(first, rx, guard, chunk);
    let mut resp = Response::new(Body::from_stream(stream));
    let h = resp.headers_mut();
    h.insert(
        header::CONTENT_TYPE,
        header::HeaderValue::from_static("text/event-stream"),
    );
    h.insert(
        header::CACHE_CONTROL,
        header::HeaderValue::from_static("no-cache"),
    );
    Ok(resp)
}

enum Phase {
    First,
    Events,
    Finished,
}

fn async_stream(
    first: Bytes,
    rx: tmpsc::UnboundedReceiver<Event>,
    guard: CancelOnDrop,
    chunk: impl Fn(Value, Value, Option<Value>) -> Bytes + Send + 'static,
) -> impl futures_util::Stream<Item = Result<Bytes, std::io::Error>> + Send {
    // The guard lives in the stream: when the client goes away the body is
    // dropped and generation stops.
    futures_util::stream::unfold(
        (Phase::First, rx, guard, chunk, first),
        |(phase, mut rx, guard, chunk, first)| async move {
            match phase {
                Phase::First => Some((Ok(first.clone()), (Phase::Events, rx, guard, chunk, first))),
                Phase::Finished => None,
                Phase::Events => loop {
                    match rx.recv().await {
                        Some(Event::Delta(t)) => {
                            let b = chunk(json!({"content": t}), Value::Null, None);
                            return Some((Ok(b), (Phase::Events, rx, guard, chunk, first)));
                        }
                        Some(Event::Done {
                            finish_reason,
                            prompt_tokens,
                            completion_tokens,
                        }) => {
                            let mut b = chunk(
                                json!({}),
                                json!(finish_reason),
                                Some(json!({
                                    "prompt_tokens": prompt_tokens,
                                    "completion_tokens": completion_tokens,
                                    "total_tokens": prompt_tokens + completion_tokens,
                                })),
                            )
                            .to_vec();
                            b.extend_from_slice(b"data: [DONE]\n\n");
                            return Some((
                                Ok(Bytes::from(b)),
                                (Phase::Finished, rx, guard, chunk, first),
                            ));
                        }
                        Some(Event::Error(e)) => {
                            let b = Bytes::from(format!(
                                "data: {}\n\n",
                                json!({"error": {"message": e.message}})
                            ));
                            return Some((Ok(b), (Phase::Finished, rx, guard, chunk, first)));
                        }
                        Some(Event::Started) => continue,
                        None => return None,
                    }
                },
            }
        },
    )
}

fn rand_seed() -> u32 {
    use std::hash::{BuildHasher, Hasher};
    let mut h = std::collections::hash_map::RandomState::new().build_hasher();
    h.write_u64(now());
    h.finish() as u32
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn data_urls() {
        assert_eq!(
            decode_data_url("data:image/png;base64,aGk=").unwrap(),
            b"hi"
        );
        assert!(decode_data_url("https://x/y.png").is_err());
        assert!(decode_data_url("data:image/png,hi").is_err());
        assert!(decode_data_url("data:image/png;base64,@@@").is_err());
        assert!(decode_data_url("data:image/png;base64,").is_err());
    }

    #[test]
    fn messages_with_parts() {
        let v = json!({"messages": [
            {"role": "system", "content": "s"},
            {"role": "user", "content": [
                {"type": "image_url", "image_url": {"url": "data:image/png;base64,aGk="}},
                {"type": "text", "text": "what?"}
            ]},
            {"role": "assistant", "content": "sneaky <__media__>"}
        ]});
        let m = parse_messages(&v).unwrap();
        assert_eq!(m.len(), 3);
        assert_eq!(m[1].images.len(), 1);
        assert_eq!(m[1].content, format!("{MEDIA_MARKER}\nwhat?"));
        assert!(!m[2].content.contains(MEDIA_MARKER));
        assert!(parse_messages(&json!({"messages": [{"content": "x"}]})).is_err());
        assert!(parse_messages(&json!({"messages": "x"})).is_err());
        assert!(parse_messages(&json!({"messages": [{"role": "user", "content": 5}]})).is_err());
    }
}
