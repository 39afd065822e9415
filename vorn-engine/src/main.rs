//! vorn-engine: the local inference server that the Vorn app launches.

use axum::serve::ListenerExt as _;
use vorn_engine::{cpu_backend, engine, server};

use std::path::PathBuf;

const USAGE: &str = "usage: vorn-engine app --port <port> --models-dir <path> [--no-open]\n       vorn-engine --version";

struct Args {
    port: u16,
    dir: PathBuf,
}

fn parse_args(args: &[String]) -> Result<Option<Args>, String> {
    if args.iter().any(|arg| arg == "--version" || arg == "-V") {
        return Ok(None);
    }
    let mut words = args.iter();
    match words.next().map(String::as_str) {
        Some("app") => {}
        Some(other) => return Err(format!("unknown mode {other:?}")),
        None => return Err("missing mode".into()),
    }
    let mut port = None;
    let mut dir = None;
    while let Some(word) = words.next() {
        match word.as_str() {
            "--port" => {
                let value = words.next().ok_or("--port needs a value")?;
                let number: u16 = value
                    .parse()
                    .map_err(|_| format!("invalid port {value:?}"))?;
                if number == 0 {
                    return Err("invalid port 0".into());
                }
                port = Some(number);
            }
            "--models-dir" => {
                let value = words.next().ok_or("--models-dir needs a value")?;
                if value.is_empty() {
                    return Err("--models-dir is empty".into());
                }
                dir = Some(PathBuf::from(value));
            }
            "--no-open" => {}
            other => return Err(format!("unknown argument {other:?}")),
        }
    }
    Ok(Some(Args {
        port: port.ok_or("--port is required")?,
        dir: dir.ok_or("--models-dir is required")?,
    }))
}

/// The engine must never outlive the app.
fn watch_parent() {
    #[cfg(target_os = "linux")]
    // SAFETY: prctl with PR_SET_PDEATHSIG takes plain integers and touches no
    // memory of ours; it only asks the kernel to signal us when the parent dies.
    unsafe {
        libc::prctl(
            libc::PR_SET_PDEATHSIG,
            libc::SIGTERM as libc::c_ulong,
            0,
            0,
            0,
        );
    }
    #[cfg(unix)]
    {
        // SAFETY: getppid takes no arguments, cannot fail and touches no memory.
        let parent = unsafe { libc::getppid() };
        // SAFETY: as above.
        let check = move || unsafe { libc::getppid() } != parent;
        if check() {
            // The app died before the signal was armed.
            std::process::exit(0);
        }
        std::thread::Builder::new()
            .name("parent-watch".into())
            .spawn(move || loop {
                std::thread::sleep(std::time::Duration::from_millis(500));
                if check() {
                    // SAFETY: sends SIGTERM to this very process, whose handler
                    // (tokio's) shuts the engine down; no memory is involved.
                    unsafe { libc::kill(libc::getpid(), libc::SIGTERM) };
                    std::thread::sleep(std::time::Duration::from_secs(5));
                    std::process::exit(0);
                }
            })
            .ok();
    }
}

async fn shutdown_signal() {
    #[cfg(unix)]
    {
        use tokio::signal::unix::{signal, SignalKind};
        let mut term = signal(SignalKind::terminate()).expect("SIGTERM handler");
        let mut int = signal(SignalKind::interrupt()).expect("SIGINT handler");
        tokio::select! {
            _ = term.recv() => {}
            _ = int.recv() => {}
        }
    }
    #[cfg(not(unix))]
    {
        let _ = tokio::signal::ctrl_c().await;
    }
}

fn main() {
    let args: Vec<String> = std::env::args().skip(1).collect();
    cpu_backend::load();
    if (2..=3).contains(&args.len()) && args[0] == engine::PROBE_FLAG {
        // Runs in a child process so that a file which makes llama.cpp
        // abort takes down only the probe, never the engine.
        let projector = args.get(2).map(std::path::Path::new);
        std::process::exit(engine::probe_main(
            std::path::Path::new(&args[1]),
            projector,
        ));
    }
    let args = match parse_args(&args) {
        Ok(Some(parsed)) => parsed,
        Ok(None) => {
            println!("vorn-engine {}", env!("CARGO_PKG_VERSION"));
            return;
        }
        Err(e) => {
            eprintln!("vorn-engine: {e}\n{USAGE}");
            std::process::exit(2);
        }
    };
    watch_parent();
    let _ = std::fs::create_dir_all(&args.dir);

    let runtime = match tokio::runtime::Builder::new_multi_thread()
        .worker_threads(2)
        .enable_all()
        .build()
    {
        Ok(runtime) => runtime,
        Err(e) => {
            eprintln!("vorn-engine: cannot start runtime: {e}");
            std::process::exit(1);
        }
    };
    let code = runtime.block_on(run(args));
    // llama.cpp threads may still be inside a computation; skip global
    // destructors instead of racing them.
    #[cfg(unix)]
    // SAFETY: _exit ends the process at once; nothing after this point needs
    // to run, and skipping destructors is the point (see above).
    unsafe {
        libc::_exit(code)
    }
    #[cfg(not(unix))]
    std::process::exit(code)
}

async fn run(args: Args) -> i32 {
    let listener = match tokio::net::TcpListener::bind(("127.0.0.1", args.port)).await {
        Ok(listener) => listener,
        Err(e) => {
            eprintln!("vorn-engine: cannot listen on 127.0.0.1:{}: {e}", args.port);
            return 1;
        }
    };
    let app = server::App::new(args.dir.clone(), args.port);
    let router = server::router(app.clone());
    // Replies stream as many small writes; with Nagle's algorithm each one after the
    // first can wait for the app's delayed acknowledgement, up to 40 ms.
    let listener = listener.tap_io(|stream| {
        if let Err(e) = stream.set_nodelay(true) {
            eprintln!("vorn-engine: cannot set TCP_NODELAY: {e}");
        }
    });
    let server = axum::serve(listener, router);
    tokio::select! {
        served = server => {
            if let Err(e) = served {
                eprintln!("vorn-engine: server failed: {e}");
                return 1;
            }
        }
        _ = shutdown_signal() => {}
    }
    app.shut_down().await;
    0
}

#[cfg(test)]
mod tests {
    use super::*;

    fn words(text: &[&str]) -> Vec<String> {
        text.iter().map(|s| s.to_string()).collect()
    }

    #[test]
    fn arguments() {
        let parsed = parse_args(&words(&[
            "app",
            "--port",
            "4000",
            "--models-dir",
            "/m",
            "--no-open",
        ]))
        .unwrap()
        .unwrap();
        assert_eq!(parsed.port, 4000);
        assert_eq!(parsed.dir, PathBuf::from("/m"));
        assert!(parse_args(&words(&["--version"])).unwrap().is_none());
        for bad in [
            &["app"][..],
            &["app", "--port", "x", "--models-dir", "/m"],
            &["app", "--port", "0", "--models-dir", "/m"],
            &["app", "--port", "70000", "--models-dir", "/m"],
            &["serve", "--port", "1", "--models-dir", "/m"],
            &["app", "--port", "1", "--models-dir", "/m", "--bogus"],
            &["app", "--port", "1"],
        ] {
            assert!(parse_args(&words(bad)).is_err(), "{bad:?} accepted");
        }
    }
}
