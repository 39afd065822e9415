//! One download: request the data (resuming a partial file with a Range
//! request), write it to `<name>.part`, check size and SHA-256, then rename
//! it into place. Failures are reported in words; the caller logs them.

use super::hub::{announced, content_range, same_origin, Announced};
use super::{part_path, Downloader};
use reqwest::header::{AUTHORIZATION, CONTENT_LENGTH, CONTENT_RANGE, LOCATION, RANGE};
use reqwest::{Response, StatusCode, Url};
use sha2::{Digest, Sha256};
use std::path::Path;
use std::sync::atomic::{AtomicBool, Ordering};
use tokio::fs::File;
use tokio::io::{AsyncReadExt, AsyncWriteExt, BufWriter};

const MAX_REDIRECTS: usize = 10;
/// Requests made for one download when a resume goes wrong.
const ATTEMPTS: u32 = 3;
/// Small on purpose: whatever the write buffer holds is lost if the engine is
/// killed, and a resume starts from what reached the disk.
const WRITE_BUFFER: usize = 1 << 18;
const READ_BUFFER: usize = 1 << 20;

/// The start of a `Content-Range` answer, or its total size.
fn range_of(response: &Response) -> Option<(u64, u64)> {
    response
        .headers()
        .get(CONTENT_RANGE)
        .and_then(|v| v.to_str().ok())
        .and_then(content_range)
}

/// The size the answer promises: its range's total, or its length.
fn size_of(response: &Response) -> Option<u64> {
    if response.status() == StatusCode::PARTIAL_CONTENT {
        range_of(response).map(|(_, total)| total)
    } else {
        response
            .headers()
            .get(CONTENT_LENGTH)
            .and_then(|v| v.to_str().ok())
            .and_then(|v| v.trim().parse::<u64>().ok())
    }
}

impl Downloader {
    /// The bearer token goes to the hub itself, never to a redirect target.
    pub(super) fn authorization(&self, url: &Url) -> Option<String> {
        let token = self.token.as_ref()?;
        same_origin(url, &self.hub).then(|| format!("Bearer {token}"))
    }

    /// Sends one request, following redirects by hand so that each hop is
    /// checked and the token never leaves the hub.
    async fn fetch(&self, url: Url, offset: u64) -> Result<(Response, Announced), String> {
        let mut url = url;
        let mut facts = Announced::default();
        for _ in 0..=MAX_REDIRECTS {
            let mut request = self.client.get(url.clone());
            if offset > 0 {
                request = request.header(RANGE, format!("bytes={offset}-"));
            }
            if let Some(authorization) = self.authorization(&url) {
                request = request.header(AUTHORIZATION, authorization);
            }
            let response = request
                .send()
                .await
                .map_err(|e| format!("request failed: {e}"))?;
            if same_origin(&url, &self.hub) {
                let hub_facts = announced(response.headers());
                facts.size = facts.size.or(hub_facts.size);
                facts.sha256 = facts.sha256.or(hub_facts.sha256);
            }
            if response.status().is_redirection() {
                let location = response
                    .headers()
                    .get(LOCATION)
                    .and_then(|v| v.to_str().ok())
                    .ok_or("redirect without a location")?;
                let next = url
                    .join(location)
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
            return Ok((response, facts));
        }
        Err("too many redirects".into())
    }

    /// Asks for the data from `offset` on, falling back to the whole file
    /// (and setting `offset` to 0) when the server cannot resume. No answer
    /// to read means the partial file is already whole.
    async fn open(
        &self,
        url: &Url,
        offset: &mut u64,
        part: &Path,
    ) -> Result<(Option<Response>, Announced), String> {
        let mut attempts = 0;
        loop {
            attempts += 1;
            let (response, facts) = self.fetch(url.clone(), *offset).await?;
            match response.status() {
                StatusCode::RANGE_NOT_SATISFIABLE if *offset > 0 && attempts < ATTEMPTS => {
                    // The partial file may already be whole; otherwise start over.
                    if facts.size == Some(*offset) {
                        return Ok((None, facts));
                    }
                    *offset = 0;
                    let _ = tokio::fs::remove_file(part).await;
                }
                StatusCode::PARTIAL_CONTENT => {
                    if range_of(&response).map(|(start, _)| start) == Some(*offset) {
                        return Ok((Some(response), facts));
                    }
                    if attempts >= ATTEMPTS {
                        return Err("the server answered with a different range".into());
                    }
                    *offset = 0;
                }
                status if status.is_success() => {
                    // The server ignored the range: start from the beginning.
                    *offset = 0;
                    return Ok((Some(response), facts));
                }
                status if status == StatusCode::UNAUTHORIZED || status == StatusCode::FORBIDDEN => {
                    return Err(format!(
                        "the hub refused access ({status}); a gated model needs HF_TOKEN"
                    ));
                }
                status => return Err(format!("the server answered {status}")),
            }
        }
    }

    pub(super) async fn transfer(
        &self,
        name: &str,
        url: Url,
        cancel: &AtomicBool,
    ) -> Result<(), String> {
        let part = part_path(&self.shared.dir, name);
        let target = self.shared.dir.join(name);
        let mut offset = tokio::fs::metadata(&part)
            .await
            .map(|m| m.len())
            .unwrap_or(0);
        let (response, facts) = self.open(&url, &mut offset, &part).await?;
        // The hub's announcement wins; a server sending less fails the size
        // check below and leaves a resumable partial file.
        let total = facts.size.or(response.as_ref().and_then(size_of));
        let hasher = facts.sha256.is_some().then(Sha256::new);
        let mut file = PartFile::open(&part, offset, hasher).await?;
        self.set_progress(name, file.length, total.unwrap_or(0));
        if let Some(response) = response {
            self.receive(name, response, &mut file, total, cancel)
                .await?;
        }
        if let Some(total) = total {
            if file.length != total {
                return Err(format!(
                    "size mismatch: expected {total} bytes, got {}; the partial file is kept",
                    file.length
                ));
            }
        }
        if let (Some(expected), Some(hasher)) = (facts.sha256, file.hasher) {
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
            .map_err(|e| format!("cannot move into place: {e}"))
    }

    /// Appends the answer's data to the partial file.
    async fn receive(
        &self,
        name: &str,
        mut response: Response,
        file: &mut PartFile,
        total: Option<u64>,
        cancel: &AtomicBool,
    ) -> Result<(), String> {
        loop {
            if cancel.load(Ordering::Relaxed) {
                file.flush().await?;
                return Err("stopped; the partial file is kept for resuming".into());
            }
            let chunk = match response.chunk().await {
                Ok(Some(c)) => c,
                Ok(None) => break,
                Err(e) => {
                    file.flush().await?;
                    return Err(format!("connection lost: {e}"));
                }
            };
            file.write(&chunk).await?;
            if let Some(total) = total {
                if file.length > total {
                    file.flush().await?;
                    return Err(format!("received more than the announced {total} bytes"));
                }
            }
            self.set_progress(name, file.length, total.unwrap_or(0));
        }
        file.flush().await?;
        file.writer
            .get_ref()
            .sync_all()
            .await
            .map_err(|e| e.to_string())
    }
}

/// The partial file being written, and the hash of everything in it.
struct PartFile {
    writer: BufWriter<File>,
    hasher: Option<Sha256>,
    /// Bytes in the file, written or still in the buffer.
    length: u64,
}

impl PartFile {
    /// Opens the partial file for appending: emptied when starting over, its
    /// first `offset` bytes hashed again when resuming a checked download.
    async fn open(part: &Path, offset: u64, mut hasher: Option<Sha256>) -> Result<Self, String> {
        let file = tokio::fs::OpenOptions::new()
            .create(true)
            .append(true)
            .open(part)
            .await
            .map_err(|e| format!("cannot write {}: {e}", part.display()))?;
        if offset == 0 {
            file.set_len(0)
                .await
                .map_err(|e| format!("cannot truncate: {e}"))?;
        } else if let Some(hasher) = hasher.as_mut() {
            let mut existing = File::open(part).await.map_err(|e| e.to_string())?;
            let mut buffer = vec![0u8; READ_BUFFER];
            let mut left = offset;
            while left > 0 {
                let n = existing
                    .read(&mut buffer)
                    .await
                    .map_err(|e| e.to_string())?;
                if n == 0 {
                    break;
                }
                let n = (n as u64).min(left) as usize;
                hasher.update(&buffer[..n]);
                left -= n as u64;
            }
        }
        Ok(PartFile {
            writer: BufWriter::with_capacity(WRITE_BUFFER, file),
            hasher,
            length: offset,
        })
    }

    async fn write(&mut self, data: &[u8]) -> Result<(), String> {
        if let Some(hasher) = self.hasher.as_mut() {
            hasher.update(data);
        }
        self.writer
            .write_all(data)
            .await
            .map_err(|e| format!("write failed: {e}"))?;
        self.length += data.len() as u64;
        Ok(())
    }

    async fn flush(&mut self) -> Result<(), String> {
        self.writer.flush().await.map_err(|e| e.to_string())
    }
}
