//! How many CPU threads llama.cpp gets.

use crate::llama::Model;

/// Physical cores where the system says (hyper-threads share the units that
/// matrix products need), otherwise every logical CPU.
pub(super) fn cores() -> i32 {
    let logical = std::thread::available_parallelism()
        .map(|n| n.get() as i32)
        .unwrap_or(4);
    #[cfg(target_os = "linux")]
    {
        let mut siblings = std::collections::BTreeSet::new();
        if let Ok(dir) = std::fs::read_dir("/sys/devices/system/cpu") {
            for entry in dir.flatten() {
                let name = entry.file_name().to_string_lossy().into_owned();
                let numbered = name.len() > 3
                    && name.starts_with("cpu")
                    && name[3..].chars().all(|c| c.is_ascii_digit());
                if !numbered {
                    continue;
                }
                let path = entry.path().join("topology/thread_siblings");
                if let Ok(s) = std::fs::read_to_string(path) {
                    siblings.insert(s.trim().to_string());
                }
            }
        }
        if !siblings.is_empty() {
            return (siblings.len() as i32).clamp(1, logical);
        }
    }
    logical
}

/// Threads for a model. Tiny models finish each matrix product faster than
/// threads can synchronise, and on a busy machine spinning threads make it
/// far worse, so they get roughly one thread per 25M parameters.
pub(super) fn for_model(model: &Model) -> i32 {
    if let Some(n) = std::env::var("VORN_ENGINE_THREADS")
        .ok()
        .and_then(|v| v.parse::<i32>().ok())
    {
        return n.clamp(1, 512);
    }
    let by_size = (model.n_params() / 25_000_000).max(1);
    (by_size.min(cores() as u64)) as i32
}
