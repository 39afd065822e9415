//! From messages to prompt tokens: the chat template, the tokenizer (with
//! images, the projector's), and fitting a long conversation into the context.

use super::session::Session;
use super::{ChatMessage, EngineError, Image};
use crate::llama::{Bitmap, Chunks};
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

    /// Renders the conversation, dropping its oldest turns while it does not
    /// fit the context together with `reserve` positions for the reply.
    pub(super) fn fit_prompt(
        &mut self,
        messages: &[ChatMessage],
        reserve: usize,
    ) -> Result<Prompt, EngineError> {
        let (system, rest): (Vec<&ChatMessage>, Vec<&ChatMessage>) =
            messages.iter().partition(|m| m.role == "system");
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
            let kept: Vec<&ChatMessage> =
                system.iter().chain(rest[start..].iter()).copied().collect();
            let prompt = self.build_prompt(&kept)?;
            let len = prompt.len();
            let last_resort = start + 1 >= rest.len();
            if len + reserve <= bound || last_resort {
                self.cut_anchor = if start > 0 {
                    rest.get(start).map(|m| (m.role.clone(), m.content.clone()))
                } else {
                    None
                };
                if len + reserve <= limit {
                    return Ok(prompt);
                }
                // Even the newest message alone is too long: keep its tail.
                return match prompt {
                    Prompt::Text(tokens) => {
                        let keep = limit.saturating_sub(reserve).max(1);
                        Ok(Prompt::Text(
                            tokens[tokens.len().saturating_sub(keep)..].to_vec(),
                        ))
                    }
                    Prompt::Chunks(_) => Err(EngineError::MessageTooLong),
                };
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
}
