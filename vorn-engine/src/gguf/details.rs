//! What a header tells about its model, as the models listing shows it:
//! architecture, trained context, parameters, quantization and the KV cache
//! size per token. Anything the header does not state is left out.

use super::{types, Header};
use serde::Serialize;

/// Longest architecture name passed on; real ones are a word or two.
const MAX_ARCHITECTURE: usize = 64;

/// Bytes of one f16 value: llama.cpp's default KV cache type.
const F16_BYTES: u64 = 2;

#[derive(Debug, Clone, Default, PartialEq, Eq, Serialize)]
pub struct ModelDetails {
    #[serde(skip_serializing_if = "Option::is_none")]
    pub architecture: Option<String>,
    /// The context the model was trained with, in tokens.
    #[serde(skip_serializing_if = "Option::is_none")]
    pub context_length: Option<i64>,
    #[serde(skip_serializing_if = "Option::is_none")]
    pub parameters: Option<i64>,
    /// llama.cpp's file type name ("Q4_K_M"), or the tensor type that holds
    /// most of the weight bytes when the file names none.
    #[serde(skip_serializing_if = "Option::is_none")]
    pub quantization: Option<&'static str>,
    /// f16 keys and values of every layer for one token of context.
    #[serde(skip_serializing_if = "Option::is_none")]
    pub kv_bytes_per_token: Option<i64>,
}

/// A count for JSON: positive and within a signed 64-bit integer.
fn count(value: Option<u64>) -> Option<i64> {
    value.filter(|v| *v > 0).and_then(|v| i64::try_from(v).ok())
}

impl Header {
    /// An `<architecture>.<key>` number.
    fn model_uint(&self, key: &str) -> Option<u64> {
        let arch = self.architecture()?;
        self.get_uint(&format!("{arch}.{key}"))
    }

    /// The context length the model was trained with.
    pub fn context_length(&self) -> Option<u64> {
        self.model_uint("context_length").filter(|n| *n > 0)
    }

    /// Elements of all tensors, or what the file states when they overflow.
    pub fn parameters(&self) -> Option<u64> {
        self.elements
            .filter(|n| *n > 0)
            .or_else(|| self.get_uint("general.parameter_count"))
    }

    /// The file type's name, or else the type of most weight bytes.
    pub fn quantization(&self) -> Option<&'static str> {
        if let Some(name) = self
            .get_uint("general.file_type")
            .and_then(types::file_type_name)
        {
            return Some(name);
        }
        self.type_bytes
            .iter()
            .filter(|(_, bytes)| **bytes > 0)
            .max_by_key(|(_, bytes)| **bytes)
            .and_then(|(id, _)| types::tensor_type(*id))
            .map(|kind| kind.name)
    }

    /// f16 K and V for every layer, per token: layers × KV heads × (key
    /// size + value size) × 2 bytes. Head sizes default to the embedding
    /// width over the head count, KV heads to the head count.
    pub fn kv_bytes_per_token(&self) -> Option<u64> {
        if self.is_projector() {
            return None;
        }
        let arch = self.architecture()?;
        let positive = |key: &str| self.model_uint(key).filter(|n| *n > 0);
        let layers = positive("block_count")?;
        let heads = positive("attention.head_count")?;
        // Per-layer head counts come as arrays, which are not kept.
        let kv_heads = match self.kv.get(&format!("{arch}.attention.head_count_kv")) {
            None => heads,
            Some(_) => positive("attention.head_count_kv")?,
        };
        let derived = || {
            let width = positive("embedding_length")?;
            (width % heads == 0).then_some(width / heads)
        };
        let key = positive("attention.key_length").or_else(derived)?;
        let value = positive("attention.value_length").or_else(derived)?;
        layers
            .checked_mul(kv_heads)?
            .checked_mul(key.checked_add(value)?)?
            .checked_mul(F16_BYTES)
    }

    /// The architecture's name when it is a plain short word.
    fn architecture_name(&self) -> Option<String> {
        let name = self.architecture()?;
        let plain = !name.is_empty()
            && name.len() <= MAX_ARCHITECTURE
            && !name.chars().any(char::is_control);
        plain.then(|| name.to_string())
    }

    pub fn details(&self) -> ModelDetails {
        ModelDetails {
            architecture: self.architecture_name(),
            context_length: count(self.context_length()),
            parameters: count(self.parameters()),
            quantization: self.quantization(),
            kv_bytes_per_token: count(self.kv_bytes_per_token()),
        }
    }
}
