//! Reading request bodies: [`JsonBody`] takes a JSON object into a typed
//! body whose fields are [`Field`]s, read leniently and checked afterwards.
//!
//! Checking after reading gives each request one message however its keys
//! are ordered: the handler checks fields in a fixed order and names the
//! first wrong one.

use super::error::ApiError;
use axum::body::Bytes;
use axum::extract::rejection::{BytesRejection, FailedToBufferBody};
use axum::extract::{FromRequest, Request};
use serde::de::{DeserializeOwned, Error as _};
use serde::{Deserialize, Deserializer};
use serde_json::{Map, Value};

/// A request body that must be a JSON object, read into `T`. Every way of
/// failing is an [`ApiError`]: 413 past the body limit, 400 otherwise.
pub struct JsonBody<T>(pub T);

impl<T, S> FromRequest<S> for JsonBody<T>
where
    T: DeserializeOwned,
    S: Send + Sync,
{
    type Rejection = ApiError;

    async fn from_request(request: Request, state: &S) -> Result<Self, ApiError> {
        let bytes =
            Bytes::from_request(request, state)
                .await
                .map_err(|rejection| match rejection {
                    BytesRejection::FailedToBufferBody(FailedToBufferBody::LengthLimitError(_)) => {
                        ApiError::BodyTooLarge
                    }
                    _ => ApiError::BodyUnreadable,
                })?;
        // Through a Value, as serde_json reads it: the last of a repeated key
        // counts, and numbers out of range are refused even in unknown keys.
        let value: Value =
            serde_json::from_slice(&bytes).map_err(|e| ApiError::InvalidJson(e.to_string()))?;
        if !value.is_object() {
            return Err(ApiError::NotAnObject);
        }
        T::deserialize(value)
            .map(JsonBody)
            .map_err(|e| ApiError::InvalidJson(e.to_string()))
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

impl<'de, T: DeserializeOwned> Deserialize<'de> for Field<T> {
    fn deserialize<D: Deserializer<'de>>(deserializer: D) -> Result<Self, D::Error> {
        Ok(match Value::deserialize(deserializer)? {
            Value::Null => Field::Null,
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

impl<'de, T: DeserializeOwned> Deserialize<'de> for Object<T> {
    fn deserialize<D: Deserializer<'de>>(deserializer: D) -> Result<Self, D::Error> {
        let map = Map::<String, Value>::deserialize(deserializer)?;
        T::deserialize(Value::Object(map))
            .map(Object)
            .map_err(D::Error::custom)
    }
}

/// A value sent either as a plain text or in a fuller form `T`.
#[derive(Debug, Clone, PartialEq)]
pub enum TextOr<T> {
    Text(String),
    Other(T),
}

// By hand rather than untagged, which would copy every text (image data URLs
// included) while trying the variants.
impl<'de, T: DeserializeOwned> Deserialize<'de> for TextOr<T> {
    fn deserialize<D: Deserializer<'de>>(deserializer: D) -> Result<Self, D::Error> {
        match Value::deserialize(deserializer)? {
            Value::String(text) => Ok(TextOr::Text(text)),
            other => T::deserialize(other)
                .map(TextOr::Other)
                .map_err(D::Error::custom),
        }
    }
}

#[cfg(test)]
mod tests {
    use super::*;
    use serde_json::json;

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
