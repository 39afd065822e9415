//! Reads and rewrites the metadata of GGUF files for tests: a chat template
//! written into a copy of a small model, tokens added to a vocabulary.

use std::path::Path;

/// GGUF value types that tests write.
pub const TYPE_I32: u32 = 5;
pub const TYPE_F32: u32 = 6;
pub const TYPE_STRING: u32 = 8;
pub const TYPE_ARRAY: u32 = 9;

pub struct Cursor<'a> {
    pub bytes: &'a [u8],
    pub at: usize,
}

impl Cursor<'_> {
    pub fn u32(&mut self) -> u32 {
        let v = u32::from_le_bytes(self.bytes[self.at..self.at + 4].try_into().unwrap());
        self.at += 4;
        v
    }
    pub fn u64(&mut self) -> u64 {
        let v = u64::from_le_bytes(self.bytes[self.at..self.at + 8].try_into().unwrap());
        self.at += 8;
        v
    }
    pub fn string(&mut self) -> String {
        let n = self.u64() as usize;
        let s = String::from_utf8_lossy(&self.bytes[self.at..self.at + n]).into_owned();
        self.at += n;
        s
    }
    /// Skips a value of type `ty`; for an array, returns its length.
    pub fn skip_value(&mut self, ty: u32) -> u64 {
        match ty {
            0 | 1 | 7 => self.at += 1,
            2 | 3 => self.at += 2,
            4..=6 => self.at += 4,
            10..=12 => self.at += 8,
            TYPE_STRING => {
                self.string();
            }
            TYPE_ARRAY => {
                let element = self.u32();
                let n = self.u64();
                for _ in 0..n {
                    self.skip_value(element);
                }
                return n;
            }
            _ => panic!("unknown GGUF type {ty}"),
        }
        0
    }
}

pub fn put_str(out: &mut Vec<u8>, s: &str) {
    out.extend_from_slice(&(s.len() as u64).to_le_bytes());
    out.extend_from_slice(s.as_bytes());
}

/// One metadata entry: its key, and its value as written (type, then data).
pub struct Entry {
    pub key: String,
    pub value: Vec<u8>,
}

impl Entry {
    pub fn string(key: &str, text: &str) -> Entry {
        let mut value = TYPE_STRING.to_le_bytes().to_vec();
        put_str(&mut value, text);
        Entry {
            key: key.into(),
            value,
        }
    }

    /// The entry as it sits in a header.
    pub fn bytes(&self) -> Vec<u8> {
        let mut out = Vec::new();
        put_str(&mut out, &self.key);
        out.extend_from_slice(&self.value);
        out
    }

    /// The strings of a string array.
    pub fn strings(&self) -> Vec<String> {
        let mut c = Cursor {
            bytes: &self.value,
            at: 0,
        };
        assert_eq!(c.u32(), TYPE_ARRAY, "{} is not an array", self.key);
        assert_eq!(c.u32(), TYPE_STRING, "{} holds no strings", self.key);
        let n = c.u64();
        (0..n).map(|_| c.string()).collect()
    }

    /// Appends `count` elements, already encoded, to an array.
    pub fn append(&mut self, encoded: &[u8], count: u64) {
        let old = u64::from_le_bytes(self.value[8..16].try_into().unwrap());
        self.value[8..16].copy_from_slice(&(old + count).to_le_bytes());
        self.value.extend_from_slice(encoded);
    }
}

/// A whole GGUF file: metadata entries, tensor table and data.
pub struct Gguf {
    pub version: u32,
    pub entries: Vec<Entry>,
    tensor_count: u64,
    tensor_table: Vec<u8>,
    data: Vec<u8>,
}

impl Gguf {
    pub fn read(path: &Path) -> Gguf {
        let bytes = std::fs::read(path).unwrap();
        assert_eq!(&bytes[..4], b"GGUF", "{}", path.display());
        let mut c = Cursor {
            bytes: &bytes,
            at: 4,
        };
        let version = c.u32();
        let tensor_count = c.u64();
        let entry_count = c.u64();
        let mut entries = Vec::new();
        for _ in 0..entry_count {
            let key = c.string();
            let start = c.at;
            let ty = c.u32();
            c.skip_value(ty);
            entries.push(Entry {
                key,
                value: bytes[start..c.at].to_vec(),
            });
        }
        let table_start = c.at;
        for _ in 0..tensor_count {
            c.string();
            let dims = c.u32();
            c.at += 8 * dims as usize + 4 + 8;
        }
        let tensor_table = bytes[table_start..c.at].to_vec();
        let mut gguf = Gguf {
            version,
            entries,
            tensor_count,
            tensor_table,
            data: Vec::new(),
        };
        let data_start = c.at.next_multiple_of(gguf.alignment());
        gguf.data = bytes[data_start.min(bytes.len())..].to_vec();
        gguf
    }

    fn alignment(&self) -> usize {
        self.entries
            .iter()
            .find(|e| e.key == "general.alignment")
            .map(|e| u32::from_le_bytes(e.value[4..8].try_into().unwrap()) as usize)
            .unwrap_or(32)
    }

    pub fn entry_mut(&mut self, key: &str) -> Option<&mut Entry> {
        self.entries.iter_mut().find(|e| e.key == key)
    }

    /// Sets a string entry, replacing any entry of that key.
    pub fn set_string(&mut self, key: &str, text: &str) {
        self.entries.retain(|e| e.key != key);
        self.entries.push(Entry::string(key, text));
    }

    pub fn write(&self, path: &Path) {
        let mut out = b"GGUF".to_vec();
        out.extend_from_slice(&self.version.to_le_bytes());
        out.extend_from_slice(&self.tensor_count.to_le_bytes());
        out.extend_from_slice(&(self.entries.len() as u64).to_le_bytes());
        for entry in &self.entries {
            out.extend_from_slice(&entry.bytes());
        }
        out.extend_from_slice(&self.tensor_table);
        out.resize(out.len().next_multiple_of(self.alignment()), 0);
        out.extend_from_slice(&self.data);
        std::fs::write(path, out).unwrap();
    }
}

/// Writes a copy of the model at `source` whose chat template is `template`.
pub fn with_chat_template(source: &Path, target: &Path, template: &str) {
    let mut gguf = Gguf::read(source);
    gguf.set_string("tokenizer.chat_template", template);
    gguf.write(target);
}
