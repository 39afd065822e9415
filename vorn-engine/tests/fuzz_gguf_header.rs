//! Fuzz target: the GGUF header reader (`gguf::parse`), fed mutated real
//! headers from the shared test models and headers built with lying lengths
//! and counts. Rules: no panic, no abort, memory proportional to the input,
//! consistent results, and the same answer whatever the input's tail holds.
//!
//!   scripts/engine-cargo test --test fuzz_gguf_header
//!   VORN_FUZZ_SECONDS=600 scripts/engine-cargo test --test fuzz_gguf_header

mod fuzzing;

use fuzzing::rng::Rng;
use fuzzing::{memory, shape, Target};
use std::io::{BufReader, Cursor, Read};
use std::path::Path;
use vorn_engine::gguf::{self, Header};

/// Bytes a key/value pair and a tensor entry take at the least.
const MIN_KV: usize = 13;
const MIN_TENSOR: usize = 24;
/// Header prefixes longer than this are cut (they are vocabularies).
const SEED_LIMIT: usize = 1 << 20;

const KEYS: [&str; 12] = [
    "general.architecture",
    "general.name",
    "llama.embedding_length",
    "gemma3.embedding_length",
    "clip.vision.projection_dim",
    "tokenizer.ggml.tokens",
    "tokenizer.ggml.scores",
    "tokenizer.ggml.merges",
    "tokenizer.chat_template",
    "tokenizer.ggml.bos_token_id",
    "general.alignment",
    "",
];
const ARCHITECTURES: [&str; 4] = ["llama", "clip", "gemma3", ""];
/// Tensor names the reader looks for, besides the projector's.
const TENSORS: [&str; 2] = ["token_embd.weight", "output.weight"];

fn tensor_names() -> impl Iterator<Item = &'static &'static str> {
    TENSORS.iter().chain(&gguf::PROJECTION_TENSORS)
}

fn parse_bytes(data: &[u8], len: u64) -> Result<Header, gguf::GgufError> {
    // Buffered like `read_file`, so that skips go through the same seeks.
    gguf::parse(BufReader::with_capacity(64 * 1024, Cursor::new(data)), len)
}

/// The shortest prefix of `data` that holds a whole header, if any.
fn header_prefix(data: &[u8]) -> Option<usize> {
    parse_bytes(data, data.len() as u64).ok()?;
    let (mut lo, mut hi) = (0, data.len());
    while lo < hi {
        let mid = (lo + hi) / 2;
        if parse_bytes(&data[..mid], mid as u64).is_ok() {
            hi = mid;
        } else {
            lo = mid + 1;
        }
    }
    Some(lo)
}

fn shared_models() -> Vec<std::path::PathBuf> {
    let root = Path::new(env!("CARGO_MANIFEST_DIR")).join("../../shared/models");
    let mut out = Vec::new();
    for dir in [root.clone(), root.join("mmproj"), root.join("vocab")] {
        let Ok(entries) = std::fs::read_dir(&dir) else {
            continue;
        };
        let mut files: Vec<_> = entries
            .flatten()
            .map(|e| e.path())
            .filter(|p| p.extension().is_some_and(|x| x == "gguf"))
            .collect();
        files.sort();
        out.extend(files);
    }
    out
}

// ---- building headers -------------------------------------------------

fn put_u32(out: &mut Vec<u8>, v: u32) {
    out.extend_from_slice(&v.to_le_bytes());
}

fn put_u64(out: &mut Vec<u8>, v: u64) {
    out.extend_from_slice(&v.to_le_bytes());
}

/// A count or length: usually the truth, sometimes a lie.
fn count(rng: &mut Rng, truth: usize) -> u64 {
    if rng.one_in(12) {
        rng.interesting_u64()
    } else if rng.one_in(20) {
        (truth as u64)
            .wrapping_add(rng.below(3) as u64)
            .wrapping_sub(1)
    } else {
        truth as u64
    }
}

fn put_string(out: &mut Vec<u8>, rng: &mut Rng, text: &[u8]) {
    let n = count(rng, text.len());
    put_u64(out, n);
    out.extend_from_slice(text);
}

fn random_text(rng: &mut Rng) -> Vec<u8> {
    match rng.below(6) {
        0 => rng.pick(&ARCHITECTURES).as_bytes().to_vec(),
        1 => vec![b'a'; 64 * 1024 + rng.below(3)], // around the longest string kept
        2 => rng.junk(40),                         // not UTF-8, mostly
        _ => {
            let n = rng.small(24);
            (0..n).map(|_| b'a' + rng.below(26) as u8).collect()
        }
    }
}

fn value_type(rng: &mut Rng) -> u32 {
    match rng.below(16) {
        13 => rng.interesting_u64() as u32,
        14 | 15 => 8,
        t => t as u32,
    }
}

fn scalar_width(ty: u32) -> Option<usize> {
    match ty {
        0 | 1 | 7 => Some(1),
        2 | 3 => Some(2),
        4..=6 => Some(4),
        10..=12 => Some(8),
        _ => None,
    }
}

fn put_value(out: &mut Vec<u8>, rng: &mut Rng, ty: u32, depth: u32) {
    if let Some(w) = scalar_width(ty) {
        let v = if rng.one_in(2) {
            rng.interesting_u64()
        } else {
            rng.next()
        };
        out.extend_from_slice(&v.to_le_bytes()[..w]);
        return;
    }
    match ty {
        8 => {
            let text = random_text(rng);
            put_string(out, rng, &text);
        }
        9 => {
            let elem = if depth < 5 && rng.one_in(3) {
                9
            } else {
                value_type(rng)
            };
            let n = rng.small(if depth > 0 { 3 } else { 40 });
            put_u32(out, elem);
            put_u64(out, count(rng, n));
            for _ in 0..n {
                put_value(out, rng, elem, depth + 1);
            }
        }
        _ => {
            // An unknown type: whatever follows.
            let n = rng.small(16);
            out.extend(rng.bytes(n));
        }
    }
}

fn generate_header(rng: &mut Rng) -> Vec<u8> {
    let mut out = if rng.one_in(40) {
        rng.bytes(4)
    } else {
        b"GGUF".to_vec()
    };
    put_u32(&mut out, *rng.pick(&[3, 3, 3, 2, 1, 4, 0, u32::MAX]));
    let n_tensors = rng.small(10);
    let n_kv = rng.small(16);
    put_u64(&mut out, count(rng, n_tensors));
    put_u64(&mut out, count(rng, n_kv));
    for _ in 0..n_kv {
        let key = if rng.one_in(5) {
            random_text(rng)
        } else {
            rng.pick(&KEYS).as_bytes().to_vec()
        };
        put_string(&mut out, rng, &key);
        let ty = value_type(rng);
        put_u32(&mut out, ty);
        if key == b"general.architecture" && ty == 8 && rng.one_in(2) {
            let arch = rng.pick(&ARCHITECTURES).as_bytes().to_vec();
            put_string(&mut out, rng, &arch);
        } else {
            put_value(&mut out, rng, ty, 0);
        }
    }
    for _ in 0..n_tensors {
        let name = if rng.one_in(6) {
            random_text(rng)
        } else {
            let names: &[&str] = if rng.one_in(4) {
                &TENSORS
            } else {
                &gguf::PROJECTION_TENSORS
            };
            rng.pick(names).as_bytes().to_vec()
        };
        put_string(&mut out, rng, &name);
        let dims = rng.below(6);
        put_u32(
            &mut out,
            if rng.one_in(10) {
                rng.interesting_u64() as u32
            } else {
                dims as u32
            },
        );
        for _ in 0..dims {
            let d = if rng.one_in(4) {
                rng.interesting_u64()
            } else {
                rng.small(4096) as u64
            };
            put_u64(&mut out, d);
        }
        put_u32(&mut out, rng.below(40) as u32);
        put_u64(&mut out, rng.small(1 << 20) as u64);
    }
    if rng.one_in(4) {
        out.truncate(rng.below(out.len() + 1));
    }
    out
}

// ---- the header's own fields, for lying about them --------------------

/// Walks a header the way GGUF lays it out and notes where each length,
/// count, type and dimension is, as (offset, width). Stops at the first
/// thing that does not fit, and after the first 256 KiB.
fn fields(d: &[u8]) -> Vec<(usize, usize)> {
    struct Walk<'a> {
        d: &'a [u8],
        p: usize,
        out: Vec<(usize, usize)>,
    }
    impl Walk<'_> {
        fn word(&mut self, w: usize) -> Option<u64> {
            let b = self.d.get(self.p..self.p + w)?;
            self.out.push((self.p, w));
            self.p += w;
            let mut v = [0u8; 8];
            v[..w].copy_from_slice(b);
            (self.p < 256 * 1024).then(|| u64::from_le_bytes(v))
        }
        fn skip(&mut self, n: u64) -> Option<()> {
            let n = usize::try_from(n).ok()?;
            (self.p.checked_add(n)? <= self.d.len()).then(|| self.p += n)
        }
        fn string(&mut self) -> Option<()> {
            let n = self.word(8)?;
            self.skip(n)
        }
        fn value(&mut self, ty: u64, depth: u32) -> Option<()> {
            if let Some(w) = scalar_width(ty as u32).filter(|_| ty <= 12) {
                return self.skip(w as u64);
            }
            match ty {
                8 => self.string(),
                9 if depth < 4 => {
                    let elem = self.word(4)?;
                    let n = self.word(8)?;
                    for _ in 0..n.min(1 << 20) {
                        self.value(elem, depth + 1)?;
                    }
                    Some(())
                }
                _ => None,
            }
        }
    }
    let mut w = Walk {
        d,
        p: 4,
        out: Vec::new(),
    };
    let _ = (|| {
        w.word(4)?;
        let n_tensors = w.word(8)?;
        let n_kv = w.word(8)?;
        for _ in 0..n_kv {
            w.string()?;
            let ty = w.word(4)?;
            w.value(ty, 0)?;
        }
        for _ in 0..n_tensors {
            w.string()?;
            let dims = w.word(4)?;
            for _ in 0..dims.min(8) {
                w.word(8)?;
            }
            w.word(4)?;
            w.word(8)?;
        }
        Some(())
    })();
    w.out
}

/// A copy of a whole header with every array cut to its first few
/// elements: the real keys, types and tensor entries in a few kilobytes
/// instead of a vocabulary's hundreds.
fn trim_arrays(d: &[u8]) -> Option<Vec<u8>> {
    struct Copy<'a> {
        d: &'a [u8],
        p: usize,
        out: Vec<u8>,
    }
    impl Copy<'_> {
        fn take(&mut self, n: usize) -> Option<&[u8]> {
            let b = self.d.get(self.p..self.p.checked_add(n)?)?;
            self.p += n;
            Some(b)
        }
        fn copy(&mut self, n: usize) -> Option<()> {
            let b = self.take(n)?.to_vec();
            self.out.extend_from_slice(&b);
            Some(())
        }
        fn word(&mut self, w: usize) -> Option<u64> {
            let mut v = [0u8; 8];
            v[..w].copy_from_slice(self.take(w)?);
            Some(u64::from_le_bytes(v))
        }
        fn string(&mut self) -> Option<()> {
            let n = self.word(8)?;
            put_u64(&mut self.out, n);
            self.copy(usize::try_from(n).ok()?)
        }
        /// Copies a value, keeping at most `keep` elements of arrays.
        fn value(&mut self, ty: u32, keep: u64, write: bool) -> Option<()> {
            let start = self.out.len();
            if let Some(w) = scalar_width(ty) {
                self.copy(w)?;
            } else if ty == 8 {
                self.string()?;
            } else if ty == 9 {
                let elem = self.word(4)? as u32;
                let n = self.word(8)?;
                put_u32(&mut self.out, elem);
                put_u64(&mut self.out, n.min(keep));
                for i in 0..n {
                    self.value(elem, keep, i < keep)?;
                }
            } else {
                return None;
            }
            if !write {
                self.out.truncate(start);
            }
            Some(())
        }
    }
    let mut c = Copy {
        d,
        p: 0,
        out: Vec::new(),
    };
    c.copy(24)?;
    let n_tensors = u64::from_le_bytes(d[8..16].try_into().ok()?);
    let n_kv = u64::from_le_bytes(d[16..24].try_into().ok()?);
    for _ in 0..n_kv {
        c.string()?;
        let ty = c.word(4)? as u32;
        put_u32(&mut c.out, ty);
        c.value(ty, 16, true)?;
    }
    for _ in 0..n_tensors {
        c.string()?;
        let dims = c.word(4)?;
        put_u32(&mut c.out, dims as u32);
        c.copy(8 * usize::try_from(dims).ok()? + 12)?;
    }
    // Some tensor data, as in the file.
    let tail = d.len().min(c.p + 32);
    c.out.extend_from_slice(&d[c.p..tail]);
    Some(c.out)
}

struct GgufTarget {
    runs: u64,
}

impl Target for GgufTarget {
    const NAME: &'static str = "fuzz_gguf_header";
    const MAX_LEN: usize = 2 * SEED_LIMIT;

    fn seeds(&mut self) -> Vec<Vec<u8>> {
        let mut seeds = Vec::new();
        for path in shared_models() {
            let mut data = Vec::new();
            let Ok(file) = std::fs::File::open(&path) else {
                continue;
            };
            if file.take(SEED_LIMIT as u64).read_to_end(&mut data).is_err() {
                continue;
            }
            match header_prefix(&data) {
                // The header and a little of the tensor data after it.
                Some(n) => data.truncate((n + 32).min(data.len())),
                None => data.truncate(256 * 1024),
            }
            if let Some(small) = trim_arrays(&data).filter(|t| t.len() < data.len()) {
                assert!(
                    parse_bytes(&small, small.len() as u64).is_ok(),
                    "the trimmed header of {} does not parse",
                    path.display()
                );
                seeds.push(small);
            }
            seeds.push(data);
        }
        assert!(
            !seeds.is_empty(),
            "no GGUF files to start from in ../../shared/models"
        );
        seeds
    }

    fn dictionary(&self) -> Vec<Vec<u8>> {
        let mut words: Vec<Vec<u8>> = vec![b"GGUF".to_vec()];
        for ty in [8u32, 9, 10, 12, 13] {
            words.push(ty.to_le_bytes().to_vec());
        }
        for text in KEYS.iter().chain(&ARCHITECTURES).chain(tensor_names()) {
            let mut w = (text.len() as u64).to_le_bytes().to_vec();
            w.extend_from_slice(text.as_bytes());
            words.push(w);
        }
        words
    }

    fn generate(&mut self, rng: &mut Rng) -> Vec<u8> {
        generate_header(rng)
    }

    fn mutate(&mut self, rng: &mut Rng, data: &mut Vec<u8>) -> bool {
        let f = fields(data);
        if f.is_empty() {
            return false;
        }
        let (at, width) = *rng.pick(&f);
        let v = match rng.below(3) {
            // Just past what the file holds: the classic off-by-one lie.
            0 => (data.len() - at) as u64 + rng.below(3) as u64 - 1,
            _ => rng.interesting_u64(),
        };
        data[at..at + width].copy_from_slice(&v.to_le_bytes()[..width]);
        true
    }

    fn run(&mut self, input: &[u8]) -> Result<String, String> {
        self.runs += 1;
        let len = input.len();
        let base = memory::start();
        let result = parse_bytes(input, len as u64);
        let used = memory::peak_since(base);
        // The read buffer, plus a generous multiple of the input for the
        // keys, values and tensor entries kept from it.
        let limit = (1 << 20) + 32 * len;
        if used > limit {
            return Err(format!(
                "parsing {len} bytes used {used} bytes of memory (limit {limit})"
            ));
        }
        // Reading only the first `cut` bytes of a longer source must give the
        // same answer as a source that ends there.
        if self.runs.is_multiple_of(8) && len > 0 {
            let cut = (self.runs as usize / 8 * 7919) % len;
            let whole = parse_bytes(input, cut as u64);
            let prefix = parse_bytes(&input[..cut], cut as u64);
            // Compared as text: a NaN float is not equal to itself.
            let same = match (&whole, &prefix) {
                (Ok(a), Ok(b)) => {
                    format!("{:?}{:?}", a.kv, a.tensors) == format!("{:?}{:?}", b.kv, b.tensors)
                }
                (Err(a), Err(b)) => a == b,
                _ => false,
            };
            if !same {
                return Err(format!(
                    "a source limited to {cut} bytes answered {:?}, its first {cut} bytes alone {:?}",
                    whole.map(|h| h.kv.len()),
                    prefix.map(|h| h.kv.len())
                ));
            }
        }
        let header = match result {
            Err(e) if e.0.trim().is_empty() => return Err("an error without a message".into()),
            Err(e) => {
                // Tensor names come from the input; the message's shape is the path.
                let message = match (e.0.strip_prefix("tensor "), e.0.rfind(" has ")) {
                    (Some(_), Some(at)) => format!("tensor NAME{}", &e.0[at..]),
                    _ => e.0,
                };
                return Ok(format!("error: {}", shape(&message, 48)));
            }
            Ok(h) => h,
        };
        if !(2..=3).contains(&header.version) {
            return Err(format!("accepted version {}", header.version));
        }
        let least = header.kv.len() * MIN_KV + header.tensors.len() * MIN_TENSOR + 24;
        if least > len {
            return Err(format!(
                "{} keys and {} tensors read from {len} bytes",
                header.kv.len(),
                header.tensors.len()
            ));
        }
        if let Some(t) = header.tensors.iter().find(|t| t.dims.len() > 4) {
            return Err(format!(
                "tensor {} kept {} dimensions",
                t.name,
                t.dims.len()
            ));
        }
        let embedding = header.embedding_length().is_some();
        let projector = header.is_projector();
        let output = header.projector_output_dim().is_some();
        Ok(format!(
            "ok: arch {} embedding {embedding} projector {projector} output {output} tensors {}",
            header.architecture().is_some(),
            header.tensors.len().min(3)
        ))
    }
}

fn main() {
    fuzzing::main(|| GgufTarget { runs: 0 });
}
