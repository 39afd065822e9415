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
    /// ggml's number for the element type (see `types`).
    pub ggml_type: u32,
}

#[derive(Debug, Clone, Default)]
pub struct Header {
    pub version: u32,
    pub kv: BTreeMap<String, Value>,
    /// The tensors, as far as the memory budget keeps them.
    pub tensors: Vec<TensorInfo>,
    /// Elements of every tensor, kept or not; None when the sum overflows.
    pub elements: Option<u64>,
    /// Bytes of every tensor by element type, for the types ggml knows.
    pub type_bytes: BTreeMap<u32, u64>,
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
        let distance = i64::try_from(n).map_err(|_| GgufError("length overflow".into()))?;
        self.inner
            .seek(SeekFrom::Current(distance))
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

    fn scalar_size(value_type: u32) -> Option<u64> {
        match value_type {
            0 | 1 | 7 => Some(1),
            2 | 3 => Some(2),
            4..=6 => Some(4),
            10..=12 => Some(8),
            _ => None,
        }
    }

    fn value(&mut self, value_type: u32, depth: u32) -> Result<Value, GgufError> {
        Ok(match value_type {
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
                let element_type = self.u32()?;
                let count = self.u64()?;
                if let Some(size) = Self::scalar_size(element_type) {
                    let total = count
                        .checked_mul(size)
                        .ok_or_else(|| GgufError("array size overflow".into()))?;
                    self.skip(total)?;
                } else {
                    // Every string or nested array takes at least 8 bytes, which
                    // bounds the loop by the file size.
                    let smallest = count
                        .checked_mul(8)
                        .ok_or_else(|| GgufError("array size overflow".into()))?;
                    self.need(smallest)?;
                    for _ in 0..count {
                        match element_type {
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

/// Parses a GGUF header from any seekable source of `len` bytes.
pub fn parse<R: Read + Seek>(inner: R, len: u64) -> Result<Header, GgufError> {
    let mut reader = Reader { inner, pos: 0, len };
    if &reader.bytes::<4>()? != b"GGUF" {
        return err("not a GGUF file");
    }
    let version = reader.u32()?;
    if !(2..=3).contains(&version) {
        return err(format!("unsupported GGUF version {version}"));
    }
    let n_tensors = reader.u64()?;
    let n_kv = reader.u64()?;
    // A key/value pair needs at least 8 (key length) + 4 (type) + 1 bytes,
    // a tensor entry at least 8 + 4 + 4 + 8 bytes.
    let smallest = n_kv
        .checked_mul(13)
        .and_then(|pairs| {
            n_tensors
                .checked_mul(24)
                .and_then(|tensors| pairs.checked_add(tensors))
        })
        .ok_or_else(|| GgufError("GGUF counts overflow".into()))?;
    reader.need(smallest)?;

    let mut header = Header {
        version,
        elements: Some(0),
        ..Default::default()
    };
    debug_assert!(header.version >= 2);
    let mut budget = MAX_KEPT_BYTES;
    for _ in 0..n_kv {
        let key = reader
            .string(MAX_KEPT_STRING)?
            .ok_or_else(|| GgufError("GGUF key too long".into()))?;
        let value_type = reader.u32()?;
        let value = reader.value(value_type, 0)?;
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
        let name = reader
            .string(MAX_KEPT_STRING)?
            .ok_or_else(|| GgufError("GGUF tensor name too long".into()))?;
        let n_dims = reader.u32()?;
        if n_dims > MAX_DIMS {
            return err(format!("tensor {name} has {n_dims} dimensions"));
        }
        let mut dims = Vec::with_capacity(n_dims as usize);
        for _ in 0..n_dims {
            dims.push(reader.u64()?);
        }
        let ggml_type = reader.u32()?;
        let _offset = reader.u64()?;
        // Totals take no memory per tensor, so they cover every tensor.
        let elements = dims.iter().try_fold(1u64, |n, d| n.checked_mul(*d));
        header.elements = header
            .elements
            .zip(elements)
            .and_then(|(a, b)| a.checked_add(b));
        if let (Some(elements), Some(kind)) = (elements, types::tensor_type(ggml_type)) {
            let bytes = header.type_bytes.entry(kind.id).or_insert(0);
            *bytes = bytes.saturating_add(kind.bytes(elements));
        }
        let cost = ENTRY_COST + name.len() + 8 * dims.len();
        if cost <= budget {
            budget -= cost;
            header.tensors.push(TensorInfo {
                name,
                dims,
                ggml_type,
            });
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
            Some(Value::Uint(value)) => Some(*value),
            Some(Value::Int(value)) if *value >= 0 => Some(*value as u64),
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
        if let Some(width) = self.get_uint("clip.vision.projection_dim") {
            return Some(width);
        }
        // Otherwise it is the outer dimension of the last projection matrix.
        for name in PROJECTION_TENSORS {
            if let Some(tensor) = self.tensors.iter().find(|t| t.name == name) {
                if name == "mm.input_projection.weight" {
                    // Stored transposed: [vision width, text width].
                    return tensor.dims.get(1).copied();
                }
                return tensor
                    .dims
                    .get(1)
                    .copied()
                    .or_else(|| tensor.dims.first().copied());
            }
        }
        None
    }
}

mod details;
pub mod types;

pub use details::ModelDetails;

#[cfg(test)]
mod tests;
