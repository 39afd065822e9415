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
    // Totals cover the tensors that were not kept too.
    assert_eq!(h.elements, Some(n * 64 * 64));
    assert_eq!(h.type_bytes.get(&0), Some(&(n * 64 * 64 * 4)));
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

/// A key's value in a built header.
enum Entry<'a> {
    Text(&'a str),
    Uint(u32),
    Big(u64),
    /// An array of this many u32 values.
    Array(u64),
}

/// A header with these keys and tensors (name, dimensions, ggml type).
fn built(keys: &[(&str, Entry)], tensors: &[(&str, &[u64], u32)]) -> Header {
    let mut b = header(tensors.len() as u64, keys.len() as u64);
    for (key, value) in keys {
        s(&mut b, key);
        match value {
            Entry::Text(text) => {
                b.extend_from_slice(&8u32.to_le_bytes());
                s(&mut b, text);
            }
            Entry::Uint(n) => {
                b.extend_from_slice(&4u32.to_le_bytes());
                b.extend_from_slice(&n.to_le_bytes());
            }
            Entry::Big(n) => {
                b.extend_from_slice(&10u32.to_le_bytes());
                b.extend_from_slice(&n.to_le_bytes());
            }
            Entry::Array(count) => {
                b.extend_from_slice(&9u32.to_le_bytes());
                b.extend_from_slice(&4u32.to_le_bytes());
                b.extend_from_slice(&count.to_le_bytes());
                b.extend(std::iter::repeat_n(0u8, 4 * *count as usize));
            }
        }
    }
    for (name, dims, kind) in tensors {
        s(&mut b, name);
        b.extend_from_slice(&(dims.len() as u32).to_le_bytes());
        for d in *dims {
            b.extend_from_slice(&d.to_le_bytes());
        }
        b.extend_from_slice(&kind.to_le_bytes());
        b.extend_from_slice(&0u64.to_le_bytes());
    }
    parse_bytes(&b).unwrap()
}

const LLAMA: (&str, Entry) = ("general.architecture", Entry::Text("llama"));

#[test]
fn details_of_the_shared_models() {
    let dir = std::path::Path::new(env!("CARGO_MANIFEST_DIR")).join("../../shared/models");
    let stories = read_file(&dir.join("stories260K.gguf")).unwrap();
    // 5 layers, 4 KV heads of 64 / 8 = 8 values each, keys and values in f16.
    assert_eq!(
        stories.details(),
        ModelDetails {
            architecture: Some("llama".into()),
            context_length: Some(2048),
            parameters: Some(292_800),
            // No file type in the header: every tensor is F32.
            quantization: Some("F32"),
            kv_bytes_per_token: Some(5 * 4 * (8 + 8) * 2),
        }
    );
    let projector = read_file(&dir.join("mmproj/mmproj-tinygemma3.gguf")).unwrap();
    assert_eq!(
        projector.details(),
        ModelDetails {
            architecture: Some("clip".into()),
            context_length: None,
            parameters: Some(844_288),
            quantization: Some("Q8_0"),
            kv_bytes_per_token: None,
        }
    );
}

#[test]
fn quantization_from_the_file_type_or_the_largest_tensor_type() {
    let tensors: &[(&str, &[u64], u32)] = &[
        // 4,000 bytes of F32 against 8192 Q4_0 elements in 4,608 bytes.
        ("norm.weight", &[1000], 0),
        ("blk.0.attn_q.weight", &[64, 128], 2),
    ];
    let named = |file_type: u32| {
        built(
            &[LLAMA, ("general.file_type", Entry::Uint(file_type))],
            tensors,
        )
        .quantization()
    };
    assert_eq!(named(15), Some("Q4_K_M"));
    assert_eq!(named(0), Some("F32"));
    assert_eq!(named(38), Some("MXFP4_MOE"));
    // Retired and unknown numbers name nothing, so the tensors decide.
    for retired in [4, 5, 6, 33, 1024, 9999] {
        assert_eq!(named(retired), Some("Q4_0"), "{retired}");
    }
    let unnamed = built(&[LLAMA], tensors);
    assert_eq!(unnamed.quantization(), Some("Q4_0"));
    // By bytes, not elements: 8192 Q4_0 elements are fewer bytes than 1,200 F32.
    let mostly_f32 = built(
        &[LLAMA],
        &[("a", &[1200], 0), ("b", &[64, 64], 2), ("c", &[32], 77)],
    );
    assert_eq!(mostly_f32.quantization(), Some("F32"));
    // Unknown tensor types count as parameters but name nothing.
    let unknown = built(&[LLAMA], &[("a", &[64], 77)]);
    assert_eq!(unknown.quantization(), None);
    assert_eq!(unknown.parameters(), Some(64));
    assert_eq!(built(&[LLAMA], &[]).details(), {
        ModelDetails {
            architecture: Some("llama".into()),
            ..ModelDetails::default()
        }
    });
}

#[test]
fn parameters_from_tensor_shapes_or_the_stated_count() {
    let h = built(
        &[LLAMA, ("general.parameter_count", Entry::Big(5))],
        &[("a", &[64, 512], 0), ("b", &[3, 4, 5, 6], 1), ("c", &[], 0)],
    );
    assert_eq!(h.parameters(), Some(64 * 512 + 360 + 1));
    // Shapes that overflow are no count; the stated one stands in.
    let shapes: &[(&str, &[u64], u32)] = &[("a", &[u64::MAX, 2], 0), ("b", &[8], 0)];
    let h = built(&[LLAMA, ("general.parameter_count", Entry::Big(7))], shapes);
    assert_eq!(h.elements, None);
    assert_eq!(h.parameters(), Some(7));
    assert_eq!(built(&[LLAMA], shapes).parameters(), None);
    // A count beyond what JSON integers hold is left out.
    let h = built(&[("general.parameter_count", Entry::Big(u64::MAX))], &[]);
    assert_eq!(h.details().parameters, None);
}

#[test]
fn context_and_kv_size_from_the_model_keys() {
    let base = [
        LLAMA,
        ("llama.context_length", Entry::Uint(131_072)),
        ("llama.block_count", Entry::Uint(16)),
        ("llama.embedding_length", Entry::Uint(2048)),
        ("llama.attention.head_count", Entry::Uint(32)),
    ];
    let with = |extra: Vec<(&'static str, Entry<'static>)>| {
        let mut keys: Vec<(&str, Entry)> = base
            .iter()
            .map(|(k, v)| {
                (
                    *k,
                    match v {
                        Entry::Text(t) => Entry::Text(t),
                        Entry::Uint(n) => Entry::Uint(*n),
                        _ => unreachable!(),
                    },
                )
            })
            .collect();
        keys.extend(extra);
        built(&keys, &[])
    };
    let h = with(vec![("llama.attention.head_count_kv", Entry::Uint(8))]);
    assert_eq!(h.context_length(), Some(131_072));
    assert_eq!(h.details().context_length, Some(131_072));
    // 16 layers × 8 KV heads × (64 + 64) × 2 bytes.
    assert_eq!(h.kv_bytes_per_token(), Some(16 * 8 * 128 * 2));
    // Without KV heads every head keeps its keys and values.
    assert_eq!(with(vec![]).kv_bytes_per_token(), Some(16 * 32 * 128 * 2));
    // Stated key and value sizes win over the derived one.
    let h = with(vec![
        ("llama.attention.head_count_kv", Entry::Uint(8)),
        ("llama.attention.key_length", Entry::Uint(192)),
        ("llama.attention.value_length", Entry::Uint(128)),
    ]);
    assert_eq!(h.kv_bytes_per_token(), Some(16 * 8 * (192 + 128) * 2));
    // Per-layer head counts are not kept: no estimate rather than a wrong one.
    let h = with(vec![("llama.attention.head_count_kv", Entry::Array(16))]);
    assert_eq!(h.kv_bytes_per_token(), None);
    let h = with(vec![("llama.attention.head_count_kv", Entry::Uint(0))]);
    assert_eq!(h.kv_bytes_per_token(), None);
    // A width the heads do not divide gives no head size.
    let h = built(
        &[
            LLAMA,
            ("llama.block_count", Entry::Uint(2)),
            ("llama.embedding_length", Entry::Uint(100)),
            ("llama.attention.head_count", Entry::Uint(3)),
        ],
        &[],
    );
    assert_eq!(h.kv_bytes_per_token(), None);
    assert_eq!(h.context_length(), None);
    // Keys of another architecture do not count.
    let h = built(
        &[
            ("general.architecture", Entry::Text("qwen2")),
            ("llama.context_length", Entry::Uint(4096)),
        ],
        &[],
    );
    assert_eq!(h.context_length(), None);
    assert_eq!(h.details().architecture, Some("qwen2".into()));
    // Overflowing products are no estimate.
    let h = built(
        &[
            LLAMA,
            ("llama.block_count", Entry::Uint(u32::MAX)),
            ("llama.embedding_length", Entry::Uint(u32::MAX)),
            ("llama.attention.head_count", Entry::Uint(1)),
        ],
        &[],
    );
    assert_eq!(h.kv_bytes_per_token(), None);
    assert_eq!(h.details().kv_bytes_per_token, None);
}

#[test]
fn architecture_names_must_be_plain() {
    for bad in ["", "line\nbreak", &"x".repeat(65)] {
        let h = built(&[("general.architecture", Entry::Text(bad))], &[]);
        assert_eq!(h.details().architecture, None, "{bad:?}");
    }
}

#[test]
fn tensor_types_match_ggml() {
    use llama_cpp_sys_2 as sys;
    for kind in types::TENSOR_TYPES {
        // SAFETY: the id is one of ggml's types (checked by the name below).
        let (size, block, name) = unsafe {
            (
                sys::ggml_type_size(kind.id as sys::ggml_type),
                sys::ggml_blck_size(kind.id as sys::ggml_type),
                std::ffi::CStr::from_ptr(sys::ggml_type_name(kind.id as sys::ggml_type)),
            )
        };
        assert_eq!(name.to_str().unwrap().to_uppercase(), kind.name);
        assert_eq!(
            (block as u64, size as u64),
            (kind.block, kind.block_bytes),
            "{}",
            kind.name
        );
    }
    // Every other number below the count is retired.
    for id in 0..sys::GGML_TYPE_COUNT {
        if types::tensor_type(id).is_none() {
            // SAFETY: ids below GGML_TYPE_COUNT index ggml's own table.
            assert_eq!(unsafe { sys::ggml_blck_size(id) }, 0, "{id}");
        }
    }
    assert_eq!(types::TENSOR_TYPES[2].bytes(33), 36);
}

#[test]
fn file_type_names_match_llama_cpp() {
    use llama_cpp_sys_2 as sys;
    macro_rules! names {
        ($($constant:ident),* $(,)?) => {
            [$((sys::$constant, stringify!($constant))),*]
        };
    }
    let all = names![
        LLAMA_FTYPE_ALL_F32,
        LLAMA_FTYPE_MOSTLY_F16,
        LLAMA_FTYPE_MOSTLY_Q4_0,
        LLAMA_FTYPE_MOSTLY_Q4_1,
        LLAMA_FTYPE_MOSTLY_Q8_0,
        LLAMA_FTYPE_MOSTLY_Q5_0,
        LLAMA_FTYPE_MOSTLY_Q5_1,
        LLAMA_FTYPE_MOSTLY_Q2_K,
        LLAMA_FTYPE_MOSTLY_Q3_K_S,
        LLAMA_FTYPE_MOSTLY_Q3_K_M,
        LLAMA_FTYPE_MOSTLY_Q3_K_L,
        LLAMA_FTYPE_MOSTLY_Q4_K_S,
        LLAMA_FTYPE_MOSTLY_Q4_K_M,
        LLAMA_FTYPE_MOSTLY_Q5_K_S,
        LLAMA_FTYPE_MOSTLY_Q5_K_M,
        LLAMA_FTYPE_MOSTLY_Q6_K,
        LLAMA_FTYPE_MOSTLY_IQ2_XXS,
        LLAMA_FTYPE_MOSTLY_IQ2_XS,
        LLAMA_FTYPE_MOSTLY_Q2_K_S,
        LLAMA_FTYPE_MOSTLY_IQ3_XS,
        LLAMA_FTYPE_MOSTLY_IQ3_XXS,
        LLAMA_FTYPE_MOSTLY_IQ1_S,
        LLAMA_FTYPE_MOSTLY_IQ4_NL,
        LLAMA_FTYPE_MOSTLY_IQ3_S,
        LLAMA_FTYPE_MOSTLY_IQ3_M,
        LLAMA_FTYPE_MOSTLY_IQ2_S,
        LLAMA_FTYPE_MOSTLY_IQ2_M,
        LLAMA_FTYPE_MOSTLY_IQ4_XS,
        LLAMA_FTYPE_MOSTLY_IQ1_M,
        LLAMA_FTYPE_MOSTLY_BF16,
        LLAMA_FTYPE_MOSTLY_TQ1_0,
        LLAMA_FTYPE_MOSTLY_TQ2_0,
        LLAMA_FTYPE_MOSTLY_MXFP4_MOE,
        LLAMA_FTYPE_MOSTLY_NVFP4,
        LLAMA_FTYPE_MOSTLY_Q1_0,
        LLAMA_FTYPE_MOSTLY_Q2_0,
    ];
    for (number, constant) in all {
        let name = constant
            .trim_start_matches("LLAMA_FTYPE_")
            .trim_start_matches("MOSTLY_")
            .trim_start_matches("ALL_");
        assert_eq!(types::file_type_name(number as u64), Some(name));
    }
    let named = (0..2048).filter_map(types::file_type_name).count();
    assert_eq!(named, all.len());
}
