//! Token bytes into the text the client sees: whole characters only, cut
//! before a stop string, split into reasoning and answer where the model's
//! template marks reasoning, and the answer kept as the reply.

use crate::prompt::{StopMatcher, StopOutcome};
use crate::template::reasoning::{Piece, ReasoningSplitter};
use crate::utf8::Utf8Stream;

pub(super) struct ReplyText {
    utf8: Utf8Stream,
    stops: StopMatcher,
    /// None: everything is answer, as the text comes.
    reasoning: Option<ReasoningSplitter>,
    answer: String,
}

/// What one token's bytes gave.
#[derive(Debug, Default)]
pub(super) struct Step {
    /// Text to send now, in order; never empty texts.
    pub(super) pieces: Vec<Piece>,
    /// A stop string was reached: the reply ends here.
    pub(super) stopped: bool,
}

impl ReplyText {
    pub(super) fn new(stops: Vec<String>, reasoning: Option<ReasoningSplitter>) -> Self {
        ReplyText {
            utf8: Utf8Stream::default(),
            stops: StopMatcher::new(stops),
            reasoning,
            answer: String::new(),
        }
    }

    /// Adds a token's bytes.
    pub(super) fn push(&mut self, bytes: &[u8]) -> Step {
        let text = self.utf8.push(bytes);
        if text.is_empty() {
            return Step::default();
        }
        let (text, stopped) = match self.stops.push(&text) {
            StopOutcome::Emit(text) => (text, false),
            StopOutcome::Stopped(text) => (text, true),
        };
        Step {
            pieces: self.split(&text),
            stopped,
        }
    }

    /// What was held back, at the end of a reply that was not cancelled.
    pub(super) fn finish(&mut self) -> Vec<Piece> {
        let rest = self.utf8.finish();
        let mut text = String::new();
        if !rest.is_empty() {
            match self.stops.push(&rest) {
                StopOutcome::Emit(t) | StopOutcome::Stopped(t) => text.push_str(&t),
            }
        }
        text.push_str(&self.stops.finish());
        let mut pieces = self.split(&text);
        if let Some(splitter) = &mut self.reasoning {
            let last = splitter.finish();
            self.keep(&last);
            pieces.extend(last);
        }
        pieces
    }

    /// The answer as sent.
    pub(super) fn into_text(self) -> String {
        self.answer
    }

    fn split(&mut self, text: &str) -> Vec<Piece> {
        let pieces = match &mut self.reasoning {
            Some(splitter) => splitter.push(text),
            None if text.is_empty() => Vec::new(),
            None => vec![Piece::Content(text.to_string())],
        };
        self.keep(&pieces);
        pieces
    }

    fn keep(&mut self, pieces: &[Piece]) {
        for piece in pieces {
            if let Piece::Content(text) = piece {
                self.answer.push_str(text);
            }
        }
    }
}

#[cfg(test)]
mod tests {
    use super::*;

    fn content(text: &str) -> Piece {
        Piece::Content(text.into())
    }

    #[test]
    fn holds_back_partial_characters_and_stop_strings() {
        let mut text = ReplyText::new(vec!["END".into()], None);
        let euro = "€".as_bytes();
        assert!(text.push(&euro[..2]).pieces.is_empty());
        assert_eq!(text.push(&euro[2..]).pieces, [content("€")]);
        assert_eq!(text.push(b"a E").pieces, [content("a ")]);
        let step = text.push(b"ND b");
        assert!(step.stopped && step.pieces.is_empty());
        assert_eq!(text.into_text(), "€a ");
    }

    #[test]
    fn finishing_sends_what_was_held_back() {
        let mut text = ReplyText::new(vec!["END".into()], None);
        assert_eq!(text.push(b"x EN").pieces, [content("x ")]);
        assert_eq!(text.finish(), [content("EN")]);
        assert_eq!(text.into_text(), "x EN");
    }

    #[test]
    fn reasoning_is_sent_apart_and_left_out_of_the_answer() {
        let splitter = ReasoningSplitter::new(true);
        let mut text = ReplyText::new(vec!["STOP".into()], Some(splitter));
        let mut pieces = Vec::new();
        for bytes in [
            "Let me",
            " think.",
            "</thi",
            "nk>\n\nHello",
            " there",
            "STOP more",
        ] {
            let step = text.push(bytes.as_bytes());
            pieces.extend(step.pieces);
            if step.stopped {
                break;
            }
        }
        pieces.extend(text.finish());
        assert_eq!(
            pieces,
            [
                Piece::Reasoning("Let me".into()),
                Piece::Reasoning(" think.".into()),
                content("Hello"),
                content(" there"),
            ]
        );
        assert_eq!(text.into_text(), "Hello there");
        // Cut short inside the reasoning: it is sent at the end.
        let mut text = ReplyText::new(Vec::new(), Some(ReasoningSplitter::new(false)));
        assert!(text.push(b"<think>Hmm\n").pieces.len() == 1);
        assert_eq!(text.finish(), []);
        assert_eq!(text.into_text(), "");
    }
}
