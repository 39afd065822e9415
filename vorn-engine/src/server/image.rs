//! Images sent as data URLs, and /api/encode, which runs the image encoder
//! before the question that carries the image arrives.

use super::error::ApiError;
use super::json::{parse, Field, JsonBytes, Text};
use super::{ok_reply, App, OkReply};
use crate::engine::Image;
use crate::state::lock;
use axum::extract::State;
use axum::Json;
use base64::Engine as _;
use serde::Deserialize;
use sha2::{Digest, Sha256};

/// Decodes a `data:` URL into its bytes.
pub(super) fn decode_data_url(url: &str) -> Result<Vec<u8>, ApiError> {
    let rest = url.strip_prefix("data:").ok_or(ApiError::NotDataUrl)?;
    let (meta, data) = rest.split_once(',').ok_or(ApiError::MalformedDataUrl)?;
    if !meta.to_ascii_lowercase().ends_with(";base64") {
        return Err(ApiError::NotBase64DataUrl);
    }
    let base64 = base64::engine::general_purpose::STANDARD;
    // Line breaks are allowed; only then is the text copied without them.
    let decoded = if data.bytes().any(|b| b.is_ascii_whitespace()) {
        let clean: Vec<u8> = data.bytes().filter(|b| !b.is_ascii_whitespace()).collect();
        base64.decode(&clean)
    } else {
        base64.decode(data)
    };
    let bytes = decoded.map_err(|_| ApiError::InvalidBase64)?;
    if bytes.is_empty() {
        return Err(ApiError::EmptyImage);
    }
    Ok(bytes)
}

/// The image of a data URL, named by its SHA-256.
pub(super) fn image_from_url(url: &str) -> Result<Image, ApiError> {
    let bytes = decode_data_url(url)?;
    let hash = hex::encode(Sha256::digest(&bytes));
    Ok(Image::new(hash, bytes))
}

#[derive(Deserialize, Default)]
#[serde(default)]
pub(super) struct EncodeBody<'a> {
    #[serde(borrow)]
    url: Field<Text<'a>>,
}

pub(super) async fn encode(
    State(app): State<App>,
    JsonBytes(body): JsonBytes,
) -> Result<Json<OkReply>, ApiError> {
    // Reading, decoding and hashing tens of megabytes: not on the async
    // threads. The image stays in the cache for the question that follows.
    let images = app.images.clone();
    let image = tokio::task::spawn_blocking(move || {
        let body = parse::<EncodeBody>(&body)?;
        let url = body.url.required(ApiError::NotText("url"))?;
        images.image(&url.0)
    })
    .await
    .map_err(|_| ApiError::Internal("decode failed"))??;
    let vision = lock(&app.shared.loaded)
        .as_ref()
        .map(|l| l.vision)
        .unwrap_or(false);
    if !vision {
        return Err(ApiError::NoVisionModel);
    }
    app.engine.encode(image).await?;
    Ok(ok_reply())
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn data_urls() {
        assert_eq!(
            decode_data_url("data:image/png;base64,aGk=").unwrap(),
            b"hi"
        );
        assert_eq!(
            decode_data_url("https://x/y.png"),
            Err(ApiError::NotDataUrl)
        );
        assert_eq!(
            decode_data_url("data:image/png,hi"),
            Err(ApiError::NotBase64DataUrl)
        );
        assert_eq!(
            decode_data_url("data:image/png;base64,@@@"),
            Err(ApiError::InvalidBase64)
        );
        assert_eq!(
            decode_data_url("data:image/png;base64,"),
            Err(ApiError::EmptyImage)
        );
    }
}
