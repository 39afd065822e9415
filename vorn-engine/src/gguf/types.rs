//! The names and sizes of ggml's tensor types and llama.cpp's file types, as
//! GGUF files number them. Numbers that llama.cpp retired or does not know
//! have no entry, so a header that uses them names no quantization.

/// One ggml tensor type: its name and how many bytes a block of elements takes.
#[derive(Debug, Clone, Copy, PartialEq, Eq)]
pub struct TensorType {
    pub id: u32,
    pub name: &'static str,
    /// Elements per block.
    pub block: u64,
    /// Bytes per block.
    pub block_bytes: u64,
}

impl TensorType {
    /// Bytes that `elements` elements of this type take, rounded up to whole blocks.
    pub fn bytes(&self, elements: u64) -> u64 {
        elements
            .div_ceil(self.block)
            .saturating_mul(self.block_bytes)
    }
}

const fn kind(id: u32, name: &'static str, block: u64, block_bytes: u64) -> TensorType {
    TensorType {
        id,
        name,
        block,
        block_bytes,
    }
}

/// ggml's `enum ggml_type`, in order.
pub const TENSOR_TYPES: &[TensorType] = &[
    kind(0, "F32", 1, 4),
    kind(1, "F16", 1, 2),
    kind(2, "Q4_0", 32, 18),
    kind(3, "Q4_1", 32, 20),
    kind(6, "Q5_0", 32, 22),
    kind(7, "Q5_1", 32, 24),
    kind(8, "Q8_0", 32, 34),
    kind(9, "Q8_1", 32, 36),
    kind(10, "Q2_K", 256, 84),
    kind(11, "Q3_K", 256, 110),
    kind(12, "Q4_K", 256, 144),
    kind(13, "Q5_K", 256, 176),
    kind(14, "Q6_K", 256, 210),
    kind(15, "Q8_K", 256, 292),
    kind(16, "IQ2_XXS", 256, 66),
    kind(17, "IQ2_XS", 256, 74),
    kind(18, "IQ3_XXS", 256, 98),
    kind(19, "IQ1_S", 256, 50),
    kind(20, "IQ4_NL", 32, 18),
    kind(21, "IQ3_S", 256, 110),
    kind(22, "IQ2_S", 256, 82),
    kind(23, "IQ4_XS", 256, 136),
    kind(24, "I8", 1, 1),
    kind(25, "I16", 1, 2),
    kind(26, "I32", 1, 4),
    kind(27, "I64", 1, 8),
    kind(28, "F64", 1, 8),
    kind(29, "IQ1_M", 256, 56),
    kind(30, "BF16", 1, 2),
    kind(34, "TQ1_0", 256, 54),
    kind(35, "TQ2_0", 256, 66),
    kind(39, "MXFP4", 32, 17),
    kind(40, "NVFP4", 64, 36),
    kind(41, "Q1_0", 128, 18),
    kind(42, "Q2_0", 64, 18),
];

/// The tensor type with this number, if ggml has one.
pub fn tensor_type(id: u32) -> Option<&'static TensorType> {
    TENSOR_TYPES.iter().find(|t| t.id == id)
}

/// llama.cpp's `enum llama_ftype` without its `LLAMA_FTYPE_` and `MOSTLY_`
/// prefixes: what `general.file_type` says the weights mostly are.
const FILE_TYPES: &[(u64, &str)] = &[
    (0, "F32"),
    (1, "F16"),
    (2, "Q4_0"),
    (3, "Q4_1"),
    (7, "Q8_0"),
    (8, "Q5_0"),
    (9, "Q5_1"),
    (10, "Q2_K"),
    (11, "Q3_K_S"),
    (12, "Q3_K_M"),
    (13, "Q3_K_L"),
    (14, "Q4_K_S"),
    (15, "Q4_K_M"),
    (16, "Q5_K_S"),
    (17, "Q5_K_M"),
    (18, "Q6_K"),
    (19, "IQ2_XXS"),
    (20, "IQ2_XS"),
    (21, "Q2_K_S"),
    (22, "IQ3_XS"),
    (23, "IQ3_XXS"),
    (24, "IQ1_S"),
    (25, "IQ4_NL"),
    (26, "IQ3_S"),
    (27, "IQ3_M"),
    (28, "IQ2_S"),
    (29, "IQ2_M"),
    (30, "IQ4_XS"),
    (31, "IQ1_M"),
    (32, "BF16"),
    (36, "TQ1_0"),
    (37, "TQ2_0"),
    (38, "MXFP4_MOE"),
    (39, "NVFP4"),
    (40, "Q1_0"),
    (41, "Q2_0"),
];

/// The name of a `general.file_type` value, if llama.cpp has one.
pub fn file_type_name(file_type: u64) -> Option<&'static str> {
    FILE_TYPES
        .iter()
        .find(|(id, _)| *id == file_type)
        .map(|(_, name)| *name)
}
