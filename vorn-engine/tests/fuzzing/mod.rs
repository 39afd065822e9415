//! A bounded mutation fuzzer for the engine's parsers, on stable Rust.
//!
//! Each fuzz target is a test binary with its own `main` that calls `main`
//! here. That process is only a supervisor: it starts itself again as the
//! worker, which mutates inputs and runs them until time is up, keeping the
//! current input in a mapped file (`slot`). A panic, an abort, an oversized
//! allocation or a broken rule ends the worker; the supervisor then saves the
//! input under the crash folder and says how to replay it.
//!
//! There is no coverage feedback. Instead a target names the path each input
//! took (the status and the kind of error it got), and an input that reaches
//! a path not seen before joins the corpus that later inputs mutate.
//!
//! Environment:
//!   VORN_FUZZ_SECONDS    how long the worker runs (default 3)
//!   VORN_FUZZ_SEED       seed of the run (default: from the clock; printed)
//!   VORN_FUZZ_REPRODUCE  a saved input to run once, in this process
//!   VORN_FUZZ_CRASH_DIR  where failing inputs go (default: cargo's tmp folder)
//!   VORN_FUZZ_HANG_SECONDS  an input running longer counts as a hang (default 60)
//!   VORN_FUZZ_PATHS      when set, lists the distinct paths at the end

#![allow(dead_code)]

pub mod memory;
pub mod mutate;
pub mod rng;
pub mod slot;

use rng::Rng;
use slot::Slot;
use std::collections::HashSet;
use std::path::{Path, PathBuf};
use std::process::{Command, Stdio};
use std::time::{Duration, Instant};

pub trait Target {
    const NAME: &'static str;
    /// Inputs are cut to this length.
    const MAX_LEN: usize;
    /// Beginnings of the engine's own log lines that the code under test
    /// writes as a matter of course; the supervisor leaves them out.
    const QUIET: &'static [&'static str] = &[];

    /// Real, valid inputs to start from.
    fn seeds(&mut self) -> Vec<Vec<u8>>;

    /// Tokens that mean something to the parser.
    fn dictionary(&self) -> Vec<Vec<u8>>;

    /// A new input built from the format's structure.
    fn generate(&mut self, rng: &mut Rng) -> Vec<u8>;

    /// A mutation that knows the format; false when none applies.
    fn mutate(&mut self, _rng: &mut Rng, _data: &mut Vec<u8>) -> bool {
        false
    }

    /// Runs one input: Ok names the path it took, Err says which rule broke.
    fn run(&mut self, input: &[u8]) -> Result<String, String>;
}

const CORPUS_LIMIT: usize = 4096;

fn env_f64(name: &str) -> Option<f64> {
    std::env::var(name)
        .ok()
        .and_then(|v| v.trim().parse::<f64>().ok())
        .filter(|v| v.is_finite() && *v >= 0.0)
}

fn crash_dir() -> PathBuf {
    std::env::var_os("VORN_FUZZ_CRASH_DIR")
        .map(PathBuf::from)
        .unwrap_or_else(|| Path::new(env!("CARGO_TARGET_TMPDIR")).join("fuzz-crashes"))
}

/// Turns each number into one `#`, so that messages differing only in
/// numbers are one path, and keeps the first `keep` characters.
pub fn shape(message: &str, keep: usize) -> String {
    let mut out = String::new();
    for c in message.chars() {
        if c.is_ascii_digit() {
            if !out.ends_with('#') {
                out.push('#');
            }
        } else {
            out.push(c);
        }
    }
    out.chars().take(keep).collect()
}

/// Whether cargo's test arguments (filters, `--skip`) leave this target out.
fn filtered_out(name: &str, args: &[String]) -> bool {
    let mut filters = Vec::new();
    let mut it = args.iter();
    while let Some(a) = it.next() {
        if a == "--skip" {
            if it.next().is_some_and(|s| name.contains(s.as_str())) {
                return true;
            }
        } else if !a.starts_with('-') {
            filters.push(a);
        }
    }
    !filters.is_empty() && !filters.iter().any(|f| name.contains(f.as_str()))
}

/// Entry point of a fuzz target binary.
pub fn main<T: Target>(make: impl FnOnce() -> T) {
    let args: Vec<String> = std::env::args().skip(1).collect();
    if args.iter().any(|a| a == "--list") {
        println!("{}: test", T::NAME);
        return;
    }
    if filtered_out(T::NAME, &args) {
        return;
    }
    if let Some(file) = std::env::var_os("VORN_FUZZ_REPRODUCE") {
        std::process::exit(reproduce(make(), Path::new(&file)));
    }
    if let Some(path) = std::env::var_os("VORN_FUZZ_SLOT") {
        std::process::exit(work(make(), Path::new(&path)));
    }
    std::process::exit(supervise::<T>());
}

/// Panics are failures even where the code under test would catch them (a
/// spawned task's panic becomes an error reply): stop at once.
fn abort_on_panic() {
    let default_hook = std::panic::take_hook();
    std::panic::set_hook(Box::new(move |info| {
        default_hook(info);
        std::process::abort();
    }));
}

/// The name in messages: "fuzz gguf_header", like the app's targets.
fn shown<T: Target>() -> &'static str {
    T::NAME.strip_prefix("fuzz_").unwrap_or(T::NAME)
}

fn reproduce<T: Target>(mut target: T, file: &Path) -> i32 {
    abort_on_panic();
    let name = shown::<T>();
    let input = match std::fs::read(file) {
        Ok(b) => b,
        Err(e) => {
            eprintln!("fuzz {name}: cannot read {}: {e}", file.display());
            return 2;
        }
    };
    match target.run(&input) {
        Ok(path) => {
            println!("fuzz {name}: {} passes ({path})", file.display());
            0
        }
        Err(why) => {
            eprintln!("fuzz {name}: {} fails: {why}", file.display());
            1
        }
    }
}

fn supervise<T: Target>() -> i32 {
    let name = shown::<T>();
    let seconds = env_f64("VORN_FUZZ_SECONDS").unwrap_or(3.0);
    let hang = env_f64("VORN_FUZZ_HANG_SECONDS").unwrap_or(60.0);
    let seed = std::env::var("VORN_FUZZ_SEED")
        .ok()
        .and_then(|s| s.trim().parse::<u64>().ok())
        .unwrap_or_else(|| {
            std::time::SystemTime::now()
                .duration_since(std::time::UNIX_EPOCH)
                .map(|d| d.as_nanos() as u64)
                .unwrap_or(1)
        });
    let slot_path =
        std::env::temp_dir().join(format!("vorn-fuzz-{name}-{}.slot", std::process::id()));
    if let Err(e) = Slot::create(&slot_path, T::MAX_LEN) {
        eprintln!("fuzz {name}: cannot create {}: {e}", slot_path.display());
        return 2;
    }
    let exe = std::env::current_exe().expect("own executable");
    let mut child = match Command::new(exe)
        .env("VORN_FUZZ_SLOT", &slot_path)
        .env("VORN_FUZZ_SEED", seed.to_string())
        .env("VORN_FUZZ_SECONDS", seconds.to_string())
        .stdin(Stdio::null())
        .stderr(Stdio::piped())
        .spawn()
    {
        Ok(c) => c,
        Err(e) => {
            eprintln!("fuzz {name}: cannot start the worker: {e}");
            let _ = std::fs::remove_file(&slot_path);
            return 2;
        }
    };
    let stderr = child.stderr.take().map(|pipe| {
        std::thread::spawn(move || {
            use std::io::BufRead;
            let mut reader = std::io::BufReader::new(pipe);
            let mut line = Vec::new();
            while reader.read_until(b'\n', &mut line).is_ok_and(|n| n > 0) {
                let text = String::from_utf8_lossy(&line);
                if !T::QUIET.iter().any(|q| text.starts_with(q)) {
                    eprint!("{text}");
                }
                line.clear();
            }
        })
    });
    let mut runs = 0;
    let mut progress = Instant::now();
    let mut hung = false;
    let status = loop {
        match child.try_wait() {
            Ok(Some(s)) => break Some(s),
            Ok(None) => {}
            Err(_) => break None,
        }
        std::thread::sleep(Duration::from_millis(100));
        let now = Slot::read_runs(&slot_path);
        if now != runs {
            runs = now;
            progress = Instant::now();
        } else if progress.elapsed() > Duration::from_secs_f64(hang) {
            hung = true;
            let _ = child.kill();
            break child.wait().ok();
        }
    };
    if let Some(t) = stderr {
        let _ = t.join();
    }
    if !hung && status.is_some_and(|s| s.success()) {
        let _ = std::fs::remove_file(&slot_path);
        return 0;
    }
    let why = if hung {
        format!("an input ran for more than {hang} s")
    } else {
        match status {
            Some(s) => describe(s),
            None => "the worker was lost".to_string(),
        }
    };
    let runs = Slot::read_runs(&slot_path);
    let input = Slot::read_input(&slot_path);
    let _ = std::fs::remove_file(&slot_path);
    let dir = crash_dir();
    let file = dir.join(format!("{}-{:016x}.bin", T::NAME, fnv(&input)));
    let saved = std::fs::create_dir_all(&dir).and_then(|_| std::fs::write(&file, &input));
    eprintln!("fuzz {name}: FAILED at input {runs} (seed {seed}): {why}");
    match saved {
        Ok(()) => eprintln!(
            "fuzz {name}: the input ({} bytes) is saved in {}\n  replay: VORN_FUZZ_REPRODUCE={} scripts/engine-cargo test --test {}",
            input.len(),
            file.display(),
            file.display(),
            T::NAME
        ),
        Err(e) => eprintln!("fuzz {name}: could not save the input: {e}"),
    }
    1
}

fn describe(status: std::process::ExitStatus) -> String {
    use std::os::unix::process::ExitStatusExt;
    match (status.code(), status.signal()) {
        (Some(3), _) => "a rule was broken (see above)".to_string(),
        (Some(c), _) => format!("the worker exited with status {c}"),
        (None, Some(libc::SIGABRT)) => {
            "the worker aborted (a panic, or a refused allocation)".into()
        }
        (None, Some(s)) => format!("the worker died from signal {s}"),
        (None, None) => "the worker stopped".to_string(),
    }
}

fn fnv(data: &[u8]) -> u64 {
    data.iter().fold(0xcbf2_9ce4_8422_2325, |h, b| {
        (h ^ u64::from(*b)).wrapping_mul(0x0100_0000_01b3)
    })
}

fn work<T: Target>(mut target: T, slot_path: &Path) -> i32 {
    let name = shown::<T>();
    // The input is already in the slot when a panic stops the process.
    abort_on_panic();
    let slot = match Slot::open(slot_path) {
        Ok(s) => s,
        Err(e) => {
            eprintln!("fuzz {name}: cannot open the slot: {e}");
            return 2;
        }
    };
    let seconds = env_f64("VORN_FUZZ_SECONDS").unwrap_or(3.0);
    let seed = std::env::var("VORN_FUZZ_SEED")
        .ok()
        .and_then(|s| s.parse::<u64>().ok())
        .unwrap_or(1);
    let mut rng = Rng::new(seed);
    let dictionary_owned = target.dictionary();
    let dictionary: Vec<&[u8]> = dictionary_owned.iter().map(Vec::as_slice).collect();
    let seeds = target.seeds();
    let mut corpus: Vec<Vec<u8>> = Vec::new();
    let mut seen = HashSet::new();
    let started = Instant::now();
    let deadline = started + Duration::from_secs_f64(seconds);
    let mut runs: u64 = 0;
    let mut pending = seeds.into_iter();
    loop {
        let seed_input = pending.next();
        let is_seed = seed_input.is_some();
        let input = match seed_input {
            Some(s) => s,
            None if Instant::now() >= deadline => break,
            None if corpus.is_empty() || rng.one_in(10) => {
                let mut g = target.generate(&mut rng);
                g.truncate(T::MAX_LEN);
                g
            }
            None => {
                // The shortest of three picks, so that huge seeds do not eat
                // the time.
                let pick = (0..3)
                    .map(|_| rng.below(corpus.len()))
                    .min_by_key(|i| corpus[*i].len())
                    .unwrap_or(0);
                let mut data = corpus[pick].clone();
                let other = &corpus[rng.below(corpus.len())];
                for _ in 0..1 + rng.small(7) {
                    if !(rng.one_in(4) && target.mutate(&mut rng, &mut data)) {
                        mutate::once(&mut rng, &mut data, other, &dictionary);
                    }
                }
                data.truncate(T::MAX_LEN);
                data
            }
        };
        slot.set_input(&input);
        runs += 1;
        match target.run(&input) {
            Ok(path) => {
                // Every seed stays; other inputs stay when they found a new path.
                if seen.insert(path) || is_seed {
                    if corpus.len() < CORPUS_LIMIT {
                        corpus.push(input);
                    } else {
                        let i = rng.below(corpus.len());
                        corpus[i] = input;
                    }
                }
            }
            Err(why) => {
                eprintln!("fuzz {name}: {why}");
                return 3;
            }
        }
    }
    if std::env::var_os("VORN_FUZZ_PATHS").is_some() {
        let mut paths: Vec<_> = seen.iter().collect();
        paths.sort();
        for p in paths {
            eprintln!("  {p}");
        }
    }
    println!(
        "fuzz {name}: {runs} inputs in {:.1} s, no crash ({} distinct paths, seed {seed})",
        started.elapsed().as_secs_f64(),
        seen.len()
    );
    0
}
