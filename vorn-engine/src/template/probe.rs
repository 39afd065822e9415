//! What a template does with sample conversations: whether it reads
//! message contents as texts or as lists of parts, and what it writes to
//! close an assistant's turn. Each is found once, when a model is loaded.

use super::sandbox::Sandbox;
use super::{ChatTemplate, TemplateMessage};

const QUESTION: &str = "VornSampleQuestion";
const ANSWER: &str = "VornSampleAnswer";
const FOLLOW_UP: &str = "VornSampleFollowUp";

fn message(role: &str, content: &str) -> TemplateMessage {
    TemplateMessage {
        role: role.into(),
        content: content.into(),
    }
}

/// Whether the template shows a message only when its content is a list of
/// parts (it iterates the content), not when it is a text.
pub(super) fn wants_parts(source: &str, bos: &str, eos: &str) -> bool {
    let Ok(sandbox) = Sandbox::new(source, bos, eos) else {
        return false;
    };
    let sample = [message("user", QUESTION)];
    match sandbox.render(&sample, false) {
        Ok(text) if text.contains(QUESTION) => return false,
        Err(failure) if !failure.worth_retrying() => return false,
        _ => {}
    }
    sandbox
        .render(&sample, true)
        .is_ok_and(|text| text.contains(QUESTION))
}

/// What the template writes between an assistant's answer and the next
/// user's words: the turn's end, then the next turn's opening.
pub(super) fn after_answer(template: &ChatTemplate) -> Option<String> {
    let text = template
        .render(&[
            message("user", QUESTION),
            message("assistant", ANSWER),
            message("user", FOLLOW_UP),
        ])
        .ok()?;
    let start = text.find(ANSWER)? + ANSWER.len();
    let end = start + text[start..].find(FOLLOW_UP)?;
    let between = text[start..end].trim_start();
    (!between.is_empty()).then(|| between.to_string())
}
