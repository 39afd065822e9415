//! The tokens that end the model's turn besides llama.cpp's end-of-generation
//! set (eos, eot, eom and the turn ends it knows by name): the token the
//! chat template closes an assistant's turn with, where the vocabulary has
//! it as a single control token.

use crate::llama::Model;
use crate::template::ChatTemplate;
use llama_cpp_2::token::LlamaToken;

pub(super) fn tokens(model: &Model, template: &ChatTemplate) -> Vec<LlamaToken> {
    let vocab = model.vocab();
    let mut found = Vec::new();
    for text in template.turn_end_texts() {
        let Some(&first) = vocab.tokenize(text.as_bytes(), false, true).first() else {
            continue;
        };
        // llama.cpp leaves "<|end|>" out of its set on purpose in formats
        // where it closes a section of the answer, not the turn.
        let closes_a_section = vocab
            .text(first)
            .is_some_and(|name| name.to_bytes() == b"<|end|>");
        if vocab.is_control(first)
            && !vocab.is_eog(first)
            && !closes_a_section
            && !found.contains(&first)
        {
            found.push(first);
        }
    }
    found
}
