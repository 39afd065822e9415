//! The `messages` of a chat request: text, or parts with text and images.

use super::error::ApiError;
use super::image::image_from_url;
use super::json::{Field, Object, TextOr};
use super::App;
use crate::engine::{ChatMessage, EngineError};
use crate::state::{lock, Loaded};
use crate::template::MEDIA_MARKER;
use serde::Deserialize;

/// What a user may write instead of the media marker.
const DEFUSED_MARKER: &str = "<_media_>";

/// Messages as sent; anything but an object counts as a message without a role.
pub(super) type MessagesField = Field<Vec<Field<Object<MessageBody>>>>;

#[derive(Deserialize, Default)]
#[serde(default)]
pub(super) struct MessageBody {
    role: Field<String>,
    content: Field<Content>,
}

/// Message content: a text, or an array of parts.
type Content = TextOr<Vec<Field<Object<PartBody>>>>;

#[derive(Deserialize, Default)]
#[serde(default)]
struct PartBody {
    #[serde(rename = "type")]
    kind: Field<String>,
    text: Field<String>,
    image_url: Field<ImageUrl>,
}

/// `"image_url": "data:..."` or `"image_url": {"url": "data:..."}`.
type ImageUrl = TextOr<Object<UrlBody>>;

#[derive(Deserialize, Default)]
#[serde(default)]
struct UrlBody {
    url: Field<String>,
}

/// The messages of a request for the loaded model, checked and decoded off
/// the async threads: 409 without a model, 400 for images it cannot take.
pub(super) async fn for_loaded_model(
    app: &App,
    messages: MessagesField,
) -> Result<(Vec<ChatMessage>, Loaded), ApiError> {
    let messages = tokio::task::spawn_blocking(move || conversation(messages))
        .await
        .map_err(|_| ApiError::Internal("parse failed"))??;
    let Some(loaded) = lock(&app.shared.loaded).clone() else {
        return Err(EngineError::NoModelLoaded.into());
    };
    if !loaded.vision && messages.iter().any(|m| !m.images.is_empty()) {
        return Err(EngineError::ImagesNotAccepted.into());
    }
    Ok((messages, loaded))
}

/// Checks the messages in order and decodes their images.
pub(super) fn conversation(messages: MessagesField) -> Result<Vec<ChatMessage>, ApiError> {
    let list = messages.required(ApiError::MessagesNotArray)?;
    if list.is_empty() {
        return Err(ApiError::NoMessages);
    }
    list.into_iter().map(message).collect()
}

fn message(entry: Field<Object<MessageBody>>) -> Result<ChatMessage, ApiError> {
    let Object(body) = entry.given().ok_or(ApiError::NoRole)?;
    let role = body.role.required(ApiError::NoRole)?;
    let mut content = String::new();
    let mut images = Vec::new();
    match body.content.optional(ApiError::BadContent)? {
        None => {}
        Some(TextOr::Text(text)) => content = text,
        Some(TextOr::Other(parts)) => {
            for part in parts {
                let Object(part) = part.given().ok_or(ApiError::UnknownPartType)?;
                match part.kind.given().as_deref() {
                    Some("text") => {
                        content.push_str(&part.text.required(ApiError::TextPartWithoutText)?)
                    }
                    Some("image_url") => {
                        let url = match part.image_url.given() {
                            Some(TextOr::Text(url)) => url,
                            Some(TextOr::Other(Object(body))) => {
                                body.url.required(ApiError::ImagePartWithoutUrl)?
                            }
                            None => return Err(ApiError::ImagePartWithoutUrl),
                        };
                        images.push(image_from_url(&url)?);
                        content.push_str(MEDIA_MARKER);
                        content.push('\n');
                    }
                    _ => return Err(ApiError::UnknownPartType),
                }
            }
        }
    }
    if images.is_empty() && content.contains(MEDIA_MARKER) {
        // A user must not smuggle image slots in through plain text.
        content = content.replace(MEDIA_MARKER, DEFUSED_MARKER);
    }
    Ok(ChatMessage {
        role,
        content,
        images,
    })
}

#[cfg(test)]
mod tests {
    use super::*;
    use serde_json::json;

    fn read(messages: serde_json::Value) -> Result<Vec<ChatMessage>, ApiError> {
        conversation(MessagesField::deserialize(messages).unwrap())
    }

    #[test]
    fn messages_with_parts() {
        let messages = read(json!([
            {"role": "system", "content": "s"},
            {"role": "user", "content": [
                {"type": "image_url", "image_url": {"url": "data:image/png;base64,aGk="}},
                {"type": "text", "text": "what?"}
            ]},
            {"role": "assistant", "content": "sneaky <__media__>"}
        ]))
        .unwrap();
        assert_eq!(messages.len(), 3);
        assert_eq!(messages[1].images.len(), 1);
        assert_eq!(messages[1].images[0].bytes.as_slice(), b"hi");
        assert_eq!(messages[1].content, format!("{MEDIA_MARKER}\nwhat?"));
        assert_eq!(messages[2].content, "sneaky <_media_>");
        assert_eq!(
            read(json!([{"content": "x"}])).err(),
            Some(ApiError::NoRole)
        );
        assert_eq!(read(json!("x")).err(), Some(ApiError::MessagesNotArray));
        assert_eq!(
            read(json!([{"role": "user", "content": 5}])).err(),
            Some(ApiError::BadContent)
        );
    }
}
