//! Reasoning sections: reasoning models write `<think>` … `</think>` before
//! their answer. Their templates mark it; the reply's text is split into
//! reasoning and answer as it streams, and earlier reasoning is left out of
//! later prompts.

pub const OPEN: &str = "<think>";
pub const CLOSE: &str = "</think>";

/// Whether a rendered prompt leaves the reply inside a reasoning section:
/// some templates open it in the generation prompt itself.
pub fn prompt_opens_reasoning(prompt: &str) -> bool {
    prompt.trim_end().ends_with(OPEN)
}

/// An earlier answer without its leading reasoning section (all of it when
/// the section never closed).
pub fn without_reasoning(text: &str) -> &str {
    let Some(inside) = text.trim_start().strip_prefix(OPEN) else {
        return text;
    };
    match inside.find(CLOSE) {
        Some(at) => inside[at + CLOSE.len()..].trim_start(),
        None => "",
    }
}

/// A part of the reply's text.
#[derive(Debug, Clone, PartialEq, Eq)]
pub enum Piece {
    Reasoning(String),
    Content(String),
}

#[derive(Debug, Clone, Copy, PartialEq, Eq)]
enum Phase {
    /// Not yet known whether the reply opens with a reasoning section.
    Start,
    /// Inside the section; `fresh` while nothing of it was sent.
    Reasoning {
        fresh: bool,
    },
    /// Just after the section: white space before the answer is dropped.
    AfterReasoning,
    Content,
}

/// Splits the reply's text into reasoning and content as it arrives,
/// holding back what may still turn out to be (part of) a tag.
pub struct ReasoningSplitter {
    phase: Phase,
    held: String,
}

impl ReasoningSplitter {
    /// `inside`: the prompt already opened the reasoning section.
    pub fn new(inside: bool) -> Self {
        let phase = if inside {
            Phase::Reasoning { fresh: true }
        } else {
            Phase::Start
        };
        ReasoningSplitter {
            phase,
            held: String::new(),
        }
    }

    /// Adds text; returns what can be sent now, in order.
    pub fn push(&mut self, text: &str) -> Vec<Piece> {
        self.held.push_str(text);
        let mut pieces = Vec::new();
        loop {
            match self.phase {
                Phase::Start => {
                    let trimmed = self.held.trim_start();
                    if let Some(rest) = trimmed.strip_prefix(OPEN) {
                        self.held = rest.to_string();
                        self.phase = Phase::Reasoning { fresh: true };
                    } else if OPEN.starts_with(trimmed) {
                        return pieces;
                    } else {
                        self.phase = Phase::Content;
                    }
                }
                Phase::Reasoning { fresh } => {
                    if fresh {
                        let trimmed = self.held.trim_start();
                        if trimmed.is_empty() {
                            self.held.clear();
                            return pieces;
                        }
                        self.held = trimmed.to_string();
                        self.phase = Phase::Reasoning { fresh: false };
                    }
                    if let Some(at) = self.held.find(CLOSE) {
                        push_piece(&mut pieces, Piece::Reasoning, self.held[..at].trim_end());
                        self.held.drain(..at + CLOSE.len());
                        self.phase = Phase::AfterReasoning;
                        continue;
                    }
                    let cut = held_back(&self.held);
                    push_piece(&mut pieces, Piece::Reasoning, &self.held[..cut]);
                    self.held.drain(..cut);
                    return pieces;
                }
                Phase::AfterReasoning => {
                    let trimmed = self.held.trim_start();
                    if trimmed.is_empty() {
                        self.held.clear();
                        return pieces;
                    }
                    self.held = trimmed.to_string();
                    self.phase = Phase::Content;
                }
                Phase::Content => {
                    push_piece(&mut pieces, Piece::Content, &self.held);
                    self.held.clear();
                    return pieces;
                }
            }
        }
    }

    /// What was held back, at the end of the reply.
    pub fn finish(&mut self) -> Vec<Piece> {
        let held = std::mem::take(&mut self.held);
        let mut pieces = Vec::new();
        match self.phase {
            Phase::Start | Phase::Content => push_piece(&mut pieces, Piece::Content, &held),
            Phase::Reasoning { fresh: true } => {
                push_piece(&mut pieces, Piece::Reasoning, held.trim())
            }
            Phase::Reasoning { fresh: false } => {
                push_piece(&mut pieces, Piece::Reasoning, held.trim_end())
            }
            Phase::AfterReasoning => {}
        }
        pieces
    }
}

fn push_piece(pieces: &mut Vec<Piece>, kind: fn(String) -> Piece, text: &str) {
    if !text.is_empty() {
        pieces.push(kind(text.to_string()));
    }
}

/// Where the reasoning text that is safe to send ends: before a tail that
/// is white space followed by the start of the closing tag (the white
/// space would end the reasoning if the tag completes).
fn held_back(text: &str) -> usize {
    let partial = (1..CLOSE.len())
        .rev()
        .find(|&n| text.ends_with(&CLOSE[..n]))
        .unwrap_or(0);
    let before = &text[..text.len() - partial];
    before.trim_end().len()
}

#[cfg(test)]
mod tests {
    use super::*;

    /// Feeds the pieces and returns (reasoning, content) as sent, checking
    /// that reasoning never follows content.
    fn split(inside: bool, pieces: &[&str]) -> (String, String) {
        let mut splitter = ReasoningSplitter::new(inside);
        let mut reasoning = String::new();
        let mut content = String::new();
        let mut sent = Vec::new();
        for piece in pieces {
            sent.extend(splitter.push(piece));
        }
        sent.extend(splitter.finish());
        for piece in sent {
            match piece {
                Piece::Reasoning(text) => {
                    assert!(content.is_empty(), "reasoning after the answer");
                    reasoning.push_str(&text);
                }
                Piece::Content(text) => content.push_str(&text),
            }
        }
        (reasoning, content)
    }

    fn pair(reasoning: &str, content: &str) -> (String, String) {
        (reasoning.to_string(), content.to_string())
    }

    #[test]
    fn a_reasoning_section_before_the_answer() {
        assert_eq!(
            split(
                false,
                &["<think>", "\nLet me see.", "\n</think>", "\n\nYes."]
            ),
            pair("Let me see.", "Yes.")
        );
        // The prompt opened the section.
        assert_eq!(
            split(true, &["Hmm, ", "two.", "</think>", "Two."]),
            pair("Hmm, two.", "Two.")
        );
    }

    #[test]
    fn tags_split_across_pieces_at_every_point() {
        let text = "<think>\nA < B, so </thin is not a tag.\n</think>\n\nB > A.";
        for i in 0..=text.len() {
            for j in i..=text.len() {
                if !text.is_char_boundary(i) || !text.is_char_boundary(j) {
                    continue;
                }
                assert_eq!(
                    split(false, &[&text[..i], &text[i..j], &text[j..]]),
                    pair("A < B, so </thin is not a tag.", "B > A."),
                    "{i} {j}"
                );
            }
        }
    }

    #[test]
    fn replies_without_a_section_stay_as_they_are() {
        assert_eq!(
            split(false, &[" Hello", " there"]),
            pair("", " Hello there")
        );
        assert_eq!(split(false, &["<th", "ree>"]), pair("", "<three>"));
        assert_eq!(split(false, &["\n", "<thi"]), pair("", "\n<thi"));
        assert_eq!(
            split(false, &["a <think>b</think>"]),
            pair("", "a <think>b</think>")
        );
        assert_eq!(split(false, &[]), pair("", ""));
    }

    #[test]
    fn a_section_cut_short_is_all_reasoning() {
        assert_eq!(
            split(false, &["<think>Still thin", "king </th"]),
            pair("Still thinking </th", "")
        );
        assert_eq!(split(true, &["\n\n"]), pair("", ""));
        assert_eq!(split(true, &["</think>"]), pair("", ""));
    }

    #[test]
    fn reasoning_streams_before_the_tag_closes() {
        let mut splitter = ReasoningSplitter::new(true);
        assert_eq!(
            splitter.push("One two"),
            vec![Piece::Reasoning("One two".into())]
        );
        assert_eq!(
            splitter.push(" three\n</"),
            vec![Piece::Reasoning(" three".into())]
        );
        assert_eq!(
            splitter.push("think>Four"),
            vec![Piece::Content("Four".into())]
        );
    }

    #[test]
    fn prompts_and_earlier_answers() {
        assert!(prompt_opens_reasoning("<｜Assistant｜><think>\n"));
        assert!(!prompt_opens_reasoning(
            "<|im_start|>assistant\n<think>\n\n</think>\n\n"
        ));
        assert!(!prompt_opens_reasoning("<|im_start|>assistant\n"));
        assert_eq!(without_reasoning("<think>x</think>\n\nAnswer"), "Answer");
        assert_eq!(without_reasoning("\n<think>x"), "");
        assert_eq!(
            without_reasoning("Answer <think>x</think>"),
            "Answer <think>x</think>"
        );
    }
}
