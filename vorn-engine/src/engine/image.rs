//! An image as sent, decoded into pixels once however often it is sent.

use crate::llama::Bitmap;
use crate::state::lock;
use std::sync::{Arc, Mutex, OnceLock, Weak};

/// An image as sent, named by the SHA-256 of its file bytes. Clones share
/// one decoding: the first use decodes the pixels (and lets the file bytes
/// go); later uses, such as the next turns of a conversation or the chat
/// after /api/encode, find them.
#[derive(Clone)]
pub struct Image {
    pub hash: String,
    shared: Arc<Decoding>,
}

struct Decoding {
    /// The file's bytes, until the pixels are decoded from them.
    file: Mutex<Option<Vec<u8>>>,
    pixels: OnceLock<Bitmap>,
}

impl Image {
    pub fn new(hash: String, file: Vec<u8>) -> Image {
        Image {
            hash,
            shared: Arc::new(Decoding {
                file: Mutex::new(Some(file)),
                pixels: OnceLock::new(),
            }),
        }
    }

    /// The pixels, decoded from the file bytes by `decode` on first use.
    /// The flag tells whether this call decoded them; None when `decode`
    /// failed (the bytes stay, so a later call fails the same way).
    pub(crate) fn pixels(
        &self,
        decode: impl FnOnce(&[u8]) -> Option<Bitmap>,
    ) -> Option<(&Bitmap, bool)> {
        if let Some(pixels) = self.shared.pixels.get() {
            return Some((pixels, false));
        }
        let mut file = lock(&self.shared.file);
        // Decoded by another holder while this one waited for the lock.
        if let Some(pixels) = self.shared.pixels.get() {
            return Some((pixels, false));
        }
        let decoded = decode(file.as_deref()?)?;
        let pixels = self.shared.pixels.get_or_init(|| decoded);
        *file = None;
        Some((pixels, true))
    }

    /// Bytes this image holds: its pixels once decoded, its file before.
    pub fn held_bytes(&self) -> usize {
        match self.shared.pixels.get() {
            Some(pixels) => pixels.byte_len(),
            None => lock(&self.shared.file).as_ref().map_or(0, Vec::len),
        }
    }

    /// Whether both are the same image, sharing one decoding.
    pub fn same(&self, other: &Image) -> bool {
        Arc::ptr_eq(&self.shared, &other.shared)
    }

    /// A handle that finds the image again while anything else holds it.
    pub fn downgrade(&self) -> WeakImage {
        WeakImage {
            hash: self.hash.clone(),
            shared: Arc::downgrade(&self.shared),
        }
    }
}

/// An [`Image`] that is not kept alive by this handle.
pub struct WeakImage {
    hash: String,
    shared: Weak<Decoding>,
}

impl WeakImage {
    pub fn upgrade(&self) -> Option<Image> {
        Some(Image {
            hash: self.hash.clone(),
            shared: self.shared.upgrade()?,
        })
    }

    pub fn is_alive(&self) -> bool {
        self.shared.strong_count() > 0
    }
}

#[cfg(test)]
mod tests {
    use super::*;

    fn red(side: u32) -> Option<Bitmap> {
        Bitmap::from_rgb(side, side, &vec![200; (side * side * 3) as usize])
    }

    #[test]
    fn decodes_once_for_every_clone() {
        let image = Image::new("h".into(), b"file".to_vec());
        let copy = image.clone();
        assert_eq!(image.held_bytes(), 4);
        let mut calls = 0;
        let (_, decoded) = image
            .pixels(|file| {
                calls += 1;
                assert_eq!(file, b"file");
                red(2)
            })
            .unwrap();
        assert!(decoded);
        let (pixels, decoded) = copy.pixels(|_| unreachable!("decoded again")).unwrap();
        assert!(!decoded);
        assert_eq!(pixels.byte_len(), 12);
        assert_eq!(calls, 1);
        // The file bytes went once the pixels were there.
        assert_eq!(copy.held_bytes(), 12);
        assert!(image.same(&copy));
        assert!(!image.same(&Image::new("h".into(), Vec::new())));
    }

    #[test]
    fn a_failed_decoding_keeps_the_file() {
        let image = Image::new("h".into(), b"not an image".to_vec());
        assert!(image.pixels(|_| None).is_none());
        assert_eq!(image.held_bytes(), 12);
        assert!(image.pixels(|_| red(1)).is_some_and(|(_, decoded)| decoded));
    }

    #[test]
    fn weak_handles_find_images_only_while_held() {
        let image = Image::new("h".into(), Vec::new());
        let weak = image.downgrade();
        assert!(weak.is_alive());
        assert!(weak.upgrade().is_some_and(|found| found.same(&image)));
        drop(image);
        assert!(!weak.is_alive());
        assert!(weak.upgrade().is_none());
    }
}
