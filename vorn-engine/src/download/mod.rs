//! Model downloads from the Hugging Face hub into the models folder.
//!
//! Data goes to `<name>.part` and is renamed into place only after the size
//! (and the SHA-256, when the hub announces one) checks out, so an
//! interrupted or failed download never leaves a file under its final name.
//! Nothing here knows HTTP servers: a refused start is a [`DownloadError`].

mod hub;
mod transfer;

pub use hub::{announced, content_range, sha_from_etag, Announced};

use crate::names;
use crate::state::{lock, Download, Shared};
use hub::{same_origin, HUB};
use reqwest::Url;
use std::path::{Path, PathBuf};
use std::sync::atomic::{AtomicBool, Ordering};
use std::sync::Arc;
use std::time::Duration;

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
            let result = this.transfer(&name, url, &cancel).await;
            if let Err(e) = &result {
                eprintln!("vorn-engine: download of {name} failed: {e}");
            }
            lock(&this.shared.downloads).remove(&name);
        });
        let tasks = self.tasks.clone();
        tokio::spawn(async move {
            let mut running = tasks.lock().await;
            running.retain(|task| !task.is_finished());
            running.push(handle);
        });
        Ok(())
    }

    /// Stops every download, keeping the partial files, and waits for them.
    pub async fn stop_all(&self) {
        for download in lock(&self.shared.downloads).values() {
            download.cancel.store(true, Ordering::Relaxed);
        }
        let handles: Vec<_> = std::mem::take(&mut *self.tasks.lock().await);
        for handle in handles {
            let _ = tokio::time::timeout(Duration::from_secs(3), handle).await;
        }
    }

    fn set_progress(&self, name: &str, bytes: u64, total: u64) {
        if let Some(download) = lock(&self.shared.downloads).get_mut(name) {
            download.bytes = bytes as i64;
            download.total = total as i64;
        }
    }
}

pub fn part_path(dir: &Path, name: &str) -> PathBuf {
    dir.join(format!("{name}.part"))
}

#[cfg(test)]
mod tests {
    use super::*;

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
