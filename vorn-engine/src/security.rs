//! Request checks against other local programs and web pages reaching the port.

/// Only our own loopback address is accepted as Host, which defeats DNS rebinding.
pub fn host_allowed(host: Option<&str>, port: u16) -> bool {
    match host {
        Some(host) => {
            let host = host.trim();
            host == format!("127.0.0.1:{port}")
                || host.eq_ignore_ascii_case(&format!("localhost:{port}"))
        }
        None => false,
    }
}

/// Requests without Origin come from programs; with one, it must be our own origin.
pub fn origin_allowed(origin: Option<&str>, port: u16) -> bool {
    match origin {
        None => true,
        Some(origin) => {
            let origin = origin.trim();
            origin == format!("http://127.0.0.1:{port}")
                || origin.eq_ignore_ascii_case(&format!("http://localhost:{port}"))
        }
    }
}

/// `application/json`, optionally with parameters such as a charset.
pub fn is_json_content_type(value: Option<&str>) -> bool {
    match value {
        Some(value) => value
            .split(';')
            .next()
            .map(|media_type| media_type.trim().eq_ignore_ascii_case("application/json"))
            .unwrap_or(false),
        None => false,
    }
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn hosts() {
        assert!(host_allowed(Some("127.0.0.1:4000"), 4000));
        assert!(host_allowed(Some("localhost:4000"), 4000));
        assert!(host_allowed(Some("LOCALHOST:4000"), 4000));
        for bad in [
            "",
            "127.0.0.1",
            "localhost",
            "127.0.0.1:4001",
            "evil.com:4000",
            "localhost.evil.com:4000",
            "127.0.0.1:4000.evil.com",
            "[::1]:4000",
            "0.0.0.0:4000",
        ] {
            assert!(!host_allowed(Some(bad), 4000), "{bad:?} accepted");
        }
        assert!(!host_allowed(None, 4000));
    }

    #[test]
    fn origins() {
        assert!(origin_allowed(None, 4000));
        assert!(origin_allowed(Some("http://127.0.0.1:4000"), 4000));
        assert!(origin_allowed(Some("http://localhost:4000"), 4000));
        for bad in [
            "null",
            "",
            "https://evil.com",
            "http://127.0.0.1:4001",
            "http://localhost:4000.evil.com",
            "http://evil.com:4000",
        ] {
            assert!(!origin_allowed(Some(bad), 4000), "{bad:?} accepted");
        }
    }

    #[test]
    fn content_types() {
        assert!(is_json_content_type(Some("application/json")));
        assert!(is_json_content_type(Some(
            "Application/JSON; charset=utf-8"
        )));
        assert!(!is_json_content_type(Some("text/plain")));
        assert!(!is_json_content_type(Some("application/jsonx")));
        assert!(!is_json_content_type(Some("multipart/form-data")));
        assert!(!is_json_content_type(None));
    }
}
