//! Writes tiny random-weight GGUF models at test time, borrowing the
//! tokenizer of a vocabulary-only file.

#[path = "gguf_edit.rs"]
pub mod gguf_edit;

use gguf_edit::{put_str, Entry, Gguf, TYPE_F32, TYPE_STRING};
use std::io::Write;
use std::path::Path;

/// GGUF token types.
pub const CONTROL: i32 = 3;
pub const USER_DEFINED: i32 = 4;

/// The `tokenizer.*` entries of a vocabulary file, with `added` tokens
/// appended to its lists, and the token texts.
fn tokenizer_entries(vocab: &Path, added: &[(&str, i32)]) -> (Vec<Entry>, Vec<String>) {
    let mut entries: Vec<Entry> = Gguf::read(vocab)
        .entries
        .into_iter()
        .filter(|e| e.key.starts_with("tokenizer."))
        .collect();
    for entry in &mut entries {
        let (mut encoded, count) = (Vec::new(), added.len() as u64);
        match entry.key.as_str() {
            "tokenizer.ggml.tokens" => added.iter().for_each(|(t, _)| put_str(&mut encoded, t)),
            "tokenizer.ggml.scores" => added
                .iter()
                .for_each(|_| encoded.extend_from_slice(&0f32.to_le_bytes())),
            "tokenizer.ggml.token_type" => added
                .iter()
                .for_each(|(_, ty)| encoded.extend_from_slice(&ty.to_le_bytes())),
            _ => continue,
        }
        entry.append(&encoded, count);
    }
    let tokens = entries
        .iter()
        .find(|e| e.key == "tokenizer.ggml.tokens")
        .expect("a vocabulary")
        .strings();
    (entries, tokens)
}

fn kv_str(out: &mut Vec<u8>, k: &str, v: &str) {
    put_str(out, k);
    out.extend_from_slice(&TYPE_STRING.to_le_bytes());
    put_str(out, v);
}

fn kv_u32(out: &mut Vec<u8>, k: &str, v: u32) {
    put_str(out, k);
    out.extend_from_slice(&4u32.to_le_bytes());
    out.extend_from_slice(&v.to_le_bytes());
}

fn kv_f32(out: &mut Vec<u8>, k: &str, v: f32) {
    put_str(out, k);
    out.extend_from_slice(&TYPE_F32.to_le_bytes());
    out.extend_from_slice(&v.to_le_bytes());
}

pub struct ModelShape<'a> {
    pub arch: &'a str,
    pub n_embd: u64,
    pub n_layer: u64,
    pub n_head: u64,
    pub n_ff: u64,
    pub seed: u64,
}

impl ModelShape<'static> {
    /// The smallest llama the tests generate: 64 wide, two layers, fast to write and
    /// to load; the seed picks its random weights.
    #[allow(dead_code)]
    pub fn tiny_llama(seed: u64) -> Self {
        ModelShape {
            arch: "llama",
            n_embd: 64,
            n_layer: 2,
            n_head: 4,
            n_ff: 128,
            seed,
        }
    }
}

/// What a generated model carries besides its shape and random weights.
#[derive(Default)]
pub struct Extras<'a> {
    /// Its `tokenizer.chat_template`.
    pub chat_template: Option<&'a str>,
    /// Tokens added to the vocabulary, with their GGUF token type.
    pub added_tokens: &'a [(&'a str, i32)],
    /// Token texts `(first, then)`: the weights are set so that the model
    /// writes `first` after any other token and `then` after `first`
    /// (llama-shaped models only).
    pub steer: Option<(&'a str, &'a str)>,
    /// The trained context the header states; 4096 when not given.
    pub context_length: Option<u32>,
}

/// Writes a llama- or gemma3-shaped model with random F32 weights.
pub fn write_model(out_path: &Path, vocab: &Path, shape: &ModelShape) {
    write_model_with(out_path, vocab, shape, &Extras::default());
}

pub fn write_model_with(out_path: &Path, vocab: &Path, shape: &ModelShape, extras: &Extras) {
    let (mut tok_entries, tokens) = tokenizer_entries(vocab, extras.added_tokens);
    if let Some(template) = extras.chat_template {
        tok_entries.retain(|e| e.key != "tokenizer.chat_template");
        tok_entries.push(Entry::string("tokenizer.chat_template", template));
    }
    let n_vocab = tokens.len() as u64;
    let id = |text: &str| {
        tokens
            .iter()
            .position(|t| t == text)
            .unwrap_or_else(|| panic!("no token {text:?} in the vocabulary")) as u64
    };
    let steer = extras.steer.map(|(first, then)| (id(first), id(then)));
    let a = shape.arch;
    let e = shape.n_embd;
    let head = e / shape.n_head;
    let gemma = a == "gemma3";

    let mut tensors: Vec<(String, Vec<u64>)> = vec![
        ("token_embd.weight".into(), vec![e, n_vocab]),
        ("output_norm.weight".into(), vec![e]),
    ];
    if !gemma {
        tensors.push(("output.weight".into(), vec![e, n_vocab]));
    }
    for i in 0..shape.n_layer {
        let b = |n: &str| format!("blk.{i}.{n}.weight");
        tensors.push((b("attn_norm"), vec![e]));
        tensors.push((b("attn_q"), vec![e, e]));
        tensors.push((b("attn_k"), vec![e, e]));
        tensors.push((b("attn_v"), vec![e, e]));
        tensors.push((b("attn_output"), vec![e, e]));
        tensors.push((b("ffn_norm"), vec![e]));
        tensors.push((b("ffn_gate"), vec![e, shape.n_ff]));
        tensors.push((b("ffn_up"), vec![e, shape.n_ff]));
        tensors.push((b("ffn_down"), vec![shape.n_ff, e]));
        if gemma {
            tensors.push((b("post_attention_norm"), vec![e]));
            tensors.push((b("attn_q_norm"), vec![head]));
            tensors.push((b("attn_k_norm"), vec![head]));
            tensors.push((b("post_ffw_norm"), vec![e]));
        }
    }

    let mut kv = Vec::new();
    let mut n_kv = 0u64;
    kv_str(&mut kv, "general.architecture", a);
    kv_str(&mut kv, "general.name", "vorn test model");
    kv_u32(&mut kv, "general.alignment", 32);
    kv_u32(
        &mut kv,
        &format!("{a}.context_length"),
        extras.context_length.unwrap_or(4096),
    );
    kv_u32(&mut kv, &format!("{a}.embedding_length"), e as u32);
    kv_u32(&mut kv, &format!("{a}.block_count"), shape.n_layer as u32);
    kv_u32(
        &mut kv,
        &format!("{a}.feed_forward_length"),
        shape.n_ff as u32,
    );
    kv_u32(
        &mut kv,
        &format!("{a}.attention.head_count"),
        shape.n_head as u32,
    );
    kv_u32(
        &mut kv,
        &format!("{a}.attention.head_count_kv"),
        shape.n_head as u32,
    );
    kv_f32(
        &mut kv,
        &format!("{a}.attention.layer_norm_rms_epsilon"),
        1e-6,
    );
    kv_u32(&mut kv, &format!("{a}.rope.dimension_count"), head as u32);
    kv_f32(&mut kv, &format!("{a}.rope.freq_base"), 10000.0);
    n_kv += 12;
    if gemma {
        kv_u32(&mut kv, &format!("{a}.attention.key_length"), head as u32);
        kv_u32(&mut kv, &format!("{a}.attention.value_length"), head as u32);
        n_kv += 2;
    }
    for t in &tok_entries {
        kv.extend_from_slice(&t.bytes());
        n_kv += 1;
    }

    let mut header = b"GGUF".to_vec();
    header.extend_from_slice(&3u32.to_le_bytes());
    header.extend_from_slice(&(tensors.len() as u64).to_le_bytes());
    header.extend_from_slice(&n_kv.to_le_bytes());
    header.extend_from_slice(&kv);
    let mut offset = 0u64;
    let mut offsets = Vec::new();
    for (name, dims) in &tensors {
        put_str(&mut header, name);
        header.extend_from_slice(&(dims.len() as u32).to_le_bytes());
        for d in dims {
            header.extend_from_slice(&d.to_le_bytes());
        }
        header.extend_from_slice(&0u32.to_le_bytes()); // F32
        header.extend_from_slice(&offset.to_le_bytes());
        offsets.push(offset);
        let bytes = dims.iter().product::<u64>() * 4;
        offset += bytes.div_ceil(32) * 32;
    }
    while !header.len().is_multiple_of(32) {
        header.push(0);
    }

    let mut f = std::io::BufWriter::new(std::fs::File::create(out_path).unwrap());
    f.write_all(&header).unwrap();
    let mut x = shape.seed | 1;
    let mut written = 0u64;
    for ((name, dims), off) in tensors.iter().zip(&offsets) {
        while written < *off {
            f.write_all(&[0]).unwrap();
            written += 1;
        }
        let n = dims.iter().product::<u64>();
        let is_norm = name.contains("norm");
        let mut buf = Vec::with_capacity(n as usize * 4);
        for k in 0..n {
            let mut v = if is_norm {
                1.0f32
            } else {
                x ^= x << 13;
                x ^= x >> 7;
                x ^= x << 17;
                ((x >> 40) as f32 / (1u64 << 24) as f32 - 0.5) * 0.2
            };
            if let Some(steer) = steer {
                v += steering(name, k / e, k % e, steer);
            }
            buf.extend_from_slice(&v.to_le_bytes());
        }
        f.write_all(&buf).unwrap();
        written += n * 4;
    }
    f.flush().unwrap();
}

/// A value in a header written by `write_header`.
#[derive(Clone, Copy)]
pub enum HeaderValue<'a> {
    Text(&'a str),
    Uint(u32),
}

/// Writes a GGUF file that is only a header: these keys and tensor entries
/// (name, dimensions, ggml type number), without tensor data. Enough for
/// the models listing, not for loading.
pub fn write_header(
    out_path: &Path,
    keys: &[(&str, HeaderValue)],
    tensors: &[(&str, &[u64], u32)],
) {
    let mut out = b"GGUF".to_vec();
    out.extend_from_slice(&3u32.to_le_bytes());
    out.extend_from_slice(&(tensors.len() as u64).to_le_bytes());
    out.extend_from_slice(&(keys.len() as u64).to_le_bytes());
    for (key, value) in keys {
        match value {
            HeaderValue::Text(text) => kv_str(&mut out, key, text),
            HeaderValue::Uint(n) => kv_u32(&mut out, key, *n),
        }
    }
    let mut offset = 0u64;
    for (name, dims, kind) in tensors {
        put_str(&mut out, name);
        out.extend_from_slice(&(dims.len() as u32).to_le_bytes());
        for d in *dims {
            out.extend_from_slice(&d.to_le_bytes());
        }
        out.extend_from_slice(&kind.to_le_bytes());
        out.extend_from_slice(&offset.to_le_bytes());
        offset += 1024;
    }
    std::fs::write(out_path, out).unwrap();
}

/// What steering adds to the weight of `token`'s row at `dim`. Every
/// token's embedding gets a large first component, but `first`'s gets a
/// large second one instead; they dominate the normalised last hidden
/// state, and the output rows of `first` and `then` read exactly those.
fn steering(tensor: &str, token: u64, dim: u64, (first, then): (u64, u64)) -> f32 {
    match (tensor, dim) {
        ("token_embd.weight", 0) if token != first => 8.0,
        ("token_embd.weight", 1) if token == first => 8.0,
        ("output.weight", 0) if token == first => 4.0,
        ("output.weight", 1) if token == then => 4.0,
        _ => 0.0,
    }
}

/// A minimal PNG (stored deflate blocks) of the given RGB size.
pub fn png(w: u32, h: u32, seed: u8) -> Vec<u8> {
    fn crc32(data: &[u8]) -> u32 {
        let mut c = 0xffff_ffffu32;
        for &b in data {
            c ^= b as u32;
            for _ in 0..8 {
                c = if c & 1 != 0 {
                    0xedb8_8320 ^ (c >> 1)
                } else {
                    c >> 1
                };
            }
        }
        !c
    }
    fn chunk(out: &mut Vec<u8>, kind: &[u8], data: &[u8]) {
        out.extend_from_slice(&(data.len() as u32).to_be_bytes());
        let mut body = kind.to_vec();
        body.extend_from_slice(data);
        out.extend_from_slice(&body);
        out.extend_from_slice(&crc32(&body).to_be_bytes());
    }
    let mut raw = Vec::new();
    for y in 0..h {
        raw.push(0);
        for x in 0..w {
            raw.extend_from_slice(&[(x * 8) as u8 ^ seed, (y * 8) as u8, seed.wrapping_mul(3)]);
        }
    }
    let mut z = vec![0x78, 0x01];
    let blocks: Vec<&[u8]> = raw.chunks(65535).collect();
    for (i, b) in blocks.iter().enumerate() {
        z.push(if i + 1 == blocks.len() { 1 } else { 0 });
        z.extend_from_slice(&(b.len() as u16).to_le_bytes());
        z.extend_from_slice(&(!(b.len() as u16)).to_le_bytes());
        z.extend_from_slice(b);
    }
    let (mut a, mut b) = (1u32, 0u32);
    for &byte in &raw {
        a = (a + byte as u32) % 65521;
        b = (b + a) % 65521;
    }
    z.extend_from_slice(&((b << 16) | a).to_be_bytes());
    let mut out = b"\x89PNG\r\n\x1a\n".to_vec();
    let mut ihdr = Vec::new();
    ihdr.extend_from_slice(&w.to_be_bytes());
    ihdr.extend_from_slice(&h.to_be_bytes());
    ihdr.extend_from_slice(&[8, 2, 0, 0, 0]);
    chunk(&mut out, b"IHDR", &ihdr);
    chunk(&mut out, b"IDAT", &z);
    chunk(&mut out, b"IEND", &[]);
    out
}
