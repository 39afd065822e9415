//! The inference thread while no model is loaded: it starts llama.cpp's
//! backend and waits for a model to load.

use super::{load, Command, EngineError};
use crate::state::Shared;
use llama_cpp_2::llama_backend::LlamaBackend;
use std::sync::{mpsc, Arc};

pub(super) fn run(commands: mpsc::Receiver<Command>, shared: Arc<Shared>) {
    if let Some(why) = crate::cpu_backend::failure() {
        // Without CPU code llama.cpp cannot run a model; say why on every request.
        for command in commands {
            command.refuse(EngineError::BackendFailed(why.clone()));
        }
        return;
    }
    let mut backend = match LlamaBackend::init() {
        Ok(b) => b,
        Err(e) => {
            eprintln!("vorn-engine: llama.cpp backend failed to start: {e}");
            // Keep answering so requests get an error instead of hanging.
            for command in commands {
                command.refuse(EngineError::BackendFailed(e.to_string()));
            }
            return;
        }
    };
    if std::env::var_os("VORN_ENGINE_LOG").is_none() {
        backend.void_logs();
        quiet_projector_logs();
    }
    let mut pending: Option<Command> = None;
    loop {
        let command = match pending.take() {
            Some(c) => c,
            None => match commands.recv() {
                Ok(c) => c,
                Err(_) => return,
            },
        };
        match command {
            Command::Load(request, reply) => {
                // Serves the model until another load (returned here) or an unload.
                pending = load::load_and_serve(&backend, request, reply, &commands, &shared)
            }
            Command::Unload(reply) => {
                let _ = reply.send(());
            }
            other => other.refuse(EngineError::NoModelLoaded),
        }
    }
}

/// The multimodal helpers log on their own channel, which `void_logs` leaves open.
fn quiet_projector_logs() {
    // SAFETY: `discard_log` matches ggml's log callback signature, ignores its
    // arguments, and, being a plain function, stays valid for the whole run;
    // the user data pointer is never read, so null is fine.
    unsafe {
        llama_cpp_sys_2::mtmd_helper_log_set(Some(crate::llama::discard_log), std::ptr::null_mut())
    };
}
