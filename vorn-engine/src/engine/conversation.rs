//! From messages to prompt tokens: the chat template, the tokenizer (with
//! images, the projector's), and fitting a long conversation into the context.

use super::session::Session;
use super::{ChatMessage, ContextUse, CountRequest, Counted, EngineError, Image};
use crate::llama::{Bitmap, Chunks};
use crate::prompt::{common_prefix, common_suffix};
use crate::template::reasoning::prompt_opens_reasoning;
use crate::template::TemplateMessage;
use llama_cpp_2::token::LlamaToken;

/// A tokenized prompt: plain tokens, or text and image chunks.
pub(super) enum Prompt {
    Text(Vec<LlamaToken>),
    Chunks(Chunks),
}

impl Prompt {
    /// Positions the prompt takes in the context.
    pub(super) fn len(&self) -> usize {
        match self {
            Prompt::Text(tokens) => tokens.len(),
            Prompt::Chunks(chunks) => chunks.total_tokens(),
        }
    }
}

impl From<&ChatMessage> for TemplateMessage {
    fn from(message: &ChatMessage) -> Self {
        TemplateMessage {
            role: message.role.clone(),
            content: message.content.clone(),
        }
    }
}

impl Session<'_> {
    /// The BOS token's text, or nothing when the model has none.
    fn template_bos(&self) -> String {
        let vocab = self.model.vocab();
        if vocab.bos().0 < 0 {
            return String::new();
        }
        String::from_utf8_lossy(&vocab.token_to_piece(vocab.bos(), true, None)).into_owned()
    }

    /// Whether the tokenizer should add BOS itself: not when the template
    /// already wrote it.
    fn adds_bos(&self, text: &str) -> bool {
        let bos = self.template_bos();
        bos.is_empty() || !text.starts_with(&bos)
    }

    fn tokenize_text(&self, prompt: &str) -> Vec<LlamaToken> {
        let add_special = self.adds_bos(prompt);
        self.model
            .vocab()
            .tokenize(prompt.as_bytes(), add_special, true)
    }

    /// Renders the messages through the chat template and tokenizes them.
    fn build_prompt(&mut self, messages: &[&ChatMessage]) -> Result<Prompt, EngineError> {
        let template_messages: Vec<TemplateMessage> =
            messages.iter().map(|m| TemplateMessage::from(*m)).collect();
        let text = self
            .template
            .render(&template_messages)
            .map_err(EngineError::Template)?;
        self.prompt_opens_reasoning = prompt_opens_reasoning(&text);
        let images: Vec<&Image> = messages.iter().flat_map(|m| m.images.iter()).collect();
        self.tokenize_prompt(&text, &images)
    }

    pub(super) fn tokenize_prompt(
        &mut self,
        text: &str,
        images: &[&Image],
    ) -> Result<Prompt, EngineError> {
        if images.is_empty() {
            return Ok(Prompt::Text(self.tokenize_text(text)));
        }
        let mut bitmaps: Vec<&Bitmap> = Vec::with_capacity(images.len());
        for image in images {
            bitmaps.push(self.bitmap(image)?);
        }
        let add_special = self.adds_bos(text);
        let projector = self
            .projector
            .as_ref()
            .ok_or(EngineError::ImagesNotAccepted)?;
        let chunks = projector
            .tokenize(text, add_special, &bitmaps)
            .map_err(|code| EngineError::ImagesNotPrepared(format!("llama.cpp code {code}")))?;
        Ok(Prompt::Chunks(chunks))
    }

    /// Renders the conversation, leaving out its oldest messages while it
    /// does not fit the context together with `reserve` positions for the
    /// reply. Leading system messages always stay. Reads the cut of the last
    /// overflow but does not move it: the caller keeps `Fitted::anchor`
    /// when the prompt is really sent.
    pub(super) fn fit(
        &mut self,
        messages: &[ChatMessage],
        reserve: usize,
    ) -> Result<Fitted, EngineError> {
        let pinned = messages.iter().take_while(|m| m.role == "system").count();
        let (system, rest) = messages.split_at(pinned);
        let anchor = self.cut_anchor.as_ref().and_then(|(role, content)| {
            rest.iter()
                .position(|m| &m.role == role && &m.content == content)
        });
        let mut start = 0usize;
        let limit = self.context_size as usize;
        // A fresh cut goes well below the limit so the next turns can keep it
        // (and the cache); a conversation that fits is never cut.
        let target = limit * 3 / 4;
        let mut bound = limit;
        loop {
            let kept: Vec<&ChatMessage> = system.iter().chain(&rest[start..]).collect();
            let prompt = self.build_prompt(&kept)?;
            let len = prompt.len();
            let last_resort = start + 1 >= rest.len();
            if len + reserve <= bound || last_resort {
                let prompt = if len + reserve <= limit {
                    prompt
                } else {
                    self.cut_newest(&kept, prompt, limit.saturating_sub(reserve).max(1))?
                };
                return Ok(Fitted {
                    prompt,
                    dropped: start,
                    anchor: rest
                        .get(start)
                        .filter(|_| start > 0)
                        .map(|m| (m.role.clone(), m.content.clone())),
                });
            }
            // Cut where the previous overflow cut, so the cache stays useful.
            if let Some(at) = anchor.filter(|at| *at > start && at + 1 < rest.len()) {
                start = at;
                bound = limit;
                continue;
            }
            bound = target;
            start += 1;
            while start + 1 < rest.len() && rest[start].role != "user" {
                start += 1;
            }
        }
    }

    /// The prompt of `kept` when even its newest message does not fit in
    /// `room` tokens: the start of the newest message's text gives way, while
    /// what comes before it (system messages, turn markers) and after it
    /// (the opening of the reply) stays.
    fn cut_newest(
        &mut self,
        kept: &[&ChatMessage],
        prompt: Prompt,
        room: usize,
    ) -> Result<Prompt, EngineError> {
        let Prompt::Text(tokens) = prompt else {
            return Err(EngineError::MessageTooLong);
        };
        let Some((newest, earlier)) = kept.split_last() else {
            return Err(EngineError::MessageTooLong);
        };
        if newest.role == "system" {
            return Err(EngineError::SystemMessageTooLong);
        }
        // The same prompt with the newest message empty is only its frame.
        let emptied = ChatMessage {
            role: newest.role.clone(),
            content: String::new(),
            images: Vec::new(),
        };
        let framed: Vec<&ChatMessage> = earlier.iter().copied().chain([&emptied]).collect();
        let frame = match self.build_prompt(&framed)? {
            Prompt::Text(frame) => frame,
            Prompt::Chunks(_) => return Err(EngineError::MessageTooLong),
        };
        let head = common_prefix(&tokens, &frame);
        let tail = common_suffix(&tokens[head..], &frame[head.min(frame.len())..]);
        if head + tail >= room {
            // What stays is too long already: it holds the system messages.
            return Err(if earlier.is_empty() {
                EngineError::MessageTooLong
            } else {
                EngineError::SystemMessageTooLong
            });
        }
        let text = &tokens[head..tokens.len() - tail];
        let mut kept_tokens = tokens[..head].to_vec();
        kept_tokens.extend_from_slice(&text[text.len().saturating_sub(room - head - tail)..]);
        kept_tokens.extend_from_slice(&tokens[tokens.len() - tail..]);
        Ok(Prompt::Text(kept_tokens))
    }

    /// What a reply to the conversation would start from, without touching
    /// the KV cache or the cut that replies keep.
    pub(super) fn count(&mut self, request: &CountRequest) -> Result<Counted, EngineError> {
        if request.messages.iter().any(|m| !m.images.is_empty()) && self.projector.is_none() {
            return Err(EngineError::ImagesNotAccepted);
        }
        let reserve = reply_reserve(self.context_size, request.max_tokens);
        // Rendering notes whether the prompt opens a reasoning block, which
        // only the reply that follows a render reads; a count leaves it be.
        let opens_reasoning = self.prompt_opens_reasoning;
        let fitted = self.fit(&request.messages, reserve);
        self.prompt_opens_reasoning = opens_reasoning;
        let fitted = fitted?;
        Ok(Counted {
            tokens: fitted.prompt.len(),
            context: ContextUse {
                size: self.context_size,
                dropped_messages: fitted.dropped,
            },
        })
    }
}

/// A prompt fitted into the context.
pub(super) struct Fitted {
    pub(super) prompt: Prompt,
    /// Messages after the leading system messages that were left out.
    pub(super) dropped: usize,
    /// The first message kept after a cut, for later turns to cut there too.
    pub(super) anchor: Option<(String, String)>,
}

/// Positions kept free for the reply: what it may take, at most a quarter
/// of the context.
pub(super) fn reply_reserve(context_size: u32, max_tokens: Option<u32>) -> usize {
    let max_tokens = max_tokens.map_or(usize::MAX, |m| m as usize);
    max_tokens.min(context_size as usize / 4).max(1)
}
