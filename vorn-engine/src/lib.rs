//! The engine's parts as a library, so that tests and fuzz targets can drive
//! the parsers and the HTTP router in-process. The binary is `src/main.rs`.

pub mod download;
pub mod engine;
pub mod gguf;
pub mod llama;
pub mod names;
pub mod prompt;
pub mod security;
pub mod server;
pub mod state;
pub mod template;
pub mod utf8;
