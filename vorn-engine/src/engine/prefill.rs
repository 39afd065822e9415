//! Evaluating a prompt after what the KV cache already holds (the longest
//! common prefix), text and images alike.

use super::conversation::Prompt;
use super::session::Session;
use super::EngineError;
use crate::ffi;
use crate::prompt::{common_prefix, reusable_prefix};
use llama_cpp_2::llama_batch::LlamaBatch;
use llama_cpp_2::mtmd::{MtmdInputChunkType, MtmdInputChunks};
use llama_cpp_2::token::LlamaToken;
use llama_cpp_sys_2 as sys;
use std::sync::Arc;

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
        let ok = self
            .ctx
            .clear_kv_cache_seq(Some(0), Some(keep as u32), None)
            .unwrap_or(false);
        if ok {
            self.cached.truncate(keep);
        } else {
            self.ctx.clear_kv_cache();
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
        let mut batch = LlamaBatch::new(batch_size, 1);
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
                    .add(*token, (position + i) as i32, &[0], logits)
                    .map_err(|e| EngineError::BatchRefused(e.to_string()))?;
            }
            if let Err(e) = self.ctx.decode(&mut batch) {
                self.truncate_cache(position);
                return Err(EngineError::PromptEvaluationFailed(e.to_string()).into());
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
        chunks: &MtmdInputChunks,
        cancelled: &dyn Fn() -> bool,
        speculative: bool,
    ) -> Result<Prefilled, PrefillError> {
        // Keys per chunk; M-RoPE models place images differently, so their
        // cache is only reused up to the first image.
        let mut keys = Vec::new();
        let mut first_image = None;
        for i in 0..chunks.len() {
            let Some(chunk) = chunks.get(i) else { continue };
            match chunk.chunk_type() {
                MtmdInputChunkType::Text => {
                    keys.extend(
                        chunk
                            .text_tokens()
                            .unwrap_or(&[])
                            .iter()
                            .map(|t| Key::Token(t.0)),
                    );
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
        for i in 0..chunks.len() {
            let Some(chunk) = chunks.get(i) else { continue };
            let len = chunk.n_tokens();
            if chunk.chunk_type() != MtmdInputChunkType::Text && start < keep && keep < start + len
            {
                keep = start;
            }
            start += len;
        }
        if !self.truncate_cache(keep) {
            keep = 0;
        }
        let ctx_ptr = ffi::context_ptr(&self.ctx, self.model);
        let raw_handles =
            ctx_ptr.is_some() && self.projector.as_ref().and_then(ffi::mtmd_ptr).is_some();
        if !raw_handles {
            return self.prefill_chunks_safely(chunks, keys);
        }
        let mut start = 0usize;
        let mut position = keep as i32;
        for i in 0..chunks.len() {
            let Some(chunk) = chunks.get(i) else { continue };
            let len = chunk.n_tokens();
            let end = start + len;
            if end <= keep {
                start = end;
                continue;
            }
            if cancelled() {
                return Err(PrefillError::Cancelled);
            }
            match chunk.chunk_type() {
                MtmdInputChunkType::Text => {
                    let tokens: Vec<LlamaToken> = chunk.text_tokens().unwrap_or(&[]).to_vec();
                    let from = keep.saturating_sub(start);
                    self.decode_tokens(&tokens[from..], position as usize, cancelled)?;
                    position += (len - from) as i32;
                }
                _ => {
                    position = self.decode_image(chunks, i, start, position, ctx_ptr)?;
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

    /// Evaluates image chunk `index`, which starts at key `start` and
    /// position `position`, reusing the encoder output of /api/encode when
    /// there is one. Returns the position after it.
    fn decode_image(
        &mut self,
        chunks: &MtmdInputChunks,
        index: usize,
        start: usize,
        position: i32,
        ctx_ptr: Option<*mut sys::llama_context>,
    ) -> Result<i32, EngineError> {
        let id = chunks.get(index).and_then(|c| c.id()).unwrap_or_default();
        let encoded = self.embeddings.get(&id);
        let projector = self.projector.as_mut().ok_or(EngineError::NoProjector)?;
        let handles = (
            ffi::mtmd_ptr(projector),
            ctx_ptr,
            ffi::chunk_ptr(chunks, index),
        );
        let (Some(projector_ptr), Some(ctx_ptr), Some(chunk_ptr)) = handles else {
            return Err(EngineError::ImagesUnsupportedByBuild);
        };
        let mut next_position = position;
        let code = match encoded {
            Some(embedding) => {
                self.reused_images += 1;
                decode_encoded_image(
                    projector_ptr,
                    ctx_ptr,
                    chunk_ptr,
                    &embedding,
                    position,
                    self.batch_size as i32,
                    &mut next_position,
                )
            }
            // SAFETY: the three handles are this session's own projector and
            // llama context (checked by `ffi` against llama.cpp) and a chunk of
            // `chunks`, all alive for the call; `next_position` outlives it.
            // This thread is the only one using either context.
            None => unsafe {
                sys::mtmd_helper_eval_chunk_single(
                    projector_ptr,
                    ctx_ptr,
                    chunk_ptr,
                    position,
                    0,
                    self.batch_size as i32,
                    false,
                    &mut next_position,
                )
            },
        };
        if code != 0 {
            self.truncate_cache(start);
            return Err(EngineError::ImageEvaluationFailed(code));
        }
        Ok(next_position)
    }

    /// Without the raw handles, evaluates everything through the safe
    /// wrapper: correct, only without cache reuse for this prompt.
    fn prefill_chunks_safely(
        &mut self,
        chunks: &MtmdInputChunks,
        keys: Vec<Key>,
    ) -> Result<Prefilled, PrefillError> {
        self.ctx.clear_kv_cache();
        self.cached.clear();
        let projector = self.projector.as_mut().ok_or(EngineError::NoProjector)?;
        let end = chunks
            .eval_chunks(projector, &mut self.ctx, 0, 0, self.batch_size as i32, true)
            .map_err(|e| EngineError::PromptEvaluationFailed(e.to_string()))?;
        let evaluated = keys.len();
        self.cached = keys;
        Ok(Prefilled {
            evaluated,
            next_position: end as usize,
        })
    }
}

/// Decodes an image from the encoder output that /api/encode kept for it.
fn decode_encoded_image(
    projector: *mut sys::mtmd_context,
    ctx: *mut sys::llama_context,
    chunk: *const sys::mtmd_input_chunk,
    embedding: &Arc<Vec<f32>>,
    position: i32,
    batch_size: i32,
    next_position: &mut i32,
) -> i32 {
    // SAFETY: the handles are live (see `decode_image`). `embedding` is the
    // encoder output of this same image from this same projector, so it
    // holds the chunk's n_tokens rows of the model's input embedding width
    // that the helper reads; the helper takes a mutable pointer but only
    // reads it, and the Arc keeps it alive for the call. No callback is
    // given, so the null user data is never used.
    unsafe {
        sys::mtmd_helper_decode_image_chunk(
            projector,
            ctx,
            chunk,
            embedding.as_ptr() as *mut f32,
            position,
            0,
            batch_size,
            next_position,
            None,
            std::ptr::null_mut(),
        )
    }
}
