//! Chat prompt rendering.
//!
//! Templates come from model files, so they run in a sandbox (`sandbox`)
//! with the variables that models' own tooling passes. A template that
//! refuses the conversation as it is (no system role, strictly alternating
//! roles) gets it reshaped (`adapt`) and rendered again. `reasoning` splits
//! reasoning models' replies; `probe` finds how a template reads contents
//! and closes turns; `clock` writes dates.

mod adapt;
mod clock;
mod probe;
pub mod reasoning;
mod sandbox;
#[cfg(test)]
mod tests;

use sandbox::{Failure, Sandbox};
use serde::Serialize;

/// Where an image goes in the rendered prompt; the multimodal tokenizer
/// replaces it with the image's embeddings.
pub const MEDIA_MARKER: &str = "<__media__>";

/// Turn ends of the common formats. One that the template writes is worth
/// stopping at even when rendering a sample conversation failed.
const KNOWN_TURN_ENDS: [&str; 6] = [
    "<|im_end|>",
    "<|eot_id|>",
    "<|eom_id|>",
    "<end_of_turn>",
    "<|END_OF_TURN_TOKEN|>",
    "<｜end▁of▁sentence｜>",
];

#[derive(Debug, Clone, PartialEq, Eq, Serialize)]
pub struct TemplateMessage {
    pub role: String,
    pub content: String,
}

pub struct ChatTemplate {
    source: Option<String>,
    bos: String,
    eos: String,
    /// Contents go in as lists of text parts: the template iterates them.
    content_as_parts: bool,
}

impl ChatTemplate {
    pub fn new(source: Option<String>, bos: String, eos: String) -> Self {
        let source = source.filter(|s| !s.trim().is_empty());
        let content_as_parts = source
            .as_deref()
            .is_some_and(|s| probe::wants_parts(s, &bos, &eos));
        Self {
            source,
            bos,
            eos,
            content_as_parts,
        }
    }

    /// Text markers that end a turn in the generic format; a model that was
    /// not trained on it may spell them out instead of stopping.
    pub fn implicit_stops(&self) -> Vec<String> {
        match self.source {
            Some(_) => Vec::new(),
            None => vec!["<|im_end|>".into(), "<|im_start|>".into()],
        }
    }

    /// Whether the template knows reasoning sections, so replies may open
    /// with one.
    pub fn marks_reasoning(&self) -> bool {
        self.source
            .as_deref()
            .is_some_and(|s| s.contains(reasoning::OPEN))
    }

    /// Renders the conversation followed by the opening of the assistant's
    /// turn. Earlier answers lose their reasoning first. The same messages
    /// always give the same text on the same day (the prompt cache relies
    /// on it).
    pub fn render(&self, messages: &[TemplateMessage]) -> Result<String, String> {
        let messages = adapt::prepared(messages);
        let Some(source) = &self.source else {
            return Ok(chatml(&messages));
        };
        let sandbox = Sandbox::new(source, &self.bos, &self.eos).map_err(|f| f.describe())?;
        self.render_in(&sandbox, &messages)
            .map_err(|f| f.describe())
    }

    /// Tries the conversation as it is, then its reshaped forms; the error
    /// told is the template's answer to the conversation as it was sent.
    fn render_in(
        &self,
        sandbox: &Sandbox,
        messages: &[TemplateMessage],
    ) -> Result<String, Failure> {
        let refusal = match sandbox.render(messages, self.content_as_parts) {
            Ok(text) => return Ok(text),
            Err(failure) => failure,
        };
        if !refusal.worth_retrying() {
            return Err(refusal);
        }
        for shape in adapt::alternatives(messages) {
            match sandbox.render(&shape, self.content_as_parts) {
                Ok(text) => return Ok(text),
                Err(failure) if !failure.worth_retrying() => return Err(failure),
                Err(_) => {}
            }
        }
        Err(refusal)
    }

    /// Texts that may begin with the token closing an assistant's turn:
    /// what the template writes right after an answer, then the common
    /// turn ends it names.
    pub fn turn_end_texts(&self) -> Vec<String> {
        let mut texts: Vec<String> = probe::after_answer(self).into_iter().collect();
        if let Some(source) = &self.source {
            texts.extend(
                KNOWN_TURN_ENDS
                    .iter()
                    .filter(|end| source.contains(*end))
                    .map(|end| end.to_string()),
            );
        }
        texts
    }
}

/// The generic prompt format for models that bring no template of their own.
pub fn chatml(messages: &[TemplateMessage]) -> String {
    let mut out = String::new();
    for m in messages {
        out.push_str("<|im_start|>");
        out.push_str(&m.role);
        out.push('\n');
        out.push_str(&m.content);
        out.push_str("<|im_end|>\n");
    }
    out.push_str("<|im_start|>assistant\n");
    out
}
