//! A file mapped into memory where the fuzzing process keeps its run count
//! and the input it is working on. Writing there costs a memory copy, and
//! the contents survive the process, so even an abort or a stack overflow
//! leaves its input behind for the supervisor to save.

use std::fs::{File, OpenOptions};
use std::io::Read;
use std::os::unix::io::AsRawFd;
use std::path::Path;
use std::sync::atomic::{AtomicU64, Ordering};

const HEADER: usize = 16;

pub struct Slot {
    base: *mut u8,
    size: usize,
    _file: File,
}

impl Slot {
    pub fn size_for(max_input: usize) -> usize {
        HEADER + max_input
    }

    /// Creates the file, zeroed, with room for inputs of up to `max_input` bytes.
    pub fn create(path: &Path, max_input: usize) -> std::io::Result<()> {
        let file = File::create(path)?;
        file.set_len(Self::size_for(max_input) as u64)
    }

    pub fn open(path: &Path) -> std::io::Result<Slot> {
        let file = OpenOptions::new().read(true).write(true).open(path)?;
        let size = file.metadata()?.len() as usize;
        // SAFETY: a shared read-write mapping of a file this process keeps
        // open; it is only accessed through the bounds-checked methods below.
        let base = unsafe {
            libc::mmap(
                std::ptr::null_mut(),
                size,
                libc::PROT_READ | libc::PROT_WRITE,
                libc::MAP_SHARED,
                file.as_raw_fd(),
                0,
            )
        };
        if base == libc::MAP_FAILED {
            return Err(std::io::Error::last_os_error());
        }
        Ok(Slot {
            base: base as *mut u8,
            size,
            _file: file,
        })
    }

    fn word(&self, index: usize) -> &AtomicU64 {
        // SAFETY: the first 16 bytes of a page-aligned mapping hold two
        // aligned u64 words.
        unsafe { &*(self.base.add(index * 8) as *const AtomicU64) }
    }

    pub fn capacity(&self) -> usize {
        self.size - HEADER
    }

    /// Records the input about to run and counts it.
    pub fn set_input(&self, input: &[u8]) {
        let n = input.len().min(self.capacity());
        // SAFETY: `n` fits the mapping after the header.
        unsafe { std::ptr::copy_nonoverlapping(input.as_ptr(), self.base.add(HEADER), n) };
        self.word(1).store(n as u64, Ordering::Release);
        self.word(0).fetch_add(1, Ordering::Release);
    }

    /// Inputs started so far, as another process sees it.
    pub fn read_runs(path: &Path) -> u64 {
        let mut head = [0u8; 8];
        File::open(path)
            .and_then(|mut f| f.read_exact(&mut head))
            .map(|_| u64::from_le_bytes(head))
            .unwrap_or(0)
    }

    /// The last input recorded, as another process sees it.
    pub fn read_input(path: &Path) -> Vec<u8> {
        let data = std::fs::read(path).unwrap_or_default();
        if data.len() < HEADER {
            return Vec::new();
        }
        let n = u64::from_le_bytes(data[8..16].try_into().unwrap()) as usize;
        data[HEADER..(HEADER + n).min(data.len())].to_vec()
    }
}

impl Drop for Slot {
    fn drop(&mut self) {
        // SAFETY: unmaps exactly what `open` mapped.
        unsafe { libc::munmap(self.base as *mut libc::c_void, self.size) };
    }
}
