//! Writes a random-weight llama model of a given shape for the benchmarks, borrowing
//! the tokenizer of a vocabulary-only GGUF file. The default shape is that of a 1B
//! model (2048 wide, 16 layers, 32 query and 8 key/value heads, 8192 feed-forward,
//! trained context 131,072 tokens), quantized to Q4_0 like the small downloads people
//! run on a CPU.
//!
//!     cargo run --release --example bench_model -- OUT.gguf VOCAB.gguf [--type q4_0|q8_0|f16]
//!         [--embd N] [--layers N] [--heads N] [--kv-heads N] [--ff N] [--context N]
//!
//! The file is written next to OUT first and renamed when complete.

use std::io::Write;
use std::path::{Path, PathBuf};

const ALIGNMENT: u64 = 32;
const BLOCK: usize = 32;

#[derive(Clone, Copy, PartialEq)]
enum Kind {
    F32,
    F16,
    Q8_0,
    Q4_0,
}

impl Kind {
    fn ggml_type(self) -> u32 {
        match self {
            Kind::F32 => 0,
            Kind::F16 => 1,
            Kind::Q4_0 => 2,
            Kind::Q8_0 => 8,
        }
    }

    /// llama.cpp's "file type" for a model mostly of this kind.
    fn file_type(self) -> u32 {
        match self {
            Kind::F32 => 0,
            Kind::F16 => 1,
            Kind::Q4_0 => 2,
            Kind::Q8_0 => 7,
        }
    }

    fn row_bytes(self, n: u64) -> u64 {
        match self {
            Kind::F32 => n * 4,
            Kind::F16 => n * 2,
            Kind::Q8_0 => n / BLOCK as u64 * 34,
            Kind::Q4_0 => n / BLOCK as u64 * 18,
        }
    }
}

struct Shape {
    n_embd: u64,
    n_layer: u64,
    n_head: u64,
    n_head_kv: u64,
    n_ff: u64,
    /// The trained context the header states.
    context: u32,
    kind: Kind,
}

/// The `tokenizer.*` key/value entries of a GGUF file, raw, and its token count.
fn tokenizer_entries(vocab: &Path) -> Result<(Vec<Vec<u8>>, u64), String> {
    let bytes = std::fs::read(vocab).map_err(|e| format!("{}: {e}", vocab.display()))?;
    if bytes.len() < 24 || &bytes[..4] != b"GGUF" {
        return Err(format!("{} is not a GGUF file", vocab.display()));
    }
    let mut reader = Reader {
        bytes: &bytes,
        at: 8,
    };
    let _tensors = reader.u64()?;
    let entries = reader.u64()?;
    let mut out = Vec::new();
    let mut n_vocab = 0;
    for _ in 0..entries {
        let start = reader.at;
        let key = reader.string()?;
        let kind = reader.u32()?;
        let count = reader.skip_value(kind)?;
        if key == "tokenizer.ggml.tokens" {
            n_vocab = count;
        }
        if key.starts_with("tokenizer.") {
            out.push(bytes[start..reader.at].to_vec());
        }
    }
    if n_vocab == 0 {
        return Err(format!("{} has no tokenizer.ggml.tokens", vocab.display()));
    }
    Ok((out, n_vocab))
}

struct Reader<'a> {
    bytes: &'a [u8],
    at: usize,
}

impl Reader<'_> {
    fn take(&mut self, n: usize) -> Result<&[u8], String> {
        let end = self
            .at
            .checked_add(n)
            .filter(|&end| end <= self.bytes.len());
        let end = end.ok_or("the vocabulary file ends early")?;
        let slice = &self.bytes[self.at..end];
        self.at = end;
        Ok(slice)
    }
    fn u32(&mut self) -> Result<u32, String> {
        Ok(u32::from_le_bytes(self.take(4)?.try_into().unwrap()))
    }
    fn u64(&mut self) -> Result<u64, String> {
        Ok(u64::from_le_bytes(self.take(8)?.try_into().unwrap()))
    }
    fn string(&mut self) -> Result<String, String> {
        let n = self.u64()? as usize;
        Ok(String::from_utf8_lossy(self.take(n)?).into_owned())
    }
    /// Skips one value; returns the element count of an array, else 0.
    fn skip_value(&mut self, kind: u32) -> Result<u64, String> {
        match kind {
            0 | 1 | 7 => {
                self.take(1)?;
            }
            2 | 3 => {
                self.take(2)?;
            }
            4..=6 => {
                self.take(4)?;
            }
            10..=12 => {
                self.take(8)?;
            }
            8 => {
                self.string()?;
            }
            9 => {
                let element = self.u32()?;
                let n = self.u64()?;
                for _ in 0..n {
                    self.skip_value(element)?;
                }
                return Ok(n);
            }
            _ => return Err(format!("unknown value type {kind} in the vocabulary file")),
        }
        Ok(0)
    }
}

fn put_string(out: &mut Vec<u8>, s: &str) {
    out.extend_from_slice(&(s.len() as u64).to_le_bytes());
    out.extend_from_slice(s.as_bytes());
}

fn put_key(out: &mut Vec<u8>, key: &str, kind: u32) {
    put_string(out, key);
    out.extend_from_slice(&kind.to_le_bytes());
}

/// Nearest half-precision bits of a finite float.
fn half(value: f32) -> u16 {
    let bits = value.to_bits();
    let sign = ((bits >> 16) & 0x8000) as u16;
    let exponent = ((bits >> 23) & 0xff) as i32 - 127 + 15;
    let mantissa = bits & 0x7f_ffff;
    if exponent >= 31 {
        return sign | 0x7c00;
    }
    if exponent <= 0 {
        if exponent < -10 {
            return sign;
        }
        let m = (mantissa | 0x80_0000) >> (1 - exponent);
        return sign | ((m + 0x1000) >> 13) as u16;
    }
    let h = ((exponent as u32) << 10) | (mantissa >> 13);
    sign | (h + ((mantissa >> 12) & 1)) as u16
}

/// Uniform weights with a standard deviation of about 0.02, as a fresh model has.
struct Weights(u64);

impl Weights {
    fn next(&mut self) -> f32 {
        self.0 ^= self.0 << 13;
        self.0 ^= self.0 >> 7;
        self.0 ^= self.0 << 17;
        ((self.0 >> 40) as f32 / (1u64 << 24) as f32 - 0.5) * 0.07
    }
}

fn encode_row(kind: Kind, row: &[f32], out: &mut Vec<u8>) {
    match kind {
        Kind::F32 => row
            .iter()
            .for_each(|v| out.extend_from_slice(&v.to_le_bytes())),
        Kind::F16 => row
            .iter()
            .for_each(|v| out.extend_from_slice(&half(*v).to_le_bytes())),
        Kind::Q8_0 => {
            for block in row.chunks(BLOCK) {
                let largest = block.iter().fold(0f32, |m, v| m.max(v.abs()));
                let scale = largest / 127.0;
                let inverse = if scale > 0.0 { 1.0 / scale } else { 0.0 };
                out.extend_from_slice(&half(scale).to_le_bytes());
                out.extend(block.iter().map(|v| (v * inverse).round() as i8 as u8));
            }
        }
        Kind::Q4_0 => {
            for block in row.chunks(BLOCK) {
                // The value of largest magnitude, with its sign, maps to -8.
                let extreme = block
                    .iter()
                    .fold(0f32, |m, &v| if v.abs() > m.abs() { v } else { m });
                let scale = extreme / -8.0;
                let inverse = if scale != 0.0 { 1.0 / scale } else { 0.0 };
                out.extend_from_slice(&half(scale).to_le_bytes());
                let level = |v: f32| ((v * inverse + 8.5) as i32).clamp(0, 15) as u8;
                for j in 0..BLOCK / 2 {
                    out.push(level(block[j]) | (level(block[j + BLOCK / 2]) << 4));
                }
            }
        }
    }
}

fn write_model(out_path: &Path, vocab: &Path, shape: &Shape) -> Result<(), String> {
    let (tokenizer, n_vocab) = tokenizer_entries(vocab)?;
    let e = shape.n_embd;
    let head = e / shape.n_head;
    let kv = head * shape.n_head_kv;
    if !e.is_multiple_of(shape.n_head) || !shape.n_head.is_multiple_of(shape.n_head_kv) {
        return Err("the heads must divide the width and the key/value heads the heads".into());
    }
    if shape.kind != Kind::F32
        && (!e.is_multiple_of(BLOCK as u64)
            || !kv.is_multiple_of(BLOCK as u64)
            || !shape.n_ff.is_multiple_of(BLOCK as u64))
    {
        return Err("quantized rows must be whole blocks of 32".into());
    }

    // (name, [row length, rows], kind); norms stay F32 as in converted models.
    let mut tensors: Vec<(String, [u64; 2], Kind)> = vec![
        ("token_embd.weight".into(), [e, n_vocab], shape.kind),
        ("output_norm.weight".into(), [e, 1], Kind::F32),
        ("output.weight".into(), [e, n_vocab], shape.kind),
    ];
    for i in 0..shape.n_layer {
        let name = |n: &str| format!("blk.{i}.{n}.weight");
        tensors.push((name("attn_norm"), [e, 1], Kind::F32));
        tensors.push((name("attn_q"), [e, e], shape.kind));
        tensors.push((name("attn_k"), [e, kv], shape.kind));
        tensors.push((name("attn_v"), [e, kv], shape.kind));
        tensors.push((name("attn_output"), [e, e], shape.kind));
        tensors.push((name("ffn_norm"), [e, 1], Kind::F32));
        tensors.push((name("ffn_gate"), [e, shape.n_ff], shape.kind));
        tensors.push((name("ffn_up"), [e, shape.n_ff], shape.kind));
        tensors.push((name("ffn_down"), [shape.n_ff, e], shape.kind));
    }

    let mut header = b"GGUF".to_vec();
    header.extend_from_slice(&3u32.to_le_bytes());
    header.extend_from_slice(&(tensors.len() as u64).to_le_bytes());
    let mut entries = Vec::new();
    let mut count = 0u64;
    let mut text = |key: &str, value: &str| {
        put_key(&mut entries, key, 8);
        put_string(&mut entries, value);
        count += 1;
    };
    text("general.architecture", "llama");
    text("general.name", "vorn benchmark model");
    let numbers: [(&str, u32); 8] = [
        ("general.alignment", ALIGNMENT as u32),
        ("general.file_type", shape.kind.file_type()),
        ("llama.context_length", shape.context),
        ("llama.embedding_length", e as u32),
        ("llama.block_count", shape.n_layer as u32),
        ("llama.feed_forward_length", shape.n_ff as u32),
        ("llama.attention.head_count", shape.n_head as u32),
        ("llama.attention.head_count_kv", shape.n_head_kv as u32),
    ];
    for (key, value) in numbers {
        put_key(&mut entries, key, 4);
        entries.extend_from_slice(&value.to_le_bytes());
        count += 1;
    }
    put_key(&mut entries, "llama.rope.dimension_count", 4);
    entries.extend_from_slice(&(head as u32).to_le_bytes());
    put_key(&mut entries, "llama.attention.layer_norm_rms_epsilon", 6);
    entries.extend_from_slice(&1e-5f32.to_le_bytes());
    put_key(&mut entries, "llama.rope.freq_base", 6);
    entries.extend_from_slice(&10000f32.to_le_bytes());
    count += 3;
    for entry in &tokenizer {
        entries.extend_from_slice(entry);
        count += 1;
    }
    header.extend_from_slice(&count.to_le_bytes());
    header.extend_from_slice(&entries);

    let mut offset = 0u64;
    for (name, [row, rows], kind) in &tensors {
        put_string(&mut header, name);
        let dims: &[u64] = if *rows == 1 { &[*row] } else { &[*row, *rows] };
        header.extend_from_slice(&(dims.len() as u32).to_le_bytes());
        for d in dims {
            header.extend_from_slice(&d.to_le_bytes());
        }
        header.extend_from_slice(&kind.ggml_type().to_le_bytes());
        header.extend_from_slice(&offset.to_le_bytes());
        offset += (kind.row_bytes(*row) * rows).div_ceil(ALIGNMENT) * ALIGNMENT;
    }
    while !(header.len() as u64).is_multiple_of(ALIGNMENT) {
        header.push(0);
    }

    let partial = out_path.with_extension("gguf.part");
    let file =
        std::fs::File::create(&partial).map_err(|e| format!("{}: {e}", partial.display()))?;
    let mut out = std::io::BufWriter::with_capacity(1 << 22, file);
    let fail = |e: std::io::Error| format!("{}: {e}", partial.display());
    out.write_all(&header).map_err(fail)?;
    let mut weights = Weights(0x9e37_79b9_7f4a_7c15);
    let mut values = Vec::new();
    let mut encoded = Vec::new();
    for (name, [row, rows], kind) in &tensors {
        let mut written = 0u64;
        for _ in 0..*rows {
            values.clear();
            if name.contains("norm") {
                values.resize(*row as usize, 1.0f32);
            } else {
                values.extend((0..*row).map(|_| weights.next()));
            }
            encoded.clear();
            encode_row(*kind, &values, &mut encoded);
            out.write_all(&encoded).map_err(fail)?;
            written += encoded.len() as u64;
        }
        let padding = written.div_ceil(ALIGNMENT) * ALIGNMENT - written;
        out.write_all(&vec![0u8; padding as usize]).map_err(fail)?;
    }
    out.flush().map_err(fail)?;
    drop(out);
    std::fs::rename(&partial, out_path).map_err(|e| format!("{}: {e}", out_path.display()))
}

fn usage() -> ! {
    eprintln!(
        "usage: bench_model OUT.gguf VOCAB.gguf [--type q4_0|q8_0|f16] [--embd N] [--layers N] \
         [--heads N] [--kv-heads N] [--ff N] [--context N]"
    );
    std::process::exit(2);
}

fn main() {
    let mut paths: Vec<PathBuf> = Vec::new();
    let mut shape = Shape {
        n_embd: 2048,
        n_layer: 16,
        n_head: 32,
        n_head_kv: 8,
        n_ff: 8192,
        context: 131_072,
        kind: Kind::Q4_0,
    };
    let mut args = std::env::args().skip(1);
    while let Some(arg) = args.next() {
        if !arg.starts_with("--") {
            paths.push(arg.into());
            continue;
        }
        let value = args.next().unwrap_or_else(|| usage());
        let number = || {
            value
                .parse::<u64>()
                .ok()
                .filter(|&n| n > 0)
                .unwrap_or_else(|| usage())
        };
        match arg.as_str() {
            "--type" => {
                shape.kind = match value.as_str() {
                    "q4_0" => Kind::Q4_0,
                    "q8_0" => Kind::Q8_0,
                    "f16" => Kind::F16,
                    "f32" => Kind::F32,
                    _ => usage(),
                }
            }
            "--embd" => shape.n_embd = number(),
            "--layers" => shape.n_layer = number(),
            "--heads" => shape.n_head = number(),
            "--kv-heads" => shape.n_head_kv = number(),
            "--ff" => shape.n_ff = number(),
            "--context" => shape.context = u32::try_from(number()).unwrap_or_else(|_| usage()),
            _ => usage(),
        }
    }
    if paths.len() != 2 {
        usage();
    }
    if let Err(message) = write_model(&paths[0], &paths[1], &shape) {
        eprintln!("bench_model: {message}");
        std::process::exit(1);
    }
}
