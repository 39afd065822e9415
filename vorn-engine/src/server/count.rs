//! /api/count: the tokens of a conversation's prompt as the next reply would
//! send it, without generating or evaluating anything.

use super::chat::reply_limit;
use super::error::ApiError;
use super::json::{parse, Field, JsonBytes};
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
pub(super) struct CountBody<'a> {
    #[serde(borrow)]
    messages: MessagesField<'a>,
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

/// The reply's token limit, checked before the messages.
fn read_count(body: &[u8]) -> Result<(Option<u32>, MessagesField<'_>), ApiError> {
    let body: CountBody = parse(body)?;
    let max_tokens = reply_limit(body.max_tokens, body.max_completion_tokens)?;
    Ok((max_tokens, body.messages))
}

pub(super) async fn count(
    State(app): State<App>,
    JsonBytes(body): JsonBytes,
) -> Result<Json<CountReply>, ApiError> {
    let (max_tokens, messages, _) = for_loaded_model(&app, body, read_count).await?;
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
