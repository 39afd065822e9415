//! The `messages` of a chat request: text, or parts with text and images.

use super::error::ApiError;
use super::image_cache::ImageCache;
use super::json::{Field, Object, Text, TextOr};
use super::App;
use crate::engine::{ChatMessage, EngineError};
use crate::state::{lock, Loaded};
use crate::template::MEDIA_MARKER;
use axum::body::Bytes;
use serde::Deserialize;

/// What a user may write instead of the media marker.
const DEFUSED_MARKER: &str = "<_media_>";

/// Messages as sent, their texts still in the request body; anything but an
/// object counts as a message without a role.
pub(super) type MessagesField<'a> = Field<Vec<Field<Object<MessageBody<'a>>>>>;

#[derive(Deserialize, Default)]
#[serde(default)]
pub(super) struct MessageBody<'a> {
    role: Field<String>,
    #[serde(borrow)]
    content: Field<Content<'a>>,
}

/// Message content: a text, or an array of parts.
type Content<'a> = TextOr<'a, Vec<Field<Object<PartBody<'a>>>>>;

#[derive(Deserialize, Default)]
#[serde(default)]
struct PartBody<'a> {
    #[serde(rename = "type")]
    kind: Field<String>,
    #[serde(borrow)]
    text: Field<Text<'a>>,
    #[serde(borrow)]
    image_url: Field<ImageUrl<'a>>,
}

/// `"image_url": "data:..."` or `"image_url": {"url": "data:..."}`.
type ImageUrl<'a> = TextOr<'a, Object<UrlBody<'a>>>;

#[derive(Deserialize, Default)]
#[serde(default)]
struct UrlBody<'a> {
    #[serde(borrow)]
    url: Field<Text<'a>>,
}

/// Reads a request body into its settings, checked first, and its
/// messages, which still borrow their texts from the body.
pub(super) type ReadBody<S> = for<'a> fn(&'a [u8]) -> Result<(S, MessagesField<'a>), ApiError>;

/// A request for the loaded model, read by `read` and its messages checked,
/// off the async threads: a conversation with images can be tens of
/// megabytes, read in place (its image URLs never copied) and its images
/// decoded unless the cache has them. 409 without a model, 400 for images
/// it cannot take.
pub(super) async fn for_loaded_model<S: Send + 'static>(
    app: &App,
    body: Bytes,
    read: ReadBody<S>,
) -> Result<(S, Vec<ChatMessage>, Loaded), ApiError> {
    let images = app.images.clone();
    let (settings, messages) = tokio::task::spawn_blocking(move || {
        let (settings, messages) = read(&body)?;
        Ok::<_, ApiError>((settings, conversation(messages, &images)?))
    })
    .await
    .map_err(|_| ApiError::Internal("parse failed"))??;
    let Some(loaded) = lock(&app.shared.loaded).clone() else {
        return Err(EngineError::NoModelLoaded.into());
    };
    if !loaded.vision && messages.iter().any(|m| !m.images.is_empty()) {
        return Err(EngineError::ImagesNotAccepted.into());
    }
    Ok((settings, messages, loaded))
}

/// Checks the messages in order and finds (or decodes) their images.
pub(super) fn conversation(
    messages: MessagesField<'_>,
    images: &ImageCache,
) -> Result<Vec<ChatMessage>, ApiError> {
    let list = messages.required(ApiError::MessagesNotArray)?;
    if list.is_empty() {
        return Err(ApiError::NoMessages);
    }
    list.into_iter()
        .map(|entry| message(entry, images))
        .collect()
}

fn message(
    entry: Field<Object<MessageBody<'_>>>,
    cache: &ImageCache,
) -> Result<ChatMessage, ApiError> {
    let Object(body) = entry.given().ok_or(ApiError::NoRole)?;
    let role = body.role.required(ApiError::NoRole)?;
    let mut content = String::new();
    let mut images = Vec::new();
    match body.content.optional(ApiError::BadContent)? {
        None => {}
        Some(TextOr::Text(text)) => content = text.into_owned(),
        Some(TextOr::Other(parts)) => {
            for part in parts {
                let Object(part) = part.given().ok_or(ApiError::UnknownPartType)?;
                match part.kind.given().as_deref() {
                    Some("text") => {
                        content.push_str(&part.text.required(ApiError::TextPartWithoutText)?.0)
                    }
                    Some("image_url") => {
                        let url = match part.image_url.given() {
                            Some(TextOr::Text(url)) => url,
                            Some(TextOr::Other(Object(body))) => {
                                body.url.required(ApiError::ImagePartWithoutUrl)?.0
                            }
                            None => return Err(ApiError::ImagePartWithoutUrl),
                        };
                        images.push(cache.image(&url)?);
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
    use std::borrow::Cow;

    fn read(messages: serde_json::Value) -> Result<Vec<ChatMessage>, ApiError> {
        conversation(
            MessagesField::deserialize(messages).unwrap(),
            &ImageCache::default(),
        )
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
        // The SHA-256 of "hi".
        assert_eq!(
            messages[1].images[0].hash,
            "8f434346648f6b96df89dda901c5176b10a6d83961dd3c1ac88b59b2dc327aa4"
        );
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

    #[test]
    fn image_urls_are_read_in_place_and_found_again() {
        let url = format!("data:image/png;base64,{}", "aGkh".repeat(1000));
        let body = json!({"messages": [
            {"role": "user", "content": [{"type": "image_url", "image_url": {"url": url}}]},
            {"role": "user", "content": [{"type": "image_url", "image_url": url}]}
        ]})
        .to_string();
        #[derive(Deserialize)]
        struct Body<'a> {
            #[serde(borrow)]
            messages: MessagesField<'a>,
        }
        let Body { messages } = super::super::json::parse(body.as_bytes()).unwrap();
        let Field::Given(list) = &messages else {
            panic!("no messages")
        };
        let in_body = body.as_bytes().as_ptr_range();
        let mut urls = 0;
        for entry in list {
            let Field::Given(Object(message)) = entry else {
                panic!("not a message")
            };
            let Field::Given(TextOr::Other(parts)) = &message.content else {
                panic!("no parts")
            };
            let Field::Given(Object(part)) = &parts[0] else {
                panic!("not a part")
            };
            let url = match &part.image_url {
                Field::Given(TextOr::Text(url)) => url,
                Field::Given(TextOr::Other(Object(UrlBody {
                    url: Field::Given(Text(url)),
                }))) => url,
                _ => panic!("no url"),
            };
            assert!(matches!(url, Cow::Borrowed(_)), "copied");
            assert!(in_body.contains(&url.as_ptr()));
            urls += 1;
        }
        assert_eq!(urls, 2);
        // Both carry one image; the second finds the first one's decoding.
        let cache = ImageCache::default();
        let messages = conversation(messages, &cache).unwrap();
        assert!(messages[0].images[0].same(&messages[1].images[0]));
        // So does the next request with it.
        let again: Body = super::super::json::parse(body.as_bytes()).unwrap();
        let again = conversation(again.messages, &cache).unwrap();
        assert!(again[0].images[0].same(&messages[0].images[0]));
    }
}
