//! Evaluating a prompt after what the KV cache already holds (the longest
//! common prefix), text and images alike.

use super::conversation::Prompt;
use super::session::Session;
use super::EngineError;
use crate::llama::{Batch, Chunk, ChunkKind, Chunks};
use crate::prompt::{common_prefix, reusable_prefix};
use llama_cpp_2::token::LlamaToken;

/// What sits at one KV cache position: a token, or one position of an image
/// (its hash's first 64 bits and the index inside the image).
#[derive(Clone, Copy, PartialEq, Eq, Debug)]
pub(super) enum Key {
    Token(i32),
    Image(u64, u32),
}

/// The first 64 bits of a hex SHA-256, enough to tell images apart.
fn hash_key(hex: &str) -> u64 {
    u64::from_str_radix(hex.get(..16).unwrap_or("0"), 16).unwrap_or(0)
}

pub(super) struct Prefilled {
    /// Positions evaluated now; the rest came from the cache.
    pub(super) evaluated: usize,
    /// The position the first generated token goes to.
    pub(super) next_position: usize,
}

pub(super) enum PrefillError {
    /// The client went away.
    Cancelled,
    Failed(EngineError),
}

impl From<EngineError> for PrefillError {
    fn from(error: EngineError) -> Self {
        PrefillError::Failed(error)
    }
}

impl Session<'_> {
    /// Drops cached positions from `keep` on; false when the cache cannot do it.
    pub(super) fn truncate_cache(&mut self, keep: usize) -> bool {
        if keep >= self.cached.len() {
            return true;
        }
        let ok = u32::try_from(keep).is_ok_and(|keep| self.ctx.remove_from(keep));
        if ok {
            self.cached.truncate(keep);
        } else {
            self.ctx.clear();
            self.cached.clear();
        }
        ok
    }

    /// M-RoPE models give images fewer positions than keys, so their cache is
    /// only trusted up to the first image.
    fn limit_for_mrope(&self, keep: usize) -> usize {
        if !self.mrope {
            return keep;
        }
        let first = self
            .cached
            .iter()
            .position(|k| matches!(k, Key::Image(..)))
            .unwrap_or(keep);
        keep.min(first)
    }

    /// Evaluates the prompt after what the cache already holds.
    pub(super) fn prefill(
        &mut self,
        prompt: &Prompt,
        cancelled: &dyn Fn() -> bool,
    ) -> Result<Prefilled, PrefillError> {
        match prompt {
            Prompt::Text(tokens) => {
                let keys: Vec<Key> = tokens.iter().map(|t| Key::Token(t.0)).collect();
                let mut keep = self.limit_for_mrope(reusable_prefix(&self.cached, &keys));
                if !self.truncate_cache(keep) {
                    keep = 0;
                }
                self.decode_tokens(&tokens[keep..], keep, cancelled)?;
                Ok(Prefilled {
                    evaluated: tokens.len() - keep,
                    next_position: tokens.len(),
                })
            }
            Prompt::Chunks(chunks) => self.prefill_chunks(chunks, cancelled, false),
        }
    }

    fn decode_tokens(
        &mut self,
        tokens: &[LlamaToken],
        start: usize,
        cancelled: &dyn Fn() -> bool,
    ) -> Result<(), PrefillError> {
        let batch_size = self.batch_size as usize;
        let mut batch = Batch::new(batch_size);
        let mut position = start;
        for (index, part) in tokens.chunks(batch_size).enumerate() {
            if cancelled() {
                return Err(PrefillError::Cancelled);
            }
            batch.clear();
            let last_part = (index + 1) * batch_size >= tokens.len();
            for (i, token) in part.iter().enumerate() {
                let logits = last_part && i + 1 == part.len();
                batch
                    .add(*token, (position + i) as i32, logits)
                    .map_err(|_| EngineError::BatchRefused("the batch is full".into()))?;
            }
            if let Err(code) = self.ctx.decode(&batch) {
                self.truncate_cache(position);
                return Err(
                    EngineError::PromptEvaluationFailed(format!("llama.cpp code {code}")).into(),
                );
            }
            self.cached.extend(part.iter().map(|t| Key::Token(t.0)));
            position += part.len();
        }
        Ok(())
    }

    /// Evaluates text and image chunks. `speculative` evaluates only when
    /// the cache does not already hold all of it, and never on M-RoPE models.
    pub(super) fn prefill_chunks(
        &mut self,
        chunks: &Chunks,
        cancelled: &dyn Fn() -> bool,
        speculative: bool,
    ) -> Result<Prefilled, PrefillError> {
        // Keys per chunk; M-RoPE models place images differently, so their
        // cache is only reused up to the first image.
        let mut keys = Vec::new();
        let mut first_image = None;
        for chunk in chunks.iter() {
            match chunk.kind() {
                ChunkKind::Text => {
                    keys.extend(chunk.text_tokens().iter().map(|t| Key::Token(t.0)));
                }
                _ => {
                    first_image.get_or_insert(keys.len());
                    let hash = hash_key(&chunk.id().unwrap_or_default());
                    keys.extend((0..chunk.n_tokens() as u32).map(|j| Key::Image(hash, j)));
                }
            }
        }
        if speculative && (self.mrope || common_prefix(&self.cached, &keys) == keys.len()) {
            return Ok(Prefilled {
                evaluated: 0,
                next_position: keys.len(),
            });
        }
        let mut keep = self.limit_for_mrope(reusable_prefix(&self.cached, &keys));
        if self.mrope {
            keep = keep.min(first_image.unwrap_or(keep));
        }
        // Back up to the start of an image that is only partly cached.
        let mut start = 0;
        for chunk in chunks.iter() {
            let len = chunk.n_tokens();
            if chunk.kind() != ChunkKind::Text && start < keep && keep < start + len {
                keep = start;
            }
            start += len;
        }
        if !self.truncate_cache(keep) {
            keep = 0;
        }
        let mut start = 0usize;
        let mut position = keep as i32;
        for chunk in chunks.iter() {
            let len = chunk.n_tokens();
            let end = start + len;
            if end <= keep {
                start = end;
                continue;
            }
            if cancelled() {
                return Err(PrefillError::Cancelled);
            }
            match chunk.kind() {
                ChunkKind::Text => {
                    let from = keep.saturating_sub(start);
                    let tokens = &chunk.text_tokens()[from..];
                    self.decode_tokens(tokens, position as usize, cancelled)?;
                    position += tokens.len() as i32;
                }
                _ => {
                    position = self.decode_image(&chunk, start, position)?;
                    self.cached.extend_from_slice(&keys[start..end]);
                }
            }
            start = end;
        }
        Ok(Prefilled {
            evaluated: keys.len() - keep,
            next_position: position as usize,
        })
    }

    /// Evaluates an image chunk, which starts at key `start` and position
    /// `position`, from the encoder output that /api/encode kept for it
    /// when there is one, otherwise through the encoder. Returns the
    /// position after it.
    fn decode_image(
        &mut self,
        chunk: &Chunk<'_>,
        start: usize,
        position: i32,
    ) -> Result<i32, EngineError> {
        let encoded = self.embeddings.get(&chunk.id().unwrap_or_default());
        let projector = self.projector.as_mut().ok_or(EngineError::NoProjector)?;
        let batch_size = self.batch_size as i32;
        let evaluated = match encoded {
            Some(embedding) => {
                self.reused_images += 1;
                projector.evaluate_encoded(&mut self.ctx, chunk, &embedding, position, batch_size)
            }
            None => projector.evaluate(&mut self.ctx, chunk, position, batch_size, false),
        };
        evaluated.map_err(|code| {
            self.truncate_cache(start);
            EngineError::ImageEvaluationFailed(code)
        })
    }
}
