//! A loaded model: its context, projector, template and what the KV cache
//! holds, and the loop that serves commands until another model is asked for.

use super::lru::LruCache;
use super::prefill::Key;
use super::{
    reasoning_tags, threads, turn_end, vision, ChatMessage, Command, EngineError, LoadRequest,
};
use crate::llama::{Context, ContextSettings, Model, Projector};
use crate::state::{lock, Shared};
use crate::template::ChatTemplate;
use llama_cpp_2::llama_backend::LlamaBackend;
use llama_cpp_2::token::LlamaToken;
use std::panic::{catch_unwind, AssertUnwindSafe};
use std::sync::{mpsc, Arc};

/// Image encoder outputs kept by hash (each is tokens × embedding width floats).
const ENCODED_IMAGES: usize = 8;

pub(super) struct Session<'m> {
    pub(super) shared: Arc<Shared>,
    pub(super) model: &'m Model,
    // Both borrow the model, which the caller owns and frees after them.
    pub(super) projector: Option<Projector<'m>>,
    pub(super) ctx: Context<'m>,
    pub(super) context_size: u32,
    pub(super) batch_size: u32,
    pub(super) template: ChatTemplate,
    /// Tokens that end the model's turn besides llama.cpp's own set.
    pub(super) turn_ends: Vec<LlamaToken>,
    /// Reasoning tags the vocabulary has as control tokens, rendered as text.
    pub(super) reasoning_tags: Vec<LlamaToken>,
    /// The last prompt built left the reply inside a reasoning section.
    pub(super) prompt_opens_reasoning: bool,
    /// What the KV cache holds for sequence 0, one key per position.
    pub(super) cached: Vec<Key>,
    /// First message kept when the conversation last overflowed the context,
    /// so later turns cut at the same place and keep the cache useful.
    pub(super) cut_anchor: Option<(String, String)>,
    pub(super) embeddings: LruCache<Arc<Vec<f32>>>,
    /// M-RoPE models place images at fewer positions than they have tokens.
    pub(super) mrope: bool,
    /// Images of the current request whose encoder output came from /api/encode.
    pub(super) reused_images: i64,
    /// Images of the current request decoded into pixels for it.
    pub(super) decoded_images: i64,
    /// The last conversation and its reply, to guess where an image that
    /// arrives through /api/encode will be placed.
    pub(super) history: Vec<ChatMessage>,
    pub(super) history_reply: String,
}

impl<'m> Session<'m> {
    /// Creates the context of `context_size` tokens, the projector (when one is paired and works) and
    /// the chat template for a loaded model. Also returns the projector's name.
    pub(super) fn open(
        backend: &LlamaBackend,
        model: &'m Model,
        request: &LoadRequest,
        context_size: u32,
        offload: bool,
        shared: &Arc<Shared>,
    ) -> Result<(Session<'m>, Option<String>), EngineError> {
        let batch_size = 512u32.min(context_size);
        let settings = ContextSettings {
            context_size,
            batch_size,
            threads: threads::for_model(model),
        };
        let ctx = Context::new(backend, model, settings).map_err(|reason| {
            EngineError::ContextFailed {
                name: request.name.clone(),
                context: context_size,
                reason,
            }
        })?;
        let opened = vision::open_projector(backend, model, request, offload);
        let (projector, projector_name) = match opened {
            Some((projector, name)) => (Some(projector), Some(name)),
            None => (None, None),
        };
        let mrope = projector.as_ref().map(|p| p.uses_mrope()).unwrap_or(false);
        let template = chat_template(model);
        let turn_ends = turn_end::tokens(model, &template);
        let reasoning_tags = reasoning_tags::control_tokens(model);
        let session = Session {
            shared: shared.clone(),
            model,
            projector,
            ctx,
            context_size,
            batch_size,
            template,
            turn_ends,
            reasoning_tags,
            prompt_opens_reasoning: false,
            cached: Vec::new(),
            cut_anchor: None,
            embeddings: LruCache::new(ENCODED_IMAGES),
            mrope,
            reused_images: 0,
            decoded_images: 0,
            history: Vec::new(),
            history_reply: String::new(),
        };
        Ok((session, projector_name))
    }

    /// Serves commands until an unload (None) or a load of another model,
    /// which is handed back to the caller.
    pub(super) fn serve(mut self, commands: &mpsc::Receiver<Command>) -> Option<Command> {
        loop {
            let command = commands.recv().ok()?;
            match command {
                Command::Load(..) => return Some(command),
                Command::Unload(reply) => {
                    *lock(&self.shared.loaded) = None;
                    drop(self);
                    let _ = reply.send(());
                    return None;
                }
                Command::Chat(job) => {
                    let events = job.events.clone();
                    let result = catch_unwind(AssertUnwindSafe(|| self.chat(job)));
                    if result.is_err() {
                        self.cached.clear();
                        self.ctx.clear();
                        events.fail(EngineError::GenerationPanicked);
                    }
                }
                Command::Encode(image, reply) => {
                    let result = catch_unwind(AssertUnwindSafe(|| self.encode(&image)))
                        .unwrap_or(Err(EngineError::EncodingPanicked));
                    let _ = reply.send(result);
                }
                Command::Count(request, reply) => {
                    let result = catch_unwind(AssertUnwindSafe(|| self.count(&request)))
                        .unwrap_or(Err(EngineError::CountPanicked));
                    let _ = reply.send(result);
                }
            }
        }
    }
}

/// The model's own chat template, with its BOS and EOS texts.
fn chat_template(model: &Model) -> ChatTemplate {
    let source = model.chat_template();
    let vocab = model.vocab();
    let piece = |token: LlamaToken| {
        String::from_utf8_lossy(&vocab.token_to_piece(token, true, None)).into_owned()
    };
    let bos = if vocab.bos().0 >= 0 {
        piece(vocab.bos())
    } else {
        String::new()
    };
    let eos = if vocab.eos().0 >= 0 {
        piece(vocab.eos())
    } else {
        String::new()
    };
    ChatTemplate::new(source, bos, eos)
}
