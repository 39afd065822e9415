//! Prompt-cache bookkeeping and stop-string handling, kept free of llama.cpp
//! so the logic can be tested on its own.

/// Length of the longest common prefix.
pub fn common_prefix<T: PartialEq>(a: &[T], b: &[T]) -> usize {
    a.iter().zip(b).take_while(|(x, y)| x == y).count()
}

/// Length of the longest common suffix.
pub fn common_suffix<T: PartialEq>(a: &[T], b: &[T]) -> usize {
    a.iter()
        .rev()
        .zip(b.iter().rev())
        .take_while(|(x, y)| x == y)
        .count()
}

/// How many cached positions can be kept for a new prompt. At least one
/// prompt token is always evaluated again, since sampling needs its logits.
pub fn reusable_prefix<T: PartialEq>(cached: &[T], prompt: &[T]) -> usize {
    let n = common_prefix(cached, prompt);
    if n == prompt.len() {
        n.saturating_sub(1)
    } else {
        n
    }
}

/// Splits generated text at stop strings, holding back a tail that might
/// still become one.
pub struct StopMatcher {
    stops: Vec<String>,
    buffer: String,
}

pub enum StopOutcome {
    /// Text that is safe to send now.
    Emit(String),
    /// A stop string was found; this is the text before it.
    Stopped(String),
}

impl StopMatcher {
    pub fn new(stops: Vec<String>) -> Self {
        Self {
            stops: stops.into_iter().filter(|s| !s.is_empty()).collect(),
            buffer: String::new(),
        }
    }

    pub fn push(&mut self, text: &str) -> StopOutcome {
        self.buffer.push_str(text);
        let first = self
            .stops
            .iter()
            .filter_map(|s| self.buffer.find(s.as_str()))
            .min();
        if let Some(at) = first {
            let before = self.buffer[..at].to_string();
            self.buffer.clear();
            return StopOutcome::Stopped(before);
        }
        // Keep the longest tail that is a prefix of some stop string.
        let mut keep = 0;
        for s in &self.stops {
            for (i, _) in s.char_indices().skip(1) {
                if i > keep && self.buffer.ends_with(&s[..i]) {
                    keep = i;
                }
            }
        }
        let cut = self.buffer.len() - keep;
        let out = self.buffer[..cut].to_string();
        self.buffer.drain(..cut);
        StopOutcome::Emit(out)
    }

    pub fn finish(&mut self) -> String {
        std::mem::take(&mut self.buffer)
    }
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn prefix_lengths() {
        assert_eq!(common_prefix(&[1, 2, 3], &[1, 2, 4]), 2);
        assert_eq!(common_prefix::<i32>(&[], &[1]), 0);
        assert_eq!(common_prefix(&[1, 2], &[1, 2, 3]), 2);
        assert_eq!(common_suffix(&[1, 2, 3], &[0, 2, 3]), 2);
        assert_eq!(common_suffix(&[1, 2, 3], &[4]), 0);
        assert_eq!(common_suffix(&[2, 3], &[1, 2, 3]), 2);
        assert_eq!(common_suffix::<i32>(&[], &[1]), 0);
    }

    #[test]
    fn reuse_follow_up_turn() {
        let first = vec![1, 2, 3, 4, 5, 6];
        let mut second = first.clone();
        second.extend([7, 8, 9]);
        assert_eq!(reusable_prefix(&first, &second), 6);
    }

    #[test]
    fn reuse_identical_prompt_keeps_one_token_to_evaluate() {
        assert_eq!(reusable_prefix(&[1, 2, 3], &[1, 2, 3]), 2);
        assert_eq!(reusable_prefix(&[1, 2, 3, 4], &[1, 2, 3]), 2);
        assert_eq!(reusable_prefix::<i32>(&[], &[]), 0);
    }

    #[test]
    fn reuse_after_edit() {
        assert_eq!(reusable_prefix(&[1, 2, 3, 4], &[1, 9, 3, 4, 5]), 1);
        assert_eq!(reusable_prefix(&[5, 2], &[1, 2]), 0);
    }

    fn run(stops: &[&str], pieces: &[&str]) -> (String, bool) {
        let mut m = StopMatcher::new(stops.iter().map(|s| s.to_string()).collect());
        let mut out = String::new();
        for p in pieces {
            match m.push(p) {
                StopOutcome::Emit(t) => out.push_str(&t),
                StopOutcome::Stopped(t) => {
                    out.push_str(&t);
                    return (out, true);
                }
            }
        }
        out.push_str(&m.finish());
        (out, false)
    }

    #[test]
    fn stop_strings_across_pieces() {
        assert_eq!(
            run(&["<|im_end|>"], &["Hello", " <|im", "_end|> more"]),
            ("Hello ".into(), true)
        );
        assert_eq!(run(&["END"], &["a", "EN", "b"]), ("aENb".into(), false));
        assert_eq!(run(&[], &["a", "b"]), ("ab".into(), false));
        assert_eq!(run(&["é!"], &["café", "!"]), ("caf".into(), true));
    }
}
