//! Loading a model: our own header check, the probe, llama.cpp's loader,
//! then a session that serves it.

use super::session::Session;
use super::{memory, probe, Command, EngineError, LoadRequest};
use crate::gguf;
use crate::llama::Model;
use crate::state::{lock, Loaded, Shared};
use llama_cpp_2::llama_backend::LlamaBackend;
use std::panic::{catch_unwind, AssertUnwindSafe};
use std::sync::{mpsc, Arc};
use tokio::sync::oneshot;

/// Layers asked for when offloading: more than any model has, so all of them.
const ALL_LAYERS: i32 = 999;
/// The smallest context a model gets.
const MIN_CONTEXT: u32 = 64;

/// Loads the model, answers `reply`, and serves the model until it is
/// unloaded (None) or another load arrives (returned).
pub(super) fn load_and_serve(
    backend: &LlamaBackend,
    request: LoadRequest,
    reply: oneshot::Sender<Result<(), EngineError>>,
    commands: &mpsc::Receiver<Command>,
    shared: &Arc<Shared>,
) -> Option<Command> {
    *lock(&shared.loaded) = None;
    let offload = request.gpu && backend.supports_gpu_offload();
    let (model, kv_bytes_per_token) = match load_model(backend, &request, offload) {
        Ok(loaded) => loaded,
        Err(e) => {
            let _ = reply.send(Err(e));
            return None;
        }
    };
    let context_size = match request.context_size {
        0 => model.n_ctx_train(),
        asked => asked,
    }
    .max(MIN_CONTEXT);
    // Offloaded caches live in GPU memory, which llama.cpp checks itself.
    if !offload {
        if let Err(e) = memory::check_context(&request.name, context_size, kv_bytes_per_token) {
            let _ = reply.send(Err(e));
            return None;
        }
    }
    let opened = Session::open(backend, &model, &request, context_size, offload, shared);
    let (session, projector) = match opened {
        Ok(opened) => opened,
        Err(e) => {
            let _ = reply.send(Err(e));
            return None;
        }
    };
    *lock(&shared.loaded) = Some(Loaded {
        name: request.name.clone(),
        backend: if offload { "gpu" } else { "cpu" },
        ctx: session.context_size,
        vision: session.projector.is_some(),
        projector,
    });
    let _ = reply.send(Ok(()));
    let next = session.serve(commands);
    *lock(&shared.loaded) = None;
    next
}

/// The model, and the KV cache bytes per token its header gives.
fn load_model(
    backend: &LlamaBackend,
    request: &LoadRequest,
    offload: bool,
) -> Result<(Model, Option<u64>), EngineError> {
    let name = &request.name;
    // Our own bounds-checked reader looks at the header before llama.cpp does.
    let header = gguf::read_file(&request.path).map_err(|e| EngineError::NotGguf {
        name: name.clone(),
        reason: e.to_string(),
    })?;
    if header.is_projector() {
        return Err(EngineError::ProjectorIsNotAModel { name: name.clone() });
    }
    let architecture = || header.architecture().unwrap_or("unknown").to_string();
    probe::check(&request.path, None).map_err(|reason| EngineError::ProbeFailed {
        name: name.clone(),
        architecture: architecture(),
        reason,
    })?;
    let layers = if offload { ALL_LAYERS } else { 0 };
    let loaded = catch_unwind(AssertUnwindSafe(|| {
        Model::load(backend, &request.path, layers)
    }));
    match loaded {
        Ok(Ok(model)) => Ok((model, header.kv_bytes_per_token())),
        Ok(Err(reason)) => Err(EngineError::LoadFailed {
            name: name.clone(),
            architecture: architecture(),
            reason,
        }),
        Err(_) => Err(EngineError::LoadPanicked { name: name.clone() }),
    }
}
