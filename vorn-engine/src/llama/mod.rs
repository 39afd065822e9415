//! llama.cpp's model, context and image projector, owned by the engine.
//!
//! Decoding an image from encoder output that was kept from an earlier
//! request needs llama.cpp's multimodal helpers, which take the raw context
//! and projector handles; the `llama-cpp-2` wrappers keep those private. So
//! the engine makes and frees these handles itself through `llama-cpp-sys-2`,
//! each inside one small owner whose methods are the only way to reach it:
//!
//! - [`Model`] owns a `llama_model`, and [`Vocab`] reads its vocabulary.
//! - [`Context`] owns a `llama_context` made from a model it borrows, so the
//!   borrow checker frees every context before its model.
//! - [`Projector`] owns an `mtmd_context`, which keeps a pointer to the text
//!   model it was made with; it borrows that model the same way.
//! - [`Bitmap`] owns decoded pixels, [`Chunks`] a prompt tokenized around
//!   its images.
//!
//! Model, context and projector stay on the thread that made them (raw
//! pointers make them neither `Send` nor `Sync`), which is the inference
//! thread. Bitmaps are plain data once made and travel between threads.
//!
//! `llama-cpp-2` still starts the backend ([`LlamaBackend`], which every
//! constructor here asks for as proof) and provides the token type and the
//! samplers.
//!
//! [`LlamaBackend`]: llama_cpp_2::llama_backend::LlamaBackend

mod batch;
mod context;
mod model;
mod projector;

pub use batch::Batch;
pub use context::{Context, ContextSettings};
pub use model::{Model, Vocab};
pub use projector::{Bitmap, Chunk, ChunkKind, Chunks, Projector, ProjectorSettings};

/// A ggml log callback that drops every message: llama.cpp's own reports stay out
/// of the engine's log.
///
/// # Safety
///
/// Any arguments will do; none is read.
pub unsafe extern "C" fn discard_log(
    _: llama_cpp_sys_2::ggml_log_level,
    _: *const std::os::raw::c_char,
    _: *mut std::os::raw::c_void,
) {
}

/// llama.cpp's status codes: 0 for success, anything else says what failed.
fn checked(code: i32) -> Result<(), i32> {
    if code == 0 {
        Ok(())
    } else {
        Err(code)
    }
}
