//! What the hub says about a file, and which addresses count as the hub.

use reqwest::header::{HeaderMap, ETAG};
use reqwest::Url;

pub const HUB: &str = "https://huggingface.co";

/// Hub facts announced before the data arrives.
#[derive(Default, Debug, Clone, PartialEq)]
pub struct Announced {
    pub size: Option<u64>,
    pub sha256: Option<String>,
}

fn header<'a>(headers: &'a HeaderMap, name: &str) -> Option<&'a str> {
    headers.get(name).and_then(|v| v.to_str().ok())
}

/// An ETag that is a bare SHA-256 (as the hub gives for large files).
pub fn sha_from_etag(etag: &str) -> Option<String> {
    let tag = etag
        .trim()
        .trim_start_matches("W/")
        .trim_matches('"')
        .to_ascii_lowercase();
    (tag.len() == 64 && tag.bytes().all(|b| b.is_ascii_hexdigit())).then_some(tag)
}

pub fn announced(headers: &HeaderMap) -> Announced {
    Announced {
        size: header(headers, "x-linked-size").and_then(|v| v.trim().parse().ok()),
        sha256: header(headers, "x-linked-etag")
            .and_then(sha_from_etag)
            .or_else(|| header(headers, ETAG.as_str()).and_then(sha_from_etag)),
    }
}

/// Start and total size from a `Content-Range: bytes a-b/total` header.
pub fn content_range(value: &str) -> Option<(u64, u64)> {
    let rest = value.trim().strip_prefix("bytes ")?;
    let (range, total) = rest.split_once('/')?;
    let (start, _) = range.split_once('-')?;
    Some((start.trim().parse().ok()?, total.trim().parse().ok()?))
}

pub fn same_origin(a: &Url, b: &Url) -> bool {
    a.scheme() == b.scheme()
        && a.host_str() == b.host_str()
        && a.port_or_known_default() == b.port_or_known_default()
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn etags() {
        let sha = "a".repeat(64);
        assert_eq!(sha_from_etag(&format!("\"{sha}\"")), Some(sha.clone()));
        assert_eq!(
            sha_from_etag(&format!("W/\"{}\"", sha.to_uppercase())),
            Some(sha.clone())
        );
        assert_eq!(sha_from_etag("\"abc\""), None);
        assert_eq!(sha_from_etag(&"g".repeat(64)), None);
    }

    #[test]
    fn ranges() {
        assert_eq!(content_range("bytes 100-199/200"), Some((100, 200)));
        assert_eq!(content_range("bytes */200"), None);
        assert_eq!(content_range("items 1-2/3"), None);
    }
}
