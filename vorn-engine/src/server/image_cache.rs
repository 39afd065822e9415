//! Images by the data URL they came in. A conversation sends its images
//! again on every turn; found here, they are not base64-decoded, hashed and
//! decoded into pixels again.

use super::error::ApiError;
use super::image::image_from_url;
use crate::engine::{Image, WeakImage};
use crate::state::lock;
use std::collections::hash_map::RandomState;
use std::collections::VecDeque;
use std::hash::{BuildHasher, Hasher};
use std::sync::Mutex;

/// Images kept here beyond their requests, the most recent first...
const RECENT: usize = 4;
/// ...as long as they hold no more than this together (the newest is kept
/// whatever its size).
const RECENT_BYTES: usize = 128 << 20;

pub struct ImageCache {
    /// The keys of the URL hash: random per process, so that nobody can make
    /// two URLs that collide.
    keys: RandomState,
    entries: Mutex<Entries>,
    /// Bounds of `recent`: a count and bytes.
    recent: usize,
    recent_bytes: usize,
}

/// A URL's length and keyed 64-bit hash: reading the URL once, several
/// times faster than decoding it, and with no URL text kept.
#[derive(Debug, Clone, Copy, PartialEq, Eq)]
struct Fingerprint {
    len: usize,
    hash: u64,
}

#[derive(Default)]
struct Entries {
    /// Every image made here that something still holds (the conversation
    /// the engine keeps, a request on its way, `recent`).
    known: Vec<(Fingerprint, WeakImage)>,
    /// The last images asked for, most recent last, held so that they
    /// outlive their requests (/api/encode, then the question).
    recent: VecDeque<Image>,
}

impl Default for ImageCache {
    fn default() -> Self {
        ImageCache::with_bounds(RECENT, RECENT_BYTES)
    }
}

impl ImageCache {
    fn with_bounds(recent: usize, recent_bytes: usize) -> ImageCache {
        ImageCache {
            keys: RandomState::new(),
            entries: Mutex::new(Entries::default()),
            recent: recent.max(1),
            recent_bytes,
        }
    }

    /// The image of a data URL: the one made from the same URL before when
    /// it is still around, otherwise decoded from the URL now.
    pub fn image(&self, url: &str) -> Result<Image, ApiError> {
        let key = self.fingerprint(url);
        if let Some(image) = self.find(key) {
            return Ok(image);
        }
        let image = image_from_url(url)?;
        let mut entries = lock(&self.entries);
        entries.known.retain(|(_, weak)| weak.is_alive());
        entries.known.push((key, image.downgrade()));
        entries.touch(&image, self.recent, self.recent_bytes);
        Ok(image)
    }

    fn fingerprint(&self, url: &str) -> Fingerprint {
        let mut hasher = self.keys.build_hasher();
        hasher.write(url.as_bytes());
        Fingerprint {
            len: url.len(),
            hash: hasher.finish(),
        }
    }

    fn find(&self, key: Fingerprint) -> Option<Image> {
        let mut entries = lock(&self.entries);
        let image = entries
            .known
            .iter()
            .find(|(k, _)| *k == key)
            .and_then(|(_, weak)| weak.upgrade())?;
        entries.touch(&image, self.recent, self.recent_bytes);
        Some(image)
    }
}

impl Entries {
    /// Makes `image` the most recent, letting the oldest go past `count`
    /// images or `bytes` (the newest stays whatever its size).
    fn touch(&mut self, image: &Image, count: usize, bytes: usize) {
        self.recent.retain(|kept| !kept.same(image));
        self.recent.push_back(image.clone());
        let mut total = 0;
        let mut keep = 0;
        for kept in self.recent.iter().rev() {
            total += kept.held_bytes();
            if keep > 0 && (keep == count || total > bytes) {
                break;
            }
            keep += 1;
        }
        let drop = self.recent.len() - keep;
        self.recent.drain(..drop);
    }
}

#[cfg(test)]
mod tests {
    use super::*;
    use base64::Engine as _;

    fn url(bytes: &[u8]) -> String {
        format!(
            "data:image/png;base64,{}",
            base64::engine::general_purpose::STANDARD.encode(bytes)
        )
    }

    #[test]
    fn the_same_url_gives_the_same_image() {
        let cache = ImageCache::default();
        let first = cache.image(&url(b"one")).unwrap();
        let again = cache.image(&url(b"one")).unwrap();
        assert!(first.same(&again), "decoded again");
        let other = cache.image(&url(b"two")).unwrap();
        assert!(!other.same(&first));
        assert_ne!(other.hash, first.hash);
        // Another URL of the same bytes is another image of the same hash.
        let relabelled = cache
            .image(&url(b"one").replace("image/png", "image/jpeg"))
            .unwrap();
        assert!(!relabelled.same(&first));
        assert_eq!(relabelled.hash, first.hash);
    }

    #[test]
    fn bad_urls_are_refused_and_not_kept() {
        let cache = ImageCache::default();
        for bad in ["https://x/y.png", "data:image/png;base64,@@@"] {
            assert!(cache.image(bad).is_err());
            assert!(cache.image(bad).is_err());
        }
        assert!(lock(&cache.entries).known.is_empty());
    }

    #[test]
    fn keeps_a_few_recent_images_and_finds_those_still_held() {
        let cache = ImageCache::default();
        let held = cache.image(&url(b"held")).unwrap();
        for i in 0..RECENT {
            cache.image(&url(format!("image {i}").as_bytes())).unwrap();
        }
        // Out of the recent ones, but still held elsewhere: found.
        assert_eq!(lock(&cache.entries).recent.len(), RECENT);
        assert!(!lock(&cache.entries).recent.iter().any(|i| i.same(&held)));
        assert!(cache.image(&url(b"held")).unwrap().same(&held));
        // Held by nobody and pushed out: gone, and its entry with it.
        let weak = cache.image(&url(b"image 0")).unwrap().downgrade();
        for i in 0..RECENT {
            cache.image(&url(format!("other {i}").as_bytes())).unwrap();
        }
        assert!(weak.upgrade().is_none());
        assert!(lock(&cache.entries).known.len() <= RECENT + 2);
    }

    #[test]
    fn large_images_are_kept_one_at_a_time() {
        let cache = ImageCache::with_bounds(RECENT, 100);
        let first = cache.image(&url(&[7; 60])).unwrap().downgrade();
        let second = cache.image(&url(&[8; 60])).unwrap();
        // Both do not fit: only the newest stays.
        assert!(first.upgrade().is_none());
        assert_eq!(lock(&cache.entries).recent.len(), 1);
        assert!(lock(&cache.entries).recent[0].same(&second));
    }
}
