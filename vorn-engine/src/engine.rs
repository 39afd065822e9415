//! The inference thread. It owns llama.cpp's model, context and projector and
//! runs one command at a time, so tokio's threads never block on inference.

use crate::ffi;
use crate::prompt::{reusable_prefix, StopMatcher, StopOutcome};
use crate::state::{lock, Loaded, RunMetrics, Shared};
use crate::template::{ChatTemplate, TemplateMessage, MEDIA_MARKER};
use crate::utf8::Utf8Stream;
use llama_cpp_2::context::params::LlamaContextParams;
use llama_cpp_2::context::LlamaContext;
use llama_cpp_2::llama_backend::LlamaBackend;
use llama_cpp_2::llama_batch::LlamaBatch;
use llama_cpp_2::model::params::LlamaModelParams;
use llama_cpp_2::model::LlamaModel;
use llama_cpp_2::mtmd::{
    MtmdBitmap, MtmdContext, MtmdContextParams, MtmdInputChunkType, MtmdInputChunks, MtmdInputText,
};
use llama_cpp_2::sampling::LlamaSampler;
use llama_cpp_2::token::LlamaToken;
use std::ffi::CString;
use std::num::NonZeroU32;
use std::panic::{catch_unwind, AssertUnwindSafe};
use std::path::PathBuf;
use std::sync::atomic::{AtomicBool, Ordering};
use std::sync::{mpsc, Arc};
use std::time::Instant;
use tokio::sync::{mpsc as tmpsc, oneshot};

pub type Reply<T> = oneshot::Sender<Result<T, EngineError>>;

#[derive(Debug, Clone)]
pub struct EngineError {
    pub status: u16,
    pub message: String,
}

impl EngineError {
    pub fn new(status: u16, message: impl Into<String>) -> Self {
        Self {
            status,
            message: message.into(),
        }
    }
}

pub struct LoadRequest {
    pub name: String,
    pub path: PathBuf,
    pub gpu: bool,
    pub ctx: u32,
    pub projector: Option<(String, PathBuf)>,
}

#[derive(Clone)]
pub struct Image {
    pub hash: String,
    pub bytes: Arc<Vec<u8>>,
}

#[derive(Clone)]
pub struct ChatMessage {
    pub role: String,
    /// Text with one media marker per image, in order.
    pub content: String,
    pub images: Vec<Image>,
}

pub struct ChatJob {
    pub messages: Vec<ChatMessage>,
    pub temperature: f32,
    pub top_p: f32,
    pub top_k: i32,
    pub min_p: f32,
    pub seed: u32,
    pub max_tokens: Option<u32>,
    pub stop: Vec<String>,
    pub events: tmpsc::UnboundedSender<Event>,
    pub cancel: Arc<AtomicBool>,
}

#[derive(Debug)]
pub enum Event {
    Started,
    Delta(String),
    Done {
        finish_reason: &'static str,
        prompt_tokens: i64,
        completion_tokens: i64,
    },
    Error(EngineError),
}

pub enum Command {
    Load(LoadRequest, Reply<()>),
    Unload(oneshot::Sender<()>),
    Chat(ChatJob),
    Encode(Image, Reply<()>),
}

pub fn spawn(shared: Arc<Shared>) -> mpsc::Sender<Command> {
    let (tx, rx) = mpsc::channel();
    std::thread::Builder::new()
        .name("inference".into())
        .spawn(move || worker(rx, shared))
        .expect("cannot start the inference thread");
    tx
}

/// Physical cores where the system says (hyper-threads share the units that
/// matrix products need), otherwise every logical CPU.
fn cores() -> i32 {
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
fn threads_for(model: &LlamaModel) -> i32 {
    if let Some(n) = std::env::var("VORN_ENGINE_THREADS")
        .ok()
        .and_then(|v| v.parse::<i32>().ok())
    {
        return n.clamp(1, 512);
    }
    let by_size = (model.n_params() / 25_000_000).max(1);
    (by_size.min(cores() as u64)) as i32
}

fn worker(rx: mpsc::Receiver<Command>, shared: Arc<Shared>) {
    let mut backend = match LlamaBackend::init() {
        Ok(b) => b,
        Err(e) => {
            eprintln!("vorn-engine: llama.cpp backend failed to start: {e}");
            // Keep answering so requests get an error instead of hanging.
            for cmd in rx {
                fail(
                    cmd,
                    EngineError::new(500, format!("llama.cpp failed to start: {e}")),
                );
            }
            return;
        }
    };
    if std::env::var_os("VORN_ENGINE_LOG").is_none() {
        backend.void_logs();
        unsafe extern "C" fn quiet(
            _: llama_cpp_sys_2::ggml_log_level,
            _: *const std::os::raw::c_char,
            _: *mut std::os::raw::c_void,
        ) {
        }
        // SAFETY: a callback that ignores its arguments, valid for the whole run.
        unsafe { llama_cpp_sys_2::mtmd_helper_log_set(Some(quiet), std::ptr::null_mut()) };
    }
    let mut pending: Option<Command> = None;
    loop {
        let cmd = match pending.take() {
            Some(c) => c,
            None => match rx.recv() {
                Ok(c) => c,
                Err(_) => return,
            },
        };
        match cmd {
            Command::Load(req, reply) => {
                pending = load_and_serve(&backend, req, reply, &rx, &shared)
            }
            Command::Unload(reply) => {
                let _ = reply.send(());
            }
            other => fail(other, EngineError::new(409, "No model is loaded.")),
        }
    }
}

pub const PROBE_FLAG: &str = "--probe-gguf";

/// Child-process side of the probe: load the file with llama.cpp on the CPU
/// and run one token through it. Exit 0 when that works, 3 when llama.cpp
/// refuses it with an error.
pub fn probe_main(path: &std::path::Path, projector: Option<&std::path::Path>) -> i32 {
    let Ok(mut backend) = LlamaBackend::init() else {
        return 4;
    };
    backend.void_logs();
    let params = LlamaModelParams::default().with_n_gpu_layers(0);
    let Ok(model) = LlamaModel::load_from_file(&backend, path, &params) else {
        return 3;
    };
    let _ = model.chat_template(None);
    let vocab = model.vocab();
    // Everything the engine later asks of the vocabulary, once per token:
    // a corrupt table makes llama.cpp throw, which would abort the engine.
    let sample = "<|im_start|>user\nHello, world! 123 é 🌍<|im_end|>\n<|im_start|>assistant\n";
    let _ = vocab.tokenize(sample.as_bytes(), true, true);
    let _ = vocab.tokenize(sample.as_bytes(), false, false);
    let mut piece = Vec::with_capacity(64);
    for t in 0..vocab.n_tokens() {
        let t = LlamaToken(t);
        let _ = vocab.is_eog(t);
        piece.clear();
        vocab.token_to_piece_into(t, &mut piece, false, None);
        piece.clear();
        vocab.token_to_piece_into(t, &mut piece, true, None);
    }
    let ctx_params = LlamaContextParams::default()
        .with_n_ctx(NonZeroU32::new(64))
        .with_n_batch(64)
        .with_n_ubatch(64)
        .with_n_threads(cores())
        .with_n_threads_batch(cores());
    let Ok(mut ctx) = model.new_context(&backend, ctx_params) else {
        return 3;
    };
    let first = if vocab.bos().0 >= 0 && vocab.bos().0 < vocab.n_tokens() {
        vocab.bos()
    } else {
        LlamaToken(0)
    };
    let mut batch = LlamaBatch::new(1, 1);
    if batch.add(first, 0, &[0], true).is_err() || ctx.decode(&mut batch).is_err() {
        return 3;
    }
    if let Some(proj) = projector {
        // The projector must load with this model and encode a small image.
        let params = MtmdContextParams {
            use_gpu: false,
            print_timings: false,
            n_threads: cores(),
            media_marker: CString::new(MEDIA_MARKER).expect("marker has no NUL"),
            image_min_tokens: -1,
            image_max_tokens: -1,
        };
        let Ok(mut mtmd) = MtmdContext::init_from_file(&proj.to_string_lossy(), &model, &params)
        else {
            return 3;
        };
        if !mtmd.support_vision() {
            return 3;
        }
        let pixels: Vec<u8> = (0..16 * 16 * 3).map(|i| (i * 37 % 251) as u8).collect();
        let Ok(bitmap) = MtmdBitmap::from_image_data(16, 16, &pixels) else {
            return 3;
        };
        let text = MtmdInputText {
            text: MEDIA_MARKER.to_string(),
            add_special: false,
            parse_special: true,
        };
        let Ok(chunks) = mtmd.tokenize(text, &[&bitmap]) else {
            return 3;
        };
        for i in 0..chunks.len() {
            if let Some(c) = chunks.get(i) {
                if c.chunk_type() != MtmdInputChunkType::Text && mtmd.encode_chunk(&c).is_err() {
                    return 3;
                }
            }
        }
    }
    0
}

/// Files that passed the probe, by path, size and modification time.
type ProbeKey = (PathBuf, u64, Option<std::time::SystemTime>);
static PROBED: std::sync::Mutex<Vec<(ProbeKey, Option<ProbeKey>)>> =
    std::sync::Mutex::new(Vec::new());

fn probe_key(path: &std::path::Path) -> Result<ProbeKey, String> {
    let meta = std::fs::metadata(path).map_err(|e| e.to_string())?;
    Ok((path.to_path_buf(), meta.len(), meta.modified().ok()))
}

/// llama.cpp aborts the whole process on some malformed files (failed
/// assertions rather than errors), so it first reads an unknown file in a
/// child process.
fn probe(path: &std::path::Path, projector: Option<&std::path::Path>) -> Result<(), String> {
    let key = (probe_key(path)?, projector.map(probe_key).transpose()?);
    if lock(&PROBED).contains(&key) {
        return Ok(());
    }
    let exe = std::env::current_exe().map_err(|e| e.to_string())?;
    let mut cmd = std::process::Command::new(exe);
    cmd.arg(PROBE_FLAG).arg(path);
    if let Some(p) = projector {
        cmd.arg(p);
    }
    let mut child = cmd
        .stdin(std::process::Stdio::null())
        .stdout(std::process::Stdio::null())
        .stderr(std::process::Stdio::null())
        .spawn()
        .map_err(|e| format!("cannot check the file: {e}"))?;
    let deadline = Instant::now() + std::time::Duration::from_secs(300);
    let status = loop {
        match child.try_wait() {
            Ok(Some(s)) => break s,
            Ok(None) if Instant::now() < deadline => {
                std::thread::sleep(std::time::Duration::from_millis(5))
            }
            _ => {
                let _ = child.kill();
                let _ = child.wait();
                return Err("reading the file took too long".into());
            }
        }
    };
    match status.code() {
        Some(0) => {
            let mut probed = lock(&PROBED);
            if probed.len() > 256 {
                probed.clear();
            }
            probed.push(key);
            Ok(())
        }
        Some(3) => Err("llama.cpp cannot read it".into()),
        _ => Err("llama.cpp failed on its contents (malformed metadata or vocabulary)".into()),
    }
}

fn fail(cmd: Command, err: EngineError) {
    match cmd {
        Command::Load(_, reply) | Command::Encode(_, reply) => {
            let _ = reply.send(Err(err));
        }
        Command::Unload(reply) => {
            let _ = reply.send(());
        }
        Command::Chat(job) => {
            let _ = job.events.send(Event::Error(err));
        }
    }
}

fn load_and_serve(
    backend: &LlamaBackend,
    req: LoadRequest,
    reply: Reply<()>,
    rx: &mpsc::Receiver<Command>,
    shared: &Arc<Shared>,
) -> Option<Command> {
    *lock(&shared.loaded) = None;
    if let Some(why) = crate::cpu_backend::failure() {
        let _ = reply.send(Err(EngineError::new(500, why)));
        return None;
    }
    // Our own bounds-checked reader looks at the header before llama.cpp does.
    let header = match crate::gguf::read_file(&req.path) {
        Ok(h) => h,
        Err(e) => {
            let _ = reply.send(Err(EngineError::new(
                500,
                format!("{} is not a usable GGUF file: {e}", req.name),
            )));
            return None;
        }
    };
    if header.is_projector() {
        let _ = reply.send(Err(EngineError::new(
            500,
            format!(
                "{} is an image projector, not a model; load its model instead.",
                req.name
            ),
        )));
        return None;
    }
    if let Err(why) = probe(&req.path, None) {
        let arch = header.architecture().unwrap_or("unknown");
        let _ = reply.send(Err(EngineError::new(
            500,
            format!(
                "{} (architecture \"{arch}\") cannot be loaded: {why}.",
                req.name
            ),
        )));
        return None;
    }
    let offload = req.gpu && backend.supports_gpu_offload();
    let params = LlamaModelParams::default().with_n_gpu_layers(if offload { 999 } else { 0 });
    let loaded = catch_unwind(AssertUnwindSafe(|| {
        LlamaModel::load_from_file(backend, &req.path, &params)
    }));
    let model = match loaded {
        Ok(Ok(m)) => m,
        Ok(Err(e)) => {
            let arch = header.architecture().unwrap_or("unknown");
            let _ = reply.send(Err(EngineError::new(
                500,
                format!(
                    "llama.cpp could not load {} (architecture \"{arch}\"): the file may be corrupt, of an unsupported architecture, or too large for the available memory ({e}).",
                    req.name
                ),
            )));
            return None;
        }
        Err(_) => {
            let _ = reply.send(Err(EngineError::new(
                500,
                format!("llama.cpp failed while loading {}.", req.name),
            )));
            return None;
        }
    };
    let next = serve(backend, &model, req, offload, reply, rx, shared);
    *lock(&shared.loaded) = None;
    next
}

struct Session<'m> {
    shared: Arc<Shared>,
    model: &'m LlamaModel,
    // Dropped before the model, which the caller owns.
    mtmd: Option<MtmdContext>,
    ctx: LlamaContext<'m>,
    n_ctx: u32,
    n_batch: u32,
    template: ChatTemplate,
    /// What the KV cache holds for sequence 0, one key per position.
    cached: Vec<Key>,
    /// First message kept when the conversation last overflowed the context,
    /// so later turns cut at the same place and keep the cache useful.
    cut_anchor: Option<(String, String)>,
    bitmaps: LruCache<Arc<MtmdBitmap>>,
    embeddings: LruCache<Arc<Vec<f32>>>,
    mrope: bool,
    /// Images of the current request whose encoder output came from /api/encode.
    reused_images: i64,
    /// The last conversation and its reply, to guess where an image that
    /// arrives through /api/encode will be placed.
    history: Vec<ChatMessage>,
    history_reply: String,
}

#[derive(Clone, Copy, PartialEq, Eq, Debug)]
enum Key {
    Token(i32),
    Image(u64, u32),
}

struct LruCache<T> {
    cap: usize,
    items: Vec<(String, T)>,
}

impl<T: Clone> LruCache<T> {
    fn new(cap: usize) -> Self {
        Self {
            cap,
            items: Vec::new(),
        }
    }
    fn get(&mut self, k: &str) -> Option<T> {
        let i = self.items.iter().position(|(key, _)| key == k)?;
        let item = self.items.remove(i);
        let v = item.1.clone();
        self.items.push(item);
        Some(v)
    }
    fn put(&mut self, k: String, v: T) {
        self.items.retain(|(key, _)| *key != k);
        if self.items.len() >= self.cap {
            self.items.remove(0);
        }
        self.items.push((k, v));
    }
}

fn serve(
    backend: &LlamaBackend,
    model: &LlamaModel,
    req: LoadRequest,
    offload: bool,
    reply: Reply<()>,
    rx: &mpsc::Receiver<Command>,
    shared: &Arc<Shared>,
) -> Option<Command> {
    let n_ctx = if req.ctx == 0 {
        model.n_ctx_train().max(512)
    } else {
        req.ctx.clamp(64, 1 << 20)
    };
    let n_batch = 512u32.min(n_ctx);
    let params = LlamaContextParams::default()
        .with_n_ctx(NonZeroU32::new(n_ctx))
        .with_n_batch(n_batch)
        .with_n_ubatch(n_batch)
        .with_n_threads(threads_for(model))
        .with_n_threads_batch(threads_for(model));
    let ctx = match model.new_context(backend, params) {
        Ok(c) => c,
        Err(e) => {
            let _ = reply.send(Err(EngineError::new(
                500,
                format!("llama.cpp could not create a context of {n_ctx} tokens for {} ({e}); try a smaller context or free memory.", req.name),
            )));
            return None;
        }
    };

    let mut mtmd = None;
    let mut projector_name = None;
    let projector =
        req.projector
            .as_ref()
            .filter(|(pname, ppath)| match probe(&req.path, Some(ppath)) {
                Ok(()) => true,
                Err(why) => {
                    eprintln!("vorn-engine: projector {pname} left out: {why}");
                    false
                }
            });
    if let Some((pname, ppath)) = projector {
        let params = MtmdContextParams {
            use_gpu: offload,
            print_timings: false,
            n_threads: cores(),
            media_marker: CString::new(MEDIA_MARKER).expect("marker has no NUL"),
            image_min_tokens: -1,
            image_max_tokens: -1,
        };
        let made = catch_unwind(AssertUnwindSafe(|| {
            MtmdContext::init_from_file(&ppath.to_string_lossy(), model, &params)
        }));
        match made {
            Ok(Ok(m)) if m.support_vision() => {
                mtmd = Some(m);
                projector_name = Some(pname.clone());
            }
            _ => eprintln!(
                "vorn-engine: projector {pname} could not be used with {}",
                req.name
            ),
        }
    }

    let template_src = model
        .chat_template(None)
        .ok()
        .and_then(|t| t.to_string().ok());
    let vocab = model.vocab();
    let piece =
        |t: LlamaToken| String::from_utf8_lossy(&vocab.token_to_piece(t, true, None)).into_owned();
    let bos = if vocab.bos().0 >= 0 {
        piece(vocab.bos())
    } else {
        String::new()
    };
    let eos = if vocab.eos().0 >= 0 {
        piece(vocab.eos())
    } else {
        String::new()
    };
    let template = ChatTemplate::new(template_src, bos, eos);

    let mrope = mtmd.as_ref().map(|m| m.decode_use_mrope()).unwrap_or(false);
    let mut session = Session {
        shared: shared.clone(),
        model,
        mtmd,
        ctx,
        n_ctx,
        n_batch,
        template,
        cached: Vec::new(),
        cut_anchor: None,
        bitmaps: LruCache::new(16),
        embeddings: LruCache::new(8),
        mrope,
        reused_images: 0,
        history: Vec::new(),
        history_reply: String::new(),
    };
    *lock(&shared.loaded) = Some(Loaded {
        name: req.name.clone(),
        backend: if offload { "gpu" } else { "cpu" },
        ctx: n_ctx,
        vision: session.mtmd.is_some(),
        projector: projector_name,
    });
    let _ = reply.send(Ok(()));

    loop {
        let cmd = rx.recv().ok()?;
        match cmd {
            Command::Load(..) => return Some(cmd),
            Command::Unload(reply) => {
                *lock(&shared.loaded) = None;
                drop(session);
                let _ = reply.send(());
                return None;
            }
            Command::Chat(job) => {
                let events = job.events.clone();
                let result = catch_unwind(AssertUnwindSafe(|| session.chat(job)));
                if result.is_err() {
                    session.cached.clear();
                    session.ctx.clear_kv_cache();
                    let _ = events.send(Event::Error(EngineError::new(
                        500,
                        "The engine failed while generating.",
                    )));
                }
            }
            Command::Encode(image, reply) => {
                let result = catch_unwind(AssertUnwindSafe(|| session.encode(&image)))
                    .unwrap_or_else(|_| {
                        Err(EngineError::new(
                            500,
                            "The engine failed while encoding the image.",
                        ))
                    });
                let _ = reply.send(result);
            }
        }
    }
}

fn hash_key(hex: &str) -> u64 {
    u64::from_str_radix(hex.get(..16).unwrap_or("0"), 16).unwrap_or(0)
}

enum Prompt {
    Text(Vec<LlamaToken>),
    Chunks(MtmdInputChunks),
}

impl Prompt {
    fn len(&self) -> usize {
        match self {
            Prompt::Text(t) => t.len(),
            Prompt::Chunks(c) => c.total_tokens(),
        }
    }
}

impl<'m> Session<'m> {
    fn bitmap(&mut self, image: &Image) -> Result<Arc<MtmdBitmap>, EngineError> {
        if let Some(b) = self.bitmaps.get(&image.hash) {
            return Ok(b);
        }
        let mtmd = self
            .mtmd
            .as_ref()
            .ok_or_else(|| EngineError::new(400, "The loaded model does not accept images."))?;
        let mut bitmap = MtmdBitmap::from_buffer(mtmd, &image.bytes, false)
            .map_err(|_| EngineError::new(400, "The image could not be decoded (PNG, JPEG, GIF, BMP and similar formats are supported)."))?;
        bitmap
            .set_id(&image.hash)
            .map_err(|_| EngineError::new(400, "bad image id"))?;
        let bitmap = Arc::new(bitmap);
        self.bitmaps.put(image.hash.clone(), bitmap.clone());
        Ok(bitmap)
    }

    /// Decodes the image and runs the image encoder now, keeping its output.
    fn encode(&mut self, image: &Image) -> Result<(), EngineError> {
        if self.mtmd.is_none() {
            return Err(EngineError::new(
                409,
                "The loaded model has no image support.",
            ));
        }
        if self.embeddings.get(&image.hash).is_none() {
            self.encode_now(image)?;
        }
        self.speculate(image);
        Ok(())
    }

    fn encode_now(&mut self, image: &Image) -> Result<(), EngineError> {
        let bitmap = self.bitmap(image)?;
        let mtmd = self.mtmd.as_mut().expect("checked above");
        let chunks = mtmd
            .tokenize(
                MtmdInputText {
                    text: MEDIA_MARKER.to_string(),
                    add_special: false,
                    parse_special: true,
                },
                &[&bitmap],
            )
            .map_err(|e| EngineError::new(400, format!("The image could not be prepared: {e}")))?;
        for i in 0..chunks.len() {
            let Some(chunk) = chunks.get(i) else { continue };
            if chunk.chunk_type() != MtmdInputChunkType::Image {
                continue;
            }
            mtmd.encode_chunk(&chunk)
                .map_err(|e| EngineError::new(500, format!("The image encoder failed: {e}")))?;
            // The width mtmd's own helper uses when decoding embeddings.
            let width =
                unsafe { llama_cpp_sys_2::llama_model_n_embd_inp(ffi::model_ptr(self.model)) };
            let n = chunk.n_tokens() * width.max(0) as usize;
            let Some(raw) = ffi::mtmd_ptr(mtmd) else {
                return Ok(());
            };
            // SAFETY: after a successful encode the output holds n_tokens rows
            // of the text model's embedding width.
            let out = unsafe { llama_cpp_sys_2::mtmd_get_output_embd(raw) };
            if out.is_null() {
                return Ok(());
            }
            let embd = unsafe { std::slice::from_raw_parts(out, n) }.to_vec();
            self.embeddings.put(image.hash.clone(), Arc::new(embd));
        }
        Ok(())
    }

    fn tokenize_text(&self, prompt: &str) -> Vec<LlamaToken> {
        let vocab = self.model.vocab();
        let bos_text = self.template_bos();
        let add_special = bos_text.is_empty() || !prompt.starts_with(&bos_text);
        vocab.tokenize(prompt.as_bytes(), add_special, true)
    }

    fn template_bos(&self) -> String {
        let vocab = self.model.vocab();
        if vocab.bos().0 < 0 {
            return String::new();
        }
        String::from_utf8_lossy(&vocab.token_to_piece(vocab.bos(), true, None)).into_owned()
    }

    fn build_prompt(&mut self, messages: &[&ChatMessage]) -> Result<(Prompt, String), EngineError> {
        let tmsgs: Vec<TemplateMessage> = messages
            .iter()
            .map(|m| TemplateMessage {
                role: m.role.clone(),
                content: m.content.clone(),
            })
            .collect();
        let text = self
            .template
            .render(&tmsgs)
            .map_err(|e| EngineError::new(500, e))?;
        let images: Vec<&Image> = messages.iter().flat_map(|m| m.images.iter()).collect();
        let prompt = self.tokenize_prompt(&text, &images)?;
        Ok((prompt, text))
    }

    fn tokenize_prompt(&mut self, text: &str, images: &[&Image]) -> Result<Prompt, EngineError> {
        if images.is_empty() {
            return Ok(Prompt::Text(self.tokenize_text(text)));
        }
        let mut bitmaps = Vec::with_capacity(images.len());
        for img in images {
            bitmaps.push(self.bitmap(img)?);
        }
        let refs: Vec<&MtmdBitmap> = bitmaps.iter().map(|b| b.as_ref()).collect();
        let bos_text = self.template_bos();
        let add_special = bos_text.is_empty() || !text.starts_with(&bos_text);
        let mtmd = self
            .mtmd
            .as_ref()
            .ok_or_else(|| EngineError::new(400, "The loaded model does not accept images."))?;
        let chunks = mtmd
            .tokenize(
                MtmdInputText {
                    text: text.to_string(),
                    add_special,
                    parse_special: true,
                },
                &refs,
            )
            .map_err(|e| EngineError::new(400, format!("The images could not be prepared: {e}")))?;
        Ok(Prompt::Chunks(chunks))
    }

    /// An image sent ahead of its question most likely opens the next user
    /// message of the last conversation (or of a new one). Evaluating the
    /// prompt up to and including the image now lets the question itself
    /// start from the cache. A wrong guess only costs cache contents.
    fn speculate(&mut self, image: &Image) {
        let mut msgs = self.history.clone();
        if !msgs.is_empty() {
            msgs.push(ChatMessage {
                role: "assistant".into(),
                content: self.history_reply.clone(),
                images: Vec::new(),
            });
        }
        msgs.push(ChatMessage {
            role: "user".into(),
            content: format!("{MEDIA_MARKER}\n?"),
            images: vec![image.clone()],
        });
        let tmsgs: Vec<TemplateMessage> = msgs
            .iter()
            .map(|m| TemplateMessage {
                role: m.role.clone(),
                content: m.content.clone(),
            })
            .collect();
        let Ok(text) = self.template.render(&tmsgs) else {
            return;
        };
        let Some(at) = text.rfind(MEDIA_MARKER) else {
            return;
        };
        let prefix = &text[..at + MEDIA_MARKER.len()];
        let images: Vec<&Image> = msgs.iter().flat_map(|m| m.images.iter()).collect();
        let Ok(Prompt::Chunks(chunks)) = self.tokenize_prompt(prefix, &images) else {
            return;
        };
        if chunks.total_tokens() + (self.n_ctx as usize) / 4 > self.n_ctx as usize {
            return;
        }
        let (events, _keep_open) = tmpsc::unbounded_channel();
        let never = AtomicBool::new(false);
        let _ = self.prefill_chunks(&chunks, &never, &events, true);
    }

    /// Renders the conversation, dropping its oldest turns while it does not
    /// fit the context together with room for the reply.
    fn fit_prompt(&mut self, job: &ChatJob, reserve: usize) -> Result<Prompt, EngineError> {
        let all: Vec<&ChatMessage> = job.messages.iter().collect();
        let (system, rest): (Vec<&ChatMessage>, Vec<&ChatMessage>) =
            all.iter().partition(|m| m.role == "system");
        let anchor = self.cut_anchor.as_ref().and_then(|(role, content)| {
            rest.iter()
                .position(|m| &m.role == role && &m.content == content)
        });
        let mut start = 0usize;
        let limit = self.n_ctx as usize;
        // A fresh cut goes well below the limit so the next turns can keep it
        // (and the cache); a conversation that fits is never cut.
        let target = limit * 3 / 4;
        let mut bound = limit;
        loop {
            let msgs: Vec<&ChatMessage> =
                system.iter().chain(rest[start..].iter()).copied().collect();
            let (prompt, _) = self.build_prompt(&msgs)?;
            let n = prompt.len();
            let last_resort = start + 1 >= rest.len();
            if n + reserve <= bound || last_resort {
                self.cut_anchor = if start > 0 {
                    rest.get(start).map(|m| (m.role.clone(), m.content.clone()))
                } else {
                    None
                };
                if n + reserve <= limit {
                    return Ok(prompt);
                }
                // Even the newest message alone is too long: keep its tail.
                return match prompt {
                    Prompt::Text(tokens) => {
                        let keep = limit.saturating_sub(reserve).max(1);
                        Ok(Prompt::Text(
                            tokens[tokens.len().saturating_sub(keep)..].to_vec(),
                        ))
                    }
                    Prompt::Chunks(_) => Err(EngineError::new(
                        400,
                        "The message is too long for the model's context.",
                    )),
                };
            }
            // Cut where the previous overflow cut, so the cache stays useful.
            if let Some(a) = anchor.filter(|a| *a > start && a + 1 < rest.len()) {
                start = a;
                bound = limit;
                continue;
            }
            bound = target;
            start += 1;
            while start + 1 < rest.len() && rest[start].role != "user" {
                start += 1;
            }
        }
    }

    fn chat(&mut self, job: ChatJob) {
        let t_start = Instant::now();
        self.reused_images = 0;
        if job.messages.iter().any(|m| !m.images.is_empty()) && self.mtmd.is_none() {
            let _ = job.events.send(Event::Error(EngineError::new(
                400,
                "The loaded model does not accept images.",
            )));
            return;
        }
        let max_tokens = job.max_tokens.map(|m| m as usize).unwrap_or(usize::MAX);
        let reserve = max_tokens.min(self.n_ctx as usize / 4).max(1);
        let prompt = match self.fit_prompt(&job, reserve) {
            Ok(p) => p,
            Err(e) => {
                let _ = job.events.send(Event::Error(e));
                return;
            }
        };
        let prompt_tokens = prompt.len() as i64;
        if prompt_tokens == 0 {
            let _ = job.events.send(Event::Error(EngineError::new(
                400,
                "The conversation is empty.",
            )));
            return;
        }
        if job.events.send(Event::Started).is_err() {
            return;
        }

        let t_prefill = Instant::now();
        let (evaluated, next_pos) = match self.prefill(&prompt, &job.cancel, &job.events) {
            Ok(r) => r,
            Err(Some(e)) => {
                let _ = job.events.send(Event::Error(e));
                return;
            }
            Err(None) => {
                // Cancelled while reading the prompt; still record the run so
                // the figures never describe an older one.
                *lock(&self.shared.last) = RunMetrics {
                    prompt_tokens,
                    ttft_ms: t_start.elapsed().as_secs_f64() * 1000.0,
                    ..RunMetrics::default()
                };
                return;
            }
        };
        let prefill_secs = t_prefill.elapsed().as_secs_f64();
        let ttft = t_start.elapsed().as_secs_f64();

        // Sampling.
        let mut sampler = if job.temperature <= 0.0 {
            LlamaSampler::greedy()
        } else {
            let mut chain = Vec::new();
            if job.top_k > 0 {
                chain.push(LlamaSampler::top_k(job.top_k));
            }
            if job.top_p > 0.0 && job.top_p < 1.0 {
                chain.push(LlamaSampler::top_p(job.top_p, 1));
            }
            if job.min_p > 0.0 {
                chain.push(LlamaSampler::min_p(job.min_p, 1));
            }
            chain.push(LlamaSampler::temp(job.temperature));
            chain.push(LlamaSampler::dist(job.seed));
            LlamaSampler::chain_simple(chain)
        };

        let vocab = self.model.vocab();
        let mut utf8 = Utf8Stream::default();
        let mut reply = String::new();
        let mut stop_list = job.stop.clone();
        stop_list.extend(self.template.implicit_stops());
        let mut stops = StopMatcher::new(stop_list);
        let mut batch = LlamaBatch::new(1, 1);
        let mut completion = 0i64;
        let mut finish = "length";
        let t_decode = Instant::now();
        let mut pos = next_pos;
        let mut piece = Vec::with_capacity(32);
        loop {
            if job.cancel.load(Ordering::Relaxed)
                || job.events.is_closed()
                || self.shared.shutting_down.load(Ordering::Relaxed)
            {
                finish = "cancelled";
                break;
            }
            if completion as usize >= max_tokens {
                break;
            }
            if pos >= self.n_ctx as usize {
                break;
            }
            let token = sampler.sample(&self.ctx, -1);
            if vocab.is_eog(token) {
                finish = "stop";
                break;
            }
            completion += 1;
            piece.clear();
            vocab.token_to_piece_into(token, &mut piece, false, None);
            let text = utf8.push(&piece);
            if !text.is_empty() {
                match stops.push(&text) {
                    StopOutcome::Emit(t) => {
                        reply.push_str(&t);
                        if !t.is_empty() && job.events.send(Event::Delta(t)).is_err() {
                            finish = "cancelled";
                            break;
                        }
                    }
                    StopOutcome::Stopped(t) => {
                        reply.push_str(&t);
                        if !t.is_empty() {
                            let _ = job.events.send(Event::Delta(t));
                        }
                        finish = "stop";
                        // The stop string stays out of the cache's record of
                        // the reply; the next turn re-renders it anyway.
                        break;
                    }
                }
            }
            if completion as usize >= max_tokens || pos + 1 >= self.n_ctx as usize {
                // No need to evaluate a token we will never continue from.
                break;
            }
            batch.clear();
            if batch.add(token, pos as i32, &[0], true).is_err() {
                break;
            }
            if let Err(e) = self.ctx.decode(&mut batch) {
                let _ = job.events.send(Event::Error(EngineError::new(
                    500,
                    format!("Generation failed: {e}"),
                )));
                self.cached.clear();
                self.ctx.clear_kv_cache();
                return;
            }
            self.cached.push(Key::Token(token.0));
            pos += 1;
        }
        if finish != "cancelled" {
            let rest = utf8.finish();
            let mut tail = String::new();
            if !rest.is_empty() {
                match stops.push(&rest) {
                    StopOutcome::Emit(t) | StopOutcome::Stopped(t) => tail.push_str(&t),
                }
            }
            tail.push_str(&stops.finish());
            reply.push_str(&tail);
            if !tail.is_empty() {
                let _ = job.events.send(Event::Delta(tail));
            }
        }
        let decode_secs = t_decode.elapsed().as_secs_f64();
        let metrics = RunMetrics {
            decode_tps: if decode_secs > 0.0 && completion > 0 {
                completion as f64 / decode_secs
            } else {
                0.0
            },
            prefill_tps: if prefill_secs > 0.0 && evaluated > 0 {
                evaluated as f64 / prefill_secs
            } else {
                0.0
            },
            prompt_tokens,
            completion_tokens: completion,
            evaluated_tokens: evaluated as i64,
            cached_tokens: prompt_tokens - evaluated as i64,
            ttft_ms: ttft * 1000.0,
            reused_images: self.reused_images,
        };
        *lock(&self.shared.last) = metrics;
        self.history = job.messages.clone();
        self.history_reply = reply;
        let _ = job.events.send(Event::Done {
            finish_reason: if finish == "cancelled" {
                "stop"
            } else {
                finish
            },
            prompt_tokens,
            completion_tokens: completion,
        });
    }

    /// Drops cached positions from `keep` on; false when the cache cannot do it.
    fn truncate_cache(&mut self, keep: usize) -> bool {
        if keep >= self.cached.len() {
            return true;
        }
        let ok = self
            .ctx
            .clear_kv_cache_seq(Some(0), Some(keep as u32), None)
            .unwrap_or(false);
        if ok {
            self.cached.truncate(keep);
        } else {
            self.ctx.clear_kv_cache();
            self.cached.clear();
        }
        ok
    }

    /// M-RoPE models give images fewer positions than keys, so their cache is
    /// only trusted up to the first image.
    fn limit_for_mrope(&self, keep: usize) -> usize {
        if !self.mrope {
            return keep;
        }
        let first = self
            .cached
            .iter()
            .position(|k| matches!(k, Key::Image(..)))
            .unwrap_or(keep);
        keep.min(first)
    }

    /// Evaluates the prompt after what the cache already holds. Returns the
    /// number of positions evaluated and the next position, Err(None) when
    /// cancelled.
    fn prefill(
        &mut self,
        prompt: &Prompt,
        cancel: &AtomicBool,
        events: &tmpsc::UnboundedSender<Event>,
    ) -> Result<(usize, usize), Option<EngineError>> {
        match prompt {
            Prompt::Text(tokens) => {
                let keys: Vec<Key> = tokens.iter().map(|t| Key::Token(t.0)).collect();
                let mut keep = self.limit_for_mrope(reusable_prefix(&self.cached, &keys));
                if !self.truncate_cache(keep) {
                    keep = 0;
                }
                self.decode_tokens(&tokens[keep..], keep, cancel, events)?;
                Ok((tokens.len() - keep, tokens.len()))
            }
            Prompt::Chunks(chunks) => self.prefill_chunks(chunks, cancel, events, false),
        }
    }

    fn decode_tokens(
        &mut self,
        tokens: &[LlamaToken],
        start: usize,
        cancel: &AtomicBool,
        events: &tmpsc::UnboundedSender<Event>,
    ) -> Result<(), Option<EngineError>> {
        let n_batch = self.n_batch as usize;
        let mut batch = LlamaBatch::new(n_batch, 1);
        let mut pos = start;
        for (ci, part) in tokens.chunks(n_batch).enumerate() {
            if cancel.load(Ordering::Relaxed) || events.is_closed() {
                return Err(None);
            }
            batch.clear();
            let last_part = (ci + 1) * n_batch >= tokens.len();
            for (i, t) in part.iter().enumerate() {
                let logits = last_part && i + 1 == part.len();
                batch
                    .add(*t, (pos + i) as i32, &[0], logits)
                    .map_err(|e| Some(EngineError::new(500, format!("batch error: {e}"))))?;
            }
            if let Err(e) = self.ctx.decode(&mut batch) {
                self.truncate_cache(pos);
                return Err(Some(EngineError::new(
                    500,
                    format!("Prompt evaluation failed: {e}"),
                )));
            }
            self.cached.extend(part.iter().map(|t| Key::Token(t.0)));
            pos += part.len();
        }
        Ok(())
    }

    fn prefill_chunks(
        &mut self,
        chunks: &MtmdInputChunks,
        cancel: &AtomicBool,
        events: &tmpsc::UnboundedSender<Event>,
        speculative: bool,
    ) -> Result<(usize, usize), Option<EngineError>> {
        // Keys per chunk; M-RoPE models place images differently, so their
        // cache is only reused up to the first image.
        let mut keys = Vec::new();
        let mut first_image = None;
        for i in 0..chunks.len() {
            let Some(c) = chunks.get(i) else { continue };
            match c.chunk_type() {
                MtmdInputChunkType::Text => {
                    keys.extend(
                        c.text_tokens()
                            .unwrap_or(&[])
                            .iter()
                            .map(|t| Key::Token(t.0)),
                    );
                }
                _ => {
                    first_image.get_or_insert(keys.len());
                    let h = hash_key(&c.id().unwrap_or_default());
                    keys.extend((0..c.n_tokens() as u32).map(|j| Key::Image(h, j)));
                }
            }
        }
        if speculative
            && (self.mrope || crate::prompt::common_prefix(&self.cached, &keys) == keys.len())
        {
            return Ok((0, keys.len()));
        }
        let mut keep = self.limit_for_mrope(reusable_prefix(&self.cached, &keys));
        if self.mrope {
            keep = keep.min(first_image.unwrap_or(keep));
        }
        // Back up to the start of an image that is only partly cached.
        let mut s = 0;
        for i in 0..chunks.len() {
            let Some(c) = chunks.get(i) else { continue };
            let n = c.n_tokens();
            if c.chunk_type() != MtmdInputChunkType::Text && s < keep && keep < s + n {
                keep = s;
            }
            s += n;
        }
        if !self.truncate_cache(keep) {
            keep = 0;
        }
        let ctx_ptr = ffi::context_ptr(&self.ctx, self.model);
        let raw_ok = ctx_ptr.is_some() && self.mtmd.as_ref().and_then(ffi::mtmd_ptr).is_some();
        if !raw_ok {
            // Without the raw handles, evaluate everything through the safe
            // wrapper: correct, only without cache reuse for this prompt.
            self.ctx.clear_kv_cache();
            self.cached.clear();
            let mtmd = self
                .mtmd
                .as_mut()
                .ok_or_else(|| Some(EngineError::new(400, "no projector")))?;
            let end = chunks
                .eval_chunks(mtmd, &mut self.ctx, 0, 0, self.n_batch as i32, true)
                .map_err(|e| {
                    Some(EngineError::new(
                        500,
                        format!("Prompt evaluation failed: {e}"),
                    ))
                })?;
            self.cached = keys.clone();
            return Ok((keys.len(), end as usize));
        }
        let mut s = 0usize;
        let mut pos = keep as i32;
        let n_chunks = chunks.len();
        for i in 0..n_chunks {
            let Some(c) = chunks.get(i) else { continue };
            let n = c.n_tokens();
            let end = s + n;
            if end <= keep {
                s = end;
                continue;
            }
            if cancel.load(Ordering::Relaxed) || events.is_closed() {
                return Err(None);
            }
            match c.chunk_type() {
                MtmdInputChunkType::Text => {
                    let tokens: Vec<LlamaToken> = c.text_tokens().unwrap_or(&[]).to_vec();
                    let from = keep.saturating_sub(s);
                    self.decode_tokens(&tokens[from..], pos as usize, cancel, events)?;
                    pos += (n - from) as i32;
                }
                _ => {
                    let id = c.id().unwrap_or_default();
                    let cached_embd = self.embeddings.get(&id);
                    let mtmd = self
                        .mtmd
                        .as_mut()
                        .ok_or_else(|| Some(EngineError::new(400, "no projector")))?;
                    let raw =
                        (|| Some((ffi::mtmd_ptr(mtmd)?, ctx_ptr?, ffi::chunk_ptr(chunks, i)?)))();
                    let mut new_pos: i32 = pos;
                    let rc = match (raw, cached_embd) {
                        (Some((m, l, ch)), Some(embd)) => unsafe {
                            // Reuses the encoder output computed by /api/encode.
                            self.reused_images += 1;
                            llama_cpp_sys_2::mtmd_helper_decode_image_chunk(
                                m,
                                l,
                                ch,
                                embd.as_ptr() as *mut f32,
                                pos,
                                0,
                                self.n_batch as i32,
                                &mut new_pos,
                                None,
                                std::ptr::null_mut(),
                            )
                        },
                        (Some((m, l, ch)), None) => unsafe {
                            llama_cpp_sys_2::mtmd_helper_eval_chunk_single(
                                m,
                                l,
                                ch,
                                pos,
                                0,
                                self.n_batch as i32,
                                false,
                                &mut new_pos,
                            )
                        },
                        (None, _) => {
                            return Err(Some(EngineError::new(
                                500,
                                "This build cannot evaluate images.",
                            )));
                        }
                    };
                    if rc != 0 {
                        self.truncate_cache(s);
                        return Err(Some(EngineError::new(
                            500,
                            format!("Image evaluation failed ({rc})."),
                        )));
                    }
                    self.cached.extend_from_slice(&keys[s..end]);
                    pos = new_pos;
                }
            }
            s = end;
        }
        Ok((keys.len() - keep, pos as usize))
    }
}
