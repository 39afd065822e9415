//! A small deterministic random source, so that a seed names a whole run.

pub struct Rng(u64);

impl Rng {
    pub fn new(seed: u64) -> Self {
        Rng(seed ^ 0x6a09_e667_f3bc_c908)
    }

    /// splitmix64
    pub fn next(&mut self) -> u64 {
        self.0 = self.0.wrapping_add(0x9e37_79b9_7f4a_7c15);
        let mut z = self.0;
        z = (z ^ (z >> 30)).wrapping_mul(0xbf58_476d_1ce4_e5b9);
        z = (z ^ (z >> 27)).wrapping_mul(0x94d0_49bb_1331_11eb);
        z ^ (z >> 31)
    }

    /// A number in `0..n`; `n` must not be zero.
    pub fn below(&mut self, n: usize) -> usize {
        (self.next() % n as u64) as usize
    }

    /// True once in `n` times on average.
    pub fn one_in(&mut self, n: usize) -> bool {
        self.below(n) == 0
    }

    pub fn byte(&mut self) -> u8 {
        self.next() as u8
    }

    pub fn pick<'a, T>(&mut self, items: &'a [T]) -> &'a T {
        &items[self.below(items.len())]
    }

    /// Small sizes are far more likely than large ones.
    pub fn small(&mut self, max: usize) -> usize {
        let bits = self.below(usize::BITS as usize - max.leading_zeros() as usize + 1);
        let mask = match bits {
            0 => 0,
            b => usize::MAX >> (usize::BITS as usize - b),
        };
        (self.next() as usize & mask).min(max)
    }

    /// Boundary values that parsers get wrong: zero, one, sign bits, the
    /// largest values of each width and their neighbours.
    pub fn interesting_u64(&mut self) -> u64 {
        const VALUES: [u64; 18] = [
            0,
            1,
            2,
            4,
            8,
            0x7f,
            0xff,
            0xffff,
            0x7fff_ffff,
            0x8000_0000,
            0xffff_ffff,
            0x1_0000_0000,
            1 << 40,
            1 << 60,
            0x7fff_ffff_ffff_ffff,
            0x8000_0000_0000_0000,
            u64::MAX - 1,
            u64::MAX,
        ];
        let v = *self.pick(&VALUES);
        match self.below(4) {
            0 => v.wrapping_add(1),
            1 => v.wrapping_sub(1),
            _ => v,
        }
    }

    pub fn bytes(&mut self, n: usize) -> Vec<u8> {
        (0..n).map(|_| self.byte()).collect()
    }

    /// Random bytes, few of them more often than many.
    pub fn junk(&mut self, max: usize) -> Vec<u8> {
        let n = self.small(max);
        self.bytes(n)
    }
}
