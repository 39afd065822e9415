//! Reading request bodies: [`JsonBody`] takes a JSON object into a typed
//! body whose fields are [`Field`]s, read leniently and checked afterwards.
//!
//! Checking after reading gives each request one message however its keys
//! are ordered: the handler checks fields in a fixed order and names the
//! first wrong one.
//!
//! Bodies are first read into a [`Json`] tree whose strings borrow from the
//! body, so that a body that carries images (data URLs of tens of
//! megabytes) is read without copying them: [`JsonBytes`] and [`parse`]
//! give handlers bodies whose [`Text`] fields still point into the request.

use super::error::ApiError;
use super::guard::BODY_LIMIT;
use axum::body::Bytes;
use axum::extract::{FromRequest, Request};
use axum::http::header;
use bytes::BytesMut;
use futures_util::StreamExt;
use serde::de::value::{MapDeserializer, SeqDeserializer};
use serde::de::{DeserializeOwned, Error as _, IntoDeserializer, MapAccess, SeqAccess, Visitor};
use serde::{forward_to_deserialize_any, Deserialize, Deserializer};
use std::borrow::Cow;
use std::collections::BTreeMap;
use std::fmt;

/// Bytes set aside for a body before any of it arrives, at most.
const FIRST_RESERVE: usize = 1 << 20;

/// A request body as sent, before it is read. Every way of failing is an
/// [`ApiError`]: 413 past the body limit, 400 otherwise.
pub struct JsonBytes(pub Bytes);

impl<S: Send + Sync> FromRequest<S> for JsonBytes {
    type Rejection = ApiError;

    async fn from_request(request: Request, _state: &S) -> Result<Self, ApiError> {
        // Straight into one buffer, rather than gathered in pieces and then
        // copied whole: a body with images would be held twice. The buffer
        // grows with what arrives (a large one is moved by the allocator,
        // not copied), never ahead of it by more than the first megabyte.
        let declared = request
            .headers()
            .get(header::CONTENT_LENGTH)
            .and_then(|v| v.to_str().ok())
            .and_then(|v| v.trim().parse::<usize>().ok())
            .unwrap_or(0);
        let mut body = BytesMut::with_capacity(declared.min(FIRST_RESERVE));
        let mut pieces = request.into_body().into_data_stream();
        while let Some(piece) = pieces.next().await {
            let piece = piece.map_err(|_| ApiError::BodyUnreadable)?;
            if body.len() + piece.len() > BODY_LIMIT {
                return Err(ApiError::BodyTooLarge);
            }
            body.extend_from_slice(&piece);
        }
        Ok(JsonBytes(body.freeze()))
    }
}

/// A request body that must be a JSON object, read into `T`.
pub struct JsonBody<T>(pub T);

impl<T, S> FromRequest<S> for JsonBody<T>
where
    T: DeserializeOwned,
    S: Send + Sync,
{
    type Rejection = ApiError;

    async fn from_request(request: Request, state: &S) -> Result<Self, ApiError> {
        let JsonBytes(bytes) = JsonBytes::from_request(request, state).await?;
        parse(&bytes).map(JsonBody)
    }
}

/// Reads a body that must be a JSON object into `T`, which may borrow its
/// texts from `body`.
pub fn parse<'a, T: Deserialize<'a>>(body: &'a [u8]) -> Result<T, ApiError> {
    // Through a tree, as serde_json reads a Value: the last of a repeated
    // key counts, and numbers out of range are refused even in unknown keys.
    let value: Json<'a> =
        serde_json::from_slice(body).map_err(|e| ApiError::InvalidJson(e.to_string()))?;
    if !matches!(value, Json::Object(_)) {
        return Err(ApiError::NotAnObject);
    }
    T::deserialize(value).map_err(|e| ApiError::InvalidJson(e.to_string()))
}

/// A JSON value whose strings borrow from the text it was read from, where
/// they can: a string with escapes is unescaped into a buffer of its own.
#[derive(Debug, Clone, PartialEq)]
pub enum Json<'a> {
    Null,
    Bool(bool),
    Number(serde_json::Number),
    String(Cow<'a, str>),
    Array(Vec<Json<'a>>),
    Object(BTreeMap<Cow<'a, str>, Json<'a>>),
}

struct JsonVisitor;

impl<'de> Visitor<'de> for JsonVisitor {
    type Value = Json<'de>;

    fn expecting(&self, f: &mut fmt::Formatter) -> fmt::Result {
        f.write_str("any JSON value")
    }

    fn visit_bool<E>(self, value: bool) -> Result<Json<'de>, E> {
        Ok(Json::Bool(value))
    }

    fn visit_i64<E>(self, value: i64) -> Result<Json<'de>, E> {
        Ok(Json::Number(value.into()))
    }

    fn visit_u64<E>(self, value: u64) -> Result<Json<'de>, E> {
        Ok(Json::Number(value.into()))
    }

    fn visit_f64<E>(self, value: f64) -> Result<Json<'de>, E> {
        Ok(serde_json::Number::from_f64(value).map_or(Json::Null, Json::Number))
    }

    fn visit_borrowed_str<E>(self, value: &'de str) -> Result<Json<'de>, E> {
        Ok(Json::String(Cow::Borrowed(value)))
    }

    fn visit_str<E>(self, value: &str) -> Result<Json<'de>, E> {
        Ok(Json::String(Cow::Owned(value.to_string())))
    }

    fn visit_string<E>(self, value: String) -> Result<Json<'de>, E> {
        Ok(Json::String(Cow::Owned(value)))
    }

    fn visit_unit<E>(self) -> Result<Json<'de>, E> {
        Ok(Json::Null)
    }

    fn visit_none<E>(self) -> Result<Json<'de>, E> {
        Ok(Json::Null)
    }

    fn visit_some<D: Deserializer<'de>>(self, deserializer: D) -> Result<Json<'de>, D::Error> {
        Json::deserialize(deserializer)
    }

    fn visit_seq<A: SeqAccess<'de>>(self, mut seq: A) -> Result<Json<'de>, A::Error> {
        let mut items = Vec::new();
        while let Some(item) = seq.next_element()? {
            items.push(item);
        }
        Ok(Json::Array(items))
    }

    fn visit_map<A: MapAccess<'de>>(self, mut map: A) -> Result<Json<'de>, A::Error> {
        let mut object = BTreeMap::new();
        while let Some(Text(key)) = map.next_key()? {
            object.insert(key, map.next_value()?);
        }
        Ok(Json::Object(object))
    }
}

impl<'de> Deserialize<'de> for Json<'de> {
    fn deserialize<D: Deserializer<'de>>(deserializer: D) -> Result<Self, D::Error> {
        deserializer.deserialize_any(JsonVisitor)
    }
}

/// Typed bodies are read from the tree; borrowed strings stay borrowed.
impl<'de> Deserializer<'de> for Json<'de> {
    type Error = serde_json::Error;

    fn deserialize_any<V: Visitor<'de>>(self, visitor: V) -> Result<V::Value, Self::Error> {
        match self {
            Json::Null => visitor.visit_unit(),
            Json::Bool(value) => visitor.visit_bool(value),
            Json::Number(number) => number.deserialize_any(visitor),
            Json::String(Cow::Borrowed(text)) => visitor.visit_borrowed_str(text),
            Json::String(Cow::Owned(text)) => visitor.visit_string(text),
            Json::Array(items) => {
                let mut seq = SeqDeserializer::new(items.into_iter());
                let value = visitor.visit_seq(&mut seq)?;
                seq.end()?;
                Ok(value)
            }
            Json::Object(object) => {
                let entries = object.into_iter().map(|(k, v)| (Json::String(k), v));
                let mut map = MapDeserializer::new(entries);
                let value = visitor.visit_map(&mut map)?;
                map.end()?;
                Ok(value)
            }
        }
    }

    fn deserialize_option<V: Visitor<'de>>(self, visitor: V) -> Result<V::Value, Self::Error> {
        match self {
            Json::Null => visitor.visit_none(),
            value => visitor.visit_some(value),
        }
    }

    fn deserialize_newtype_struct<V: Visitor<'de>>(
        self,
        _name: &'static str,
        visitor: V,
    ) -> Result<V::Value, Self::Error> {
        visitor.visit_newtype_struct(self)
    }

    forward_to_deserialize_any! {
        bool i8 i16 i32 i64 i128 u8 u16 u32 u64 u128 f32 f64 char str string
        bytes byte_buf unit unit_struct seq tuple tuple_struct map struct enum
        identifier ignored_any
    }
}

impl<'de> IntoDeserializer<'de, serde_json::Error> for Json<'de> {
    type Deserializer = Json<'de>;

    fn into_deserializer(self) -> Json<'de> {
        self
    }
}

/// A JSON string, borrowed from the body when it has no escapes.
#[derive(Debug, Clone, PartialEq, Default)]
pub struct Text<'a>(pub Cow<'a, str>);

impl<'de: 'a, 'a> Deserialize<'de> for Text<'a> {
    fn deserialize<D: Deserializer<'de>>(deserializer: D) -> Result<Self, D::Error> {
        match Json::deserialize(deserializer)? {
            Json::String(text) => Ok(Text(text)),
            _ => Err(D::Error::custom("expected a string")),
        }
    }
}

/// One field of a request body, as sent.
#[derive(Debug, Default, Clone, PartialEq)]
pub enum Field<T> {
    #[default]
    Absent,
    Null,
    Given(T),
    /// Present, but not of the expected JSON type.
    Wrong,
}

impl<'de, T: Deserialize<'de>> Deserialize<'de> for Field<T> {
    fn deserialize<D: Deserializer<'de>>(deserializer: D) -> Result<Self, D::Error> {
        Ok(match Json::deserialize(deserializer)? {
            Json::Null => Field::Null,
            value => T::deserialize(value).map_or(Field::Wrong, Field::Given),
        })
    }
}

impl<T> Field<T> {
    /// The value; `error` when it is absent, null or of another type.
    pub fn required(self, error: ApiError) -> Result<T, ApiError> {
        match self {
            Field::Given(value) => Ok(value),
            _ => Err(error),
        }
    }

    /// The value, None when absent or null; `error` when of another type.
    pub fn optional(self, error: ApiError) -> Result<Option<T>, ApiError> {
        match self {
            Field::Given(value) => Ok(Some(value)),
            Field::Absent | Field::Null => Ok(None),
            Field::Wrong => Err(error),
        }
    }

    /// The value, or `default` when absent or null; `error` when of another type.
    pub fn or(self, default: T, error: ApiError) -> Result<T, ApiError> {
        Ok(self.optional(error)?.unwrap_or(default))
    }

    /// The value when given as expected, otherwise None.
    pub fn given(self) -> Option<T> {
        match self {
            Field::Given(value) => Some(value),
            _ => None,
        }
    }
}

/// A JSON object read into `T`. Derived structs would also accept an array,
/// taking its items as fields in order; this does not.
#[derive(Debug, Clone, PartialEq)]
pub struct Object<T>(pub T);

impl<'de, T: Deserialize<'de>> Deserialize<'de> for Object<T> {
    fn deserialize<D: Deserializer<'de>>(deserializer: D) -> Result<Self, D::Error> {
        match Json::deserialize(deserializer)? {
            object @ Json::Object(_) => {
                T::deserialize(object).map(Object).map_err(D::Error::custom)
            }
            _ => Err(D::Error::custom("expected an object")),
        }
    }
}

/// A value sent either as a plain text or in a fuller form `T`.
#[derive(Debug, Clone, PartialEq)]
pub enum TextOr<'a, T> {
    Text(Cow<'a, str>),
    Other(T),
}

// By hand rather than untagged, which would copy every text (image data URLs
// included) while trying the variants.
impl<'de: 'a, 'a, T: Deserialize<'de>> Deserialize<'de> for TextOr<'a, T> {
    fn deserialize<D: Deserializer<'de>>(deserializer: D) -> Result<Self, D::Error> {
        match Json::deserialize(deserializer)? {
            Json::String(text) => Ok(TextOr::Text(text)),
            other => T::deserialize(other)
                .map(TextOr::Other)
                .map_err(D::Error::custom),
        }
    }
}

#[cfg(test)]
mod tests {
    use super::*;
    use serde_json::{json, Value};

    #[derive(Deserialize, Default, Debug, PartialEq)]
    #[serde(default)]
    struct Body {
        name: Field<String>,
        count: Field<u64>,
        inner: Field<Object<Inner>>,
    }

    #[derive(Deserialize, Default, Debug, PartialEq)]
    #[serde(default)]
    struct Inner {
        flag: Field<bool>,
    }

    fn read(value: Value) -> Body {
        Body::deserialize(value).unwrap()
    }

    #[test]
    fn fields_as_sent() {
        let body = read(json!({"name": "a", "count": null, "other": 1}));
        assert_eq!(body.name, Field::Given("a".to_string()));
        assert_eq!(body.count, Field::Null);
        assert_eq!(body.inner, Field::Absent);
        let body = read(json!({"name": 5, "count": -1, "inner": {"flag": "x"}}));
        assert_eq!(body.name, Field::Wrong);
        assert_eq!(body.count, Field::Wrong);
        assert_eq!(
            body.inner,
            Field::Given(Object(Inner { flag: Field::Wrong }))
        );
        assert_eq!(read(json!({"count": 1.5})).count, Field::Wrong);
        assert_eq!(read(json!({"count": 7})).count, Field::Given(7));
    }

    #[test]
    fn objects_are_not_read_from_arrays() {
        assert_eq!(read(json!({"inner": [true]})).inner, Field::Wrong);
        assert_eq!(read(json!({"inner": "x"})).inner, Field::Wrong);
    }

    #[test]
    fn texts_or_fuller_forms() {
        let read = |value: Value| Field::<TextOr<Vec<String>>>::deserialize(value).unwrap();
        assert_eq!(read(json!("a")), Field::Given(TextOr::Text("a".into())));
        assert_eq!(
            read(json!(["a", "b"])),
            Field::Given(TextOr::Other(vec!["a".into(), "b".into()]))
        );
        assert_eq!(read(json!(["a", 1])), Field::Wrong);
        assert_eq!(read(json!(5)), Field::Wrong);
    }

    #[derive(Deserialize, Default, Debug)]
    #[serde(default)]
    struct Borrowing<'a> {
        #[serde(borrow)]
        url: Field<Text<'a>>,
        #[serde(borrow)]
        parts: Field<Vec<Field<Object<Borrowing<'a>>>>>,
        #[serde(borrow)]
        either: Field<TextOr<'a, Object<Inner>>>,
    }

    /// Whether `text` lies inside `body`: borrowed, not copied.
    fn inside(text: &str, body: &[u8]) -> bool {
        let range = body.as_ptr_range();
        range.contains(&text.as_ptr()) && text.len() <= body.len()
    }

    #[test]
    fn long_texts_are_read_in_place() {
        let url = format!("data:image/png;base64,{}", "QUJD".repeat(100_000));
        let body = json!({"url": url, "parts": [{"url": url}], "either": url, "n": 1}).to_string();
        let read: Borrowing = parse(body.as_bytes()).unwrap();
        let Field::Given(Text(Cow::Borrowed(top))) = read.url else {
            panic!("copied: {:?}", read.url)
        };
        assert_eq!(top, url);
        assert!(inside(top, body.as_bytes()));
        let Field::Given(mut parts) = read.parts else {
            panic!("no parts")
        };
        let Some(Field::Given(Object(part))) = parts.pop() else {
            panic!("no part")
        };
        assert!(
            matches!(&part.url, Field::Given(Text(Cow::Borrowed(t))) if inside(t, body.as_bytes()))
        );
        assert!(
            matches!(&read.either, Field::Given(TextOr::Text(Cow::Borrowed(t))) if inside(t, body.as_bytes()))
        );
    }

    #[test]
    fn texts_with_escapes_are_unescaped_into_their_own() {
        let body = br#"{"url": "a\/b\u00e9", "either": {"flag": true}}"#;
        let read: Borrowing = parse(body).unwrap();
        assert_eq!(read.url, Field::Given(Text(Cow::Owned("a/b\u{e9}".into()))));
        assert_eq!(
            read.either,
            Field::Given(TextOr::Other(Object(Inner {
                flag: Field::Given(true)
            })))
        );
    }

    #[test]
    fn bodies_read_as_serde_json_reads_them() {
        // The last of a repeated key counts.
        let read: Body = parse(br#"{"name": "a", "count": 1, "name": "b"}"#).unwrap();
        assert_eq!(read.name, Field::Given("b".to_string()));
        assert_eq!(read.count, Field::Given(1));
        // Out-of-range numbers are refused anywhere, unknown keys included.
        assert!(matches!(
            parse::<Body>(br#"{"other": 1e999}"#),
            Err(ApiError::InvalidJson(_))
        ));
        assert_eq!(parse::<Body>(b"[1]").err(), Some(ApiError::NotAnObject));
        assert!(matches!(parse::<Body>(b"{"), Err(ApiError::InvalidJson(_))));
        let deep = format!("{{\"x\": {}{}}}", "[".repeat(200), "]".repeat(200));
        assert!(matches!(
            parse::<Body>(deep.as_bytes()),
            Err(ApiError::InvalidJson(_))
        ));
    }

    #[test]
    fn checks() {
        let error = ApiError::NoRole;
        assert_eq!(Field::Given(1).required(error.clone()), Ok(1));
        for field in [Field::<i32>::Absent, Field::Null, Field::Wrong] {
            assert_eq!(field.required(error.clone()), Err(error.clone()));
        }
        assert_eq!(Field::<i32>::Null.or(3, error.clone()), Ok(3));
        assert_eq!(Field::<i32>::Absent.optional(error.clone()), Ok(None));
        assert_eq!(Field::<i32>::Wrong.or(3, error.clone()), Err(error));
        assert_eq!(Field::<i32>::Wrong.given(), None);
    }
}
