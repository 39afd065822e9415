//! Which build of llama.cpp's CPU code the engine runs on.
//!
//! On x86-64 that code is built several times, once per instruction-set level, as
//! modules beside the engine (`libggml-cpu-<variant>.so`). At start-up llama.cpp's own
//! loader scores each against the CPU and loads the best; `VORN_CPU_VARIANT=<variant>`
//! loads that one instead (tests, speed comparisons). GPU backends built with the
//! engine are modules beside it too. Elsewhere the CPU code is linked into the engine
//! and the variant is reported as "built-in".

use std::sync::OnceLock;

/// Names the variant to load instead of the best one, e.g. `x64`.
pub const FORCE_VARIABLE: &str = "VORN_CPU_VARIANT";

static LOADED: OnceLock<Result<String, String>> = OnceLock::new();

/// Loads llama.cpp's backends. Call once at start-up, before llama.cpp is used.
pub fn load() {
    LOADED.get_or_init(|| {
        let result = load_now();
        if let Err(why) = &result {
            eprintln!("vorn-engine: {why}");
        }
        result
    });
}

/// The CPU variant in use ("haswell", "x64", ...), or None when none is loaded.
pub fn variant() -> Option<String> {
    LOADED.get()?.as_ref().ok().cloned()
}

/// Why no CPU backend is loaded, once `load` has run and failed.
pub fn failure() -> Option<String> {
    LOADED.get()?.as_ref().err().cloned()
}

#[cfg(not(target_arch = "x86_64"))]
fn load_now() -> Result<String, String> {
    Ok("built-in".into())
}

#[cfg(target_arch = "x86_64")]
use modules::load_now;

#[cfg(target_arch = "x86_64")]
mod modules {
    use super::FORCE_VARIABLE;
    use llama_cpp_sys_2 as sys;
    use std::ffi::{CStr, CString};
    use std::path::{Path, PathBuf};

    /// GPU backends that the engine's cargo features can build; one module each.
    const GPU_BACKENDS: [&str; 3] = ["cuda", "vulkan", "metal"];

    fn module_file(name: &str) -> String {
        if cfg!(windows) {
            format!("ggml-{name}.dll")
        } else {
            format!("libggml-{name}.so")
        }
    }

    fn c_path(path: &Path) -> Result<CString, String> {
        CString::new(path.to_string_lossy().as_bytes())
            .map_err(|_| format!("{} contains a NUL byte", path.display()))
    }

    pub fn load_now() -> Result<String, String> {
        let exe = std::env::current_exe()
            .map_err(|e| format!("cannot find the engine's own folder: {e}"))?;
        let dir = exe.parent().map(Path::to_path_buf).unwrap_or_default();
        if std::env::var_os("VORN_ENGINE_LOG").is_none() {
            quiet_logs();
        }
        match std::env::var(FORCE_VARIABLE) {
            Ok(name) if !name.is_empty() => load_forced(&dir, &name)?,
            // llama.cpp's own choice, looking only in the engine's folder.
            _ => {
                let folder = c_path(&dir)?;
                // SAFETY: `folder` is a NUL-terminated path that outlives the call,
                // which only reads it; start-up runs this once, before any other
                // llama.cpp call.
                unsafe { sys::ggml_backend_load_all_from_path(folder.as_ptr()) }
            }
        }
        loaded_variant(&dir)
    }

    fn load_forced(dir: &Path, name: &str) -> Result<(), String> {
        let plain = name
            .chars()
            .all(|c| c.is_ascii_alphanumeric() || c == '_' || c == '.');
        let path = dir.join(module_file(&format!("cpu-{name}")));
        if !plain || !path.is_file() {
            return Err(format!(
                "{FORCE_VARIABLE}={name:?} names no CPU variant beside the engine; there are: {}",
                available(dir).join(", ")
            ));
        }
        let file = c_path(&path)?;
        // llama.cpp refuses a variant whose instructions this CPU lacks.
        // SAFETY: `file` is a NUL-terminated path that outlives the call, which only
        // reads it; the returned registration is owned by llama.cpp.
        if unsafe { sys::ggml_backend_load(file.as_ptr()) }.is_null() {
            return Err(format!(
                "{FORCE_VARIABLE}={name}: this CPU lacks the instructions that variant needs"
            ));
        }
        for gpu in GPU_BACKENDS {
            let module = dir.join(module_file(gpu));
            if module.is_file() {
                let file = c_path(&module)?;
                // SAFETY: as above; a GPU module that fails to load is left out.
                unsafe { sys::ggml_backend_load(file.as_ptr()) };
            }
        }
        Ok(())
    }

    /// The CPU variants beside the engine, by name.
    pub fn available(dir: &Path) -> Vec<String> {
        let (prefix, suffix) = module_affixes();
        let mut names: Vec<String> = std::fs::read_dir(dir)
            .into_iter()
            .flatten()
            .flatten()
            .filter_map(|e| {
                let file = e.file_name().into_string().ok()?;
                Some(
                    file.strip_prefix(&prefix)?
                        .strip_suffix(&suffix)?
                        .to_string(),
                )
            })
            .collect();
        names.sort();
        names
    }

    fn module_affixes() -> (String, String) {
        let file = module_file("cpu-");
        let (prefix, suffix) = file.split_at(file.find('.').unwrap_or(file.len()));
        (prefix.to_string(), suffix.to_string())
    }

    /// The variant behind the registered CPU backend: the module file that holds its code.
    fn loaded_variant(dir: &Path) -> Result<String, String> {
        let none = || {
            format!(
                "no CPU backend of llama.cpp could be loaded from {} (found: {})",
                dir.display(),
                match available(dir) {
                    v if v.is_empty() => "none".to_string(),
                    v => v.join(", "),
                }
            )
        };
        // SAFETY: the name is a static NUL-terminated string; the lookup only reads it.
        let reg = unsafe { sys::ggml_backend_reg_by_name(c"CPU".as_ptr()) };
        if reg.is_null() {
            return Err(none());
        }
        // SAFETY: `reg` is a live registration (checked non-null above, owned by
        // llama.cpp for the whole run) and the name a static NUL-terminated string.
        let code = unsafe {
            sys::ggml_backend_reg_get_proc_address(reg, c"ggml_backend_get_features".as_ptr())
        };
        let file = module_of(code).ok_or_else(none)?;
        let name = file
            .file_name()
            .and_then(|n| n.to_str())
            .unwrap_or_default();
        let (prefix, suffix) = module_affixes();
        Ok(name
            .strip_prefix(&prefix)
            .and_then(|n| n.strip_suffix(&suffix))
            .unwrap_or(name)
            .to_string())
    }

    #[cfg(unix)]
    fn module_of(code: *mut std::ffi::c_void) -> Option<PathBuf> {
        if code.is_null() {
            return None;
        }
        // SAFETY: Dl_info is a plain C struct of pointers and integers, for which
        // all zeros is a valid value.
        let mut info: libc::Dl_info = unsafe { std::mem::zeroed() };
        // SAFETY: dladdr only reads the address and writes `info`, which lives on
        // this stack frame for the call.
        if unsafe { libc::dladdr(code, &mut info) } == 0 || info.dli_fname.is_null() {
            return None;
        }
        // SAFETY: dladdr set a non-null, NUL-terminated name that belongs to the
        // loaded module, which stays loaded for the whole run.
        let name = unsafe { CStr::from_ptr(info.dli_fname) };
        Some(PathBuf::from(name.to_string_lossy().into_owned()))
    }

    #[cfg(not(unix))]
    fn module_of(code: *mut std::ffi::c_void) -> Option<PathBuf> {
        // Loaded, but naming its file needs the Windows loader API.
        (!code.is_null()).then(|| PathBuf::from("unknown"))
    }

    /// llama.cpp reports each module it loads; the engine's log stays quiet unless asked.
    fn quiet_logs() {
        // SAFETY: a callback that ignores its arguments, valid for the whole run.
        unsafe { sys::ggml_log_set(Some(crate::llama::discard_log), std::ptr::null_mut()) };
    }
}
