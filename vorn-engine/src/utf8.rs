//! Turns a stream of token bytes into text pieces that never split a character.

#[derive(Default)]
pub struct Utf8Stream {
    pending: Vec<u8>,
}

impl Utf8Stream {
    /// Adds bytes and returns the text that is complete so far. Bytes that
    /// can never form a character become U+FFFD.
    pub fn push(&mut self, bytes: &[u8]) -> String {
        self.pending.extend_from_slice(bytes);
        let mut out = String::new();
        loop {
            match std::str::from_utf8(&self.pending) {
                Ok(s) => {
                    out.push_str(s);
                    self.pending.clear();
                    return out;
                }
                Err(e) => {
                    let good = e.valid_up_to();
                    // SAFETY-free: the prefix was just validated.
                    out.push_str(std::str::from_utf8(&self.pending[..good]).unwrap_or_default());
                    match e.error_len() {
                        None => {
                            // An incomplete character at the end: keep it for later.
                            self.pending.drain(..good);
                            return out;
                        }
                        Some(bad) => {
                            out.push('\u{FFFD}');
                            self.pending.drain(..good + bad);
                        }
                    }
                }
            }
        }
    }

    /// Whatever is left at the end of the stream.
    pub fn finish(&mut self) -> String {
        let rest = String::from_utf8_lossy(&self.pending).into_owned();
        self.pending.clear();
        rest
    }
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn holds_partial_characters() {
        let mut s = Utf8Stream::default();
        let euro = "€".as_bytes();
        assert_eq!(s.push(&euro[..1]), "");
        assert_eq!(s.push(&euro[1..2]), "");
        assert_eq!(s.push(&euro[2..]), "€");
        assert_eq!(s.push(b"ab"), "ab");
    }

    #[test]
    fn every_split_of_mixed_text_round_trips() {
        let text = "héllo 🌍 мир €!";
        let bytes = text.as_bytes();
        for i in 0..=bytes.len() {
            for j in i..=bytes.len() {
                let mut s = Utf8Stream::default();
                let mut out = String::new();
                for part in [&bytes[..i], &bytes[i..j], &bytes[j..]] {
                    let piece = s.push(part);
                    assert!(std::str::from_utf8(piece.as_bytes()).is_ok());
                    out.push_str(&piece);
                }
                out.push_str(&s.finish());
                assert_eq!(out, text);
            }
        }
    }

    #[test]
    fn invalid_bytes_become_replacement() {
        let mut s = Utf8Stream::default();
        assert_eq!(s.push(&[b'a', 0xff, b'b']), "a\u{FFFD}b");
        assert_eq!(s.push(&[0xe2, 0x82]), "");
        assert_eq!(s.finish(), "\u{FFFD}");
    }
}
