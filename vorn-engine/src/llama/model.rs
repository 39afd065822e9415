//! A loaded model and its vocabulary.

use llama_cpp_2::llama_backend::LlamaBackend;
use llama_cpp_2::token::LlamaToken;
use llama_cpp_sys_2 as sys;
use std::ffi::{CStr, CString};
use std::marker::PhantomData;
use std::num::NonZeroU16;
use std::path::Path;
use std::ptr::NonNull;

/// A `llama_model` this value owns: loaded by [`Model::load`], freed on drop.
/// Contexts and projectors borrow it, so it outlives them.
pub struct Model {
    raw: NonNull<sys::llama_model>,
}

impl Model {
    /// Loads a GGUF file, with `gpu_layers` layers on the GPU when there is one.
    pub fn load(_backend: &LlamaBackend, path: &Path, gpu_layers: i32) -> Result<Model, String> {
        let path = path
            .to_str()
            .and_then(|p| CString::new(p).ok())
            .ok_or("the path is not valid UTF-8 without NUL bytes")?;
        // SAFETY: returns a struct of defaults by value; nothing to free.
        let mut params = unsafe { sys::llama_model_default_params() };
        params.n_gpu_layers = gpu_layers;
        // SAFETY: `path` is a NUL-terminated string that lives through the
        // call; `params` holds llama.cpp's defaults (null or static
        // pointers) and is passed by value. The backend is started, which
        // `_backend` proves. The result is a model we own, or null.
        let raw = unsafe { sys::llama_model_load_from_file(path.as_ptr(), params) };
        NonNull::new(raw)
            .map(|raw| Model { raw })
            .ok_or_else(|| "llama.cpp refused the file".to_string())
    }

    /// The raw model, for the owners in this module; valid while `self` lives.
    pub(super) fn as_ptr(&self) -> *mut sys::llama_model {
        self.raw.as_ptr()
    }

    pub fn vocab(&self) -> Vocab<'_> {
        // SAFETY: the model is alive; the vocabulary is part of it, so the
        // pointer stays valid as long as the borrow that `Vocab` carries.
        let raw = unsafe { sys::llama_model_get_vocab(self.raw.as_ptr()) };
        Vocab {
            raw: NonNull::new(raw.cast_mut()).expect("a loaded model has a vocabulary"),
            _model: PhantomData,
        }
    }

    /// The context length the model was trained with.
    pub fn n_ctx_train(&self) -> u32 {
        // SAFETY: the model is alive; the call reads one field.
        let n = unsafe { sys::llama_model_n_ctx_train(self.raw.as_ptr()) };
        n.max(0) as u32
    }

    pub fn n_params(&self) -> u64 {
        // SAFETY: the model is alive; the call sums its tensors' sizes.
        unsafe { sys::llama_model_n_params(self.raw.as_ptr()) }
    }

    /// Floats per input embedding: the width of the image encoder's output
    /// rows that the model reads.
    pub fn input_embedding_width(&self) -> usize {
        // SAFETY: the model is alive; the call reads its hyperparameters.
        let n = unsafe { sys::llama_model_n_embd_inp(self.raw.as_ptr()) };
        n.max(0) as usize
    }

    /// The chat template stored in the file, when it is valid UTF-8.
    pub fn chat_template(&self) -> Option<String> {
        // SAFETY: the model is alive; a null name asks for the default
        // template. The answer is null or a NUL-terminated string owned by
        // the model's metadata, read (and copied) before the borrow ends.
        unsafe {
            let text = sys::llama_model_chat_template(self.raw.as_ptr(), std::ptr::null());
            if text.is_null() {
                return None;
            }
            CStr::from_ptr(text).to_str().ok().map(str::to_string)
        }
    }
}

impl Drop for Model {
    fn drop(&mut self) {
        // SAFETY: we own the model and nothing borrows it any more (contexts
        // and projectors hold borrows of `self`, so they are gone).
        unsafe { sys::llama_model_free(self.raw.as_ptr()) }
    }
}

/// A model's vocabulary; lives as long as the model borrowed.
#[derive(Clone, Copy)]
pub struct Vocab<'m> {
    raw: NonNull<sys::llama_vocab>,
    _model: PhantomData<&'m Model>,
}

impl Vocab<'_> {
    fn ptr(&self) -> *const sys::llama_vocab {
        self.raw.as_ptr()
    }

    pub fn n_tokens(&self) -> i32 {
        // SAFETY: the vocabulary is alive for `'m`; the call reads its size.
        unsafe { sys::llama_vocab_n_tokens(self.ptr()) }
    }

    /// llama.cpp indexes its token table unchecked (or throws, which aborts
    /// the process), so every per-token call checks the id first.
    fn known(&self, token: LlamaToken) -> bool {
        (0..self.n_tokens()).contains(&token.0)
    }

    /// The BOS token; negative when the model has none.
    pub fn bos(&self) -> LlamaToken {
        // SAFETY: the vocabulary is alive; the call reads one field.
        LlamaToken(unsafe { sys::llama_vocab_bos(self.ptr()) })
    }

    /// The EOS token; negative when the model has none.
    pub fn eos(&self) -> LlamaToken {
        // SAFETY: as for `bos`.
        LlamaToken(unsafe { sys::llama_vocab_eos(self.ptr()) })
    }

    /// Whether the token ends generation (eos, eot, eom and the like).
    pub fn is_eog(&self, token: LlamaToken) -> bool {
        // SAFETY: the vocabulary is alive and the id is in its table.
        self.known(token) && unsafe { sys::llama_vocab_is_eog(self.ptr(), token.0) }
    }

    pub fn is_control(&self, token: LlamaToken) -> bool {
        // SAFETY: as for `is_eog`.
        self.known(token) && unsafe { sys::llama_vocab_is_control(self.ptr(), token.0) }
    }

    /// The token's text as stored in the vocabulary.
    pub fn text(&self, token: LlamaToken) -> Option<&CStr> {
        if !self.known(token) {
            return None;
        }
        // SAFETY: the id is in the table; the answer is null or a
        // NUL-terminated string the vocabulary owns, which lives as long as
        // the model this `Vocab` borrows, and the returned borrow is tied to
        // `self`, which cannot outlive that.
        unsafe {
            let text = sys::llama_vocab_get_text(self.ptr(), token.0);
            (!text.is_null()).then(|| CStr::from_ptr(text))
        }
    }

    /// Tokens of `text`; `add_special` adds BOS (and EOS) as the model
    /// wants, `parse_special` reads special-token texts as those tokens.
    pub fn tokenize(&self, text: &[u8], add_special: bool, parse_special: bool) -> Vec<LlamaToken> {
        let Ok(len) = i32::try_from(text.len()) else {
            return Vec::new();
        };
        let mut tokens: Vec<sys::llama_token> = vec![0; text.len() / 2 + 8];
        for _ in 0..2 {
            let capacity = i32::try_from(tokens.len()).unwrap_or(i32::MAX);
            // SAFETY: `text` is readable for `len` bytes and `tokens`
            // writable for `capacity` ids; llama.cpp writes at most that
            // many and answers how many it wrote, or minus how many it needs.
            let n = unsafe {
                sys::llama_tokenize(
                    self.ptr(),
                    text.as_ptr().cast(),
                    len,
                    tokens.as_mut_ptr(),
                    capacity,
                    add_special,
                    parse_special,
                )
            };
            if n >= 0 {
                tokens.truncate(n as usize);
                return tokens.into_iter().map(LlamaToken).collect();
            }
            if n == i32::MIN {
                break;
            }
            tokens.resize(n.unsigned_abs() as usize, 0);
        }
        Vec::new()
    }

    /// The bytes of one token, appended to `piece`. `special` writes
    /// control tokens' texts too; `lstrip` drops that many leading spaces.
    pub fn token_to_piece_into(
        &self,
        token: LlamaToken,
        piece: &mut Vec<u8>,
        special: bool,
        lstrip: Option<NonZeroU16>,
    ) {
        if !self.known(token) {
            return;
        }
        let lstrip = lstrip.map_or(0, |n| i32::from(n.get()));
        let start = piece.len();
        let mut room = 32usize;
        for _ in 0..2 {
            piece.resize(start + room, 0);
            // SAFETY: the id is in the table; `piece[start..]` is writable
            // for `room` bytes, and llama.cpp writes at most that many,
            // answering how many it wrote or minus how many it needs.
            let n = unsafe {
                sys::llama_token_to_piece(
                    self.ptr(),
                    token.0,
                    piece[start..].as_mut_ptr().cast(),
                    room as i32,
                    lstrip,
                    special,
                )
            };
            if n >= 0 {
                piece.truncate(start + n as usize);
                return;
            }
            room = n.unsigned_abs() as usize;
        }
        piece.truncate(start);
    }

    /// The bytes of one token; see [`Vocab::token_to_piece_into`].
    pub fn token_to_piece(
        &self,
        token: LlamaToken,
        special: bool,
        lstrip: Option<NonZeroU16>,
    ) -> Vec<u8> {
        let mut piece = Vec::new();
        self.token_to_piece_into(token, &mut piece, special, lstrip);
        piece
    }
}
