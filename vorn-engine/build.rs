//! Puts llama.cpp's shared libraries and backend modules beside the engine binary.
//!
//! Where llama-cpp-sys-2 builds llama.cpp with loadable backends (x86-64: one CPU
//! module per instruction-set level), the engine links llama.cpp's shared libraries and
//! loads the modules from its own folder at run time. This copies both from the sys
//! crate's output into the cargo profile folder (target/release), where the binary and
//! the tests that start it look, and lists them in `vorn-engine-runtime.txt` there, which
//! the CMake build reads to install them beside `build/bin/vorn-engine` and the engine
//! benchmark reads to build its llama.cpp reference. Nothing happens for other targets,
//! where llama.cpp is linked in statically.

use std::fs;
use std::io;
use std::path::{Path, PathBuf};

const MANIFEST: &str = "vorn-engine-runtime.txt";

/// The shared libraries the engine links (llama.cpp also builds others, such as its
/// command-line helpers' `llama-common`, which the engine never loads).
const LIBRARIES: [&str; 4] = ["llama", "mtmd", "ggml", "ggml-base"];

/// The library a file name belongs to: `libggml-base.so.0` and `ggml-base.dll` are `ggml-base`.
fn library_of(file: &str) -> &str {
    let name = file.strip_prefix("lib").unwrap_or(file);
    name.split('.').next().unwrap_or(name)
}

fn main() {
    println!("cargo:rerun-if-changed=build.rs");
    println!("cargo:rerun-if-env-changed=DEP_LLAMA_BACKENDS_DIR");
    let Some(backends) = std::env::var_os("DEP_LLAMA_BACKENDS_DIR").map(PathBuf::from) else {
        return;
    };
    let target_os = std::env::var("CARGO_CFG_TARGET_OS").unwrap_or_default();
    // The binary finds the shared libraries in its own folder.
    match target_os.as_str() {
        "linux" | "android" | "freebsd" => println!("cargo:rustc-link-arg-bins=-Wl,-rpath,$ORIGIN"),
        "macos" | "ios" => println!("cargo:rustc-link-arg-bins=-Wl,-rpath,@loader_path"),
        _ => {}
    }
    let out = PathBuf::from(std::env::var("OUT_DIR").expect("cargo sets OUT_DIR"));
    // OUT_DIR is <profile>/build/<crate>-<hash>/out.
    let profile = out
        .ancestors()
        .nth(3)
        .expect("OUT_DIR is deep enough")
        .to_path_buf();
    let llama = backends
        .parent()
        .expect("the backends folder has a parent")
        .to_path_buf();
    if let Err(e) = install(&llama, &backends, &profile, &target_os) {
        panic!(
            "cannot put llama.cpp's libraries beside the engine in {}: {e}",
            profile.display()
        );
    }
}

fn install(llama: &Path, backends: &Path, profile: &Path, target_os: &str) -> io::Result<()> {
    let (folders, is_library): (Vec<PathBuf>, fn(&str) -> bool) = match target_os {
        "windows" => (vec![llama.join("bin")], |n| n.ends_with(".dll")),
        "macos" | "ios" => (vec![llama.join("lib")], |n| {
            n.starts_with("lib") && n.ends_with(".dylib")
        }),
        _ => (vec![llama.join("lib"), llama.join("lib64")], |n| {
            n.starts_with("lib") && (n.ends_with(".so") || n.contains(".so."))
        }),
    };
    let mut files = Vec::new();
    for folder in folders.iter().filter(|f| f.is_dir()) {
        println!("cargo:rerun-if-changed={}", folder.display());
        for name in names_in(folder)? {
            if is_library(&name) && LIBRARIES.contains(&library_of(&name)) {
                files.push((folder.join(&name), name));
            }
        }
    }
    println!("cargo:rerun-if-changed={}", backends.display());
    for name in names_in(backends)? {
        files.push((backends.join(&name), name));
    }

    let manifest = profile.join(MANIFEST);
    let before = fs::read_to_string(&manifest).unwrap_or_default();
    for (from, name) in &files {
        copy(from, &profile.join(name))?;
    }
    // Modules of an earlier build (another feature set) must not be loaded with this one.
    for old in listed_files(&before) {
        if !files.iter().any(|(_, name)| *name == old) {
            let _ = fs::remove_file(profile.join(old));
        }
    }
    let mut text = String::from("# llama.cpp's libraries and backend modules beside vorn-engine (written by its build script)\n");
    text.push_str(&format!("include {}\n", llama.join("include").display()));
    for (_, name) in &files {
        text.push_str(&format!("file {name}\n"));
    }
    if text != before {
        fs::write(&manifest, text)?;
    }
    Ok(())
}

fn names_in(folder: &Path) -> io::Result<Vec<String>> {
    let mut names: Vec<String> = fs::read_dir(folder)?
        .filter_map(|e| e.ok()?.file_name().into_string().ok())
        .collect();
    names.sort();
    Ok(names)
}

fn listed_files(manifest: &str) -> impl Iterator<Item = &str> {
    manifest.lines().filter_map(|l| l.strip_prefix("file "))
}

/// Copies a file, or recreates a symbolic link (versioned library names), unless the
/// destination already matches. A changed file is replaced, never written through: the
/// sys crate hard-links some of these names into the same folder.
fn copy(from: &Path, to: &Path) -> io::Result<()> {
    let meta = fs::symlink_metadata(from)?;
    if meta.file_type().is_symlink() {
        let link = fs::read_link(from)?;
        if fs::read_link(to).ok().as_ref() == Some(&link) {
            return Ok(());
        }
        remove(to)?;
        #[cfg(unix)]
        return std::os::unix::fs::symlink(&link, to);
        #[cfg(not(unix))]
        return fs::copy(from, to).map(|_| ());
    }
    if let Ok(existing) = fs::symlink_metadata(to) {
        let same =
            existing.is_file() && existing.len() == meta.len() && fs::read(to)? == fs::read(from)?;
        if same {
            return Ok(());
        }
    }
    let name = to.file_name().unwrap_or_default().to_string_lossy();
    let partial = to.with_file_name(format!(".{name}.partial"));
    fs::copy(from, &partial)?;
    fs::rename(&partial, to)
}

fn remove(path: &Path) -> io::Result<()> {
    match fs::remove_file(path) {
        Err(e) if e.kind() != io::ErrorKind::NotFound => Err(e),
        _ => Ok(()),
    }
}
