//! The inference engine. One thread owns llama.cpp's model, context and
//! projector and runs one command at a time, so tokio's threads never block
//! on inference; [`Engine`] is the handle the HTTP layer talks to.
//!
//! - `worker`: the thread itself, before any model is loaded
//! - `load`: checking, probing and loading a model into a session
//! - `session`: a loaded model and the commands it serves
//! - `conversation`: messages to prompt tokens that fit the context
//! - `prefill`: evaluating a prompt after what the KV cache already holds
//! - `generate`: sampling a reply
//! - `reply_text`: a reply's bytes into text, stop strings, reasoning
//! - `turn_end`: the tokens that end the model's turn
//! - `image`: an image as sent, decoded once for all its uses
//! - `vision`: the projector, the encoder output cache and early encoding
//! - `probe`: the child process that tries a file before the engine loads it
//! - `threads`: how many CPU threads a model gets
//! - `lru`: the eviction of the image caches
//! - `memory`: whether a context's KV cache fits in memory
//! - `error`: every way a command can fail

mod conversation;
mod error;
mod generate;
mod image;
mod load;
mod lru;
mod memory;
mod prefill;
mod probe;
mod reasoning_tags;
mod reply_text;
mod session;
mod threads;
mod turn_end;
mod vision;
mod worker;

pub use error::EngineError;
pub use image::{Image, WeakImage};
pub use probe::{probe_main, PROBE_FLAG};

use crate::state::Shared;
use crate::template::reasoning::Piece;
use serde::Serialize;
use std::path::PathBuf;
use std::sync::atomic::{AtomicBool, Ordering};
use std::sync::{mpsc, Arc};
use tokio::sync::{mpsc as async_mpsc, oneshot};

pub struct LoadRequest {
    pub name: String,
    pub path: PathBuf,
    /// Offload every layer to the GPU, when there is one.
    pub gpu: bool,
    /// Context length in tokens; 0 takes the length the model was trained with.
    pub context_size: u32,
    /// The projector paired with the model: its file name and path.
    pub projector: Option<(String, PathBuf)>,
}

#[derive(Clone)]
pub struct ChatMessage {
    pub role: String,
    /// Text with one media marker per image, in order.
    pub content: String,
    pub images: Vec<Image>,
}

/// How the next token is picked.
#[derive(Debug, Clone, Copy, PartialEq)]
pub struct Sampling {
    /// Zero or less picks the most likely token.
    pub temperature: f32,
    pub top_p: f32,
    pub top_k: i32,
    pub min_p: f32,
    pub seed: u32,
}

pub struct ChatRequest {
    pub messages: Vec<ChatMessage>,
    pub sampling: Sampling,
    pub max_tokens: Option<u32>,
    pub stop: Vec<String>,
}

/// Why a reply ended.
#[derive(Debug, Clone, Copy, PartialEq, Eq)]
pub enum FinishReason {
    /// The model ended its turn, or a stop string was reached.
    Stop,
    /// The token limit or the end of the context was reached.
    Length,
    /// The client went away or the engine is shutting down.
    Cancelled,
}

impl FinishReason {
    /// The name clients know; a cancelled reply reads as stopped.
    pub fn as_str(self) -> &'static str {
        match self {
            FinishReason::Stop | FinishReason::Cancelled => "stop",
            FinishReason::Length => "length",
        }
    }
}

impl Serialize for FinishReason {
    fn serialize<S: serde::Serializer>(&self, serializer: S) -> Result<S::Ok, S::Error> {
        serializer.serialize_str(self.as_str())
    }
}

/// Tokens of one reply.
#[derive(Debug, Clone, Copy, PartialEq, Eq)]
pub struct Usage {
    pub prompt_tokens: i64,
    pub completion_tokens: i64,
}

/// How a conversation sat in the context.
#[derive(Debug, Clone, Copy, PartialEq, Eq)]
pub struct ContextUse {
    /// The context in use, in tokens.
    pub size: u32,
    /// Messages after the leading system messages that were left out, from
    /// the oldest on, so that the rest fits.
    pub dropped_messages: usize,
}

/// A conversation to count, as a chat request would send it.
pub struct CountRequest {
    pub messages: Vec<ChatMessage>,
    pub max_tokens: Option<u32>,
}

/// The prompt a reply to the conversation would start from.
#[derive(Debug, Clone, Copy, PartialEq, Eq)]
pub struct Counted {
    /// Prompt tokens after fitting, the opening of the reply included.
    pub tokens: usize,
    pub context: ContextUse,
}

/// What a reply brings after it started: deltas, then Done or Error.
#[derive(Debug)]
pub enum Event {
    /// Answer text.
    Delta(String),
    /// Reasoning text, before the answer (models whose template marks it).
    Reasoning(String),
    Done {
        finish_reason: FinishReason,
        usage: Usage,
        context: ContextUse,
    },
    Error(EngineError),
}

/// What the inference thread sends about a reply.
enum Signal {
    /// The prompt is accepted and generation begins.
    Started,
    Event(Event),
}

/// The inference thread's side of a reply. Sending tells whether the
/// client is still there.
#[derive(Clone)]
struct ReplySender(async_mpsc::UnboundedSender<Signal>);

impl ReplySender {
    fn started(&self) -> bool {
        self.0.send(Signal::Started).is_ok()
    }

    /// Sends answer or reasoning text.
    fn piece(&self, piece: Piece) -> bool {
        let event = match piece {
            Piece::Content(text) => Event::Delta(text),
            Piece::Reasoning(text) => Event::Reasoning(text),
        };
        self.0.send(Signal::Event(event)).is_ok()
    }

    fn done(&self, finish_reason: FinishReason, usage: Usage, context: ContextUse) {
        let _ = self.0.send(Signal::Event(Event::Done {
            finish_reason,
            usage,
            context,
        }));
    }

    fn fail(&self, error: EngineError) {
        let _ = self.0.send(Signal::Event(Event::Error(error)));
    }

    fn is_closed(&self) -> bool {
        self.0.is_closed()
    }
}

/// A chat request on its way through the inference thread.
struct ChatJob {
    request: ChatRequest,
    events: ReplySender,
    cancel: Arc<AtomicBool>,
}

impl ChatJob {
    /// Whether the reply should stop now: its client went away.
    fn cancelled(&self) -> bool {
        self.cancel.load(Ordering::Relaxed) || self.events.is_closed()
    }
}

enum Command {
    Load(LoadRequest, oneshot::Sender<Result<(), EngineError>>),
    Unload(oneshot::Sender<()>),
    Chat(ChatJob),
    Encode(Image, oneshot::Sender<Result<(), EngineError>>),
    Count(CountRequest, oneshot::Sender<Result<Counted, EngineError>>),
}

impl Command {
    /// Answers a command that cannot run with `error`.
    fn refuse(self, error: EngineError) {
        match self {
            Command::Load(_, reply) | Command::Encode(_, reply) => {
                let _ = reply.send(Err(error));
            }
            Command::Unload(reply) => {
                let _ = reply.send(());
            }
            Command::Count(_, reply) => {
                let _ = reply.send(Err(error));
            }
            Command::Chat(job) => job.events.fail(error),
        }
    }
}

/// The events of one reply after it started. Dropping it stops the
/// generation at once: a client that goes away takes its reply with it.
pub struct Reply {
    events: async_mpsc::UnboundedReceiver<Signal>,
    cancel: Arc<AtomicBool>,
}

impl Reply {
    /// The next delta, the end, or an error; None when the engine went away.
    pub async fn next(&mut self) -> Option<Event> {
        loop {
            match self.events.recv().await? {
                Signal::Started => continue,
                Signal::Event(event) => return Some(event),
            }
        }
    }
}

impl Drop for Reply {
    fn drop(&mut self) {
        self.cancel.store(true, Ordering::Relaxed);
    }
}

/// The handle to the inference thread; cheap to clone.
#[derive(Clone)]
pub struct Engine {
    commands: mpsc::Sender<Command>,
}

impl Engine {
    /// Starts the inference thread.
    pub fn spawn(shared: Arc<Shared>) -> Engine {
        let (commands, received) = mpsc::channel();
        std::thread::Builder::new()
            .name("inference".into())
            .spawn(move || worker::run(received, shared))
            .expect("cannot start the inference thread");
        Engine { commands }
    }

    fn send(&self, command: Command) -> Result<(), EngineError> {
        self.commands
            .send(command)
            .map_err(|_| EngineError::ThreadStopped)
    }

    /// Loads a model, unloading any other; answers when it is ready.
    pub async fn load(&self, request: LoadRequest) -> Result<(), EngineError> {
        let (reply, answer) = oneshot::channel();
        self.send(Command::Load(request, reply))?;
        answer.await.map_err(|_| EngineError::StoppedWhileLoading)?
    }

    pub async fn unload(&self) -> Result<(), EngineError> {
        let (reply, answer) = oneshot::channel();
        self.send(Command::Unload(reply))?;
        let _ = answer.await;
        Ok(())
    }

    /// Runs the image encoder now and keeps its output for a later chat request.
    pub async fn encode(&self, image: Image) -> Result<(), EngineError> {
        let (reply, answer) = oneshot::channel();
        self.send(Command::Encode(image, reply))?;
        answer
            .await
            .map_err(|_| EngineError::StoppedWhileEncoding)?
    }

    /// Counts the prompt a reply to the conversation would start from,
    /// without evaluating anything. It waits for a reply in progress.
    pub async fn count(&self, request: CountRequest) -> Result<Counted, EngineError> {
        let (reply, answer) = oneshot::channel();
        self.send(Command::Count(request, reply))?;
        answer
            .await
            .map_err(|_| EngineError::StoppedBeforeAnswering)?
    }

    /// Starts a reply. Errors found before generation starts (no model, a
    /// prompt that cannot be built) come back here rather than in the reply.
    pub async fn chat(&self, request: ChatRequest) -> Result<Reply, EngineError> {
        let (events, received) = async_mpsc::unbounded_channel();
        let cancel = Arc::new(AtomicBool::new(false));
        let mut reply = Reply {
            events: received,
            cancel: cancel.clone(),
        };
        self.send(Command::Chat(ChatJob {
            request,
            events: ReplySender(events),
            cancel,
        }))?;
        match reply.events.recv().await {
            Some(Signal::Started) => Ok(reply),
            Some(Signal::Event(Event::Error(e))) => Err(e),
            _ => Err(EngineError::StoppedBeforeAnswering),
        }
    }
}
