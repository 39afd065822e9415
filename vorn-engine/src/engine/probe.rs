//! llama.cpp aborts the whole process on some malformed files (failed
//! assertions rather than errors), so a file is first read in a child
//! process: `vorn-engine --probe-gguf <model> [<projector>]`.

use super::{threads, vision};
use crate::llama::{Batch, Bitmap, ChunkKind, Context, ContextSettings, Model, Projector};
use crate::state::lock;
use crate::template::MEDIA_MARKER;
use llama_cpp_2::llama_backend::LlamaBackend;
use llama_cpp_2::token::LlamaToken;
use std::path::{Path, PathBuf};
use std::process::{Command, Stdio};
use std::sync::Mutex;
use std::time::{Duration, Instant, SystemTime};

pub const PROBE_FLAG: &str = "--probe-gguf";

/// Exit code of a probe that llama.cpp refused with an error.
const REFUSED: i32 = 3;
/// Exit code of a probe whose backend did not start.
const NO_BACKEND: i32 = 4;

/// How long a probe may take before it counts as failed.
const PROBE_TIMEOUT: Duration = Duration::from_secs(300);

/// Child-process side of the probe: load the file with llama.cpp on the CPU
/// and run one token through it. Exit 0 when that works, 3 when llama.cpp
/// refuses it with an error.
pub fn probe_main(path: &Path, projector: Option<&Path>) -> i32 {
    match try_file(path, projector) {
        Ok(()) => 0,
        Err(code) => code,
    }
}

fn try_file(path: &Path, projector: Option<&Path>) -> Result<(), i32> {
    let mut backend = LlamaBackend::init().map_err(|_| NO_BACKEND)?;
    backend.void_logs();
    let model = Model::load(&backend, path, 0).map_err(|_| REFUSED)?;
    let _ = model.chat_template();
    walk_vocabulary(&model);
    let settings = ContextSettings {
        context_size: 64,
        batch_size: 64,
        threads: threads::cores(),
    };
    let mut ctx = Context::new(&backend, &model, settings).map_err(|_| REFUSED)?;
    let vocab = model.vocab();
    let first = if vocab.bos().0 >= 0 && vocab.bos().0 < vocab.n_tokens() {
        vocab.bos()
    } else {
        LlamaToken(0)
    };
    let mut batch = Batch::new(1);
    if batch.add(first, 0, true).is_err() || ctx.decode(&batch).is_err() {
        return Err(REFUSED);
    }
    if let Some(projector) = projector {
        encode_small_image(&backend, &model, projector)?;
    }
    Ok(())
}

/// Everything the engine later asks of the vocabulary, once per token: a
/// corrupt table makes llama.cpp throw, which would abort the engine.
fn walk_vocabulary(model: &Model) {
    let vocab = model.vocab();
    let sample = "<|im_start|>user\nHello, world! 123 é 🌍<|im_end|>\n<|im_start|>assistant\n";
    let _ = vocab.tokenize(sample.as_bytes(), true, true);
    let _ = vocab.tokenize(sample.as_bytes(), false, false);
    let mut piece = Vec::with_capacity(64);
    for t in 0..vocab.n_tokens() {
        let token = LlamaToken(t);
        let _ = vocab.is_eog(token);
        piece.clear();
        vocab.token_to_piece_into(token, &mut piece, false, None);
        piece.clear();
        vocab.token_to_piece_into(token, &mut piece, true, None);
    }
}

/// The projector must load with this model and encode a small image.
fn encode_small_image(backend: &LlamaBackend, model: &Model, projector: &Path) -> Result<(), i32> {
    let settings = vision::projector_settings(false);
    let mut projector = Projector::new(backend, projector, model, settings).map_err(|_| REFUSED)?;
    if !projector.supports_vision() {
        return Err(REFUSED);
    }
    let pixels: Vec<u8> = (0..16 * 16 * 3).map(|i| (i * 37 % 251) as u8).collect();
    let bitmap = Bitmap::from_rgb(16, 16, &pixels).ok_or(REFUSED)?;
    let chunks = projector
        .tokenize(MEDIA_MARKER, false, &[&bitmap])
        .map_err(|_| REFUSED)?;
    for chunk in chunks.iter().filter(|c| c.kind() != ChunkKind::Text) {
        projector.encode(&chunk).map_err(|_| REFUSED)?;
    }
    Ok(())
}

/// A file as it was when it passed: path, size and modification time.
type FileStamp = (PathBuf, u64, Option<SystemTime>);

/// Model files (and model-projector pairs) that passed the probe.
static PASSED: Mutex<Vec<(FileStamp, Option<FileStamp>)>> = Mutex::new(Vec::new());

fn stamp(path: &Path) -> Result<FileStamp, String> {
    let meta = std::fs::metadata(path).map_err(|e| e.to_string())?;
    Ok((path.to_path_buf(), meta.len(), meta.modified().ok()))
}

/// Runs the probe in a child process unless this file (with this projector)
/// passed it before. The error says why it failed, in words.
pub(super) fn check(path: &Path, projector: Option<&Path>) -> Result<(), String> {
    let key = (stamp(path)?, projector.map(stamp).transpose()?);
    if lock(&PASSED).contains(&key) {
        return Ok(());
    }
    let exe = std::env::current_exe().map_err(|e| e.to_string())?;
    let mut command = Command::new(exe);
    command.arg(PROBE_FLAG).arg(path);
    if let Some(p) = projector {
        command.arg(p);
    }
    let mut child = command
        .stdin(Stdio::null())
        .stdout(Stdio::null())
        .stderr(Stdio::null())
        .spawn()
        .map_err(|e| format!("cannot check the file: {e}"))?;
    let deadline = Instant::now() + PROBE_TIMEOUT;
    let status = loop {
        match child.try_wait() {
            Ok(Some(s)) => break s,
            Ok(None) if Instant::now() < deadline => std::thread::sleep(Duration::from_millis(5)),
            _ => {
                let _ = child.kill();
                let _ = child.wait();
                return Err("reading the file took too long".into());
            }
        }
    };
    match status.code() {
        Some(0) => {
            let mut passed = lock(&PASSED);
            if passed.len() > 256 {
                passed.clear();
            }
            passed.push(key);
            Ok(())
        }
        Some(REFUSED) => Err("llama.cpp cannot read it".into()),
        _ => Err("llama.cpp failed on its contents (malformed metadata or vocabulary)".into()),
    }
}
