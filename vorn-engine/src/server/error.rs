//! Every error the API answers with, and the one table that gives each kind
//! its status. The reply is always `{"error": text}`.

use crate::download::DownloadError;
use crate::engine::EngineError;
use axum::http::StatusCode;
use axum::response::{IntoResponse, Response};
use serde::Serialize;
use std::fmt;

#[derive(Debug, Clone, PartialEq, Eq)]
pub enum ApiError {
    // Refused before routing.
    HostRefused,
    CrossSite,
    MissingAppHeader,
    NotJson,
    BodyTooLarge,
    NotFound,
    MethodNotAllowed,

    // The body.
    BodyUnreadable,
    InvalidJson(String),
    NotAnObject,
    /// A field that must be a text: its name.
    NotText(&'static str),
    NotTrueOrFalse(&'static str),
    NotNumber(&'static str),
    NotCount(&'static str),
    BadContextSize,
    /// A context above what the model takes.
    ContextAboveLimit {
        name: String,
        requested: u64,
        limit: u64,
        trained: Option<u64>,
    },
    BadStop,
    MessagesNotArray,
    NoMessages,
    NoRole,
    BadContent,
    TextPartWithoutText,
    ImagePartWithoutUrl,
    UnknownPartType,
    NotDataUrl,
    MalformedDataUrl,
    NotBase64DataUrl,
    InvalidBase64,
    EmptyImage,

    // Models in the folder.
    NotPlainName,
    NoSuchModel(String),
    ModelIsFolder(String),
    ModelIsNotFile(String),
    ModelFileMissing(String),
    NoVisionModel,

    /// A task of ours failed; the text says which.
    Internal(&'static str),
    Engine(EngineError),
    Download(DownloadError),
}

impl ApiError {
    pub fn status(&self) -> StatusCode {
        use ApiError as A;
        use DownloadError as D;
        use EngineError as E;
        use StatusCode as S;
        match self {
            A::HostRefused | A::CrossSite | A::MissingAppHeader => S::FORBIDDEN,
            A::NotJson => S::UNSUPPORTED_MEDIA_TYPE,
            A::BodyTooLarge => S::PAYLOAD_TOO_LARGE,
            A::NotFound | A::NoSuchModel(_) | A::ModelFileMissing(_) => S::NOT_FOUND,
            A::MethodNotAllowed => S::METHOD_NOT_ALLOWED,
            A::BodyUnreadable
            | A::InvalidJson(_)
            | A::NotAnObject
            | A::NotText(_)
            | A::NotTrueOrFalse(_)
            | A::NotNumber(_)
            | A::NotCount(_)
            | A::BadContextSize
            | A::ContextAboveLimit { .. }
            | A::BadStop
            | A::MessagesNotArray
            | A::NoMessages
            | A::NoRole
            | A::BadContent
            | A::TextPartWithoutText
            | A::ImagePartWithoutUrl
            | A::UnknownPartType
            | A::NotDataUrl
            | A::MalformedDataUrl
            | A::NotBase64DataUrl
            | A::InvalidBase64
            | A::EmptyImage
            | A::NotPlainName
            | A::ModelIsFolder(_)
            | A::ModelIsNotFile(_) => S::BAD_REQUEST,
            A::NoVisionModel => S::CONFLICT,
            A::Internal(_) => S::INTERNAL_SERVER_ERROR,
            A::Engine(error) => match error {
                E::NoModelLoaded | E::NoImageSupport => S::CONFLICT,
                E::ImagesNotAccepted
                | E::ImageUndecodable
                | E::ImageNotPrepared(_)
                | E::ImagesNotPrepared(_)
                | E::NoProjector
                | E::MessageTooLong
                | E::SystemMessageTooLong
                | E::EmptyConversation => S::BAD_REQUEST,
                E::BackendFailed(_)
                | E::ThreadStopped
                | E::StoppedWhileLoading
                | E::StoppedWhileEncoding
                | E::StoppedBeforeAnswering
                | E::StoppedWhileAnswering
                | E::NotGguf { .. }
                | E::ProjectorIsNotAModel { .. }
                | E::ProbeFailed { .. }
                | E::LoadFailed { .. }
                | E::LoadPanicked { .. }
                | E::ContextFailed { .. }
                | E::ContextTooLarge { .. }
                | E::ImageEncoderFailed(_)
                | E::EncodingPanicked
                | E::ImageEvaluationFailed(_)
                | E::Template(_)
                | E::BatchRefused(_)
                | E::PromptEvaluationFailed(_)
                | E::GenerationFailed(_)
                | E::GenerationPanicked
                | E::CountPanicked => S::INTERNAL_SERVER_ERROR,
            },
            A::Download(error) => match error {
                D::BadName | D::InvalidLink | D::NotHubLink => S::BAD_REQUEST,
                D::InFolder(_) | D::AlreadyDownloading(_) => S::CONFLICT,
                D::ShuttingDown => S::SERVICE_UNAVAILABLE,
            },
        }
    }
}

impl fmt::Display for ApiError {
    fn fmt(&self, f: &mut fmt::Formatter<'_>) -> fmt::Result {
        use ApiError as A;
        match self {
            A::HostRefused => {
                f.write_str("Requests must be addressed to the engine's loopback address.")
            }
            A::CrossSite => f.write_str("Cross-site requests are not allowed."),
            A::MissingAppHeader => f.write_str("Missing X-Vorn-App header."),
            A::NotJson => f.write_str("Request bodies must be application/json."),
            A::BodyTooLarge => f.write_str("The request body is too large."),
            A::NotFound => f.write_str("Not found."),
            A::MethodNotAllowed => f.write_str("Method not allowed."),
            A::BodyUnreadable => f.write_str("The request body could not be read."),
            A::InvalidJson(why) => write!(f, "Invalid JSON: {why}"),
            A::NotAnObject => f.write_str("The request body must be a JSON object."),
            A::NotText(field) => write!(f, "\"{field}\" must be a text."),
            A::NotTrueOrFalse(field) => write!(f, "\"{field}\" must be true or false."),
            A::NotNumber(field) => write!(f, "\"{field}\" must be a number."),
            A::NotCount(field) => write!(f, "\"{field}\" must be a non-negative integer."),
            A::BadContextSize => f.write_str(
                "\"ctx\" must be a whole number of tokens (0 for the model's trained context).",
            ),
            A::ContextAboveLimit {
                name,
                requested,
                limit,
                trained,
            } => {
                write!(
                    f,
                    "A context of {requested} tokens is more than {name} takes: at most {limit} tokens"
                )?;
                match trained {
                    Some(trained) if trained == limit => {
                        f.write_str(", the context it was trained with.")
                    }
                    Some(trained) => write!(f, " (it was trained with {trained})."),
                    None => f.write_str("."),
                }
            }
            A::BadStop => f.write_str("\"stop\" must be a text or an array of texts."),
            A::MessagesNotArray => f.write_str("\"messages\" must be an array."),
            A::NoMessages => f.write_str("\"messages\" must not be empty."),
            A::NoRole => f.write_str("Every message needs a \"role\" text."),
            A::BadContent => f.write_str("\"content\" must be a text or an array of parts."),
            A::TextPartWithoutText => f.write_str("A text part needs a \"text\" text."),
            A::ImagePartWithoutUrl => f.write_str("An image part needs a URL."),
            A::UnknownPartType => f.write_str("Unknown content part type."),
            A::NotDataUrl => f.write_str("Images must be sent as data URLs."),
            A::MalformedDataUrl => f.write_str("Malformed data URL."),
            A::NotBase64DataUrl => f.write_str("Image data URLs must be base64 encoded."),
            A::InvalidBase64 => f.write_str("The image data is not valid base64."),
            A::EmptyImage => f.write_str("The image is empty."),
            A::NotPlainName => f.write_str("The model name must be a plain file name."),
            A::NoSuchModel(name) => write!(f, "No model named {name}."),
            A::ModelIsFolder(name) => write!(f, "{name} is a folder."),
            A::ModelIsNotFile(name) => write!(f, "{name} is not a file."),
            A::ModelFileMissing(name) => write!(f, "The file behind {name} is missing."),
            A::NoVisionModel => f.write_str("No model with image support is loaded."),
            A::Internal(what) => f.write_str(what),
            A::Engine(error) => error.fmt(f),
            A::Download(error) => error.fmt(f),
        }
    }
}

impl From<EngineError> for ApiError {
    fn from(error: EngineError) -> Self {
        ApiError::Engine(error)
    }
}

impl From<DownloadError> for ApiError {
    fn from(error: DownloadError) -> Self {
        ApiError::Download(error)
    }
}

#[derive(Serialize)]
struct ErrorBody {
    error: String,
}

impl IntoResponse for ApiError {
    fn into_response(self) -> Response {
        let body = ErrorBody {
            error: self.to_string(),
        };
        (self.status(), axum::Json(body)).into_response()
    }
}
