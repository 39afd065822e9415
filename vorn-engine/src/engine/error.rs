//! Everything the inference thread can fail with. The text of each kind is
//! what the client reads; which status goes with it is the HTTP layer's
//! business (`server::error`).

use std::fmt;

#[derive(Debug, Clone, PartialEq, Eq)]
pub enum EngineError {
    /// llama.cpp's backend could not be started.
    BackendFailed(String),
    /// The inference thread is gone, so the command could not be sent.
    ThreadStopped,
    StoppedWhileLoading,
    StoppedWhileEncoding,
    StoppedBeforeAnswering,
    StoppedWhileAnswering,
    NoModelLoaded,

    /// Our own header reader refused the file.
    NotGguf {
        name: String,
        reason: String,
    },
    ProjectorIsNotAModel {
        name: String,
    },
    /// The probe process could not load the file.
    ProbeFailed {
        name: String,
        architecture: String,
        reason: String,
    },
    LoadFailed {
        name: String,
        architecture: String,
        reason: String,
    },
    LoadPanicked {
        name: String,
    },
    ContextFailed {
        name: String,
        context: u32,
        reason: String,
    },
    /// The KV cache of the asked context would not fit in the memory left.
    ContextTooLarge {
        name: String,
        context: u32,
        needed: u64,
        available: u64,
    },

    /// /api/encode reached a model without a projector.
    NoImageSupport,
    ImagesNotAccepted,
    ImageUndecodable,
    ImageNotPrepared(String),
    ImagesNotPrepared(String),
    ImageEncoderFailed(String),
    EncodingPanicked,
    NoProjector,
    /// mtmd's image evaluation returned this code.
    ImageEvaluationFailed(i32),

    /// The model's chat template refused or failed; the text says why.
    Template(String),
    MessageTooLong,
    SystemMessageTooLong,
    EmptyConversation,
    CountPanicked,
    BatchRefused(String),
    PromptEvaluationFailed(String),
    GenerationFailed(String),
    GenerationPanicked,
}

impl fmt::Display for EngineError {
    fn fmt(&self, f: &mut fmt::Formatter<'_>) -> fmt::Result {
        use EngineError as E;
        match self {
            E::BackendFailed(why) => write!(f, "llama.cpp failed to start: {why}"),
            E::ThreadStopped => f.write_str("The inference thread has stopped."),
            E::StoppedWhileLoading => f.write_str("The inference thread stopped while loading."),
            E::StoppedWhileEncoding => f.write_str("The inference thread stopped."),
            E::StoppedBeforeAnswering => f.write_str("The engine stopped before answering."),
            E::StoppedWhileAnswering => f.write_str("The engine stopped while answering."),
            E::NoModelLoaded => f.write_str("No model is loaded."),
            E::NotGguf { name, reason } => write!(f, "{name} is not a usable GGUF file: {reason}"),
            E::ProjectorIsNotAModel { name } => write!(
                f,
                "{name} is an image projector, not a model; load its model instead."
            ),
            E::ProbeFailed {
                name,
                architecture,
                reason,
            } => write!(
                f,
                "{name} (architecture \"{architecture}\") cannot be loaded: {reason}."
            ),
            E::LoadFailed {
                name,
                architecture,
                reason,
            } => write!(
                f,
                "llama.cpp could not load {name} (architecture \"{architecture}\"): the file may be corrupt, of an unsupported architecture, or too large for the available memory ({reason})."
            ),
            E::LoadPanicked { name } => write!(f, "llama.cpp failed while loading {name}."),
            E::ContextFailed {
                name,
                context,
                reason,
            } => write!(
                f,
                "llama.cpp could not create a context of {context} tokens for {name} ({reason}); try a smaller context or free memory."
            ),
            E::ContextTooLarge {
                name,
                context,
                needed,
                available,
            } => write!(
                f,
                "A context of {context} tokens for {name} needs {} of memory for its KV cache, but only {} is available; choose a smaller context.",
                gigabytes(*needed),
                gigabytes(*available)
            ),
            E::NoImageSupport => f.write_str("The loaded model has no image support."),
            E::ImagesNotAccepted => f.write_str("The loaded model does not accept images."),
            E::ImageUndecodable => f.write_str(
                "The image could not be decoded (PNG, JPEG, GIF, BMP and similar formats are supported).",
            ),
            E::ImageNotPrepared(why) => write!(f, "The image could not be prepared: {why}"),
            E::ImagesNotPrepared(why) => write!(f, "The images could not be prepared: {why}"),
            E::ImageEncoderFailed(why) => write!(f, "The image encoder failed: {why}"),
            E::EncodingPanicked => f.write_str("The engine failed while encoding the image."),
            E::NoProjector => f.write_str("no projector"),
            E::ImageEvaluationFailed(code) => write!(f, "Image evaluation failed ({code})."),
            E::Template(why) => f.write_str(why),
            E::MessageTooLong => f.write_str("The message is too long for the model's context."),
            E::SystemMessageTooLong => {
                f.write_str("The system message is too long for the model's context.")
            }
            E::EmptyConversation => f.write_str("The conversation is empty."),
            E::CountPanicked => f.write_str("The engine failed while counting tokens."),
            E::BatchRefused(why) => write!(f, "batch error: {why}"),
            E::PromptEvaluationFailed(why) => write!(f, "Prompt evaluation failed: {why}"),
            E::GenerationFailed(why) => write!(f, "Generation failed: {why}"),
            E::GenerationPanicked => f.write_str("The engine failed while generating."),
        }
    }
}

impl std::error::Error for EngineError {}

/// Bytes as decimal gigabytes with one decimal ("12.3 GB").
fn gigabytes(bytes: u64) -> String {
    format!("{:.1} GB", bytes as f64 / 1e9)
}
