//! Images: the projector, decoded images and encoder outputs kept by hash,
//! and evaluating an image sent ahead of its question.

use super::conversation::Prompt;
use super::session::Session;
use super::{probe, threads, ChatMessage, EngineError, Image, LoadRequest};
use crate::llama::{Bitmap, ChunkKind, Model, Projector, ProjectorSettings};
use crate::template::{TemplateMessage, MEDIA_MARKER};
use llama_cpp_2::llama_backend::LlamaBackend;
use std::panic::{catch_unwind, AssertUnwindSafe};
use std::sync::Arc;

pub(super) fn projector_settings(use_gpu: bool) -> ProjectorSettings<'static> {
    ProjectorSettings {
        use_gpu,
        threads: threads::cores(),
        media_marker: MEDIA_MARKER,
    }
}

/// The projector paired with the model, when it passes the probe together
/// with the model and supports images; its name comes with it.
pub(super) fn open_projector<'m>(
    backend: &LlamaBackend,
    model: &'m Model,
    request: &LoadRequest,
    offload: bool,
) -> Option<(Projector<'m>, String)> {
    let (name, path) = request.projector.as_ref()?;
    if let Err(why) = probe::check(&request.path, Some(path)) {
        eprintln!("vorn-engine: projector {name} left out: {why}");
        return None;
    }
    let settings = projector_settings(offload);
    let made = catch_unwind(AssertUnwindSafe(|| {
        Projector::new(backend, path, model, settings)
    }));
    match made {
        Ok(Ok(projector)) if projector.supports_vision() => Some((projector, name.clone())),
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
    /// The image's pixels, decoded now unless an earlier use did.
    pub(super) fn bitmap<'i>(&mut self, image: &'i Image) -> Result<&'i Bitmap, EngineError> {
        let projector = self
            .projector
            .as_ref()
            .ok_or(EngineError::ImagesNotAccepted)?;
        let (bitmap, decoded) = image
            .pixels(|file| projector.decode_image(file, &image.hash))
            .ok_or(EngineError::ImageUndecodable)?;
        if decoded {
            self.decoded_images += 1;
        }
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
            .tokenize(MEDIA_MARKER, false, &[bitmap])
            .map_err(|code| EngineError::ImageNotPrepared(format!("llama.cpp code {code}")))?;
        for chunk in chunks.iter().filter(|c| c.kind() == ChunkKind::Image) {
            let embedding = projector.encode(&chunk).map_err(|code| {
                EngineError::ImageEncoderFailed(format!("llama.cpp code {code}"))
            })?;
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
