//! Writes a random-weight gemma3 text model that pairs with the tiny test projector
//! (mmproj-tinygemma3, 128 wide) for the image benchmark. The width is fixed by the
//! projector, so the model is made deep and its feed-forward wide instead: per token
//! the weights then cost far more than attention over the context, as in a real
//! vision model, and the image follow-up timing shows the engine rather than the
//! toy's attention.
//!
//!     cargo run --release --example bench_vision_model -- OUT.gguf VOCAB.gguf [--layers N] [--ff N]
//!
//! The file is written next to OUT first and renamed when complete.

#[allow(dead_code)]
#[path = "../tests/common/gen.rs"]
mod gen;

use std::path::PathBuf;

fn usage() -> ! {
    eprintln!("usage: bench_vision_model OUT.gguf VOCAB.gguf [--layers N] [--ff N]");
    std::process::exit(2)
}

fn main() {
    let mut paths: Vec<PathBuf> = Vec::new();
    let mut layers = 8;
    let mut ff = 16384;
    let mut args = std::env::args().skip(1);
    while let Some(arg) = args.next() {
        if !arg.starts_with("--") {
            paths.push(arg.into());
            continue;
        }
        let value: u64 = args
            .next()
            .and_then(|v| v.parse().ok())
            .filter(|&n| n > 0)
            .unwrap_or_else(|| usage());
        match arg.as_str() {
            "--layers" => layers = value,
            "--ff" => ff = value,
            _ => usage(),
        }
    }
    let [out, vocab] = paths.as_slice() else {
        usage()
    };
    let partial = out.with_extension("gguf.part");
    gen::write_model(
        &partial,
        vocab,
        &gen::ModelShape {
            arch: "gemma3",
            n_embd: 128,
            n_layer: layers,
            n_head: 4,
            n_ff: ff,
            seed: 17,
        },
    );
    if let Err(e) = std::fs::rename(&partial, out) {
        eprintln!("bench_vision_model: cannot move the model into place: {e}");
        std::process::exit(1);
    }
    println!("wrote {}", out.display());
}
