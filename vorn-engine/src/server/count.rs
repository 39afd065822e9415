//! /api/count: the tokens of a conversation's prompt as the next reply would
//! send it, without generating or evaluating anything.

use super::chat::reply_limit;
use super::error::ApiError;
use super::json::{Field, JsonBody};
use super::messages::{for_loaded_model, MessagesField};
use super::App;
use crate::engine::CountRequest;
use axum::extract::State;
use axum::Json;
use serde::{Deserialize, Serialize};

/// A chat request's conversation; its other fields are ignored except the
/// reply's token limit, which changes the room the prompt may take.
#[derive(Deserialize, Default)]
#[serde(default)]
pub(super) struct CountBody {
    messages: MessagesField,
    max_tokens: Field<u64>,
    max_completion_tokens: Field<u64>,
}

#[derive(Serialize)]
pub(super) struct CountReply {
    /// Prompt tokens after fitting, the opening of the reply included.
    tokens: usize,
    /// The context in use.
    size: u32,
    dropped_messages: usize,
}

pub(super) async fn count(
    State(app): State<App>,
    JsonBody(body): JsonBody<CountBody>,
) -> Result<Json<CountReply>, ApiError> {
    let max_tokens = reply_limit(body.max_tokens, body.max_completion_tokens)?;
    let (messages, _) = for_loaded_model(&app, body.messages).await?;
    let counted = app
        .engine
        .count(CountRequest {
            messages,
            max_tokens,
        })
        .await?;
    Ok(Json(CountReply {
        tokens: counted.tokens,
        size: counted.context.size,
        dropped_messages: counted.context.dropped_messages,
    }))
}
