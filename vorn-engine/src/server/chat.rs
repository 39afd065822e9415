//! /v1/chat/completions: OpenAI-style chat, streamed or in one reply.

use super::error::ApiError;
use super::json::{parse, Field, JsonBytes, TextOr};
use super::messages::{for_loaded_model, MessagesField};
use super::stream;
use super::App;
use crate::engine::{
    ChatRequest, ContextUse, EngineError, Event, FinishReason, Reply, Sampling, Usage,
};
use axum::extract::State;
use axum::response::{IntoResponse, Response};
use axum::Json;
use serde::{Deserialize, Serialize};

#[derive(Deserialize, Default)]
#[serde(default)]
pub(super) struct ChatBody<'a> {
    #[serde(borrow)]
    messages: MessagesField<'a>,
    stream: Field<bool>,
    temperature: Field<f64>,
    top_p: Field<f64>,
    min_p: Field<f64>,
    top_k: Field<f64>,
    seed: Field<u64>,
    max_tokens: Field<u64>,
    max_completion_tokens: Field<u64>,
    /// One stop text or several.
    #[serde(borrow)]
    stop: Field<TextOr<'a, Vec<String>>>,
}

/// A sampling number: any JSON number, or `default` when absent or null.
fn number(field: Field<f64>, name: &'static str, default: f64) -> Result<f64, ApiError> {
    let value = field.or(default, ApiError::NotNumber(name))?;
    if value.is_finite() {
        Ok(value)
    } else {
        Err(ApiError::NotNumber(name))
    }
}

struct Settings {
    stream: bool,
    sampling: Sampling,
    max_tokens: Option<u32>,
    stop: Vec<String>,
}

impl<'a> ChatBody<'a> {
    /// Checks the settings in a fixed order; the messages come after them.
    fn check(self) -> Result<(Settings, MessagesField<'a>), ApiError> {
        let ChatBody {
            messages,
            stream,
            temperature,
            top_p,
            min_p,
            top_k,
            seed,
            max_tokens,
            max_completion_tokens,
            stop,
        } = self;
        let stream = stream.or(false, ApiError::NotTrueOrFalse("stream"))?;
        let temperature = number(temperature, "temperature", 0.8)?;
        let top_p = number(top_p, "top_p", 1.0)?;
        let min_p = number(min_p, "min_p", 0.0)?;
        let top_k = number(top_k, "top_k", 0.0)?;
        // A seed that is not a non-negative integer picks a random one.
        let seed = match seed.given() {
            Some(seed) => seed as u32,
            None => random_seed(),
        };
        let max_tokens = reply_limit(max_tokens, max_completion_tokens)?;
        let stop = match stop.optional(ApiError::BadStop)? {
            None => Vec::new(),
            Some(TextOr::Text(text)) => vec![text.into_owned()],
            Some(TextOr::Other(texts)) => texts,
        };
        let settings = Settings {
            stream,
            sampling: Sampling {
                temperature: temperature.clamp(0.0, 10.0) as f32,
                top_p: top_p.clamp(0.0, 1.0) as f32,
                top_k: top_k.clamp(0.0, 1e6) as i32,
                min_p: min_p.clamp(0.0, 1.0) as f32,
                seed,
            },
            max_tokens,
            stop,
        };
        Ok((settings, messages))
    }
}

/// The reply's token limit from either spelling: a `max_tokens` that is
/// given, even as null, hides `max_completion_tokens`.
pub(super) fn reply_limit(
    max_tokens: Field<u64>,
    max_completion_tokens: Field<u64>,
) -> Result<Option<u32>, ApiError> {
    let max_tokens = match max_tokens {
        Field::Absent => max_completion_tokens,
        given => given,
    };
    Ok(max_tokens
        .optional(ApiError::NotCount("max_tokens"))?
        .map(|m| m.min(u32::MAX as u64) as u32))
}

fn read_chat(body: &[u8]) -> Result<(Settings, MessagesField<'_>), ApiError> {
    parse::<ChatBody>(body)?.check()
}

pub(super) async fn chat(
    State(app): State<App>,
    JsonBytes(body): JsonBytes,
) -> Result<Response, ApiError> {
    let (settings, messages, loaded) = for_loaded_model(&app, body, read_chat).await?;
    let reply = app
        .engine
        .chat(ChatRequest {
            messages,
            sampling: settings.sampling,
            max_tokens: settings.max_tokens,
            stop: settings.stop,
        })
        .await?;
    let head = ReplyHead {
        id: format!("chatcmpl-{:x}{:08x}", now(), random_seed()),
        created: now(),
        model: loaded.name,
    };
    if settings.stream {
        Ok(stream::events(reply, head).into_response())
    } else {
        Ok(Json(whole_reply(reply, head).await?).into_response())
    }
}

/// What every reply and chunk of one answer carries.
pub(super) struct ReplyHead {
    pub(super) id: String,
    pub(super) created: u64,
    pub(super) model: String,
}

#[derive(Serialize)]
pub(super) struct UsageBody {
    prompt_tokens: i64,
    completion_tokens: i64,
    total_tokens: i64,
}

impl From<Usage> for UsageBody {
    fn from(usage: Usage) -> Self {
        UsageBody {
            prompt_tokens: usage.prompt_tokens,
            completion_tokens: usage.completion_tokens,
            total_tokens: usage.prompt_tokens + usage.completion_tokens,
        }
    }
}

/// How the conversation sat in the context.
#[derive(Serialize)]
pub(super) struct ContextBody {
    size: u32,
    dropped_messages: usize,
}

impl From<ContextUse> for ContextBody {
    fn from(context: ContextUse) -> Self {
        ContextBody {
            size: context.size,
            dropped_messages: context.dropped_messages,
        }
    }
}

#[derive(Serialize)]
struct Completion {
    id: String,
    object: &'static str,
    created: u64,
    model: String,
    choices: [CompletionChoice; 1],
    usage: UsageBody,
    context: ContextBody,
}

#[derive(Serialize)]
struct CompletionChoice {
    index: u32,
    message: AssistantMessage,
    finish_reason: FinishReason,
}

#[derive(Serialize)]
struct AssistantMessage {
    role: &'static str,
    content: String,
    /// The reasoning before the answer, for models that write one.
    #[serde(skip_serializing_if = "Option::is_none")]
    reasoning_content: Option<String>,
}

/// Waits for the whole reply.
async fn whole_reply(mut reply: Reply, head: ReplyHead) -> Result<Completion, ApiError> {
    let mut text = String::new();
    let mut reasoning = String::new();
    loop {
        match reply.next().await {
            Some(Event::Delta(delta)) => text.push_str(&delta),
            Some(Event::Reasoning(delta)) => reasoning.push_str(&delta),
            Some(Event::Done {
                finish_reason,
                usage,
                context,
            }) => {
                return Ok(Completion {
                    id: head.id,
                    object: "chat.completion",
                    created: head.created,
                    model: head.model,
                    choices: [CompletionChoice {
                        index: 0,
                        message: AssistantMessage {
                            role: "assistant",
                            content: text,
                            reasoning_content: (!reasoning.is_empty()).then_some(reasoning),
                        },
                        finish_reason,
                    }],
                    usage: usage.into(),
                    context: context.into(),
                })
            }
            Some(Event::Error(e)) => return Err(e.into()),
            None => return Err(EngineError::StoppedWhileAnswering.into()),
        }
    }
}

fn now() -> u64 {
    std::time::SystemTime::now()
        .duration_since(std::time::UNIX_EPOCH)
        .map(|d| d.as_secs())
        .unwrap_or(0)
}

fn random_seed() -> u32 {
    use std::hash::{BuildHasher, Hasher};
    let mut hasher = std::collections::hash_map::RandomState::new().build_hasher();
    hasher.write_u64(now());
    hasher.finish() as u32
}
