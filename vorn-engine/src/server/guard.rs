//! Refuses requests from anything but the app before any handler runs.

use super::error::ApiError;
use super::App;
use crate::security;
use axum::extract::{Request, State};
use axum::http::{header, HeaderMap, HeaderName, Method};
use axum::middleware::Next;
use axum::response::{IntoResponse, Response};

/// Large enough for a conversation carrying several 30 MB images.
pub const BODY_LIMIT: usize = 256 * 1024 * 1024;

const APP_HEADER: HeaderName = HeaderName::from_static("x-vorn-app");

/// A header's one value. Duplicated security headers are ambiguous, and a
/// value that is not text cannot match, so both read as a NUL.
fn single_header<'a>(headers: &'a HeaderMap, name: &HeaderName) -> Option<&'a str> {
    let mut all = headers.get_all(name).iter();
    let first = all.next()?;
    if all.next().is_some() {
        return Some("\u{0}");
    }
    Some(first.to_str().unwrap_or("\u{0}"))
}

fn check(request: &Request, port: u16) -> Result<(), ApiError> {
    let headers = request.headers();
    let host = single_header(headers, &header::HOST)
        .or_else(|| request.uri().authority().map(|a| a.as_str()));
    if !security::host_allowed(host, port) {
        return Err(ApiError::HostRefused);
    }
    if !security::origin_allowed(single_header(headers, &header::ORIGIN), port) {
        return Err(ApiError::CrossSite);
    }
    if request.uri().path().starts_with("/api/")
        && single_header(headers, &APP_HEADER).map(str::trim) != Some("1")
    {
        return Err(ApiError::MissingAppHeader);
    }
    if request.method() == Method::POST {
        if !security::is_json_content_type(single_header(headers, &header::CONTENT_TYPE)) {
            return Err(ApiError::NotJson);
        }
        let declared = single_header(headers, &header::CONTENT_LENGTH)
            .and_then(|v| v.trim().parse::<u64>().ok());
        if declared.is_some_and(|n| n > BODY_LIMIT as u64) {
            return Err(ApiError::BodyTooLarge);
        }
    }
    Ok(())
}

pub(super) async fn guard(State(app): State<App>, request: Request, next: Next) -> Response {
    if let Err(refused) = check(&request, app.shared.port) {
        return refused.into_response();
    }
    let mut response = next.run(request).await;
    response
        .headers_mut()
        .remove(header::ACCESS_CONTROL_ALLOW_ORIGIN);
    response
}
