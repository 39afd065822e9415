//! The image projector (llama.cpp's mtmd): decoded images, prompts
//! tokenized around them, and evaluating images into a context, from fresh
//! encoder output or from output kept earlier.

use super::checked;
use super::context::Context;
use super::model::Model;
use llama_cpp_2::llama_backend::LlamaBackend;
use llama_cpp_2::token::LlamaToken;
use llama_cpp_sys_2 as sys;
use std::ffi::{CStr, CString};
use std::marker::PhantomData;
use std::path::Path;
use std::ptr::NonNull;

/// What a projector is made with.
#[derive(Debug, Clone, Copy)]
pub struct ProjectorSettings<'a> {
    pub use_gpu: bool,
    pub threads: i32,
    /// The text that marks an image's place in a prompt.
    pub media_marker: &'a str,
}

/// An `mtmd_context` this value owns, freed on drop. llama.cpp keeps a
/// pointer to the text model it was made with, which the borrow `'m`
/// keeps alive. Encoding and evaluation take `&mut self`: they write the
/// projector's output buffer.
pub struct Projector<'m> {
    raw: NonNull<sys::mtmd_context>,
    model: &'m Model,
}

/// llama.cpp's code for a failed projector call.
pub type Code = i32;

impl<'m> Projector<'m> {
    /// Loads the projector file for `model`; llama.cpp refuses a file whose
    /// output width is not the model's input width.
    pub fn new(
        _backend: &LlamaBackend,
        path: &Path,
        model: &'m Model,
        settings: ProjectorSettings<'_>,
    ) -> Result<Projector<'m>, String> {
        let path = path
            .to_str()
            .and_then(|p| CString::new(p).ok())
            .ok_or("the path is not valid UTF-8 without NUL bytes")?;
        let marker =
            CString::new(settings.media_marker).map_err(|_| "the media marker contains NUL")?;
        // SAFETY: returns a struct of defaults by value; nothing to free.
        let mut params = unsafe { sys::mtmd_context_params_default() };
        params.use_gpu = settings.use_gpu;
        params.print_timings = false;
        params.n_threads = settings.threads;
        params.media_marker = marker.as_ptr();
        params.image_min_tokens = -1;
        params.image_max_tokens = -1;
        // SAFETY: `path` and the marker are NUL-terminated strings alive for
        // the call (the marker is copied into the projector); the model is
        // alive for `'m`, longer than the projector that points to it. The
        // other fields are llama.cpp's defaults. Failures come back as null
        // (llama.cpp catches its own exceptions here).
        let raw = unsafe { sys::mtmd_init_from_file(path.as_ptr(), model.as_ptr(), params) };
        let raw = NonNull::new(raw).ok_or("llama.cpp could not load the projector")?;
        Ok(Projector { raw, model })
    }

    pub fn supports_vision(&self) -> bool {
        // SAFETY: the projector is alive; the call reads one field.
        unsafe { sys::mtmd_support_vision(self.raw.as_ptr()) }
    }

    /// Whether the model places images with M-RoPE (fewer positions than tokens).
    pub fn uses_mrope(&self) -> bool {
        // SAFETY: as for `supports_vision`.
        unsafe { sys::mtmd_decode_use_mrope(self.raw.as_ptr()) }
    }

    /// Decodes an image file's bytes (PNG, JPEG and what else stb_image
    /// reads) into pixels named `id`. None when they are not an image.
    pub fn decode_image(&self, bytes: &[u8], id: &str) -> Option<Bitmap> {
        let id = CString::new(id).ok()?;
        // SAFETY: the projector is alive (only read here, for audio files);
        // `bytes` is readable for its length during the call. The answer
        // owns a new bitmap or null, and a video reader that this build
        // (without video support) never makes; both are freed below if set.
        let made = unsafe {
            sys::mtmd_helper_bitmap_init_from_buf(
                self.raw.as_ptr(),
                bytes.as_ptr(),
                bytes.len(),
                false,
                sys::mtmd_helper_init_opt_default(),
            )
        };
        let bitmap = NonNull::new(made.bitmap).map(|raw| Bitmap { raw });
        if !made.video_ctx.is_null() {
            drop(bitmap);
            // SAFETY: the video reader is ours and freed once, after the
            // bitmap that used it.
            unsafe { sys::mtmd_helper_video_free(made.video_ctx) };
            return None;
        }
        let bitmap = bitmap?;
        // Audio files decode too; they are not images.
        // SAFETY: the bitmap is ours and alive; the call reads one field.
        if unsafe { sys::mtmd_bitmap_is_audio(bitmap.raw.as_ptr()) } {
            return None;
        }
        // SAFETY: the bitmap is ours and not shared yet; the id is a
        // NUL-terminated string that llama.cpp copies.
        unsafe { sys::mtmd_bitmap_set_id(bitmap.raw.as_ptr(), id.as_ptr()) };
        Some(bitmap)
    }

    /// Splits `text` at its media markers into text and image chunks, one
    /// image per marker in order. `add_special` adds BOS as the model wants.
    pub fn tokenize(
        &self,
        text: &str,
        add_special: bool,
        bitmaps: &[&Bitmap],
    ) -> Result<Chunks, Code> {
        // SAFETY: makes an empty list that `Chunks` owns from here on.
        let list = unsafe { sys::mtmd_input_chunks_init() };
        let chunks = Chunks {
            raw: NonNull::new(list).ok_or(-1)?,
        };
        let input = sys::mtmd_input_text {
            text: text.as_ptr().cast(),
            text_len: text.len(),
            add_special,
            parse_special: true,
        };
        let pointers: Vec<*const sys::mtmd_bitmap> = bitmaps
            .iter()
            .map(|b| b.raw.as_ptr().cast_const())
            .collect();
        // SAFETY: the projector is alive and only read; `input` points at
        // `text`, read for `text_len` bytes (no NUL needed); `pointers` are
        // live bitmaps borrowed for the call; the chunk list is ours and
        // receives copies of what it keeps. Exceptions are caught inside
        // and reported as a code.
        let code = unsafe {
            sys::mtmd_tokenize(
                self.raw.as_ptr(),
                chunks.raw.as_ptr(),
                &input,
                pointers.as_ptr(),
                pointers.len(),
            )
        };
        checked(code).map(|()| chunks)
    }

    /// Runs the image encoder on an image chunk and returns its output:
    /// the chunk's tokens times the model's input width floats.
    pub fn encode(&mut self, chunk: &Chunk<'_>) -> Result<Vec<f32>, Code> {
        if chunk.kind() != ChunkKind::Image {
            return Err(-1);
        }
        // SAFETY: the projector is ours (`&mut self`) and alive; the chunk
        // belongs to a live list that `chunk` borrows. Exceptions are caught
        // inside and reported as a code.
        checked(unsafe { sys::mtmd_encode_chunk(self.raw.as_ptr(), chunk.raw.as_ptr()) })?;
        let len = chunk.n_tokens() * self.model.input_embedding_width();
        // SAFETY: after a successful encode of an image chunk the output
        // buffer holds the chunk's tokens times the projector's output width
        // floats, and llama.cpp refused to make this projector unless that
        // width is the model's input width. Nothing writes to the buffer
        // until the next encode, which needs `&mut self` again; the floats
        // are copied out under this borrow.
        let output = unsafe {
            let data = sys::mtmd_get_output_embd(self.raw.as_ptr());
            if data.is_null() {
                return Err(-1);
            }
            std::slice::from_raw_parts(data, len)
        };
        Ok(output.to_vec())
    }

    /// Evaluates one chunk into `ctx` from `position` on (text, or an image
    /// through the encoder) and returns the position after it. `logits`
    /// asks for the output of the last position.
    pub fn evaluate(
        &mut self,
        ctx: &mut Context<'m>,
        chunk: &Chunk<'_>,
        position: i32,
        batch_size: i32,
        logits: bool,
    ) -> Result<i32, Code> {
        self.check_pair(ctx)?;
        let mut next = position;
        // SAFETY: projector and context are alive, ours for the call (`&mut`)
        // and made from the same model (checked above); the chunk belongs to
        // a live list. `next` outlives the call. The helper evaluates into
        // sequence 0 only.
        let code = unsafe {
            sys::mtmd_helper_eval_chunk_single(
                self.raw.as_ptr(),
                ctx.as_ptr(),
                chunk.raw.as_ptr(),
                position,
                0,
                batch_size.max(1),
                logits,
                &mut next,
            )
        };
        checked(code).map(|()| next)
    }

    /// Evaluates an image chunk into `ctx` from encoder output kept from
    /// [`Projector::encode`] of the same image, skipping the encoder.
    /// Returns the position after it.
    pub fn evaluate_encoded(
        &mut self,
        ctx: &mut Context<'m>,
        chunk: &Chunk<'_>,
        encoded: &[f32],
        position: i32,
        batch_size: i32,
    ) -> Result<i32, Code> {
        self.check_pair(ctx)?;
        let expected = chunk.n_tokens() * self.model.input_embedding_width();
        if chunk.kind() != ChunkKind::Image || chunk.n_tokens() == 0 || encoded.len() != expected {
            return Err(-1);
        }
        let mut next = position;
        // SAFETY: projector and context are alive, ours for the call and of
        // one model (checked above); the chunk is an image chunk of a live
        // list. The helper reads the chunk's tokens times the model's input
        // width floats from `encoded`, exactly its length (checked above),
        // and never writes through the pointer despite its type. No
        // callback is given, so the null user data is never used.
        let code = unsafe {
            sys::mtmd_helper_decode_image_chunk(
                self.raw.as_ptr(),
                ctx.as_ptr(),
                chunk.raw.as_ptr(),
                encoded.as_ptr().cast_mut(),
                position,
                0,
                batch_size.max(1),
                &mut next,
                None,
                std::ptr::null_mut(),
            )
        };
        checked(code).map(|()| next)
    }

    /// The helpers size image rows by the context's model; it must be the
    /// model this projector was made for.
    fn check_pair(&self, ctx: &Context<'m>) -> Result<(), Code> {
        if std::ptr::eq(self.model, ctx.model()) {
            Ok(())
        } else {
            Err(-1)
        }
    }
}

impl Drop for Projector<'_> {
    fn drop(&mut self) {
        // SAFETY: we own the projector; its model is still alive (`'m`).
        unsafe { sys::mtmd_free(self.raw.as_ptr()) }
    }
}

/// Decoded pixels (an `mtmd_bitmap`) with their id, owned and freed on drop.
pub struct Bitmap {
    raw: NonNull<sys::mtmd_bitmap>,
}

// SAFETY: a bitmap is plain data (size, pixels, id) that no call changes
// once made (`set_id` is only called before it is shared); llama.cpp only
// reads it, and freeing it needs no particular thread.
unsafe impl Send for Bitmap {}
// SAFETY: as above: shared references only ever read it.
unsafe impl Sync for Bitmap {}

impl Bitmap {
    /// An image from RGB pixels, `width * height * 3` bytes.
    pub fn from_rgb(width: u32, height: u32, rgb: &[u8]) -> Option<Bitmap> {
        let expected = (width as usize)
            .checked_mul(height as usize)?
            .checked_mul(3)?;
        if rgb.len() != expected || expected == 0 {
            return None;
        }
        // SAFETY: `rgb` holds exactly width * height * 3 bytes, which
        // llama.cpp copies; the answer is a bitmap we own, or null.
        let raw = unsafe { sys::mtmd_bitmap_init(width, height, rgb.as_ptr()) };
        NonNull::new(raw).map(|raw| Bitmap { raw })
    }

    /// Bytes of pixel data it holds.
    pub fn byte_len(&self) -> usize {
        // SAFETY: the bitmap is alive; the call reads its size.
        unsafe { sys::mtmd_bitmap_get_n_bytes(self.raw.as_ptr()) }
    }
}

impl Drop for Bitmap {
    fn drop(&mut self) {
        // SAFETY: we own the bitmap; chunks copy what they need of it.
        unsafe { sys::mtmd_bitmap_free(self.raw.as_ptr()) }
    }
}

/// A tokenized prompt: text chunks and image chunks in order, owned and
/// freed on drop.
pub struct Chunks {
    raw: NonNull<sys::mtmd_input_chunks>,
}

impl Chunks {
    pub fn len(&self) -> usize {
        // SAFETY: the list is alive; the call reads its size.
        unsafe { sys::mtmd_input_chunks_size(self.raw.as_ptr()) }
    }

    pub fn is_empty(&self) -> bool {
        self.len() == 0
    }

    pub fn get(&self, index: usize) -> Option<Chunk<'_>> {
        if index >= self.len() {
            return None;
        }
        // SAFETY: the index is inside the list, which is alive; the chunk
        // belongs to it and lives as long as the borrow `Chunk` carries.
        let chunk = unsafe { sys::mtmd_input_chunks_get(self.raw.as_ptr(), index) };
        NonNull::new(chunk.cast_mut()).map(|raw| Chunk {
            raw,
            _list: PhantomData,
        })
    }

    pub fn iter(&self) -> impl Iterator<Item = Chunk<'_>> {
        (0..self.len()).filter_map(|i| self.get(i))
    }

    /// Positions the whole prompt takes in the KV cache.
    pub fn total_tokens(&self) -> usize {
        // SAFETY: the list is alive; the call sums its chunks' sizes.
        unsafe { sys::mtmd_helper_get_n_tokens(self.raw.as_ptr()) }
    }
}

impl Drop for Chunks {
    fn drop(&mut self) {
        // SAFETY: we own the list and every chunk in it; `Chunk` borrows
        // have ended.
        unsafe { sys::mtmd_input_chunks_free(self.raw.as_ptr()) }
    }
}

#[derive(Debug, Clone, Copy, PartialEq, Eq)]
pub enum ChunkKind {
    Text,
    Image,
    Audio,
}

/// One chunk of a [`Chunks`] list, borrowed from it.
pub struct Chunk<'c> {
    raw: NonNull<sys::mtmd_input_chunk>,
    _list: PhantomData<&'c Chunks>,
}

impl<'c> Chunk<'c> {
    pub fn kind(&self) -> ChunkKind {
        // SAFETY: the chunk is alive for `'c`; the call reads one field.
        match unsafe { sys::mtmd_input_chunk_get_type(self.raw.as_ptr()) } {
            sys::MTMD_INPUT_CHUNK_TYPE_TEXT => ChunkKind::Text,
            sys::MTMD_INPUT_CHUNK_TYPE_IMAGE => ChunkKind::Image,
            _ => ChunkKind::Audio,
        }
    }

    /// The tokens of a text chunk; empty for other chunks.
    pub fn text_tokens(&self) -> &'c [LlamaToken] {
        if self.kind() != ChunkKind::Text {
            return &[];
        }
        let mut n = 0usize;
        // SAFETY: the chunk is a text chunk alive for `'c`; the answer
        // points at its `n` token ids, which live and stay unchanged as long
        // as the list. LlamaToken is a transparent wrapper of the id type,
        // so the ids read as tokens.
        unsafe {
            let tokens = sys::mtmd_input_chunk_get_tokens_text(self.raw.as_ptr(), &mut n);
            if tokens.is_null() || n == 0 {
                return &[];
            }
            std::slice::from_raw_parts(tokens.cast::<LlamaToken>(), n)
        }
    }

    /// Positions in the KV cache the chunk takes.
    pub fn n_tokens(&self) -> usize {
        // SAFETY: the chunk is alive; the call reads its size.
        unsafe { sys::mtmd_input_chunk_get_n_tokens(self.raw.as_ptr()) }
    }

    /// The id of an image chunk's bitmap (the image's hash here).
    pub fn id(&self) -> Option<String> {
        // SAFETY: the chunk is alive; the answer is null or a NUL-terminated
        // string it owns, copied before the borrow ends.
        unsafe {
            let id = sys::mtmd_input_chunk_get_id(self.raw.as_ptr());
            (!id.is_null()).then(|| CStr::from_ptr(id).to_string_lossy().into_owned())
        }
    }
}
