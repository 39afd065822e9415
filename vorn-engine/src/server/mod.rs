//! The HTTP API on the loopback interface.
//!
//! - `guard`: who may call at all (Host, Origin, X-Vorn-App, content type, size)
//! - `json`: reading bodies into typed fields
//! - `error`: every error kind and its status
//! - `models`: /api/state, /api/load, /api/unload
//! - `pull`: /api/pull
//! - `image`: data URLs and /api/encode
//! - `image_cache`: images by the data URL they came in
//! - `messages`, `chat`, `stream`: /v1/chat/completions
//! - `count`: /api/count

mod chat;
mod count;
mod error;
mod guard;
mod image;
mod image_cache;
mod json;
mod messages;
mod models;
mod pull;
mod stream;

pub use error::ApiError;
pub use guard::BODY_LIMIT;

use crate::download::Downloader;
use crate::engine::Engine;
use crate::state::Shared;
use axum::extract::DefaultBodyLimit;
use axum::middleware;
use axum::routing::{get, post};
use axum::Router;
use image_cache::ImageCache;
use std::path::PathBuf;
use std::sync::atomic::Ordering;
use std::sync::Arc;

/// What every handler works with; cheap to clone.
#[derive(Clone)]
pub struct App {
    shared: Arc<Shared>,
    engine: Engine,
    downloads: Downloader,
    images: Arc<ImageCache>,
}

impl App {
    /// The state, the inference thread and the downloader for one models folder.
    pub fn new(dir: PathBuf, port: u16) -> App {
        let shared = Arc::new(Shared::new(dir, port));
        App {
            engine: Engine::spawn(shared.clone()),
            downloads: Downloader::new(shared.clone()),
            images: Arc::default(),
            shared,
        }
    }

    /// Stops generation and downloads (keeping partial files) before exit.
    pub async fn shut_down(&self) {
        self.shared.shutting_down.store(true, Ordering::Relaxed);
        self.downloads.stop_all().await;
    }
}

pub fn router(app: App) -> Router {
    Router::new()
        .route("/api/state", get(models::state))
        .route("/api/load", post(models::load))
        .route("/api/unload", post(models::unload))
        .route("/api/pull", post(pull::pull))
        .route("/api/encode", post(image::encode))
        .route("/api/count", post(count::count))
        .route("/v1/chat/completions", post(chat::chat))
        .fallback(not_found)
        .method_not_allowed_fallback(method_not_allowed)
        .layer(middleware::from_fn_with_state(app.clone(), guard::guard))
        .layer(DefaultBodyLimit::max(BODY_LIMIT))
        .with_state(app)
}

async fn not_found() -> ApiError {
    ApiError::NotFound
}

async fn method_not_allowed() -> ApiError {
    ApiError::MethodNotAllowed
}

/// The reply of commands that have nothing to say but that they worked.
#[derive(serde::Serialize)]
struct OkReply {
    ok: bool,
}

fn ok_reply() -> axum::Json<OkReply> {
    axum::Json(OkReply { ok: true })
}
