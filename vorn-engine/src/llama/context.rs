//! A model's context: its KV cache, evaluation and the logits to sample from.

use super::batch::Batch;
use super::checked;
use super::model::Model;
use llama_cpp_2::llama_backend::LlamaBackend;
use llama_cpp_2::sampling::LlamaSampler;
use llama_cpp_2::token::data::LlamaTokenData;
use llama_cpp_2::token::data_array::LlamaTokenDataArray;
use llama_cpp_2::token::LlamaToken;
use llama_cpp_sys_2 as sys;
use std::ptr::NonNull;

/// What a context is made with.
#[derive(Debug, Clone, Copy)]
pub struct ContextSettings {
    /// Positions in the KV cache.
    pub context_size: u32,
    /// Tokens evaluated per call, at most.
    pub batch_size: u32,
    pub threads: i32,
}

/// A `llama_context` this value owns, made from the model it borrows and
/// freed on drop, so never after that model. Its one sequence (0) is the
/// conversation; methods that change the cache or the outputs take `&mut`.
pub struct Context<'m> {
    raw: NonNull<sys::llama_context>,
    model: &'m Model,
    /// The sampler's candidates, kept between tokens to save allocations.
    candidates: LlamaTokenDataArray,
}

impl<'m> Context<'m> {
    pub fn new(
        _backend: &LlamaBackend,
        model: &'m Model,
        settings: ContextSettings,
    ) -> Result<Context<'m>, String> {
        // SAFETY: returns a struct of defaults by value; nothing to free.
        let mut params = unsafe { sys::llama_context_default_params() };
        params.n_ctx = settings.context_size;
        params.n_batch = settings.batch_size;
        params.n_ubatch = settings.batch_size;
        params.n_threads = settings.threads;
        params.n_threads_batch = settings.threads;
        // SAFETY: the model is alive, and `'m` keeps it so for the whole
        // life of the context, which keeps a reference to it. `params` holds
        // defaults plus plain numbers; its callback pointers stay null. The
        // result is a context we own, or null. Contexts are made one at a
        // time on the inference thread, never while another thread uses the
        // model.
        let raw = unsafe { sys::llama_init_from_model(model.as_ptr(), params) };
        let raw = NonNull::new(raw).ok_or("llama.cpp could not create the context")?;
        Ok(Context {
            raw,
            model,
            candidates: LlamaTokenDataArray::new(Vec::new(), false),
        })
    }

    /// The raw context, for the projector's helpers; valid while `self`
    /// lives. Callers hold `&mut self` while llama.cpp uses it.
    pub(super) fn as_ptr(&mut self) -> *mut sys::llama_context {
        self.raw.as_ptr()
    }

    pub(super) fn model(&self) -> &'m Model {
        self.model
    }

    /// Evaluates the batch; llama.cpp's code when it fails (1: no room in
    /// the cache, 2: stopped, negative: bad input or an internal error).
    pub fn decode(&mut self, batch: &Batch) -> Result<(), i32> {
        if batch.is_empty() {
            return Ok(());
        }
        // SAFETY: the context is alive and only this thread uses it (`&mut
        // self`). The batch's arrays hold `len` filled entries and stay
        // untouched during the call; llama.cpp checks the ids and positions
        // it reads and copies what it keeps.
        checked(unsafe { sys::llama_decode(self.raw.as_ptr(), batch.raw()) })
    }

    /// Drops positions from `position` on; false when the cache cannot.
    pub fn remove_from(&mut self, position: u32) -> bool {
        let Ok(position) = i32::try_from(position) else {
            return true;
        };
        // SAFETY: the memory belongs to the live context; sequence 0 from
        // `position` to the end (-1) is any range llama.cpp accepts.
        unsafe {
            let memory = sys::llama_get_memory(self.raw.as_ptr());
            sys::llama_memory_seq_rm(memory, 0, position, -1)
        }
    }

    /// Empties the KV cache.
    pub fn clear(&mut self) {
        // SAFETY: the memory belongs to the live context; clearing data as
        // well as metadata leaves it as new.
        unsafe {
            let memory = sys::llama_get_memory(self.raw.as_ptr());
            sys::llama_memory_clear(memory, true);
        }
    }

    /// Picks the next token from the last evaluated position's logits with
    /// `sampler` (which then accepts it); None when there are no logits.
    pub fn sample(&mut self, sampler: &mut LlamaSampler) -> Option<LlamaToken> {
        let n_vocab = usize::try_from(self.model.vocab().n_tokens()).ok()?;
        // SAFETY: the context is alive and ours (`&mut self`). The answer is
        // null or the row of the last output, `n_vocab` floats that stay put
        // until the next evaluation, which cannot happen while they are
        // copied below under this borrow.
        let logits = unsafe {
            let row = sys::llama_get_logits_ith(self.raw.as_ptr(), -1);
            if row.is_null() {
                return None;
            }
            std::slice::from_raw_parts(row, n_vocab)
        };
        let candidates = &mut self.candidates;
        candidates.data.clear();
        candidates.data.extend(
            logits
                .iter()
                .enumerate()
                .map(|(id, &logit)| LlamaTokenData::new(LlamaToken(id as i32), logit, 0.0)),
        );
        candidates.selected = None;
        candidates.sorted = false;
        sampler.apply(candidates);
        let token = candidates.selected_token()?;
        sampler.accept(token);
        Some(token)
    }
}

impl Drop for Context<'_> {
    fn drop(&mut self) {
        // SAFETY: we own the context; its model is still alive (`'m`).
        unsafe { sys::llama_free(self.raw.as_ptr()) }
    }
}
