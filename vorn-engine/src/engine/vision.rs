//! Images: the projector, decoded images and encoder outputs kept by hash,
//! and evaluating an image sent ahead of its question.

use super::conversation::Prompt;
use super::session::Session;
use super::{probe, threads, ChatMessage, EngineError, Image, LoadRequest};
use crate::ffi;
use crate::template::{TemplateMessage, MEDIA_MARKER};
use llama_cpp_2::model::LlamaModel;
use llama_cpp_2::mtmd::{
    MtmdBitmap, MtmdContext, MtmdContextParams, MtmdInputChunkType, MtmdInputText,
};
use std::ffi::CString;
use std::panic::{catch_unwind, AssertUnwindSafe};
use std::sync::Arc;

pub(super) fn projector_params(use_gpu: bool) -> MtmdContextParams {
    MtmdContextParams {
        use_gpu,
        print_timings: false,
        n_threads: threads::cores(),
        media_marker: CString::new(MEDIA_MARKER).expect("marker has no NUL"),
        image_min_tokens: -1,
        image_max_tokens: -1,
    }
}

/// The projector paired with the model, when it passes the probe together
/// with the model and supports images; its name comes with it.
pub(super) fn open_projector(
    model: &LlamaModel,
    request: &LoadRequest,
    offload: bool,
) -> Option<(MtmdContext, String)> {
    let (name, path) = request.projector.as_ref()?;
    if let Err(why) = probe::check(&request.path, Some(path)) {
        eprintln!("vorn-engine: projector {name} left out: {why}");
        return None;
    }
    let params = projector_params(offload);
    let made = catch_unwind(AssertUnwindSafe(|| {
        MtmdContext::init_from_file(&path.to_string_lossy(), model, &params)
    }));
    match made {
        Ok(Ok(projector)) if projector.support_vision() => Some((projector, name.clone())),
        _ => {
            eprintln!(
                "vorn-engine: projector {name} could not be used with {}",
                request.name
            );
            None
        }
    }
}

impl Session<'_> {
    pub(super) fn bitmap(&mut self, image: &Image) -> Result<Arc<MtmdBitmap>, EngineError> {
        if let Some(bitmap) = self.bitmaps.get(&image.hash) {
            return Ok(bitmap);
        }
        let projector = self
            .projector
            .as_ref()
            .ok_or(EngineError::ImagesNotAccepted)?;
        let mut bitmap = MtmdBitmap::from_buffer(projector, &image.bytes, false)
            .map_err(|_| EngineError::ImageUndecodable)?;
        bitmap
            .set_id(&image.hash)
            .map_err(|_| EngineError::ImageIdRefused)?;
        let bitmap = Arc::new(bitmap);
        self.bitmaps.put(image.hash.clone(), bitmap.clone());
        Ok(bitmap)
    }

    /// Decodes the image and runs the image encoder now, keeping its output.
    pub(super) fn encode(&mut self, image: &Image) -> Result<(), EngineError> {
        if self.projector.is_none() {
            return Err(EngineError::NoImageSupport);
        }
        if self.embeddings.get(&image.hash).is_none() {
            self.encode_now(image)?;
        }
        self.speculate(image);
        Ok(())
    }

    fn encode_now(&mut self, image: &Image) -> Result<(), EngineError> {
        let bitmap = self.bitmap(image)?;
        let projector = self.projector.as_mut().expect("checked by the caller");
        let chunks = projector
            .tokenize(
                MtmdInputText {
                    text: MEDIA_MARKER.to_string(),
                    add_special: false,
                    parse_special: true,
                },
                &[&bitmap],
            )
            .map_err(|e| EngineError::ImageNotPrepared(e.to_string()))?;
        for i in 0..chunks.len() {
            let Some(chunk) = chunks.get(i) else { continue };
            if chunk.chunk_type() != MtmdInputChunkType::Image {
                continue;
            }
            projector
                .encode_chunk(&chunk)
                .map_err(|e| EngineError::ImageEncoderFailed(e.to_string()))?;
            // SAFETY: the pointer comes from the live model this session
            // borrows; the call only reads a field of it. It is the width
            // mtmd's own helper uses when decoding embeddings.
            let width =
                unsafe { llama_cpp_sys_2::llama_model_n_embd_inp(ffi::model_ptr(self.model)) };
            let len = chunk.n_tokens() * width.max(0) as usize;
            let Some(raw) = ffi::mtmd_ptr(projector) else {
                return Ok(());
            };
            // SAFETY: `raw` is the projector's own context, alive for this
            // call; the call only returns the pointer to its output buffer.
            let output = unsafe { llama_cpp_sys_2::mtmd_get_output_embd(raw) };
            if output.is_null() {
                return Ok(());
            }
            // SAFETY: after a successful encode of this chunk the output
            // buffer holds n_tokens rows of the text model's input embedding
            // width, `len` floats in all, and nothing writes to it until the
            // next encode; the floats are copied out before that.
            let embedding = unsafe { std::slice::from_raw_parts(output, len) }.to_vec();
            self.embeddings.put(image.hash.clone(), Arc::new(embedding));
        }
        Ok(())
    }

    /// An image sent ahead of its question most likely opens the next user
    /// message of the last conversation (or of a new one). Evaluating the
    /// prompt up to and including the image now lets the question itself
    /// start from the cache. A wrong guess only costs cache contents.
    fn speculate(&mut self, image: &Image) {
        let mut messages = self.history.clone();
        if !messages.is_empty() {
            messages.push(ChatMessage {
                role: "assistant".into(),
                content: self.history_reply.clone(),
                images: Vec::new(),
            });
        }
        messages.push(ChatMessage {
            role: "user".into(),
            content: format!("{MEDIA_MARKER}\n?"),
            images: vec![image.clone()],
        });
        let template_messages: Vec<TemplateMessage> =
            messages.iter().map(TemplateMessage::from).collect();
        let Ok(text) = self.template.render(&template_messages) else {
            return;
        };
        let Some(at) = text.rfind(MEDIA_MARKER) else {
            return;
        };
        let prefix = &text[..at + MEDIA_MARKER.len()];
        let images: Vec<&Image> = messages.iter().flat_map(|m| m.images.iter()).collect();
        let Ok(Prompt::Chunks(chunks)) = self.tokenize_prompt(prefix, &images) else {
            return;
        };
        let context_size = self.context_size as usize;
        if chunks.total_tokens() + context_size / 4 > context_size {
            return;
        }
        let _ = self.prefill_chunks(&chunks, &|| false, true);
    }
}
