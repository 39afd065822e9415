//! Reasoning tags that the vocabulary has as single control tokens. llama.cpp
//! leaves control tokens out of the text it renders, so such a `</think>`
//! would vanish from the reply and the reasoning would never split off from
//! the answer; the engine renders these tokens as text.

use crate::llama::Model;
use crate::template::reasoning;
use llama_cpp_2::token::LlamaToken;

pub(super) fn control_tokens(model: &Model) -> Vec<LlamaToken> {
    let vocab = model.vocab();
    [reasoning::OPEN, reasoning::CLOSE]
        .iter()
        .filter_map(
            |tag| match vocab.tokenize(tag.as_bytes(), false, true)[..] {
                [only] if vocab.is_control(only) => Some(only),
                _ => None,
            },
        )
        .collect()
}
