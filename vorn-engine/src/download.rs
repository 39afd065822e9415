//! Model downloads from the Hugging Face hub into the models folder.
//!
//! Data goes to `<name>.part` and is renamed into place only after the size
//! (and the SHA-256, when the hub announces one) checks out, so an
//! interrupted or failed download never leaves a file under its final name.

use crate::names;
use crate::state::{lock, Download, Shared};
use reqwest::header::{
    HeaderMap, AUTHORIZATION, CONTENT_LENGTH, CONTENT_RANGE, ETAG, LOCATION, RANGE,
};
use reqwest::{StatusCode, Url};
use sha2::{Digest, Sha256};
use std::path::{Path, PathBuf};
use std::sync::atomic::{AtomicBool, Ordering};
use std::sync::Arc;
use std::time::Duration;
use tokio::io::{AsyncReadExt, AsyncWriteExt};

const HUB: &str = "https://huggingface.co";
const MAX_REDIRECTS: usize = 10;

/// Why a download was not started.
#[derive(Debug, Clone, PartialEq, Eq)]
pub enum DownloadError {
    BadName,
    InvalidLink,
    NotHubLink,
    ShuttingDown,
    /// A file (or link, or folder) of that name is in the models folder.
    InFolder(String),
    AlreadyDownloading(String),
}

impl std::fmt::Display for DownloadError {
    fn fmt(&self, f: &mut std::fmt::Formatter<'_>) -> std::fmt::Result {
        match self {
            DownloadError::BadName => {
                f.write_str("The name must be a plain file name ending in .gguf.")
            }
            DownloadError::InvalidLink => f.write_str("The download link is not a valid URL."),
            DownloadError::NotHubLink => {
                f.write_str("Only https links to the Hugging Face hub can be downloaded.")
            }
            DownloadError::ShuttingDown => f.write_str("The engine is shutting down."),
            DownloadError::InFolder(name) => {
                write!(f, "A model named {name} is already in the folder.")
            }
            DownloadError::AlreadyDownloading(name) => write!(f, "{name} is already downloading."),
        }
    }
}

impl std::error::Error for DownloadError {}

#[derive(Clone)]
pub struct Downloader {
    shared: Arc<Shared>,
    client: reqwest::Client,
    /// The hub's base address (HF_ENDPOINT replaces it).
    hub: Url,
    token: Option<String>,
    tasks: Arc<tokio::sync::Mutex<Vec<tokio::task::JoinHandle<()>>>>,
}

/// Hub facts announced before the data arrives.
#[derive(Default, Debug, Clone, PartialEq)]
pub struct Announced {
    pub size: Option<u64>,
    pub sha256: Option<String>,
}

fn header<'a>(h: &'a HeaderMap, name: &str) -> Option<&'a str> {
    h.get(name).and_then(|v| v.to_str().ok())
}

/// An ETag that is a bare SHA-256 (as the hub gives for large files).
pub fn sha_from_etag(etag: &str) -> Option<String> {
    let t = etag
        .trim()
        .trim_start_matches("W/")
        .trim_matches('"')
        .to_ascii_lowercase();
    (t.len() == 64 && t.bytes().all(|b| b.is_ascii_hexdigit())).then_some(t)
}

pub fn announced(h: &HeaderMap) -> Announced {
    Announced {
        size: header(h, "x-linked-size").and_then(|v| v.trim().parse().ok()),
        sha256: header(h, "x-linked-etag")
            .and_then(sha_from_etag)
            .or_else(|| header(h, ETAG.as_str()).and_then(sha_from_etag)),
    }
}

/// Total size from a `Content-Range: bytes a-b/total` header.
pub fn content_range(v: &str) -> Option<(u64, u64)> {
    let rest = v.trim().strip_prefix("bytes ")?;
    let (range, total) = rest.split_once('/')?;
    let (start, _) = range.split_once('-')?;
    Some((start.trim().parse().ok()?, total.trim().parse().ok()?))
}

fn same_origin(a: &Url, b: &Url) -> bool {
    a.scheme() == b.scheme()
        && a.host_str() == b.host_str()
        && a.port_or_known_default() == b.port_or_known_default()
}

impl Downloader {
    pub fn new(shared: Arc<Shared>) -> Self {
        let hub = std::env::var("HF_ENDPOINT")
            .ok()
            .filter(|s| !s.trim().is_empty())
            .and_then(|s| Url::parse(s.trim().trim_end_matches('/')).ok())
            .filter(|u| matches!(u.scheme(), "http" | "https") && u.host_str().is_some())
            .unwrap_or_else(|| Url::parse(HUB).expect("hub address"));
        let token = std::env::var("HF_TOKEN")
            .ok()
            .filter(|t| !t.trim().is_empty());
        let client = reqwest::Client::builder()
            .redirect(reqwest::redirect::Policy::none())
            .connect_timeout(Duration::from_secs(30))
            .read_timeout(Duration::from_secs(60))
            .user_agent(concat!("vorn-engine/", env!("CARGO_PKG_VERSION")))
            .build()
            .expect("http client");
        Self {
            shared,
            client,
            hub,
            token,
            tasks: Default::default(),
        }
    }

    /// Checks a link and maps it onto the configured hub address.
    pub fn resolve(&self, link: &str) -> Result<Url, DownloadError> {
        let url = Url::parse(link).map_err(|_| DownloadError::InvalidLink)?;
        let official = Url::parse(HUB).expect("hub address");
        if same_origin(&url, &self.hub) {
            return Ok(url);
        }
        if url.scheme() == "https"
            && url.host_str() == Some("huggingface.co")
            && url.port().is_none()
        {
            if same_origin(&self.hub, &official) {
                return Ok(url);
            }
            // A mirror: same path and query under the mirror's base.
            let base = self.hub.as_str().trim_end_matches('/');
            let mut mapped = format!("{base}{}", url.path());
            if let Some(q) = url.query() {
                mapped.push('?');
                mapped.push_str(q);
            }
            return Url::parse(&mapped).map_err(|_| DownloadError::InvalidLink);
        }
        Err(DownloadError::NotHubLink)
    }

    pub fn start(&self, name: &str, link: &str) -> Result<(), DownloadError> {
        if !names::is_download_name(name) {
            return Err(DownloadError::BadName);
        }
        let url = self.resolve(link)?;
        if self.shared.shutting_down.load(Ordering::Relaxed) {
            return Err(DownloadError::ShuttingDown);
        }
        let target = self.shared.dir.join(name);
        if std::fs::symlink_metadata(&target).is_ok() {
            return Err(DownloadError::InFolder(name.to_string()));
        }
        let cancel = Arc::new(AtomicBool::new(false));
        {
            let mut downloads = lock(&self.shared.downloads);
            if downloads.contains_key(name) {
                return Err(DownloadError::AlreadyDownloading(name.to_string()));
            }
            let part = part_path(&self.shared.dir, name);
            let bytes = std::fs::metadata(&part)
                .map(|m| m.len() as i64)
                .unwrap_or(0);
            downloads.insert(
                name.to_string(),
                Download {
                    bytes,
                    total: 0,
                    cancel: cancel.clone(),
                },
            );
        }
        let this = self.clone();
        let name = name.to_string();
        let handle = tokio::spawn(async move {
            let result = this.run(&name, url, &cancel).await;
            if let Err(e) = &result {
                eprintln!("vorn-engine: download of {name} failed: {e}");
            }
            lock(&this.shared.downloads).remove(&name);
        });
        let tasks = self.tasks.clone();
        tokio::spawn(async move {
            let mut t = tasks.lock().await;
            t.retain(|h| !h.is_finished());
            t.push(handle);
        });
        Ok(())
    }

    /// Stops every download, keeping the partial files, and waits for them.
    pub async fn stop_all(&self) {
        for d in lock(&self.shared.downloads).values() {
            d.cancel.store(true, Ordering::Relaxed);
        }
        let handles: Vec<_> = std::mem::take(&mut *self.tasks.lock().await);
        for h in handles {
            let _ = tokio::time::timeout(Duration::from_secs(3), h).await;
        }
    }

    fn set_progress(&self, name: &str, bytes: u64, total: u64) {
        if let Some(d) = lock(&self.shared.downloads).get_mut(name) {
            d.bytes = bytes as i64;
            d.total = total as i64;
        }
    }

    /// The bearer token goes to the hub itself, never to a redirect target.
    fn authorization(&self, url: &Url) -> Option<String> {
        let token = self.token.as_ref()?;
        same_origin(url, &self.hub).then(|| format!("Bearer {token}"))
    }

    /// Sends one request, following redirects by hand so that each hop is
    /// checked and the token never leaves the hub.
    async fn fetch(&self, url: Url, offset: u64) -> Result<(reqwest::Response, Announced), String> {
        let mut url = url;
        let mut facts = Announced::default();
        for _ in 0..=MAX_REDIRECTS {
            let mut req = self.client.get(url.clone());
            if offset > 0 {
                req = req.header(RANGE, format!("bytes={offset}-"));
            }
            if let Some(auth) = self.authorization(&url) {
                req = req.header(AUTHORIZATION, auth);
            }
            let resp = req
                .send()
                .await
                .map_err(|e| format!("request failed: {e}"))?;
            if same_origin(&url, &self.hub) {
                let a = announced(resp.headers());
                facts.size = facts.size.or(a.size);
                facts.sha256 = facts.sha256.or(a.sha256);
            }
            if resp.status().is_redirection() {
                let loc = resp
                    .headers()
                    .get(LOCATION)
                    .and_then(|v| v.to_str().ok())
                    .ok_or("redirect without a location")?;
                let next = url
                    .join(loc)
                    .map_err(|_| "redirect to an invalid address".to_string())?;
                // Plain http is only acceptable back to a configured http hub.
                if next.scheme() != "https" && !same_origin(&next, &self.hub) {
                    return Err(format!(
                        "refused redirect to a non-https address ({})",
                        next.scheme()
                    ));
                }
                url = next;
                continue;
            }
            return Ok((resp, facts));
        }
        Err("too many redirects".into())
    }

    async fn run(&self, name: &str, url: Url, cancel: &AtomicBool) -> Result<(), String> {
        let dir = self.shared.dir.clone();
        let part = part_path(&dir, name);
        let target = dir.join(name);
        let mut offset = tokio::fs::metadata(&part)
            .await
            .map(|m| m.len())
            .unwrap_or(0);
        let mut attempts = 0;
        let (resp, facts) = loop {
            attempts += 1;
            let (resp, facts) = self.fetch(url.clone(), offset).await?;
            match resp.status() {
                StatusCode::RANGE_NOT_SATISFIABLE if offset > 0 && attempts < 3 => {
                    // The partial file may already be whole; otherwise start over.
                    if facts.size == Some(offset) {
                        break (None, facts);
                    }
                    offset = 0;
                    let _ = tokio::fs::remove_file(&part).await;
                }
                s if s == StatusCode::PARTIAL_CONTENT => {
                    let start = resp
                        .headers()
                        .get(CONTENT_RANGE)
                        .and_then(|v| v.to_str().ok())
                        .and_then(content_range)
                        .map(|(s, _)| s);
                    if start == Some(offset) {
                        break (Some(resp), facts);
                    }
                    if attempts >= 3 {
                        return Err("the server answered with a different range".into());
                    }
                    offset = 0;
                }
                s if s.is_success() => {
                    // The server ignored the range: start from the beginning.
                    offset = 0;
                    break (Some(resp), facts);
                }
                s if s == StatusCode::UNAUTHORIZED || s == StatusCode::FORBIDDEN => {
                    return Err(format!(
                        "the hub refused access ({s}); a gated model needs HF_TOKEN"
                    ));
                }
                s => return Err(format!("the server answered {s}")),
            }
        };

        let mut total = facts.size;
        if let Some(resp) = &resp {
            let from_response = if resp.status() == StatusCode::PARTIAL_CONTENT {
                resp.headers()
                    .get(CONTENT_RANGE)
                    .and_then(|v| v.to_str().ok())
                    .and_then(content_range)
                    .map(|(_, t)| t)
            } else {
                resp.headers()
                    .get(CONTENT_LENGTH)
                    .and_then(|v| v.to_str().ok())
                    .and_then(|v| v.trim().parse::<u64>().ok())
            };
            // The hub's announcement wins; a server sending less fails the
            // size check below and leaves a resumable partial file.
            total = total.or(from_response);
        }

        let mut hasher = Sha256::new();
        let hashing = facts.sha256.is_some();
        let file = tokio::fs::OpenOptions::new()
            .create(true)
            .append(true)
            .open(&part)
            .await
            .map_err(|e| format!("cannot write {}: {e}", part.display()))?;
        if offset == 0 {
            file.set_len(0)
                .await
                .map_err(|e| format!("cannot truncate: {e}"))?;
        } else if hashing {
            let mut f = tokio::fs::File::open(&part)
                .await
                .map_err(|e| e.to_string())?;
            let mut buf = vec![0u8; 1 << 20];
            let mut left = offset;
            while left > 0 {
                let n = f.read(&mut buf).await.map_err(|e| e.to_string())?;
                if n == 0 {
                    break;
                }
                let n = (n as u64).min(left) as usize;
                hasher.update(&buf[..n]);
                left -= n as u64;
            }
        }

        let mut got = offset;
        self.set_progress(name, got, total.unwrap_or(0));
        if let Some(mut resp) = resp {
            // A small buffer: whatever it holds is lost if the engine is killed, and the
            // resume starts from what reached the disk.
            let mut out = tokio::io::BufWriter::with_capacity(1 << 18, file);
            loop {
                if cancel.load(Ordering::Relaxed) {
                    out.flush().await.map_err(|e| e.to_string())?;
                    return Err("stopped; the partial file is kept for resuming".into());
                }
                let chunk = match resp.chunk().await {
                    Ok(Some(c)) => c,
                    Ok(None) => break,
                    Err(e) => {
                        out.flush().await.map_err(|e| e.to_string())?;
                        return Err(format!("connection lost: {e}"));
                    }
                };
                if hashing {
                    hasher.update(&chunk);
                }
                out.write_all(&chunk)
                    .await
                    .map_err(|e| format!("write failed: {e}"))?;
                got += chunk.len() as u64;
                if let Some(t) = total {
                    if got > t {
                        out.flush().await.map_err(|e| e.to_string())?;
                        return Err(format!("received more than the announced {t} bytes"));
                    }
                }
                self.set_progress(name, got, total.unwrap_or(0));
            }
            out.flush().await.map_err(|e| e.to_string())?;
            out.get_ref().sync_all().await.map_err(|e| e.to_string())?;
        }

        if let Some(t) = total {
            if got != t {
                return Err(format!(
                    "size mismatch: expected {t} bytes, got {got}; the partial file is kept"
                ));
            }
        }
        if let Some(expected) = facts.sha256 {
            let actual = hex::encode(hasher.finalize());
            if actual != expected {
                // Corrupt data cannot be resumed.
                let _ = tokio::fs::remove_file(&part).await;
                return Err(format!(
                    "SHA-256 mismatch: expected {expected}, got {actual}"
                ));
            }
        }
        if tokio::fs::symlink_metadata(&target).await.is_ok() {
            return Err(format!(
                "{} appeared while downloading; keeping it",
                target.display()
            ));
        }
        tokio::fs::rename(&part, &target)
            .await
            .map_err(|e| format!("cannot move into place: {e}"))?;
        Ok(())
    }
}

pub fn part_path(dir: &Path, name: &str) -> PathBuf {
    dir.join(format!("{name}.part"))
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

    fn downloader(endpoint: Option<&str>) -> Downloader {
        let shared = Arc::new(Shared::new(PathBuf::from("/nonexistent"), 1));
        let mut d = Downloader::new(shared);
        d.hub = Url::parse(endpoint.unwrap_or(HUB)).unwrap();
        d
    }

    #[test]
    fn link_rules() {
        let d = downloader(None);
        assert!(d
            .resolve("https://huggingface.co/a/b/resolve/main/m.gguf")
            .is_ok());
        for bad in [
            "http://huggingface.co/a/m.gguf",
            "https://evil.com/m.gguf",
            "https://cdn.huggingface.co/m.gguf",
            "https://huggingface.co.evil.com/m.gguf",
            "https://huggingface.co:8443/m.gguf",
            "ftp://huggingface.co/m.gguf",
            "not a url",
        ] {
            assert!(d.resolve(bad).is_err(), "{bad} accepted");
        }
    }

    #[test]
    fn token_only_for_the_hub() {
        let mut d = downloader(None);
        d.token = Some("t".into());
        let hub = Url::parse("https://huggingface.co/a/resolve/main/m.gguf").unwrap();
        assert_eq!(d.authorization(&hub).as_deref(), Some("Bearer t"));
        for other in [
            "https://cdn-lfs.huggingface.co/x",
            "https://cas-bridge.xethub.hf.co/x",
            "http://huggingface.co/x",
            "https://huggingface.co:444/x",
        ] {
            assert_eq!(
                d.authorization(&Url::parse(other).unwrap()),
                None,
                "{other}"
            );
        }
        d.token = None;
        assert_eq!(d.authorization(&hub), None);
    }

    #[test]
    fn mirror_rewrites_hub_links() {
        let d = downloader(Some("http://127.0.0.1:9999"));
        let u = d
            .resolve("https://huggingface.co/a/resolve/main/m.gguf?download=true")
            .unwrap();
        assert_eq!(
            u.as_str(),
            "http://127.0.0.1:9999/a/resolve/main/m.gguf?download=true"
        );
        assert!(d.resolve("http://127.0.0.1:9999/m.gguf").is_ok());
        assert!(d.resolve("http://127.0.0.1:9998/m.gguf").is_err());
        assert!(d.resolve("http://huggingface.co/m.gguf").is_err());
    }
}
