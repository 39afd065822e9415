//! The header reader against valid, truncated, lying and huge headers.

use super::*;
use std::io::Cursor;

fn s(out: &mut Vec<u8>, text: &str) {
    out.extend_from_slice(&(text.len() as u64).to_le_bytes());
    out.extend_from_slice(text.as_bytes());
}

fn header(n_tensors: u64, n_kv: u64) -> Vec<u8> {
    let mut out = b"GGUF".to_vec();
    out.extend_from_slice(&3u32.to_le_bytes());
    out.extend_from_slice(&n_tensors.to_le_bytes());
    out.extend_from_slice(&n_kv.to_le_bytes());
    out
}

fn parse_bytes(b: &[u8]) -> Result<Header, GgufError> {
    parse(Cursor::new(b.to_vec()), b.len() as u64)
}

fn valid() -> Vec<u8> {
    let mut b = header(1, 3);
    s(&mut b, "general.architecture");
    b.extend_from_slice(&8u32.to_le_bytes());
    s(&mut b, "llama");
    s(&mut b, "llama.embedding_length");
    b.extend_from_slice(&4u32.to_le_bytes());
    b.extend_from_slice(&64u32.to_le_bytes());
    s(&mut b, "tokenizer.ggml.tokens");
    b.extend_from_slice(&9u32.to_le_bytes());
    b.extend_from_slice(&8u32.to_le_bytes());
    b.extend_from_slice(&2u64.to_le_bytes());
    s(&mut b, "a");
    s(&mut b, "bc");
    s(&mut b, "token_embd.weight");
    b.extend_from_slice(&2u32.to_le_bytes());
    b.extend_from_slice(&64u64.to_le_bytes());
    b.extend_from_slice(&512u64.to_le_bytes());
    b.extend_from_slice(&0u32.to_le_bytes());
    b.extend_from_slice(&0u64.to_le_bytes());
    b
}

#[test]
fn reads_valid_header() {
    let h = parse_bytes(&valid()).unwrap();
    assert_eq!(h.architecture(), Some("llama"));
    assert_eq!(h.embedding_length(), Some(64));
    assert_eq!(h.kv.get("tokenizer.ggml.tokens"), Some(&Value::Array(2)));
    assert_eq!(h.tensors[0].dims, vec![64, 512]);
    assert!(!h.is_projector());
}

#[test]
fn every_truncation_is_an_error() {
    let b = valid();
    for cut in 0..b.len() {
        assert!(parse_bytes(&b[..cut]).is_err(), "cut at {cut} parsed");
    }
}

#[test]
fn rejects_bad_magic_and_version() {
    let mut b = valid();
    b[0] = b'X';
    assert!(parse_bytes(&b).unwrap_err().0.contains("not a GGUF"));
    let mut b = valid();
    b[4] = 99;
    assert!(parse_bytes(&b).unwrap_err().0.contains("version"));
}

#[test]
fn rejects_huge_counts_without_allocating() {
    let b = header(u64::MAX, u64::MAX);
    assert!(parse_bytes(&b).is_err());
    let b = header(0, 1 << 40);
    assert!(parse_bytes(&b).is_err());
}

#[test]
fn rejects_huge_string_length() {
    let mut b = header(0, 1);
    b.extend_from_slice(&u64::MAX.to_le_bytes());
    b.extend_from_slice(&[0u8; 32]);
    assert!(parse_bytes(&b).is_err());
    let mut b = header(0, 1);
    s(&mut b, "k");
    b.extend_from_slice(&8u32.to_le_bytes());
    b.extend_from_slice(&(1u64 << 62).to_le_bytes());
    b.extend_from_slice(&[0u8; 32]);
    assert!(parse_bytes(&b).is_err());
}

#[test]
fn rejects_huge_arrays_and_bad_types() {
    let mut b = header(0, 1);
    s(&mut b, "k");
    b.extend_from_slice(&9u32.to_le_bytes());
    b.extend_from_slice(&10u32.to_le_bytes());
    b.extend_from_slice(&(u64::MAX / 2).to_le_bytes());
    b.extend_from_slice(&[0u8; 32]);
    assert!(parse_bytes(&b).is_err());

    let mut b = header(0, 1);
    s(&mut b, "k");
    b.extend_from_slice(&9u32.to_le_bytes());
    b.extend_from_slice(&8u32.to_le_bytes());
    b.extend_from_slice(&(1u64 << 60).to_le_bytes());
    b.extend_from_slice(&[0u8; 32]);
    assert!(parse_bytes(&b).is_err());

    let mut b = header(0, 1);
    s(&mut b, "k");
    b.extend_from_slice(&77u32.to_le_bytes());
    b.extend_from_slice(&[0u8; 32]);
    assert!(parse_bytes(&b).unwrap_err().0.contains("unknown"));
}

#[test]
fn rejects_deeply_nested_arrays() {
    let mut b = header(0, 1);
    s(&mut b, "k");
    b.extend_from_slice(&9u32.to_le_bytes());
    for _ in 0..8 {
        b.extend_from_slice(&9u32.to_le_bytes());
        b.extend_from_slice(&1u64.to_le_bytes());
    }
    b.extend_from_slice(&[0u8; 64]);
    assert!(parse_bytes(&b).is_err());
}

#[test]
fn rejects_too_many_dimensions() {
    let mut b = header(1, 0);
    s(&mut b, "t");
    b.extend_from_slice(&1000u32.to_le_bytes());
    b.extend_from_slice(&[0u8; 64]);
    assert!(parse_bytes(&b).is_err());
}

#[test]
fn random_garbage_never_panics() {
    // Deterministic xorshift so failures are reproducible.
    let mut x: u64 = 0x9e3779b97f4a7c15;
    let base = valid();
    for _ in 0..2000 {
        let mut b = base.clone();
        for _ in 0..4 {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            let i = (x as usize) % b.len();
            b[i] = (x >> 32) as u8;
        }
        let _ = parse_bytes(&b);
    }
}

/// A GGUF source of `count` generated entries after a fixed beginning,
/// made on the fly so that a file of any size costs the test nothing.
struct Generated {
    head: Vec<u8>,
    entry: fn(u64) -> Vec<u8>,
    entry_len: u64,
    count: u64,
    pos: u64,
}

impl Generated {
    fn new(head: Vec<u8>, entry: fn(u64) -> Vec<u8>, count: u64) -> Self {
        let entry_len = entry(0).len() as u64;
        Self {
            head,
            entry,
            entry_len,
            count,
            pos: 0,
        }
    }

    fn len(&self) -> u64 {
        self.head.len() as u64 + self.entry_len * self.count
    }
}

impl std::io::Read for Generated {
    fn read(&mut self, buf: &mut [u8]) -> std::io::Result<usize> {
        let head = self.head.len() as u64;
        let mut done = 0;
        while done < buf.len() {
            let (piece, at) = if self.pos < head {
                (self.head.clone(), self.pos)
            } else if self.pos < self.len() {
                let i = (self.pos - head) / self.entry_len;
                ((self.entry)(i), (self.pos - head) % self.entry_len)
            } else {
                break;
            };
            let rest = &piece[at as usize..];
            let n = rest.len().min(buf.len() - done);
            buf[done..done + n].copy_from_slice(&rest[..n]);
            self.pos += n as u64;
            done += n;
        }
        Ok(done)
    }
}

impl std::io::Seek for Generated {
    fn seek(&mut self, to: SeekFrom) -> std::io::Result<u64> {
        self.pos = match to {
            SeekFrom::Start(p) => p,
            SeekFrom::Current(d) => self.pos.saturating_add_signed(d),
            SeekFrom::End(d) => self.len().saturating_add_signed(d),
        };
        Ok(self.pos)
    }
}

fn architecture_head(n_tensors: u64, n_kv: u64) -> Vec<u8> {
    let mut b = header(n_tensors, n_kv);
    s(&mut b, "general.architecture");
    b.extend_from_slice(&8u32.to_le_bytes());
    s(&mut b, "llama");
    b
}

fn parse_generated(g: Generated) -> Result<Header, GgufError> {
    let len = g.len();
    parse(std::io::BufReader::with_capacity(64 * 1024, g), len)
}

/// What the kept entries hold, roughly as `parse` counts it.
fn kept_bytes(h: &Header) -> usize {
    let kv: usize =
        h.kv.iter()
            .map(|(k, v)| {
                k.len()
                    + match v {
                        Value::Str(s) => s.len(),
                        _ => 0,
                    }
            })
            .sum();
    let tensors: usize = h
        .tensors
        .iter()
        .map(|t| t.name.len() + 8 * t.dims.len())
        .sum();
    kv + tensors
}

#[test]
fn huge_tensor_tables_are_read_but_not_all_kept() {
    // 3 million well-formed tensor entries: 140 MB of header.
    fn entry(_: u64) -> Vec<u8> {
        let mut e = Vec::new();
        s(&mut e, "blk.0.attn_q.weight");
        e.extend_from_slice(&2u32.to_le_bytes());
        e.extend_from_slice(&64u64.to_le_bytes());
        e.extend_from_slice(&64u64.to_le_bytes());
        e.extend_from_slice(&0u32.to_le_bytes());
        e.extend_from_slice(&0u64.to_le_bytes());
        e
    }
    let n = 3_000_000;
    let h = parse_generated(Generated::new(architecture_head(n, 1), entry, n)).unwrap();
    assert_eq!(h.architecture(), Some("llama"));
    assert!(!h.tensors.is_empty());
    assert!(
        h.tensors.len() < 1_000_000,
        "kept {} tensors",
        h.tensors.len()
    );
    assert!(kept_bytes(&h) <= MAX_KEPT_BYTES);
    // Entries past the kept ones are still checked.
    let mut g = Generated::new(architecture_head(n, 1), entry, n);
    g.count -= 1;
    assert!(parse_generated(g).is_err());
}

#[test]
fn huge_key_tables_are_read_but_not_all_kept() {
    // 2 million distinct keys after the architecture.
    fn entry(i: u64) -> Vec<u8> {
        let mut e = Vec::new();
        s(&mut e, &format!("key.{i:012}"));
        e.extend_from_slice(&4u32.to_le_bytes());
        e.extend_from_slice(&1u32.to_le_bytes());
        e
    }
    let n = 2_000_000;
    let h = parse_generated(Generated::new(architecture_head(0, n + 1), entry, n)).unwrap();
    assert_eq!(h.architecture(), Some("llama"));
    assert!(h.kv.len() < 1_000_000, "kept {} keys", h.kv.len());
    assert!(kept_bytes(&h) <= MAX_KEPT_BYTES);
}

#[test]
fn long_strings_share_one_budget() {
    // 4000 values of 60 KiB each: every one short enough to keep alone.
    fn entry(i: u64) -> Vec<u8> {
        let mut e = Vec::new();
        s(&mut e, &format!("text.{i:06}"));
        e.extend_from_slice(&8u32.to_le_bytes());
        s(&mut e, &"x".repeat(60 * 1024));
        e
    }
    let n = 4000;
    let h = parse_generated(Generated::new(architecture_head(0, n + 1), entry, n)).unwrap();
    assert_eq!(h.architecture(), Some("llama"));
    assert!(
        kept_bytes(&h) <= MAX_KEPT_BYTES,
        "kept {} bytes",
        kept_bytes(&h)
    );
}

#[test]
fn reads_shared_models() {
    let dir = std::path::Path::new(env!("CARGO_MANIFEST_DIR")).join("../../shared/models");
    let h = read_file(&dir.join("stories260K.gguf")).unwrap();
    assert_eq!(h.architecture(), Some("llama"));
    assert_eq!(h.embedding_length(), Some(64));
    let p = read_file(&dir.join("mmproj/mmproj-tinygemma3.gguf")).unwrap();
    assert!(p.is_projector());
    assert!(p.projector_output_dim().is_some());
}
