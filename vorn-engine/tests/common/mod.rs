//! Helpers for the integration tests: start the real engine on a free port
//! with a temporary models folder, and speak plain HTTP/1.1 to it.

#![allow(dead_code)]

use std::io::{Read, Write};
use std::net::{TcpListener, TcpStream};
use std::path::{Path, PathBuf};
use std::process::{Child, Command, Stdio};
use std::sync::atomic::{AtomicUsize, Ordering};
use std::time::{Duration, Instant};

pub fn shared_models() -> PathBuf {
    Path::new(env!("CARGO_MANIFEST_DIR")).join("../../shared/models")
}

static COUNTER: AtomicUsize = AtomicUsize::new(0);

pub fn temp_dir(tag: &str) -> PathBuf {
    let n = COUNTER.fetch_add(1, Ordering::SeqCst);
    let dir =
        std::env::temp_dir().join(format!("vorn-engine-test-{}-{tag}-{n}", std::process::id()));
    let _ = std::fs::remove_dir_all(&dir);
    std::fs::create_dir_all(&dir).unwrap();
    dir
}

pub fn free_port() -> u16 {
    TcpListener::bind("127.0.0.1:0")
        .unwrap()
        .local_addr()
        .unwrap()
        .port()
}

pub struct Engine {
    pub child: Child,
    pub port: u16,
    pub dir: PathBuf,
}

impl Engine {
    pub fn start(dir: &Path) -> Engine {
        Self::start_with_env(dir, &[])
    }

    pub fn start_with_env(dir: &Path, env: &[(&str, &str)]) -> Engine {
        for _ in 0..5 {
            let port = free_port();
            let mut cmd = Command::new(env!("CARGO_BIN_EXE_vorn-engine"));
            cmd.args(["app", "--port", &port.to_string(), "--models-dir"])
                .arg(dir)
                .arg("--no-open")
                .stdin(Stdio::null())
                .stdout(Stdio::null())
                .stderr(Stdio::inherit())
                .env_remove("HF_ENDPOINT")
                .env_remove("HF_TOKEN");
            for (k, v) in env {
                cmd.env(k, v);
            }
            let child = cmd.spawn().expect("engine starts");
            let mut engine = Engine {
                child,
                port,
                dir: dir.to_path_buf(),
            };
            let deadline = Instant::now() + Duration::from_secs(20);
            while Instant::now() < deadline {
                if let Ok(Some(_)) = engine.child.try_wait() {
                    break; // port taken by someone else; try another
                }
                if let Ok(r) = engine.try_get("/api/state") {
                    if r.status == 200 {
                        return engine;
                    }
                }
                std::thread::sleep(Duration::from_millis(50));
            }
        }
        panic!("engine did not start");
    }

    pub fn host(&self) -> String {
        format!("127.0.0.1:{}", self.port)
    }

    /// A request with the headers the app sends.
    pub fn api(&self, method: &str, path: &str, body: Option<&str>) -> Response {
        let host = self.host();
        request(
            self.port,
            method,
            path,
            &[
                ("Host", host.as_str()),
                ("Content-Type", "application/json"),
                ("X-Vorn-App", "1"),
            ],
            body.map(str::as_bytes),
        )
        .expect("request")
    }

    pub fn try_get(&self, path: &str) -> std::io::Result<Response> {
        let host = self.host();
        request(
            self.port,
            "GET",
            path,
            &[("Host", host.as_str()), ("X-Vorn-App", "1")],
            None,
        )
    }

    pub fn state(&self) -> serde_json::Value {
        let r = self.api("GET", "/api/state", None);
        assert_eq!(r.status, 200, "{}", r.text());
        r.json()
    }

    pub fn load(&self, name: &str) -> Response {
        self.api(
            "POST",
            "/api/load",
            Some(&format!(r#"{{"name":"{name}","gpu":true,"ctx":4096}}"#)),
        )
    }

    /// A chat request as the app sends it: only Content-Type.
    pub fn chat(&self, body: &serde_json::Value) -> Response {
        let host = self.host();
        request(
            self.port,
            "POST",
            "/v1/chat/completions",
            &[
                ("Host", host.as_str()),
                ("Content-Type", "application/json"),
            ],
            Some(body.to_string().as_bytes()),
        )
        .expect("chat request")
    }
}

impl Drop for Engine {
    fn drop(&mut self) {
        let _ = self.child.kill();
        let _ = self.child.wait();
        let own = self
            .dir
            .file_name()
            .and_then(|n| n.to_str())
            .is_some_and(|n| n.starts_with("vorn-engine-test-"));
        if own {
            let _ = std::fs::remove_dir_all(&self.dir);
        }
    }
}

pub struct Response {
    pub status: u16,
    pub headers: Vec<(String, String)>,
    pub body: Vec<u8>,
}

impl Response {
    pub fn text(&self) -> String {
        String::from_utf8_lossy(&self.body).into_owned()
    }
    pub fn json(&self) -> serde_json::Value {
        serde_json::from_slice(&self.body)
            .unwrap_or_else(|e| panic!("not JSON ({e}): {}", self.text()))
    }
    pub fn header(&self, name: &str) -> Option<&str> {
        self.headers
            .iter()
            .find(|(k, _)| k.eq_ignore_ascii_case(name))
            .map(|(_, v)| v.as_str())
    }
    /// The error text of a JSON error reply.
    pub fn error(&self) -> String {
        self.json()["error"]
            .as_str()
            .unwrap_or_else(|| panic!("no error text: {}", self.text()))
            .to_string()
    }
    /// The `data:` payloads of a server-sent event stream.
    pub fn events(&self) -> Vec<String> {
        self.text()
            .lines()
            .filter_map(|l| l.strip_prefix("data: "))
            .map(str::to_string)
            .collect()
    }
}

/// Sends a raw HTTP/1.1 request; headers are exactly those given.
pub fn request(
    port: u16,
    method: &str,
    path: &str,
    headers: &[(&str, &str)],
    body: Option<&[u8]>,
) -> std::io::Result<Response> {
    let mut s = TcpStream::connect(("127.0.0.1", port))?;
    s.set_read_timeout(Some(Duration::from_secs(120)))?;
    let mut head = format!("{method} {path} HTTP/1.1\r\nConnection: close\r\n");
    for (k, v) in headers {
        head.push_str(&format!("{k}: {v}\r\n"));
    }
    if let Some(b) = body {
        head.push_str(&format!("Content-Length: {}\r\n", b.len()));
    }
    head.push_str("\r\n");
    s.write_all(head.as_bytes())?;
    if let Some(b) = body {
        // The server may refuse before reading everything.
        let _ = s.write_all(b);
    }
    let mut raw = Vec::new();
    let _ = s.read_to_end(&mut raw);
    parse_response(&raw)
}

pub fn parse_response(raw: &[u8]) -> std::io::Result<Response> {
    let bad = || std::io::Error::new(std::io::ErrorKind::InvalidData, "bad response");
    let end = raw
        .windows(4)
        .position(|w| w == b"\r\n\r\n")
        .ok_or_else(bad)?;
    let head = String::from_utf8_lossy(&raw[..end]).into_owned();
    let mut lines = head.split("\r\n");
    let status: u16 = lines
        .next()
        .and_then(|l| l.split(' ').nth(1))
        .and_then(|s| s.parse().ok())
        .ok_or_else(bad)?;
    let headers: Vec<(String, String)> = lines
        .filter_map(|l| l.split_once(':'))
        .map(|(k, v)| (k.trim().to_string(), v.trim().to_string()))
        .collect();
    let mut body = raw[end + 4..].to_vec();
    let chunked = headers.iter().any(|(k, v)| {
        k.eq_ignore_ascii_case("transfer-encoding") && v.eq_ignore_ascii_case("chunked")
    });
    if chunked {
        body = dechunk(&body);
    }
    Ok(Response {
        status,
        headers,
        body,
    })
}

fn dechunk(mut data: &[u8]) -> Vec<u8> {
    let mut out = Vec::new();
    while let Some(eol) = data.windows(2).position(|w| w == b"\r\n") {
        let size_line = String::from_utf8_lossy(&data[..eol]).into_owned();
        let Ok(size) = usize::from_str_radix(size_line.split(';').next().unwrap_or("").trim(), 16)
        else {
            break;
        };
        data = &data[eol + 2..];
        if size == 0 || data.len() < size {
            out.extend_from_slice(&data[..size.min(data.len())]);
            break;
        }
        out.extend_from_slice(&data[..size]);
        data = &data[(size + 2).min(data.len())..];
    }
    out
}

/// A models folder holding a link to the tiny trained model.
pub fn stories_dir(tag: &str) -> PathBuf {
    let dir = temp_dir(tag);
    std::os::unix::fs::symlink(
        shared_models().join("stories260K.gguf"),
        dir.join("stories260K.gguf"),
    )
    .unwrap();
    dir
}

/// A models folder holding a generated gemma3 model, `tinygemma3.gguf`, and
/// a link to the tiny test projector that fits it.
pub fn vision_dir(tag: &str) -> PathBuf {
    vision_dir_with(tag, &["tinygemma3.gguf"], None)
}

/// A models folder holding generated gemma3 models of these names (each of
/// its own weights, trained on `context_length` tokens, 4096 when None), all
/// of which pair with the tiny test projector.
pub fn vision_dir_with(tag: &str, models: &[&str], context_length: Option<u32>) -> PathBuf {
    let dir = temp_dir(tag);
    for (i, name) in models.iter().enumerate() {
        gen::write_model_with(
            &dir.join(name),
            &shared_models().join("vocab/ggml-vocab-llama-spm.gguf"),
            &gen::ModelShape {
                arch: "gemma3",
                n_embd: 128,
                n_layer: 2,
                n_head: 4,
                n_ff: 256,
                seed: 5 + i as u64,
            },
            &gen::Extras {
                context_length,
                ..gen::Extras::default()
            },
        );
    }
    std::os::unix::fs::symlink(
        shared_models().join("mmproj/mmproj-tinygemma3.gguf"),
        dir.join("mmproj-tinygemma3.gguf"),
    )
    .unwrap();
    dir
}

pub fn user(text: &str) -> serde_json::Value {
    serde_json::json!({"role": "user", "content": text})
}

pub mod gen;
