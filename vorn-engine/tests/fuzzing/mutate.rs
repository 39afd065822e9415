//! Byte-level mutations shared by every target.

use super::rng::Rng;

/// A position, biased towards the start where headers and keys live.
fn position(rng: &mut Rng, len: usize) -> usize {
    if len == 0 {
        0
    } else if rng.one_in(2) {
        rng.below(len.min(4096))
    } else {
        rng.below(len)
    }
}

fn overwrite(data: &mut Vec<u8>, at: usize, bytes: &[u8]) {
    let end = at + bytes.len();
    if end > data.len() {
        data.resize(end, 0);
    }
    data[at..end].copy_from_slice(bytes);
}

/// Applies one random mutation. `other` is another corpus entry to splice
/// from, `dictionary` holds tokens that mean something to the target.
pub fn once(rng: &mut Rng, data: &mut Vec<u8>, other: &[u8], dictionary: &[&[u8]]) {
    let len = data.len();
    match rng.below(12) {
        0 if len > 0 => {
            let at = position(rng, len);
            data[at] ^= 1 << rng.below(8);
        }
        1 if len > 0 => {
            let at = position(rng, len);
            data[at] = rng.byte();
        }
        2 => {
            // An interesting integer of a random width, little-endian as GGUF
            // stores it, over or into the data.
            let v = rng.interesting_u64();
            let width = *rng.pick(&[1usize, 2, 4, 8]);
            let bytes = &v.to_le_bytes()[..width];
            let at = position(rng, len);
            if rng.one_in(3) {
                data.splice(at..at, bytes.iter().copied());
            } else {
                overwrite(data, at, bytes);
            }
        }
        3 => {
            let at = position(rng, len);
            let n = rng.small(64);
            let junk = rng.bytes(n);
            data.splice(at..at, junk);
        }
        4 if len > 0 => {
            let at = position(rng, len);
            let n = rng.small(len - at).max(1);
            data.drain(at..(at + n).min(len));
        }
        5 if len > 0 => {
            // Repeats a piece, which makes long runs of whatever is there.
            let at = position(rng, len);
            let n = rng.small((len - at).min(4096)).max(1);
            let piece = data[at..(at + n).min(len)].to_vec();
            let times = 1 + rng.small(16);
            let to = position(rng, len);
            for _ in 0..times {
                data.splice(to..to, piece.iter().copied());
            }
        }
        6 if !other.is_empty() => {
            // Keeps a head of this input and a tail of another one.
            let cut = position(rng, len);
            let from = position(rng, other.len());
            data.truncate(cut);
            data.extend_from_slice(&other[from..]);
        }
        7 if !other.is_empty() => {
            let from = position(rng, other.len());
            let n = rng.small(other.len() - from).max(1);
            let piece = &other[from..(from + n).min(other.len())];
            let at = position(rng, len);
            data.splice(at..at, piece.iter().copied());
        }
        8 | 9 if !dictionary.is_empty() => {
            let word = *rng.pick(dictionary);
            let at = position(rng, len);
            if rng.one_in(2) {
                data.splice(at..at, word.iter().copied());
            } else {
                overwrite(data, at, word);
            }
        }
        10 if len > 0 => {
            data.truncate(position(rng, len));
        }
        _ if len > 1 => {
            let a = position(rng, len);
            let b = position(rng, len);
            data.swap(a, b);
        }
        _ => data.push(rng.byte()),
    }
}
