//! A batch of tokens for one sequence, to evaluate in one go.

use llama_cpp_2::token::LlamaToken;
use llama_cpp_sys_2 as sys;

/// A `llama_batch` with room for `capacity` tokens of sequence 0, allocated
/// by llama.cpp and freed on drop.
pub struct Batch {
    raw: sys::llama_batch,
    capacity: usize,
}

/// The batch is full.
#[derive(Debug)]
pub struct BatchFull;

impl Batch {
    pub fn new(capacity: usize) -> Batch {
        let capacity = capacity.clamp(1, i32::MAX as usize);
        // SAFETY: allocates arrays for `capacity` tokens (ids, positions,
        // sequence ids with room for one each, output flags); they belong to
        // this value until `llama_batch_free` in `drop`.
        let raw = unsafe { sys::llama_batch_init(capacity as i32, 0, 1) };
        Batch { raw, capacity }
    }

    pub fn clear(&mut self) {
        self.raw.n_tokens = 0;
    }

    pub fn len(&self) -> usize {
        self.raw.n_tokens as usize
    }

    pub fn is_empty(&self) -> bool {
        self.raw.n_tokens == 0
    }

    /// Adds a token at `position` of sequence 0; `logits` asks for its output.
    pub fn add(&mut self, token: LlamaToken, position: i32, logits: bool) -> Result<(), BatchFull> {
        let i = self.len();
        if i >= self.capacity {
            return Err(BatchFull);
        }
        // SAFETY: `i < capacity`, and `llama_batch_init` gave every array
        // `capacity` entries (and each `seq_id[i]` room for one id), all
        // owned by this batch and written by nothing else.
        unsafe {
            *self.raw.token.add(i) = token.0;
            *self.raw.pos.add(i) = position;
            *self.raw.n_seq_id.add(i) = 1;
            **self.raw.seq_id.add(i) = 0;
            *self.raw.logits.add(i) = i8::from(logits);
        }
        self.raw.n_tokens += 1;
        Ok(())
    }

    /// The batch as llama.cpp reads it; valid while `self` is not changed.
    pub(super) fn raw(&self) -> sys::llama_batch {
        self.raw
    }
}

impl Drop for Batch {
    fn drop(&mut self) {
        // SAFETY: the arrays came from `llama_batch_init` and are freed once.
        unsafe { sys::llama_batch_free(self.raw) }
    }
}
