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
/// used on wrappers whose fields are all pointer-sized, so no word holds
/// padding.
fn words<T>(value: &T) -> Vec<usize> {
    let n = size_of::<T>() / size_of::<usize>();
    let base = value as *const T as *const usize;
    // SAFETY: reads whole words inside the value's own storage; every word of
    // these wrappers is initialised (pointers, lengths, capacities, flags).
    (0..n)
        .map(|i| unsafe { base.add(i).read_unaligned() })
        .collect()
}

/// Words that cannot be a heap pointer: null, small flags, dangling markers.
fn plausible_pointer(w: usize) -> bool {
    w > 0x10000 && w % size_of::<usize>() == 0
}

pub fn model_ptr(model: &LlamaModel) -> *mut sys::llama_model {
    // LlamaModel is repr(transparent) over its non-null pointer.
    const _: () = assert!(size_of::<LlamaModel>() == size_of::<*mut sys::llama_model>());
    words(model)[0] as *mut sys::llama_model
}

pub fn context_ptr(ctx: &LlamaContext<'_>, model: &LlamaModel) -> Option<*mut sys::llama_context> {
    // Pointer, then a Vec's three words: no padding anywhere.
    if size_of::<LlamaContext<'_>>() != 4 * size_of::<usize>() {
        return None;
    }
    let want = model_ptr(model) as *const sys::llama_model;
    let candidates: Vec<usize> = words(ctx)
        .into_iter()
        .filter(|w| plausible_pointer(*w))
        .collect();
    // With no backend samplers the context pointer is the only heap pointer.
    if candidates.len() != 1 {
        return None;
    }
    let p = candidates[0] as *mut sys::llama_context;
    // SAFETY: `p` is the only pointer-like field of a live LlamaContext.
    let got = unsafe { sys::llama_get_model(p) };
    (got == want).then_some(p)
}

pub fn mtmd_ptr(mtmd: &MtmdContext) -> Option<*mut sys::mtmd_context> {
    if size_of::<MtmdContext>() != size_of::<usize>() {
        return None;
    }
    let w = words(mtmd)[0];
    plausible_pointer(w).then_some(w as *mut sys::mtmd_context)
}

/// The raw chunk `index` of a chunk list; checked against the safe wrapper.
pub fn chunk_ptr(chunks: &MtmdInputChunks, index: usize) -> Option<*const sys::mtmd_input_chunk> {
    if size_of::<MtmdInputChunks>() != size_of::<usize>() {
        return None;
    }
    let w = words(chunks)[0];
    if !plausible_pointer(w) {
        return None;
    }
    let list = w as *const sys::mtmd_input_chunks;
    // SAFETY: `list` is the wrapper's only field; the index is checked first.
    unsafe {
        if index >= sys::mtmd_input_chunks_size(list) {
            return None;
        }
        let p = sys::mtmd_input_chunks_get(list, index);
        let safe = chunks.get(index)?;
        (!p.is_null() && sys::mtmd_input_chunk_get_n_tokens(p) == safe.n_tokens()).then_some(p)
    }
}
