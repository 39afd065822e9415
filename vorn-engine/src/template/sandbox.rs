//! One chat template in a sandboxed minijinja environment: no loader, no
//! file or environment access, a fuel limit against runaway loops and a
//! bound on what it writes. It is rendered with the variables that models'
//! own tooling passes, and with the same block whitespace rules.

use super::clock::{strftime, Moment};
use super::TemplateMessage;
use minijinja::{context, Environment, Error, ErrorKind, Value};
use serde::Serialize;
use std::io::Write;

/// Instructions one render may run. Real templates spend 30 to 70 per
/// message, so this allows conversations of over 100,000 messages, and a
/// template that loops forever is stopped within a fraction of a second.
const FUEL: u64 = 10_000_000;
const RECURSION_LIMIT: usize = 64;
/// What a render may write besides four times the conversation's own text.
const OUTPUT_ALLOWANCE: usize = 16 << 20;

/// Why a render produced no prompt.
#[derive(Debug, Clone, PartialEq, Eq)]
pub(super) enum Failure {
    /// The template does not compile.
    Invalid(String),
    /// The template refused the conversation or failed on it: its message.
    Refused(String),
    /// It ran out of fuel.
    TooLong,
    /// It wrote more than its bound.
    TooLarge,
}

impl Failure {
    /// Whether another shape of the same conversation may render: not when
    /// the template cannot compile or hit a limit.
    pub(super) fn worth_retrying(&self) -> bool {
        matches!(self, Failure::Refused(_))
    }

    /// The text the client reads.
    pub(super) fn describe(&self) -> String {
        const CANNOT: &str = "The model's chat template could not render the conversation";
        match self {
            Failure::Invalid(why) => format!("The model's chat template is invalid: {why}"),
            Failure::Refused(why) => format!("{CANNOT}: \"{why}\""),
            Failure::TooLong => format!("{CANNOT}: it ran too long and was stopped."),
            Failure::TooLarge => format!("{CANNOT}: it wrote too much and was stopped."),
        }
    }
}

fn raise_exception(message: String) -> Result<Value, Error> {
    Err(Error::new(ErrorKind::InvalidOperation, message))
}

/// The template's own words for an error, or minijinja's.
fn reason(error: &Error) -> String {
    match error.detail() {
        Some(detail) => detail.to_string(),
        None => error.kind().to_string(),
    }
}

pub(super) struct Sandbox<'s> {
    env: Environment<'s>,
    bos: &'s str,
    eos: &'s str,
    /// Fixed for the sandbox's life, so every attempt sees the same date.
    today: Moment,
}

impl<'s> Sandbox<'s> {
    pub(super) fn new(source: &'s str, bos: &'s str, eos: &'s str) -> Result<Self, Failure> {
        let today = Moment::now();
        let mut env = Environment::new();
        env.set_fuel(Some(FUEL));
        env.set_recursion_limit(RECURSION_LIMIT);
        // As the models' own tooling renders them.
        env.set_trim_blocks(true);
        env.set_lstrip_blocks(true);
        env.set_unknown_method_callback(minijinja_contrib::pycompat::unknown_method_callback);
        env.add_function("raise_exception", raise_exception);
        env.add_function("strftime_now", move |format: String| {
            strftime(&today, &format)
        });
        env.add_template("chat", source)
            .map_err(|e| Failure::Invalid(reason(&e)))?;
        Ok(Sandbox {
            env,
            bos,
            eos,
            today,
        })
    }

    /// Renders the conversation followed by the opening of the assistant's
    /// turn. `parts`: contents go in as lists of text parts.
    pub(super) fn render(
        &self,
        messages: &[TemplateMessage],
        parts: bool,
    ) -> Result<String, Failure> {
        let template = self
            .env
            .get_template("chat")
            .map_err(|e| Failure::Invalid(reason(&e)))?;
        let text_size: usize = messages.iter().map(|m| m.content.len()).sum();
        let mut out = BoundedOutput {
            bytes: Vec::new(),
            limit: OUTPUT_ALLOWANCE.saturating_add(text_size.saturating_mul(4)),
            exceeded: false,
        };
        let view: Vec<MessageView> = messages
            .iter()
            .map(|m| MessageView::new(m, parts))
            .collect();
        // `tools` and `enable_thinking` stay undefined: templates test for
        // that and then behave as their makers meant without them.
        let variables = context! {
            messages => view,
            add_generation_prompt => true,
            bos_token => self.bos,
            eos_token => self.eos,
            date_string => strftime(&self.today, "%d %b %Y"),
            datetime => strftime(&self.today, "%Y-%m-%d"),
        };
        match template.render_captured_to(variables, &mut out) {
            Ok(_) => String::from_utf8(out.bytes)
                .map_err(|_| Failure::Refused("the output is not UTF-8".into())),
            Err(_) if out.exceeded => Err(Failure::TooLarge),
            Err(e) if e.kind() == ErrorKind::OutOfFuel => Err(Failure::TooLong),
            Err(e) => Err(Failure::Refused(reason(&e))),
        }
    }
}

/// A message as the template sees it.
#[derive(Serialize)]
struct MessageView<'a> {
    role: &'a str,
    content: ContentView<'a>,
}

#[derive(Serialize)]
#[serde(untagged)]
enum ContentView<'a> {
    Text(&'a str),
    Parts([TextPart<'a>; 1]),
}

#[derive(Serialize)]
struct TextPart<'a> {
    #[serde(rename = "type")]
    kind: &'static str,
    text: &'a str,
}

impl<'a> MessageView<'a> {
    fn new(message: &'a TemplateMessage, parts: bool) -> Self {
        let content = if parts {
            ContentView::Parts([TextPart {
                kind: "text",
                text: &message.content,
            }])
        } else {
            ContentView::Text(&message.content)
        };
        MessageView {
            role: &message.role,
            content,
        }
    }
}

/// Collects a render's output and fails it past `limit` bytes.
struct BoundedOutput {
    bytes: Vec<u8>,
    limit: usize,
    exceeded: bool,
}

impl Write for BoundedOutput {
    fn write(&mut self, buf: &[u8]) -> std::io::Result<usize> {
        if self.bytes.len() + buf.len() > self.limit {
            self.exceeded = true;
            return Err(std::io::Error::other("template output too large"));
        }
        self.bytes.extend_from_slice(buf);
        Ok(buf.len())
    }

    fn flush(&mut self) -> std::io::Result<()> {
        Ok(())
    }
}
