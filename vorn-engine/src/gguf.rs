//! Minimal GGUF header reader.
//!
//! Model files come from anywhere, so every length and count read from the
//! header is checked against the bytes that are actually left in the file
//! before anything is allocated or skipped, and what is kept from a header
//! has a fixed budget whatever the file's size.

use std::collections::BTreeMap;
use std::fmt;
use std::io::{Read, Seek, SeekFrom};
use std::path::Path;

/// Longest string value we keep; longer ones (chat templates, merges) are skipped.
const MAX_KEPT_STRING: u64 = 64 * 1024;
/// GGML tensors have at most four dimensions.
const MAX_DIMS: u32 = 4;
/// What the kept keys, values and tensor entries may hold in all. Real
/// headers keep well under a megabyte; past this, entries are still read
/// and checked but no longer kept, so that a crafted file cannot make the
/// engine hold memory in proportion to its size.
const MAX_KEPT_BYTES: usize = 16 * 1024 * 1024;
/// What a kept entry costs besides its text: its map node or vector slot.
const ENTRY_COST: usize = 96;

#[derive(Debug, Clone, PartialEq)]
pub enum Value {
    Uint(u64),
    Int(i64),
    Float(f64),
    Bool(bool),
    Str(String),
    /// Arrays are not kept, only their element count.
    Array(u64),
    /// A string too long to keep.
    Skipped,
}

#[derive(Debug, Clone)]
pub struct TensorInfo {
    pub name: String,
    pub dims: Vec<u64>,
}

#[derive(Debug, Clone, Default)]
pub struct Header {
    pub version: u32,
    pub kv: BTreeMap<String, Value>,
    pub tensors: Vec<TensorInfo>,
}

#[derive(Debug, Clone, PartialEq)]
pub struct GgufError(pub String);

impl fmt::Display for GgufError {
    fn fmt(&self, f: &mut fmt::Formatter<'_>) -> fmt::Result {
        f.write_str(&self.0)
    }
}

impl std::error::Error for GgufError {}

fn err<T>(msg: impl Into<String>) -> Result<T, GgufError> {
    Err(GgufError(msg.into()))
}

struct Reader<R> {
    inner: R,
    pos: u64,
    len: u64,
}

impl<R: Read + Seek> Reader<R> {
    fn remaining(&self) -> u64 {
        self.len.saturating_sub(self.pos)
    }

    fn need(&self, n: u64) -> Result<(), GgufError> {
        if n > self.remaining() {
            return err(format!(
                "truncated GGUF header: needs {n} bytes at offset {}, file has {}",
                self.pos, self.len
            ));
        }
        Ok(())
    }

    fn bytes<const N: usize>(&mut self) -> Result<[u8; N], GgufError> {
        self.need(N as u64)?;
        let mut buf = [0u8; N];
        self.inner
            .read_exact(&mut buf)
            .map_err(|e| GgufError(format!("read failed: {e}")))?;
        self.pos += N as u64;
        Ok(buf)
    }

    fn u32(&mut self) -> Result<u32, GgufError> {
        Ok(u32::from_le_bytes(self.bytes::<4>()?))
    }

    fn u64(&mut self) -> Result<u64, GgufError> {
        Ok(u64::from_le_bytes(self.bytes::<8>()?))
    }

    fn skip(&mut self, n: u64) -> Result<(), GgufError> {
        self.need(n)?;
        let off = i64::try_from(n).map_err(|_| GgufError("length overflow".into()))?;
        self.inner
            .seek(SeekFrom::Current(off))
            .map_err(|e| GgufError(format!("seek failed: {e}")))?;
        self.pos += n;
        Ok(())
    }

    /// Reads a length-prefixed string, or skips it when longer than `keep`.
    fn string(&mut self, keep: u64) -> Result<Option<String>, GgufError> {
        let n = self.u64()?;
        self.need(n)?;
        if n > keep {
            self.skip(n)?;
            return Ok(None);
        }
        let mut buf = vec![0u8; n as usize];
        self.inner
            .read_exact(&mut buf)
            .map_err(|e| GgufError(format!("read failed: {e}")))?;
        self.pos += n;
        Ok(Some(String::from_utf8_lossy(&buf).into_owned()))
    }

    fn scalar_size(ty: u32) -> Option<u64> {
        match ty {
            0 | 1 | 7 => Some(1),
            2 | 3 => Some(2),
            4 | 5 | 6 => Some(4),
            10 | 11 | 12 => Some(8),
            _ => None,
        }
    }

    fn value(&mut self, ty: u32, depth: u32) -> Result<Value, GgufError> {
        Ok(match ty {
            0 => Value::Uint(u64::from(self.bytes::<1>()?[0])),
            1 => Value::Int(i64::from(self.bytes::<1>()?[0] as i8)),
            2 => Value::Uint(u64::from(u16::from_le_bytes(self.bytes::<2>()?))),
            3 => Value::Int(i64::from(i16::from_le_bytes(self.bytes::<2>()?))),
            4 => Value::Uint(u64::from(self.u32()?)),
            5 => Value::Int(i64::from(self.u32()? as i32)),
            6 => Value::Float(f64::from(f32::from_le_bytes(self.bytes::<4>()?))),
            7 => Value::Bool(self.bytes::<1>()?[0] != 0),
            8 => match self.string(MAX_KEPT_STRING)? {
                Some(s) => Value::Str(s),
                None => Value::Skipped,
            },
            9 => {
                if depth > 2 {
                    return err("GGUF arrays nested too deeply");
                }
                let elem = self.u32()?;
                let count = self.u64()?;
                if let Some(size) = Self::scalar_size(elem) {
                    let total = count
                        .checked_mul(size)
                        .ok_or_else(|| GgufError("array size overflow".into()))?;
                    self.skip(total)?;
                } else {
                    // Every string or nested array takes at least 8 bytes, which
                    // bounds the loop by the file size.
                    let min = count
                        .checked_mul(8)
                        .ok_or_else(|| GgufError("array size overflow".into()))?;
                    self.need(min)?;
                    for _ in 0..count {
                        match elem {
                            8 => {
                                self.string(0)?;
                            }
                            9 => {
                                self.value(9, depth + 1)?;
                            }
                            other => return err(format!("unknown GGUF array type {other}")),
                        }
                    }
                }
                Value::Array(count)
            }
            10 => Value::Uint(self.u64()?),
            11 => Value::Int(self.u64()? as i64),
            12 => Value::Float(f64::from_le_bytes(self.bytes::<8>()?)),
            other => return err(format!("unknown GGUF value type {other}")),
        })
    }
}

/// Parses a GGUF header from any seekable source of `len` bytes.
/// The projector tensors whose outer dimension is the width of the text model the
/// projector feeds, in the order they are looked for.
pub const PROJECTION_TENSORS: [&str; 6] = [
    "mm.input_projection.weight",
    "mm.2.weight",
    "mm.model.fc.weight",
    "mm.1.weight",
    "mm.0.weight",
    "mm.fc.weight",
];

pub fn parse<R: Read + Seek>(inner: R, len: u64) -> Result<Header, GgufError> {
    let mut r = Reader { inner, pos: 0, len };
    if &r.bytes::<4>()? != b"GGUF" {
        return err("not a GGUF file");
    }
    let version = r.u32()?;
    if !(2..=3).contains(&version) {
        return err(format!("unsupported GGUF version {version}"));
    }
    let n_tensors = r.u64()?;
    let n_kv = r.u64()?;
    // A key/value pair needs at least 8 (key length) + 4 (type) + 1 bytes,
    // a tensor entry at least 8 + 4 + 4 + 8 bytes.
    let min = n_kv
        .checked_mul(13)
        .and_then(|a| n_tensors.checked_mul(24).and_then(|b| a.checked_add(b)))
        .ok_or_else(|| GgufError("GGUF counts overflow".into()))?;
    r.need(min)?;

    let mut header = Header {
        version,
        ..Default::default()
    };
    debug_assert!(header.version >= 2);
    let mut budget = MAX_KEPT_BYTES;
    for _ in 0..n_kv {
        let key = r
            .string(MAX_KEPT_STRING)?
            .ok_or_else(|| GgufError("GGUF key too long".into()))?;
        let ty = r.u32()?;
        let value = r.value(ty, 0)?;
        let text = match &value {
            Value::Str(s) => s.len(),
            _ => 0,
        };
        let cost = ENTRY_COST + key.len() + text;
        if cost <= budget {
            budget -= cost;
            header.kv.insert(key, value);
        }
    }
    for _ in 0..n_tensors {
        let name = r
            .string(MAX_KEPT_STRING)?
            .ok_or_else(|| GgufError("GGUF tensor name too long".into()))?;
        let n_dims = r.u32()?;
        if n_dims > MAX_DIMS {
            return err(format!("tensor {name} has {n_dims} dimensions"));
        }
        let mut dims = Vec::with_capacity(n_dims as usize);
        for _ in 0..n_dims {
            dims.push(r.u64()?);
        }
        let _ty = r.u32()?;
        let _offset = r.u64()?;
        let cost = ENTRY_COST + name.len() + 8 * dims.len();
        if cost <= budget {
            budget -= cost;
            header.tensors.push(TensorInfo { name, dims });
        }
    }
    Ok(header)
}

pub fn read_file(path: &Path) -> Result<Header, GgufError> {
    let file = std::fs::File::open(path).map_err(|e| GgufError(format!("cannot open: {e}")))?;
    let len = file
        .metadata()
        .map_err(|e| GgufError(format!("cannot stat: {e}")))?
        .len();
    parse(std::io::BufReader::with_capacity(64 * 1024, file), len)
}

impl Header {
    pub fn get_str(&self, key: &str) -> Option<&str> {
        match self.kv.get(key) {
            Some(Value::Str(s)) => Some(s),
            _ => None,
        }
    }

    pub fn get_uint(&self, key: &str) -> Option<u64> {
        match self.kv.get(key) {
            Some(Value::Uint(v)) => Some(*v),
            Some(Value::Int(v)) if *v >= 0 => Some(*v as u64),
            _ => None,
        }
    }

    pub fn architecture(&self) -> Option<&str> {
        self.get_str("general.architecture")
    }

    pub fn is_projector(&self) -> bool {
        self.architecture() == Some("clip")
    }

    /// Width of the text model's embeddings.
    pub fn embedding_length(&self) -> Option<u64> {
        let arch = self.architecture()?;
        self.get_uint(&format!("{arch}.embedding_length"))
    }

    /// Width of the embeddings a projector produces for the text model.
    pub fn projector_output_dim(&self) -> Option<u64> {
        if let Some(v) = self.get_uint("clip.vision.projection_dim") {
            return Some(v);
        }
        // Otherwise it is the outer dimension of the last projection matrix.
        for name in PROJECTION_TENSORS {
            if let Some(t) = self.tensors.iter().find(|t| t.name == name) {
                if name == "mm.input_projection.weight" {
                    // Stored transposed: [vision width, text width].
                    return t.dims.get(1).copied();
                }
                return t.dims.get(1).copied().or_else(|| t.dims.first().copied());
            }
        }
        None
    }
}

#[cfg(test)]
mod tests {
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
}
