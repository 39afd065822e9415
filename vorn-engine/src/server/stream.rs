//! A streamed reply as server-sent events: a first chunk with the role,
//! one chunk per delta (`content`, or `reasoning_content` for the reasoning
//! of models that write one), a last chunk with the finish reason, usage
//! and context, then `data: [DONE]`. The reply lives inside the stream, so
//! a client that goes away drops it and stops the generation.

use super::chat::{ContextBody, ReplyHead, UsageBody};
use crate::engine::{EngineError, Event, FinishReason, Reply};
use axum::response::sse::{self, Sse};
use futures_util::stream::{self, Stream, StreamExt};
use serde::Serialize;
use std::convert::Infallible;

#[derive(Serialize)]
struct Chunk<'a> {
    id: &'a str,
    object: &'static str,
    created: u64,
    model: &'a str,
    choices: [ChunkChoice; 1],
    #[serde(skip_serializing_if = "Option::is_none")]
    usage: Option<UsageBody>,
    #[serde(skip_serializing_if = "Option::is_none")]
    context: Option<ContextBody>,
}

#[derive(Serialize)]
struct ChunkChoice {
    index: u32,
    delta: Delta,
    finish_reason: Option<FinishReason>,
}

#[derive(Serialize, Default)]
struct Delta {
    #[serde(skip_serializing_if = "Option::is_none")]
    role: Option<&'static str>,
    #[serde(skip_serializing_if = "Option::is_none")]
    content: Option<String>,
    #[serde(skip_serializing_if = "Option::is_none")]
    reasoning_content: Option<String>,
}

#[derive(Serialize)]
struct StreamError {
    error: ErrorMessage,
}

#[derive(Serialize)]
struct ErrorMessage {
    message: String,
}

fn data(value: &impl Serialize) -> sse::Event {
    sse::Event::default()
        .json_data(value)
        .expect("chunks serialize to JSON")
}

impl ReplyHead {
    fn chunk(&self, delta: Delta, finish_reason: Option<FinishReason>) -> sse::Event {
        self.last_chunk(delta, finish_reason, None)
    }

    /// A chunk, with the reply's figures when it is the last.
    fn last_chunk(
        &self,
        delta: Delta,
        finish_reason: Option<FinishReason>,
        figures: Option<(UsageBody, ContextBody)>,
    ) -> sse::Event {
        let (usage, context) = figures.unzip();
        data(&Chunk {
            id: &self.id,
            object: "chat.completion.chunk",
            created: self.created,
            model: &self.model,
            choices: [ChunkChoice {
                index: 0,
                delta,
                finish_reason,
            }],
            usage,
            context,
        })
    }
}

fn error_event(error: &EngineError) -> sse::Event {
    data(&StreamError {
        error: ErrorMessage {
            message: error.to_string(),
        },
    })
}

enum Phase {
    Streaming(Reply),
    /// The last chunk went out; `[DONE]` follows.
    Finishing,
    Over,
}

pub(super) fn events(
    reply: Reply,
    head: ReplyHead,
) -> Sse<impl Stream<Item = Result<sse::Event, Infallible>>> {
    let first = head.chunk(
        Delta {
            role: Some("assistant"),
            content: Some(String::new()),
            reasoning_content: None,
        },
        None,
    );
    let rest = stream::unfold(
        (Phase::Streaming(reply), head),
        |(phase, head)| async move {
            let (event, next) = match phase {
                Phase::Streaming(mut reply) => match reply.next().await? {
                    Event::Delta(text) => {
                        let delta = Delta {
                            content: Some(text),
                            ..Delta::default()
                        };
                        (head.chunk(delta, None), Phase::Streaming(reply))
                    }
                    Event::Reasoning(text) => {
                        let delta = Delta {
                            reasoning_content: Some(text),
                            ..Delta::default()
                        };
                        (head.chunk(delta, None), Phase::Streaming(reply))
                    }
                    Event::Done {
                        finish_reason,
                        usage,
                        context,
                    } => {
                        let figures = (usage.into(), context.into());
                        let last =
                            head.last_chunk(Delta::default(), Some(finish_reason), Some(figures));
                        (last, Phase::Finishing)
                    }
                    Event::Error(error) => (error_event(&error), Phase::Over),
                },
                Phase::Finishing => (sse::Event::default().data("[DONE]"), Phase::Over),
                Phase::Over => return None,
            };
            Some((Ok(event), (next, head)))
        },
    );
    Sse::new(stream::once(async move { Ok(first) }).chain(rest))
}
