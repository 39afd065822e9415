//! Raw handles that the llama-cpp-2 wrappers keep private.
//!
//! Reusing a pre-encoded image needs llama.cpp's multimodal helpers that take
//! the raw context pointers, which the safe wrappers do not expose. Each
//! pointer is recovered from the wrapper's bytes and then verified through
//! llama.cpp itself; when verification fails the caller falls back to the
//! safe path, so a layout change costs speed, never correctness.

use llama_cpp_2::context::LlamaContext;
use llama_cpp_2::model::LlamaModel;
use llama_cpp_2::mtmd::{MtmdContext, MtmdInputChunks};
use llama_cpp_sys_2 as sys;
use std::mem::size_of;

/// Pointer-sized words of a value, for scanning a wrapper's fields. Only
/// sound for types without padding or other uninitialised bytes: it is only
/// called on the wrappers below, whose fields are a pointer, a Vec (three
/// words) and zero-sized markers.
fn words<T>(value: &T) -> Vec<usize> {
    let n = size_of::<T>() / size_of::<usize>();
    let base = value as *const T as *const usize;
    (0..n)
        // SAFETY: word `i < n` lies inside the value's own storage, which the
        // borrow keeps alive; `read_unaligned` needs no alignment. Every byte
        // of those wrappers is an initialised field (see above), so each word
        // read is initialised; this is what the caller must guarantee.
        .map(|i| unsafe { base.add(i).read_unaligned() })
        .collect()
}

/// Words that cannot be a heap pointer: null, small flags, dangling markers.
fn plausible_pointer(word: usize) -> bool {
    word > 0x10000 && word.is_multiple_of(size_of::<usize>())
}

/// The model's raw pointer; valid while `model` lives.
pub fn model_ptr(model: &LlamaModel) -> *mut sys::llama_model {
    // LlamaModel is repr(transparent) over its non-null pointer.
    const _: () = assert!(size_of::<LlamaModel>() == size_of::<*mut sys::llama_model>());
    words(model)[0] as *mut sys::llama_model
}

/// The context's raw pointer, confirmed by asking llama.cpp for its model;
/// valid while `ctx` lives.
pub fn context_ptr(ctx: &LlamaContext<'_>, model: &LlamaModel) -> Option<*mut sys::llama_context> {
    // Pointer, then a Vec's three words: no padding anywhere.
    if size_of::<LlamaContext<'_>>() != 4 * size_of::<usize>() {
        return None;
    }
    let want = model_ptr(model) as *const sys::llama_model;
    let candidates: Vec<usize> = words(ctx)
        .into_iter()
        .filter(|word| plausible_pointer(*word))
        .collect();
    // With no backend samplers the context pointer is the only heap pointer.
    if candidates.len() != 1 {
        return None;
    }
    let context = candidates[0] as *mut sys::llama_context;
    // SAFETY: LlamaContext is its NonNull context pointer plus a Vec of
    // backend samplers (four words, checked above). With no samplers the Vec
    // holds a dangling pointer, zero and zero, none of them plausible, so the
    // one plausible word is the context pointer, alive while `ctx` is
    // borrowed. llama_get_model only reads the context's model field. Should
    // the layout change unnoticed by the size check, this call is where it
    // would go wrong; the comparison below only catches a wrong answer.
    let got = unsafe { sys::llama_get_model(context) };
    (got == want).then_some(context)
}

/// The projector's raw context; valid while `mtmd` lives. A one-word
/// MtmdContext can only be its NonNull context pointer.
pub fn mtmd_ptr(mtmd: &MtmdContext) -> Option<*mut sys::mtmd_context> {
    if size_of::<MtmdContext>() != size_of::<usize>() {
        return None;
    }
    let word = words(mtmd)[0];
    plausible_pointer(word).then_some(word as *mut sys::mtmd_context)
}

/// The raw chunk `index` of a chunk list; checked against the safe wrapper.
pub fn chunk_ptr(chunks: &MtmdInputChunks, index: usize) -> Option<*const sys::mtmd_input_chunk> {
    if size_of::<MtmdInputChunks>() != size_of::<usize>() {
        return None;
    }
    let word = words(chunks)[0];
    if !plausible_pointer(word) {
        return None;
    }
    let list = word as *const sys::mtmd_input_chunks;
    // SAFETY: a one-word MtmdInputChunks is its NonNull list pointer, alive
    // while `chunks` is borrowed. The list functions only read it; the index
    // is checked against the list's size before it is used, and `chunk` is
    // checked for null before its token count is read. The returned chunk
    // lives as long as the list.
    unsafe {
        if index >= sys::mtmd_input_chunks_size(list) {
            return None;
        }
        let chunk = sys::mtmd_input_chunks_get(list, index);
        let safe = chunks.get(index)?;
        (!chunk.is_null() && sys::mtmd_input_chunk_get_n_tokens(chunk) == safe.n_tokens())
            .then_some(chunk)
    }
}
