//! /api/pull: starts a download from the hub into the models folder.

use super::error::ApiError;
use super::json::{Field, JsonBody};
use super::{ok_reply, App, OkReply};
use axum::extract::State;
use axum::Json;
use serde::Deserialize;

#[derive(Deserialize, Default)]
#[serde(default)]
pub(super) struct PullBody {
    name: Field<String>,
    url: Field<String>,
}

/// Answers as soon as the download is accepted; progress shows in /api/state.
pub(super) async fn pull(
    State(app): State<App>,
    JsonBody(body): JsonBody<PullBody>,
) -> Result<Json<OkReply>, ApiError> {
    let name = body.name.required(ApiError::NotText("name"))?;
    let url = body.url.required(ApiError::NotText("url"))?;
    app.downloads.start(&name, &url)?;
    Ok(ok_reply())
}
