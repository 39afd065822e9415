//! A small least-recently-used cache keyed by text (an image's hash).

pub(crate) struct LruCache<T> {
    capacity: usize,
    /// Least recently used first.
    items: Vec<(String, T)>,
}

impl<T: Clone> LruCache<T> {
    pub(crate) fn new(capacity: usize) -> Self {
        Self {
            capacity,
            items: Vec::new(),
        }
    }

    /// The value under `key`, which becomes the most recently used.
    pub(crate) fn get(&mut self, key: &str) -> Option<T> {
        let index = self.items.iter().position(|(k, _)| k == key)?;
        let item = self.items.remove(index);
        let value = item.1.clone();
        self.items.push(item);
        Some(value)
    }

    /// Stores a value, dropping the least recently used one when full.
    pub(crate) fn put(&mut self, key: String, value: T) {
        self.items.retain(|(k, _)| *k != key);
        if self.items.len() >= self.capacity {
            self.items.remove(0);
        }
        self.items.push((key, value));
    }
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn keeps_the_most_recently_used() {
        let mut cache = LruCache::new(2);
        cache.put("a".into(), 1);
        cache.put("b".into(), 2);
        assert_eq!(cache.get("a"), Some(1));
        cache.put("c".into(), 3);
        assert_eq!(cache.get("b"), None, "b was the least recently used");
        assert_eq!(cache.get("a"), Some(1));
        assert_eq!(cache.get("c"), Some(3));
    }

    #[test]
    fn replacing_a_key_keeps_one_entry() {
        let mut cache = LruCache::new(2);
        cache.put("a".into(), 1);
        cache.put("a".into(), 2);
        cache.put("b".into(), 3);
        assert_eq!(cache.get("a"), Some(2));
        assert_eq!(cache.get("b"), Some(3));
    }
}
