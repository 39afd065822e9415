//! State shared between the HTTP handlers, the inference thread and downloads.

use crate::gguf;
use serde::Serialize;
use std::collections::{BTreeMap, HashMap};
use std::path::{Path, PathBuf};
use std::sync::atomic::AtomicBool;
use std::sync::{Arc, Mutex};
use std::time::SystemTime;

#[derive(Debug, Clone, Default, Serialize)]
pub struct RunMetrics {
    pub decode_tps: f64,
    pub prefill_tps: f64,
    pub prompt_tokens: i64,
    pub completion_tokens: i64,
    /// Prompt tokens actually evaluated (the rest came from the cache).
    pub evaluated_tokens: i64,
    pub cached_tokens: i64,
    pub ttft_ms: f64,
    /// Images whose encoding was done ahead of time by /api/encode.
    pub reused_images: i64,
    /// Images decoded into pixels for this request; one the engine still
    /// held from an earlier request (an earlier turn, /api/encode) counts
    /// nothing.
    pub decoded_images: i64,
    /// The context in use and the messages left out to fit it.
    pub context_size: i64,
    pub dropped_messages: i64,
}

impl RunMetrics {
    /// Figures of a run that so far only has its context.
    pub fn with_context(context: crate::engine::ContextUse) -> Self {
        RunMetrics {
            context_size: i64::from(context.size),
            dropped_messages: context.dropped_messages as i64,
            ..RunMetrics::default()
        }
    }
}

#[derive(Debug, Clone, Default)]
pub struct Loaded {
    pub name: String,
    pub backend: &'static str,
    pub ctx: u32,
    pub vision: bool,
    pub projector: Option<String>,
}

#[derive(Debug, Clone, Serialize)]
pub struct DownloadState {
    pub name: String,
    pub bytes: i64,
    pub total: i64,
}

pub struct Download {
    pub bytes: i64,
    pub total: i64,
    pub cancel: Arc<AtomicBool>,
}

#[derive(Clone)]
pub struct HeaderInfo {
    pub projector: bool,
    pub embedding: Option<u64>,
    pub details: gguf::ModelDetails,
}

/// Header facts of a file as it was when read: size, modification time and
/// what the header said (None when it could not be read).
struct CachedHeader {
    size: u64,
    modified: Option<SystemTime>,
    info: Option<HeaderInfo>,
}

pub struct Shared {
    pub dir: PathBuf,
    pub port: u16,
    pub loaded: Mutex<Option<Loaded>>,
    pub last: Mutex<RunMetrics>,
    pub downloads: Mutex<BTreeMap<String, Download>>,
    header_cache: Mutex<HashMap<PathBuf, CachedHeader>>,
    pub shutting_down: AtomicBool,
}

#[derive(Debug, Clone, Serialize)]
pub struct LocalModel {
    pub name: String,
    pub size: i64,
    pub projector: bool,
    /// What the header tells, when it could be read.
    #[serde(flatten)]
    pub details: gguf::ModelDetails,
}

impl Shared {
    pub fn new(dir: PathBuf, port: u16) -> Self {
        Self {
            dir,
            port,
            loaded: Mutex::new(None),
            last: Mutex::new(RunMetrics::default()),
            downloads: Mutex::new(BTreeMap::new()),
            header_cache: Mutex::new(HashMap::new()),
            shutting_down: AtomicBool::new(false),
        }
    }

    /// Header facts of a model file, cached by path, size and modification time.
    pub fn header_info(&self, path: &Path) -> Option<HeaderInfo> {
        let meta = std::fs::metadata(path).ok()?;
        if !meta.is_file() {
            return None;
        }
        let size = meta.len();
        let modified = meta.modified().ok();
        if let Some(cached) = lock(&self.header_cache).get(path) {
            if cached.size == size && cached.modified == modified {
                return cached.info.clone();
            }
        }
        let info = gguf::read_file(path).ok().map(|header| HeaderInfo {
            projector: header.is_projector(),
            embedding: if header.is_projector() {
                header.projector_output_dim()
            } else {
                header.embedding_length()
            },
            details: header.details(),
        });
        let cached = CachedHeader {
            size,
            modified,
            info: info.clone(),
        };
        lock(&self.header_cache).insert(path.to_path_buf(), cached);
        info
    }

    /// Every `.gguf` entry of the folder in file-name order.
    pub fn list_models(&self) -> Vec<LocalModel> {
        let mut out = Vec::new();
        let Ok(entries) = std::fs::read_dir(&self.dir) else {
            return out;
        };
        for entry in entries.flatten() {
            let Ok(name) = entry.file_name().into_string() else {
                continue;
            };
            if !crate::names::has_gguf_extension(&name) || name.starts_with('.') {
                continue;
            }
            let Ok(file_type) = entry.file_type() else {
                continue;
            };
            if !(file_type.is_file() || file_type.is_symlink()) {
                continue;
            }
            let path = entry.path();
            // Follows links; a dangling link has no size.
            let size = match std::fs::metadata(&path) {
                Ok(m) if m.is_file() => m.len() as i64,
                Ok(_) => continue,
                Err(_) => 0,
            };
            let info = if size > 0 {
                self.header_info(&path)
            } else {
                None
            };
            out.push(LocalModel {
                name,
                size,
                projector: info.as_ref().is_some_and(|i| i.projector),
                details: info.map(|i| i.details).unwrap_or_default(),
            });
        }
        out.sort_by(|a, b| a.name.cmp(&b.name));
        out
    }

    pub fn download_states(&self) -> Vec<DownloadState> {
        lock(&self.downloads)
            .iter()
            .map(|(name, d)| DownloadState {
                name: name.clone(),
                bytes: d.bytes,
                total: d.total,
            })
            .collect()
    }
}

/// Locks a mutex, carrying on with the data if another thread panicked.
pub fn lock<T>(m: &Mutex<T>) -> std::sync::MutexGuard<'_, T> {
    m.lock().unwrap_or_else(|e| e.into_inner())
}
