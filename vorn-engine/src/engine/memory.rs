//! Whether a context's KV cache fits in the memory that is left. llama.cpp
//! zero-fills the cache it allocates, so a cache far beyond memory would not
//! fail cleanly: on a system that overcommits, the engine would be killed
//! while filling it. The check runs before llama.cpp allocates anything.

use super::EngineError;

/// Refuses a context whose KV cache (`kv_bytes_per_token` per position)
/// needs more memory than is available. Unknown sizes pass: llama.cpp
/// still refuses what it cannot allocate.
pub(super) fn check_context(
    name: &str,
    context: u32,
    kv_bytes_per_token: Option<u64>,
) -> Result<(), EngineError> {
    let (Some(per_token), Some(available)) = (kv_bytes_per_token, available()) else {
        return Ok(());
    };
    let needed = per_token.saturating_mul(u64::from(context));
    if needed > available {
        return Err(EngineError::ContextTooLarge {
            name: name.to_string(),
            context,
            needed,
            available,
        });
    }
    Ok(())
}

/// Memory this process can still take: what the system has available, and
/// no more than its control group's limit leaves.
#[cfg(target_os = "linux")]
fn available() -> Option<u64> {
    let system = meminfo_available(&std::fs::read_to_string("/proc/meminfo").ok()?)?;
    let group = std::fs::read_to_string("/proc/self/cgroup")
        .ok()
        .and_then(|text| cgroup_path(&text).map(str::to_string))
        .and_then(|path| {
            let folder = std::path::Path::new("/sys/fs/cgroup").join(path.trim_start_matches('/'));
            let limit = std::fs::read_to_string(folder.join("memory.max")).ok()?;
            let current = std::fs::read_to_string(folder.join("memory.current")).ok()?;
            cgroup_room(&limit, &current)
        });
    Some(group.map_or(system, |room| room.min(system)))
}

#[cfg(not(target_os = "linux"))]
fn available() -> Option<u64> {
    None
}

/// `MemAvailable` of /proc/meminfo, in bytes.
fn meminfo_available(meminfo: &str) -> Option<u64> {
    let line = meminfo.lines().find(|l| l.starts_with("MemAvailable:"))?;
    let mut words = line.split_whitespace().skip(1);
    let kilobytes: u64 = words.next()?.parse().ok()?;
    (words.next() == Some("kB")).then(|| kilobytes.saturating_mul(1024))
}

/// The unified (version 2) control group of /proc/self/cgroup.
fn cgroup_path(cgroup: &str) -> Option<&str> {
    cgroup.lines().find_map(|l| l.strip_prefix("0::"))
}

/// What a control group's `memory.max` leaves above `memory.current`;
/// None without a limit.
fn cgroup_room(limit: &str, current: &str) -> Option<u64> {
    let limit: u64 = limit.trim().parse().ok()?;
    let current: u64 = current.trim().parse().ok()?;
    Some(limit.saturating_sub(current))
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn reads_available_memory() {
        let meminfo =
            "MemTotal:       24000000 kB\nMemFree:  100 kB\nMemAvailable:   12000000 kB\n";
        assert_eq!(meminfo_available(meminfo), Some(12_000_000 * 1024));
        assert_eq!(meminfo_available("MemTotal: 5 kB\n"), None);
        assert_eq!(meminfo_available("MemAvailable: 5 MB\n"), None);
        assert_eq!(meminfo_available("MemAvailable: lots kB\n"), None);
    }

    #[test]
    fn reads_the_control_group_limit() {
        assert_eq!(
            cgroup_path("12:cpu:/x\n0::/user.slice/app.scope\n"),
            Some("/user.slice/app.scope")
        );
        assert_eq!(cgroup_path("12:memory:/x\n"), None);
        assert_eq!(cgroup_room("max\n", "100\n"), None);
        assert_eq!(cgroup_room("1000\n", "300\n"), Some(700));
        assert_eq!(cgroup_room("1000\n", "3000\n"), Some(0));
    }

    #[test]
    fn refuses_only_what_does_not_fit() {
        assert_eq!(check_context("m", 4096, None), Ok(()));
        assert_eq!(check_context("m", 4096, Some(1)), Ok(()));
        if cfg!(target_os = "linux") {
            let refused = check_context("m.gguf", u32::MAX, Some(u64::MAX / 2));
            let Err(EngineError::ContextTooLarge {
                name,
                context,
                needed,
                available,
            }) = refused
            else {
                panic!("{refused:?}");
            };
            assert_eq!(
                (name.as_str(), context, needed),
                ("m.gguf", u32::MAX, u64::MAX)
            );
            assert!(available < needed);
        }
    }
}
