//! Downloads against a local stand-in for the hub, reached through HF_ENDPOINT.

mod common;

use common::*;
use serde_json::{json, Value};
use sha2::{Digest, Sha256};
use std::collections::HashMap;
use std::io::{BufRead, BufReader, Write};
use std::net::{TcpListener, TcpStream};
use std::sync::{Arc, Mutex};
use std::time::{Duration, Instant};

#[derive(Clone, Default)]
struct File {
    data: Vec<u8>,
    announce_size: Option<u64>,
    announce_sha: Option<String>,
    /// Answer the hub path with a redirect to this location.
    redirect: Option<String>,
    /// Close the connection after this many body bytes (first request only).
    drop_after: Option<usize>,
    slow: bool,
}

#[derive(Debug, Clone)]
struct Seen {
    path: String,
    range: Option<String>,
    auth: Option<String>,
}

#[derive(Clone)]
struct Hub {
    port: u16,
    files: Arc<Mutex<HashMap<String, File>>>,
    seen: Arc<Mutex<Vec<Seen>>>,
}

impl Hub {
    fn start() -> Hub {
        let listener = TcpListener::bind("127.0.0.1:0").unwrap();
        let hub = Hub {
            port: listener.local_addr().unwrap().port(),
            files: Default::default(),
            seen: Default::default(),
        };
        let h = hub.clone();
        std::thread::spawn(move || {
            for conn in listener.incoming().flatten() {
                let h = h.clone();
                std::thread::spawn(move || h.serve(conn));
            }
        });
        hub
    }

    fn endpoint(&self) -> String {
        format!("http://127.0.0.1:{}", self.port)
    }

    fn add(&self, path: &str, f: File) {
        self.files.lock().unwrap().insert(path.to_string(), f);
    }

    fn seen(&self, path: &str) -> Vec<Seen> {
        self.seen
            .lock()
            .unwrap()
            .iter()
            .filter(|s| s.path == path)
            .cloned()
            .collect()
    }

    fn serve(&self, mut conn: TcpStream) {
        let mut reader = BufReader::new(conn.try_clone().unwrap());
        let mut line = String::new();
        if reader.read_line(&mut line).is_err() {
            return;
        }
        let path = line
            .split(' ')
            .nth(1)
            .unwrap_or("")
            .split('?')
            .next()
            .unwrap_or("")
            .to_string();
        let mut headers = HashMap::new();
        loop {
            let mut l = String::new();
            if reader.read_line(&mut l).is_err() || l.trim().is_empty() {
                break;
            }
            if let Some((k, v)) = l.split_once(':') {
                headers.insert(k.trim().to_ascii_lowercase(), v.trim().to_string());
            }
        }
        let range = headers.get("range").cloned();
        self.seen.lock().unwrap().push(Seen {
            path: path.clone(),
            range: range.clone(),
            auth: headers.get("authorization").cloned(),
        });
        let file = self.files.lock().unwrap().get(&path).cloned();
        let Some(mut file) = file else {
            let _ = conn.write_all(
                b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
            );
            return;
        };
        let mut extra = String::new();
        if let Some(n) = file.announce_size {
            extra.push_str(&format!("X-Linked-Size: {n}\r\n"));
        }
        if let Some(s) = &file.announce_sha {
            extra.push_str(&format!("X-Linked-Etag: \"{s}\"\r\n"));
        }
        if let Some(loc) = &file.redirect {
            let _ = write!(conn, "HTTP/1.1 302 Found\r\nLocation: {loc}\r\n{extra}Content-Length: 0\r\nConnection: close\r\n\r\n");
            return;
        }
        let start: usize = range
            .as_deref()
            .and_then(|r| r.strip_prefix("bytes="))
            .and_then(|r| r.trim_end_matches('-').parse().ok())
            .unwrap_or(0);
        let total = file.data.len();
        let head = if start > 0 {
            format!(
                "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes {start}-{}/{total}\r\nContent-Length: {}\r\n{extra}Connection: close\r\n\r\n",
                total - 1,
                total - start
            )
        } else {
            format!(
                "HTTP/1.1 200 OK\r\nContent-Length: {total}\r\n{extra}Connection: close\r\n\r\n"
            )
        };
        if conn.write_all(head.as_bytes()).is_err() {
            return;
        }
        let drop_after = file.drop_after.take();
        if drop_after.is_some() {
            // Later requests get the whole body.
            self.files
                .lock()
                .unwrap()
                .get_mut(&path)
                .unwrap()
                .drop_after = None;
        }
        let body = &file.data[start..];
        let limit = drop_after.unwrap_or(body.len()).min(body.len());
        for part in body[..limit].chunks(64 * 1024) {
            if conn.write_all(part).is_err() {
                return;
            }
            if file.slow {
                std::thread::sleep(Duration::from_millis(25));
            }
        }
        let _ = conn.flush();
        let _ = conn.shutdown(std::net::Shutdown::Both);
    }
}

fn random_bytes(n: usize, seed: u64) -> Vec<u8> {
    let mut x = seed | 1;
    (0..n)
        .map(|_| {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            x as u8
        })
        .collect()
}

fn sha(data: &[u8]) -> String {
    hex::encode(Sha256::digest(data))
}

fn pull(e: &Engine, name: &str, url: &str) -> Response {
    e.api(
        "POST",
        "/api/pull",
        Some(&json!({"name": name, "url": url}).to_string()),
    )
}

fn hub_url(file: &str) -> String {
    format!("https://huggingface.co/org/repo/resolve/main/{file}")
}

/// Waits until the named download is no longer running.
fn wait_done(e: &Engine, name: &str) {
    let deadline = Instant::now() + Duration::from_secs(60);
    while e.state()["downloads"]
        .as_array()
        .unwrap()
        .iter()
        .any(|d| d["name"] == name)
    {
        assert!(Instant::now() < deadline, "download of {name} did not end");
        std::thread::sleep(Duration::from_millis(20));
    }
}

fn model_names(e: &Engine) -> Vec<String> {
    e.state()["models"]
        .as_array()
        .unwrap()
        .iter()
        .map(|m| m["name"].as_str().unwrap().to_string())
        .collect()
}

#[test]
fn download_with_progress_token_and_checks() {
    let hub = Hub::start();
    let data = random_bytes(3 << 20, 1);
    hub.add(
        "/org/repo/resolve/main/model.gguf",
        File {
            redirect: Some(format!("{}/cdn/model.gguf", hub.endpoint())),
            announce_size: Some(data.len() as u64),
            announce_sha: Some(sha(&data)),
            ..Default::default()
        },
    );
    hub.add(
        "/cdn/model.gguf",
        File {
            data: data.clone(),
            slow: true,
            ..Default::default()
        },
    );
    let dir = temp_dir("pull");
    let e = Engine::start_with_env(
        &dir,
        &[
            ("HF_ENDPOINT", &hub.endpoint()),
            ("HF_TOKEN", "secret-token"),
        ],
    );

    let r = pull(&e, "model.gguf", &hub_url("model.gguf"));
    assert_eq!(r.status, 200, "{}", r.text());
    // Same name again while running.
    assert_eq!(pull(&e, "model.gguf", &hub_url("model.gguf")).status, 409);

    // Progress shows while it runs.
    let mut saw_progress = false;
    let deadline = Instant::now() + Duration::from_secs(60);
    loop {
        let s = e.state();
        let d: Vec<Value> = s["downloads"].as_array().unwrap().clone();
        if d.is_empty() {
            break;
        }
        assert_eq!(d[0]["name"], "model.gguf");
        let bytes = d[0]["bytes"].as_i64().unwrap();
        if bytes > 0 && bytes < data.len() as i64 && d[0]["total"] == data.len() as i64 {
            saw_progress = true;
            assert!(
                !model_names(&e).contains(&"model.gguf".to_string()),
                "final name before completion"
            );
        }
        assert!(Instant::now() < deadline);
        std::thread::sleep(Duration::from_millis(30));
    }
    assert!(saw_progress);
    assert_eq!(std::fs::read(dir.join("model.gguf")).unwrap(), data);
    assert!(!dir.join("model.gguf.part").exists());
    assert!(model_names(&e).contains(&"model.gguf".to_string()));

    // The token went to the hub, but the hub is the only host that saw it.
    let hub_seen = hub.seen("/org/repo/resolve/main/model.gguf");
    assert_eq!(hub_seen[0].auth.as_deref(), Some("Bearer secret-token"));

    // The name now exists.
    let r = pull(&e, "model.gguf", &hub_url("model.gguf"));
    assert_eq!(r.status, 409);
    assert!(!r.error().is_empty());
}

#[test]
fn interrupted_download_resumes_with_range() {
    let hub = Hub::start();
    let data = random_bytes(2 << 20, 2);
    hub.add(
        "/org/repo/resolve/main/resume.gguf",
        File {
            data: data.clone(),
            announce_size: Some(data.len() as u64),
            announce_sha: Some(sha(&data)),
            drop_after: Some(700 * 1024),
            ..Default::default()
        },
    );
    let dir = temp_dir("resume");
    let e = Engine::start_with_env(&dir, &[("HF_ENDPOINT", &hub.endpoint())]);
    assert_eq!(pull(&e, "resume.gguf", &hub_url("resume.gguf")).status, 200);
    wait_done(&e, "resume.gguf");
    assert!(
        !dir.join("resume.gguf").exists(),
        "a broken download must not get its final name"
    );
    let part = std::fs::metadata(dir.join("resume.gguf.part"))
        .unwrap()
        .len();
    assert!(part > 0 && part < data.len() as u64, "{part}");
    assert!(!model_names(&e).iter().any(|n| n.ends_with(".part")));

    assert_eq!(pull(&e, "resume.gguf", &hub_url("resume.gguf")).status, 200);
    wait_done(&e, "resume.gguf");
    assert_eq!(std::fs::read(dir.join("resume.gguf")).unwrap(), data);
    let seen = hub.seen("/org/repo/resolve/main/resume.gguf");
    assert_eq!(seen.len(), 2);
    assert_eq!(seen[0].range, None);
    assert_eq!(
        seen[1].range.as_deref(),
        Some(format!("bytes={part}-").as_str())
    );
    // No token configured, none sent.
    assert!(seen.iter().all(|s| s.auth.is_none()));
}

#[test]
fn failed_checks_never_produce_the_final_file() {
    let hub = Hub::start();
    let data = random_bytes(512 * 1024, 3);
    // Announced larger than what arrives.
    hub.add(
        "/org/repo/resolve/main/short.gguf",
        File {
            data: data.clone(),
            announce_size: Some(data.len() as u64 + 1000),
            ..Default::default()
        },
    );
    // Wrong checksum.
    hub.add(
        "/org/repo/resolve/main/corrupt.gguf",
        File {
            data: data.clone(),
            announce_sha: Some(sha(b"something else")),
            ..Default::default()
        },
    );
    // Redirect to plain http on another host.
    hub.add(
        "/org/repo/resolve/main/redirect.gguf",
        File {
            redirect: Some(format!("http://localhost:{}/cdn/x.gguf", hub.port)),
            ..Default::default()
        },
    );
    hub.add(
        "/cdn/x.gguf",
        File {
            data: data.clone(),
            ..Default::default()
        },
    );
    let dir = temp_dir("checks");
    let e = Engine::start_with_env(&dir, &[("HF_ENDPOINT", &hub.endpoint())]);

    for name in ["short.gguf", "corrupt.gguf", "redirect.gguf"] {
        assert_eq!(pull(&e, name, &hub_url(name)).status, 200);
    }
    // Two at once are fine; wait for all.
    for name in ["short.gguf", "corrupt.gguf", "redirect.gguf"] {
        wait_done(&e, name);
        assert!(!dir.join(name).exists(), "{name} got its final name");
    }
    assert!(
        dir.join("short.gguf.part").exists(),
        "a short download keeps its partial file"
    );
    assert!(
        hub.seen("/cdn/x.gguf").is_empty(),
        "followed an http redirect to another host"
    );
    assert!(model_names(&e).is_empty());
}

#[test]
fn pull_refusals() {
    let dir = temp_dir("refuse");
    std::fs::write(dir.join("have.gguf"), b"x").unwrap();
    let e = Engine::start(&dir);
    let cases = [
        ("a/b.gguf", hub_url("b.gguf"), 400),
        ("../x.gguf", hub_url("x.gguf"), 400),
        (".x.gguf", hub_url("x.gguf"), 400),
        ("model.bin", hub_url("model.bin"), 400),
        (
            "m.gguf",
            "http://huggingface.co/org/repo/resolve/main/m.gguf".to_string(),
            400,
        ),
        ("m.gguf", "https://evil.example/m.gguf".to_string(), 400),
        (
            "m.gguf",
            "https://huggingface.co.evil.example/m.gguf".to_string(),
            400,
        ),
        (
            "m.gguf",
            "https://cdn-lfs.huggingface.co/m.gguf".to_string(),
            400,
        ),
        ("m.gguf", "file:///etc/passwd".to_string(), 400),
        ("have.gguf", hub_url("have.gguf"), 409),
    ];
    for (name, url, status) in cases {
        let r = pull(&e, name, &url);
        assert_eq!(r.status, status, "{name} {url}: {}", r.text());
        assert!(!r.error().is_empty());
    }
    assert_eq!(
        e.api("POST", "/api/pull", Some(r#"{"name": 1}"#)).status,
        400
    );
    assert_eq!(e.api("POST", "/api/pull", Some("{}")).status, 400);
}

#[test]
fn sigterm_during_download_keeps_the_partial_file() {
    let hub = Hub::start();
    let data = random_bytes(4 << 20, 4);
    hub.add(
        "/org/repo/resolve/main/slow.gguf",
        File {
            data: data.clone(),
            announce_size: Some(data.len() as u64),
            slow: true,
            ..Default::default()
        },
    );
    let dir = temp_dir("term");
    let mut e = Engine::start_with_env(&dir, &[("HF_ENDPOINT", &hub.endpoint())]);
    assert_eq!(pull(&e, "slow.gguf", &hub_url("slow.gguf")).status, 200);
    let deadline = Instant::now() + Duration::from_secs(30);
    loop {
        let d = e.state()["downloads"].clone();
        if d[0]["bytes"].as_i64().unwrap_or(0) > 0 {
            break;
        }
        assert!(Instant::now() < deadline, "no progress");
        std::thread::sleep(Duration::from_millis(20));
    }
    // SAFETY: kill takes plain integers and touches no memory; the pid is
    // our own child, not yet reaped.
    unsafe { libc::kill(e.child.id() as i32, libc::SIGTERM) };
    let status = e.child.wait().unwrap();
    assert_eq!(status.code(), Some(0));
    assert!(!dir.join("slow.gguf").exists());
    let part = std::fs::metadata(dir.join("slow.gguf.part")).unwrap().len();
    assert!(part > 0 && part < data.len() as u64);
    // The partial data is the file's own beginning.
    assert_eq!(
        std::fs::read(dir.join("slow.gguf.part")).unwrap(),
        data[..part as usize]
    );
}
