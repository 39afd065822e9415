//! End-to-end tests against the real engine binary and a real tiny model.

mod common;

use common::*;
use serde_json::{json, Value};
use std::io::{Read, Write};
use std::time::{Duration, Instant};

fn deltas(events: &[String]) -> String {
    events
        .iter()
        .filter(|e| *e != "[DONE]")
        .filter_map(|e| serde_json::from_str::<Value>(e).ok())
        .filter_map(|v| {
            v["choices"][0]["delta"]["content"]
                .as_str()
                .map(str::to_string)
        })
        .collect()
}

#[test]
fn state_lists_models_in_name_order() {
    let dir = stories_dir("state");
    std::os::unix::fs::symlink(
        shared_models().join("mmproj/mmproj-tinygemma3.gguf"),
        dir.join("b-mmproj.gguf"),
    )
    .unwrap();
    std::os::unix::fs::symlink("/nonexistent/file.gguf", dir.join("a-gone.gguf")).unwrap();
    std::fs::write(dir.join("c.gguf.part"), b"partial").unwrap();
    std::fs::write(dir.join("notes.txt"), b"x").unwrap();
    std::fs::create_dir(dir.join("folder.gguf")).unwrap();
    let e = Engine::start(&dir);
    let s = e.state();
    assert_eq!(s["version"], env!("CARGO_PKG_VERSION"));
    assert_eq!(s["dir"], dir.to_string_lossy().as_ref());
    assert!(s["loaded"].is_null());
    assert!(s["ctx"].is_i64());
    assert_eq!(s["vision"], false);
    assert_eq!(s["downloads"], json!([]));
    assert_eq!(
        s["last"],
        json!({"decode_tps": 0.0, "prefill_tps": 0.0, "prompt_tokens": 0, "completion_tokens": 0,
               "evaluated_tokens": 0, "cached_tokens": 0, "ttft_ms": 0.0, "reused_images": 0,
               "decoded_images": 0, "context_size": 0, "dropped_messages": 0})
    );
    assert_eq!(
        s["models"],
        json!([
            {"name": "a-gone.gguf", "size": 0, "projector": false},
            {"name": "b-mmproj.gguf", "size": 1039072, "projector": true,
             "architecture": "clip", "parameters": 844288, "quantization": "Q8_0"},
            {"name": "stories260K.gguf", "size": 1185376, "projector": false,
             "architecture": "llama", "context_length": 2048, "parameters": 292800,
             "quantization": "F32", "kv_bytes_per_token": 640},
        ])
    );
}

#[test]
fn load_unload_and_refusals() {
    let dir = stories_dir("load");
    std::fs::write(dir.join("garbage.gguf"), vec![7u8; 4096]).unwrap();
    // A valid header that promises tensor data the file does not have.
    let mut truncated = std::fs::read(shared_models().join("stories260K.gguf")).unwrap();
    truncated.truncate(truncated.len() / 2);
    std::fs::write(dir.join("truncated.gguf"), truncated).unwrap();
    std::fs::create_dir(dir.join("sub.gguf")).unwrap();
    let e = Engine::start(&dir);

    let r = e.load("missing.gguf");
    assert_eq!(r.status, 404);
    assert!(r.error().contains("missing.gguf"));
    for bad in ["../stories260K.gguf", ".hidden.gguf", "a/b.gguf", "", ".."] {
        let r = e.api("POST", "/api/load", Some(&json!({"name": bad}).to_string()));
        assert_eq!(r.status, 400, "{bad}: {}", r.text());
        assert!(!r.error().is_empty());
    }
    assert_eq!(e.load("sub.gguf").status, 400);
    assert_eq!(
        e.api("POST", "/api/load", Some(r#"{"name": 5}"#)).status,
        400
    );
    assert_eq!(e.api("POST", "/api/load", Some("[1]")).status, 400);
    assert_eq!(e.api("POST", "/api/load", Some("{not json")).status, 400);

    for name in ["garbage.gguf", "truncated.gguf"] {
        let r = e.load(name);
        assert_eq!(r.status, 500, "{}", r.text());
        assert!(r.error().contains(name), "{}", r.error());
    }
    // The engine is still healthy after refusing them.
    let r = e.load("stories260K.gguf");
    assert_eq!(r.status, 200, "{}", r.text());
    let s = e.state();
    assert_eq!(s["loaded"], "stories260K.gguf");
    assert_eq!(s["ctx"], 4096);
    assert_eq!(s["backend"], "cpu");
    assert_eq!(s["vision"], false);

    assert_eq!(e.api("POST", "/api/unload", Some("{}")).status, 200);
    assert!(e.state()["loaded"].is_null());
    assert_eq!(e.api("POST", "/api/unload", Some("{}")).status, 200);
    let r = e.chat(&json!({"messages": [user("hi")]}));
    assert_eq!(r.status, 409);
    assert!(!r.error().is_empty());
}

#[test]
fn streaming_and_plain_replies() {
    let e = Engine::start(&stories_dir("chat"));
    assert_eq!(e.load("stories260K.gguf").status, 200);
    let body = json!({"messages": [user("Once upon a time")], "stream": true, "temperature": 0, "max_tokens": 24});
    let r = e.chat(&body);
    assert_eq!(r.status, 200, "{}", r.text());
    assert!(r
        .header("content-type")
        .unwrap()
        .starts_with("text/event-stream"));
    assert!(r.header("access-control-allow-origin").is_none());
    let ev = r.events();
    assert_eq!(ev.last().unwrap(), "[DONE]");
    let first: Value = serde_json::from_str(&ev[0]).unwrap();
    assert_eq!(first["object"], "chat.completion.chunk");
    assert_eq!(first["choices"][0]["delta"]["role"], "assistant");
    let fin: Value = serde_json::from_str(&ev[ev.len() - 2]).unwrap();
    let reason = fin["choices"][0]["finish_reason"].as_str().unwrap();
    let usage = &fin["usage"];
    let completion = usage["completion_tokens"].as_i64().unwrap();
    assert!(completion > 0 && completion <= 24);
    assert_eq!(
        reason == "length",
        completion == 24,
        "{reason} {completion}"
    );
    assert!(usage["prompt_tokens"].as_i64().unwrap() > 0);
    assert_eq!(
        usage["total_tokens"].as_i64().unwrap(),
        usage["prompt_tokens"].as_i64().unwrap() + completion
    );
    // Middle events carry content only.
    for m in &ev[1..ev.len() - 2] {
        let v: Value = serde_json::from_str(m).unwrap();
        assert!(v["choices"][0]["delta"]["content"].is_string(), "{m}");
        assert!(v["choices"][0]["finish_reason"].is_null());
    }
    let streamed = deltas(&ev);
    assert!(!streamed.is_empty());

    // Greedy decoding is deterministic, streamed or not.
    let mut plain = body.clone();
    plain["stream"] = json!(false);
    let r = e.chat(&plain);
    assert_eq!(r.status, 200, "{}", r.text());
    let v = r.json();
    assert_eq!(v["object"], "chat.completion");
    assert_eq!(v["choices"][0]["message"]["role"], "assistant");
    assert_eq!(v["choices"][0]["message"]["content"], streamed.as_str());
    assert_eq!(v["usage"]["completion_tokens"], completion);
    let again = e.chat(&plain).json();
    assert_eq!(again["choices"][0]["message"]["content"], streamed.as_str());

    // max_tokens is honoured.
    let mut short = plain.clone();
    short["max_tokens"] = json!(3);
    let v = e.chat(&short).json();
    assert!(v["usage"]["completion_tokens"].as_i64().unwrap() <= 3);

    let last = &e.state()["last"];
    assert!(last["decode_tps"].as_f64().unwrap() > 0.0);
    assert!(last["prefill_tps"].as_f64().unwrap() >= 0.0);
    assert!(last["completion_tokens"].as_i64().unwrap() <= 3);

    // A stop string ends the reply before it.
    let full = e
        .chat(&json!({"messages": [user("Once upon a time")], "temperature": 0, "max_tokens": 24}))
        .json();
    let full_text = full["choices"][0]["message"]["content"]
        .as_str()
        .unwrap()
        .to_string();
    let word: String = full_text
        .split_whitespace()
        .nth(2)
        .unwrap_or("the")
        .chars()
        .filter(|c| c.is_alphabetic())
        .collect();
    assert!(!word.is_empty());
    let v = e.chat(&json!({"messages": [user("Once upon a time")], "temperature": 0, "max_tokens": 24, "stop": [word]})).json();
    let cut = v["choices"][0]["message"]["content"].as_str().unwrap();
    assert_eq!(v["choices"][0]["finish_reason"], "stop");
    assert_eq!(cut, &full_text[..full_text.find(&word).unwrap()]);

    // Sampling with temperature still produces text.
    let v = e.chat(&json!({"messages": [user("The dog")], "temperature": 0.9, "top_p": 0.9, "top_k": 40, "seed": 7, "max_tokens": 8})).json();
    assert!(v["choices"][0]["message"]["content"].is_string());

    // Malformed requests.
    for bad in [
        json!({}),
        json!({"messages": []}),
        json!({"messages": [{"role": "user", "content": 3}]}),
        json!({"messages": [user("x")], "temperature": "hot"}),
        json!({"messages": [user("x")], "max_tokens": -1}),
        json!({"messages": [user("x")], "stream": "yes"}),
        json!({"messages": [{"role": "user", "content": [{"type": "image_url", "image_url": {"url": "data:image/png;base64,iVBORw0KGgo="}}]}]}),
    ] {
        let r = e.chat(&bad);
        assert_eq!(r.status, 400, "{bad}: {}", r.text());
        assert!(!r.error().is_empty());
    }
}

#[test]
fn follow_up_turn_reuses_the_cache() {
    let e = Engine::start(&stories_dir("cache"));
    assert_eq!(e.load("stories260K.gguf").status, 200);
    let mut messages = vec![
        json!({"role": "system", "content": "Tell a story about a cat."}),
        user("Once upon a time there was a cat"),
    ];
    let v = e
        .chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 16}))
        .json();
    let reply = v["choices"][0]["message"]["content"]
        .as_str()
        .unwrap()
        .to_string();
    let first = e.state()["last"].clone();
    assert_eq!(first["evaluated_tokens"], first["prompt_tokens"]);
    let first_prompt = first["prompt_tokens"].as_i64().unwrap();

    messages.push(json!({"role": "assistant", "content": reply}));
    messages.push(user("The cat saw a bird"));
    let _ = e
        .chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 16}))
        .json();
    let second = e.state()["last"].clone();
    let prompt = second["prompt_tokens"].as_i64().unwrap();
    let evaluated = second["evaluated_tokens"].as_i64().unwrap();
    assert!(prompt > first_prompt);
    assert!(
        second["cached_tokens"].as_i64().unwrap() >= first_prompt - 1,
        "{second}"
    );
    assert!(evaluated < prompt - first_prompt + 20, "{second}");

    // An edited earlier message invalidates the cache from there on.
    messages[1] = user("Once upon a time there was a dog");
    let _ = e
        .chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 4}))
        .json();
    let third = e.state()["last"].clone();
    assert!(
        third["evaluated_tokens"].as_i64().unwrap() > evaluated,
        "{third}"
    );
}

#[test]
fn long_conversation_drops_oldest_turns() {
    let e = Engine::start(&stories_dir("overflow"));
    let r = e.api(
        "POST",
        "/api/load",
        Some(r#"{"name":"stories260K.gguf","gpu":false,"ctx":256}"#),
    );
    assert_eq!(r.status, 200, "{}", r.text());
    assert_eq!(e.state()["ctx"], 256);
    let mut messages = vec![json!({"role": "system", "content": "Be kind."})];
    for i in 0..30 {
        messages.push(user(&format!(
            "Turn {i}: the little girl went to the park and played with her friend all day long."
        )));
        messages
            .push(json!({"role": "assistant", "content": "They were very happy and went home."}));
    }
    messages.push(user("What happened next?"));
    let r = e.chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 16}));
    assert_eq!(r.status, 200, "{}", r.text());
    let v = r.json();
    let prompt = v["usage"]["prompt_tokens"].as_i64().unwrap();
    assert!(
        prompt > 0 && prompt + v["usage"]["completion_tokens"].as_i64().unwrap() <= 256,
        "{v}"
    );

    // A single message longer than the context still gets an answer.
    let huge = "word ".repeat(2000);
    let r = e.chat(&json!({"messages": [user(&huge)], "temperature": 0, "max_tokens": 8}));
    assert_eq!(r.status, 200, "{}", r.text());
}

#[test]
fn request_guards() {
    let e = Engine::start(&stories_dir("guards"));
    let host = e.host();
    let port = e.port;
    let get = |headers: &[(&str, &str)]| request(port, "GET", "/api/state", headers, None).unwrap();

    assert_eq!(get(&[("Host", &host), ("X-Vorn-App", "1")]).status, 200);
    assert_eq!(
        get(&[("Host", &format!("localhost:{port}")), ("X-Vorn-App", "1")]).status,
        200
    );
    // Content-Type on a GET, as the app sends it, is fine.
    assert_eq!(
        get(&[
            ("Host", &host),
            ("X-Vorn-App", "1"),
            ("Content-Type", "application/json")
        ])
        .status,
        200
    );
    for bad_host in [
        "evil.example:80".to_string(),
        format!("evil.example:{port}"),
        "127.0.0.1".into(),
        "".into(),
        format!("127.0.0.1:{}", port + 1),
    ] {
        let r = get(&[("Host", &bad_host), ("X-Vorn-App", "1")]);
        assert_eq!(r.status, 403, "{bad_host}");
        assert!(!r.error().is_empty());
    }
    let r = get(&[("X-Vorn-App", "1")]);
    assert_eq!(r.status, 403, "missing Host");

    let r = get(&[
        ("Host", &host),
        ("X-Vorn-App", "1"),
        ("Origin", "https://evil.example"),
    ]);
    assert_eq!(r.status, 403);
    assert!(r.header("access-control-allow-origin").is_none());
    assert_eq!(
        get(&[("Host", &host), ("X-Vorn-App", "1"), ("Origin", "null")]).status,
        403
    );
    assert_eq!(
        get(&[
            ("Host", &host),
            ("X-Vorn-App", "1"),
            ("Origin", &format!("http://127.0.0.1:{port}"))
        ])
        .status,
        200
    );

    assert_eq!(get(&[("Host", &host)]).status, 403, "missing X-Vorn-App");
    assert_eq!(get(&[("Host", &host), ("X-Vorn-App", "0")]).status, 403);

    let post = |path: &str, headers: &[(&str, &str)], body: &[u8]| {
        request(port, "POST", path, headers, Some(body)).unwrap()
    };
    let r = post(
        "/api/unload",
        &[
            ("Host", &host),
            ("X-Vorn-App", "1"),
            ("Content-Type", "text/plain"),
        ],
        b"{}",
    );
    assert_eq!(r.status, 415);
    assert!(!r.error().is_empty());
    let r = post(
        "/api/unload",
        &[("Host", &host), ("X-Vorn-App", "1")],
        b"{}",
    );
    assert_eq!(r.status, 415);
    let r = post(
        "/v1/chat/completions",
        &[
            ("Host", &host),
            ("Content-Type", "application/x-www-form-urlencoded"),
        ],
        b"a=b",
    );
    assert_eq!(r.status, 415);
    let r = post(
        "/v1/chat/completions",
        &[
            ("Host", "evil.example"),
            ("Content-Type", "application/json"),
        ],
        b"{}",
    );
    assert_eq!(r.status, 403);
    // The chat endpoint does not need X-Vorn-App (the app does not send it).
    let r = post(
        "/v1/chat/completions",
        &[("Host", &host), ("Content-Type", "application/json")],
        b"{\"messages\":[]}",
    );
    assert_eq!(r.status, 400);

    // Bodies above 256 MiB are refused, declared or streamed.
    let mut s = std::net::TcpStream::connect(("127.0.0.1", port)).unwrap();
    write!(s, "POST /api/load HTTP/1.1\r\nHost: {host}\r\nX-Vorn-App: 1\r\nContent-Type: application/json\r\nContent-Length: 300000000\r\nConnection: close\r\n\r\n").unwrap();
    let mut raw = Vec::new();
    let _ = s.read_to_end(&mut raw);
    let r = parse_response(&raw).unwrap();
    assert_eq!(r.status, 413);
    assert!(!r.error().is_empty());

    let mut s = std::net::TcpStream::connect(("127.0.0.1", port)).unwrap();
    write!(s, "POST /api/load HTTP/1.1\r\nHost: {host}\r\nX-Vorn-App: 1\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n").unwrap();
    let block = vec![b' '; 1 << 20];
    let mut sent = 0usize;
    while sent <= 257 << 20 {
        if write!(s, "{:x}\r\n", block.len()).is_err()
            || s.write_all(&block).is_err()
            || s.write_all(b"\r\n").is_err()
        {
            break;
        }
        sent += block.len();
    }
    let _ = s.write_all(b"0\r\n\r\n");
    let mut raw = Vec::new();
    let _ = s.read_to_end(&mut raw);
    assert_eq!(parse_response(&raw).unwrap().status, 413);

    // Unknown paths and methods still answer with JSON errors.
    let r = request(port, "GET", "/nothing", &[("Host", &host)], None).unwrap();
    assert_eq!(r.status, 404);
    assert!(!r.error().is_empty());
    let r = request(
        port,
        "DELETE",
        "/api/state",
        &[("Host", &host), ("X-Vorn-App", "1")],
        None,
    )
    .unwrap();
    assert_eq!(r.status, 405);
    assert!(!r.error().is_empty());
}

#[test]
fn client_disconnect_stops_generation() {
    let e = Engine::start(&stories_dir("disconnect"));
    assert_eq!(e.load("stories260K.gguf").status, 200);
    // Greedy decoding of this prompt runs to the end of the context (4096)
    // when left alone.
    let body = json!({"messages": [user("Once upon a time")], "stream": true, "temperature": 0})
        .to_string();
    let mut s = std::net::TcpStream::connect(("127.0.0.1", e.port)).unwrap();
    write!(
        s,
        "POST /v1/chat/completions HTTP/1.1\r\nHost: {}\r\nContent-Type: application/json\r\nContent-Length: {}\r\n\r\n{body}",
        e.host(),
        body.len()
    )
    .unwrap();
    let mut buf = [0u8; 512];
    let n = s.read(&mut buf).unwrap();
    assert!(n > 0);
    drop(s);
    // The aborted run ends and records its figures.
    let deadline = Instant::now() + Duration::from_secs(120);
    let last = loop {
        let last = e.state()["last"].clone();
        if last["prompt_tokens"].as_i64().unwrap() > 0 {
            break last;
        }
        assert!(Instant::now() < deadline, "generation did not stop: {last}");
        std::thread::sleep(Duration::from_millis(20));
    };
    assert!(last["completion_tokens"].as_i64().unwrap() < 2000, "{last}");
    let v = e
        .chat(&json!({"messages": [user("Hi")], "temperature": 0, "max_tokens": 2}))
        .json();
    assert!(v["choices"][0]["message"]["content"].is_string());
}

#[test]
fn sigterm_exits_cleanly() {
    let e = Engine::start(&stories_dir("sigterm"));
    assert_eq!(e.load("stories260K.gguf").status, 200);
    let mut e = e;
    // SAFETY: kill takes plain integers and touches no memory; the pid is
    // our own child, not yet reaped.
    unsafe { libc::kill(e.child.id() as i32, libc::SIGTERM) };
    let deadline = Instant::now() + Duration::from_secs(20);
    loop {
        if let Some(status) = e.child.try_wait().unwrap() {
            assert_eq!(status.code(), Some(0));
            break;
        }
        assert!(Instant::now() < deadline, "engine did not exit");
        std::thread::sleep(Duration::from_millis(50));
    }
}

#[test]
fn command_line_errors() {
    let bin = env!("CARGO_BIN_EXE_vorn-engine");
    let out = std::process::Command::new(bin)
        .arg("--version")
        .output()
        .unwrap();
    assert!(out.status.success());
    assert!(String::from_utf8_lossy(&out.stdout).contains(env!("CARGO_PKG_VERSION")));
    let out = std::process::Command::new(bin)
        .args(["app", "--port", "nope"])
        .output()
        .unwrap();
    assert!(!out.status.success());
    assert!(!out.stderr.is_empty());
    // A port that is taken.
    let taken = std::net::TcpListener::bind("127.0.0.1:0").unwrap();
    let port = taken.local_addr().unwrap().port().to_string();
    let dir = temp_dir("cli");
    let out = std::process::Command::new(bin)
        .args(["app", "--port", &port, "--models-dir"])
        .arg(&dir)
        .output()
        .unwrap();
    assert!(!out.status.success());
    assert!(String::from_utf8_lossy(&out.stderr).contains(&port));
    let _ = std::fs::remove_dir_all(&dir);
}

#[test]
fn engine_exits_when_its_parent_dies() {
    let dir = temp_dir("orphan");
    let port = free_port();
    // A shell stands in for the app: it starts the engine and is then killed.
    let mut shell = std::process::Command::new("sh")
        .arg("-c")
        .arg(format!(
            "\"$0\" app --port {port} --models-dir \"$1\" --no-open & echo $!; wait"
        ))
        .arg(env!("CARGO_BIN_EXE_vorn-engine"))
        .arg(&dir)
        .stdout(std::process::Stdio::piped())
        .spawn()
        .unwrap();
    let mut line = String::new();
    std::io::BufRead::read_line(
        &mut std::io::BufReader::new(shell.stdout.take().unwrap()),
        &mut line,
    )
    .unwrap();
    let pid: i32 = line.trim().parse().unwrap();
    // SAFETY: signal 0 only asks whether the process exists; nothing is sent
    // and no memory is touched.
    let alive = |pid: i32| unsafe { libc::kill(pid, 0) } == 0 && !is_zombie(pid);
    let deadline = Instant::now() + Duration::from_secs(20);
    while request(
        port,
        "GET",
        "/api/state",
        &[("Host", &format!("127.0.0.1:{port}")), ("X-Vorn-App", "1")],
        None,
    )
    .is_err()
    {
        assert!(Instant::now() < deadline, "engine did not start");
        std::thread::sleep(Duration::from_millis(50));
    }
    assert!(alive(pid));
    shell.kill().unwrap();
    shell.wait().unwrap();
    let deadline = Instant::now() + Duration::from_secs(10);
    while alive(pid) {
        assert!(Instant::now() < deadline, "engine outlived its parent");
        std::thread::sleep(Duration::from_millis(50));
    }
    let _ = std::fs::remove_dir_all(&dir);
}

fn is_zombie(pid: i32) -> bool {
    std::fs::read_to_string(format!("/proc/{pid}/stat"))
        .map(|s| {
            s.rsplit(')')
                .next()
                .unwrap_or("")
                .trim_start()
                .starts_with('Z')
        })
        .unwrap_or(true)
}

#[test]
fn overflowing_conversation_keeps_a_stable_cut() {
    let e = Engine::start(&stories_dir("stable-cut"));
    let r = e.api(
        "POST",
        "/api/load",
        Some(r#"{"name":"stories260K.gguf","gpu":false,"ctx":512}"#),
    );
    assert_eq!(r.status, 200, "{}", r.text());
    let mut messages = vec![json!({"role": "system", "content": "Be kind."})];
    let mut cached_after_overflow = Vec::new();
    for i in 0..24 {
        messages.push(user(&format!(
            "Turn {i}: the girl went to the park and played."
        )));
        let v = e
            .chat(&json!({"messages": messages, "temperature": 0, "max_tokens": 12}))
            .json();
        let reply = v["choices"][0]["message"]["content"]
            .as_str()
            .unwrap()
            .to_string();
        messages.push(json!({"role": "assistant", "content": reply}));
        let last = e.state()["last"].clone();
        let prompt = last["prompt_tokens"].as_i64().unwrap();
        assert!(prompt + 12 <= 512, "{last}");
        if i >= 12 {
            cached_after_overflow.push(last["cached_tokens"].as_i64().unwrap());
        }
    }
    // Once cut, most later turns still find their start in the cache.
    let reused = cached_after_overflow.iter().filter(|c| **c > 100).count();
    assert!(
        reused * 2 >= cached_after_overflow.len(),
        "{cached_after_overflow:?}"
    );
}

#[test]
fn mutated_model_files_never_crash_the_engine() {
    let dir = temp_dir("mutated");
    let e = Engine::start(&dir);
    let original = std::fs::read(shared_models().join("stories260K.gguf")).unwrap();
    let mut x: u64 = 0x2545_f491_4f6c_dd1d;
    let mut next = move || {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        x
    };
    // A vocabulary with a duplicated token makes llama.cpp abort outright.
    let mut dup = original.clone();
    let needle = [&6u64.to_le_bytes()[..], b"<0x01>"].concat();
    let at = dup
        .windows(needle.len())
        .position(|w| w == needle.as_slice())
        .expect("byte tokens")
        + 8;
    dup[at..at + 6].copy_from_slice(b"<0x00>");
    std::fs::write(dir.join("dup.gguf"), &dup).unwrap();
    let r = e.api(
        "POST",
        "/api/load",
        Some(r#"{"name":"dup.gguf","gpu":false,"ctx":256}"#),
    );
    assert_eq!(r.status, 500, "{}", r.text());
    assert!(r.error().contains("dup.gguf"));

    let mut refused = 0;
    for i in 0..40 {
        let mut bytes = original.clone();
        for _ in 0..1 + next() % 4 {
            // Mostly the header and vocabulary, where llama.cpp trusts the file.
            let at = (next() % 60_000) as usize;
            bytes[at] = next() as u8;
        }
        let name = format!("m{i}.gguf");
        std::fs::write(dir.join(&name), &bytes).unwrap();
        let r = e.api(
            "POST",
            "/api/load",
            Some(&json!({"name": name, "gpu": false, "ctx": 256}).to_string()),
        );
        match r.status {
            200 => {
                let c = e.chat(&json!({"messages": [user("Hi")], "max_tokens": 3}));
                assert!(c.status == 200 || c.status == 500, "{}", c.text());
            }
            500 => {
                refused += 1;
                assert!(r.error().contains(&name));
            }
            other => panic!("unexpected {other}: {}", r.text()),
        }
        std::fs::remove_file(dir.join(&name)).unwrap();
    }
    assert!(refused > 0);
    // Still alive and answering.
    assert_eq!(e.state()["version"], env!("CARGO_PKG_VERSION"));
}
