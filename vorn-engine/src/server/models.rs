//! The models folder and the loaded model: /api/state, /api/load, /api/unload.

use super::error::ApiError;
use super::json::{Field, JsonBody};
use super::{ok_reply, App, OkReply};
use crate::engine::LoadRequest;
use crate::names;
use crate::state::{lock, DownloadState, LocalModel, RunMetrics};
use axum::extract::State;
use axum::Json;
use serde::{Deserialize, Serialize};
use std::path::PathBuf;

/// The context a model gets when the request names none, and the largest
/// one any model takes whatever it was trained with (as it always could).
const DEFAULT_CONTEXT: u64 = 4096;
/// llama.cpp counts context positions in 32 bits.
const MAX_CONTEXT: u64 = u32::MAX as u64;

#[derive(Serialize)]
pub(super) struct StateReply {
    version: &'static str,
    dir: String,
    loaded: Option<String>,
    backend: &'static str,
    ctx: i64,
    vision: bool,
    projector: Option<String>,
    models: Vec<LocalModel>,
    downloads: Vec<DownloadState>,
    last: RunMetrics,
}

pub(super) async fn state(State(app): State<App>) -> Result<Json<StateReply>, ApiError> {
    let shared = app.shared.clone();
    // Listing the folder reads model headers: not on the async threads.
    let reply = tokio::task::spawn_blocking(move || {
        let loaded = lock(&shared.loaded).clone();
        let last = lock(&shared.last).clone();
        StateReply {
            version: env!("CARGO_PKG_VERSION"),
            dir: shared.dir.to_string_lossy().into_owned(),
            loaded: loaded.as_ref().map(|l| l.name.clone()),
            backend: loaded.as_ref().map(|l| l.backend).unwrap_or("cpu"),
            ctx: loaded.as_ref().map(|l| l.ctx as i64).unwrap_or(0),
            vision: loaded.as_ref().map(|l| l.vision).unwrap_or(false),
            projector: loaded.as_ref().and_then(|l| l.projector.clone()),
            models: shared.list_models(),
            downloads: shared.download_states(),
            last,
        }
    })
    .await
    .map_err(|_| ApiError::Internal("Could not read the state."))?;
    Ok(Json(reply))
}

#[derive(Deserialize, Default)]
#[serde(default)]
pub(super) struct LoadBody {
    name: Field<String>,
    gpu: Field<bool>,
    ctx: Field<u64>,
}

pub(super) async fn load(
    State(app): State<App>,
    JsonBody(body): JsonBody<LoadBody>,
) -> Result<Json<OkReply>, ApiError> {
    let name = body.name.required(ApiError::NotText("name"))?;
    let gpu = body.gpu.or(false, ApiError::NotTrueOrFalse("gpu"))?;
    let requested = body.ctx.optional(ApiError::BadContextSize)?;
    let path = model_path(&app, &name)?;
    // Reading headers: not on the async threads.
    let (trained, projector) = {
        let app = app.clone();
        let name = name.clone();
        tokio::task::spawn_blocking(move || {
            let trained = app
                .shared
                .header_info(&app.shared.dir.join(&name))
                .and_then(|info| info.details.context_length)
                .map(|n| n as u64);
            (trained, pick_projector(&app, &name))
        })
        .await
        .unwrap_or((None, None))
    };
    let context_size = context_size(&name, requested, trained)?;
    app.engine
        .load(LoadRequest {
            name,
            path,
            gpu,
            context_size,
            projector,
        })
        .await?;
    Ok(ok_reply())
}

/// The context to load with: the default when none is asked, the trained
/// one for 0, and never more than the model takes.
fn context_size(name: &str, requested: Option<u64>, trained: Option<u64>) -> Result<u32, ApiError> {
    let size = match requested {
        None => DEFAULT_CONTEXT,
        Some(0) => trained.unwrap_or(DEFAULT_CONTEXT).min(MAX_CONTEXT),
        Some(requested) => {
            let limit = trained
                .unwrap_or(MAX_CONTEXT)
                .clamp(DEFAULT_CONTEXT, MAX_CONTEXT);
            if requested > limit {
                return Err(ApiError::ContextAboveLimit {
                    name: name.to_string(),
                    requested,
                    limit,
                    trained,
                });
            }
            requested
        }
    };
    Ok(size as u32)
}

/// The path of a model file named in a request: a plain name of a file in
/// the folder (or a link to one).
fn model_path(app: &App, name: &str) -> Result<PathBuf, ApiError> {
    if !names::is_plain_file_name(name) {
        return Err(ApiError::NotPlainName);
    }
    let path = app.shared.dir.join(name);
    match std::fs::symlink_metadata(&path) {
        Err(_) => return Err(ApiError::NoSuchModel(name.to_string())),
        Ok(m) if m.is_dir() => return Err(ApiError::ModelIsFolder(name.to_string())),
        Ok(_) => {}
    }
    match std::fs::metadata(&path) {
        Ok(m) if m.is_file() => Ok(path),
        Ok(_) => Err(ApiError::ModelIsNotFile(name.to_string())),
        Err(_) => Err(ApiError::ModelFileMissing(name.to_string())),
    }
}

/// Picks the projector that fits a model: same embedding width, preferring
/// the one whose name shares the model's stem.
fn pick_projector(app: &App, model_name: &str) -> Option<(String, PathBuf)> {
    let shared = &app.shared;
    let model_width = shared.header_info(&shared.dir.join(model_name))?.embedding;
    let mut best: Option<(usize, String)> = None;
    for model in shared.list_models() {
        if !model.projector {
            continue;
        }
        let Some(info) = shared.header_info(&shared.dir.join(&model.name)) else {
            continue;
        };
        if info.embedding.is_none() || info.embedding != model_width {
            continue;
        }
        let score = names::projector_affinity(model_name, &model.name);
        if best.as_ref().is_none_or(|(s, _)| score > *s) {
            best = Some((score, model.name));
        }
    }
    best.map(|(_, name)| {
        let path = shared.dir.join(&name);
        (name, path)
    })
}

/// Any JSON object.
#[derive(Deserialize)]
pub(super) struct UnloadBody {}

pub(super) async fn unload(
    State(app): State<App>,
    JsonBody(_): JsonBody<UnloadBody>,
) -> Result<Json<OkReply>, ApiError> {
    app.engine.unload().await?;
    Ok(ok_reply())
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn context_sizes() {
        let size = |requested, trained| context_size("m.gguf", requested, trained);
        // Absent: the default, whatever the model.
        assert_eq!(size(None, None), Ok(4096));
        assert_eq!(size(None, Some(131_072)), Ok(4096));
        // 0: the trained context, or the default when the header has none.
        assert_eq!(size(Some(0), Some(2048)), Ok(2048));
        assert_eq!(size(Some(0), None), Ok(4096));
        assert_eq!(size(Some(0), Some(1 << 40)), Ok(u32::MAX));
        // Up to the trained context, and up to the default on any model.
        assert_eq!(size(Some(131_072), Some(131_072)), Ok(131_072));
        assert_eq!(size(Some(4096), Some(2048)), Ok(4096));
        assert_eq!(size(Some(100_000), None), Ok(100_000));
        let above = |requested, limit, trained| {
            Err(ApiError::ContextAboveLimit {
                name: "m.gguf".into(),
                requested,
                limit,
                trained,
            })
        };
        assert_eq!(
            size(Some(131_073), Some(131_072)),
            above(131_073, 131_072, Some(131_072))
        );
        assert_eq!(size(Some(4097), Some(2048)), above(4097, 4096, Some(2048)));
        assert_eq!(size(Some(1 << 32), None), above(1 << 32, MAX_CONTEXT, None));
        assert_eq!(
            size(Some(4097), Some(2048)).unwrap_err().to_string(),
            "A context of 4097 tokens is more than m.gguf takes: at most 4096 tokens (it was trained with 2048)."
        );
        assert_eq!(
            size(Some(1 << 32), None).unwrap_err().to_string(),
            "A context of 4294967296 tokens is more than m.gguf takes: at most 4294967295 tokens."
        );
    }
}
