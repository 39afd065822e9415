//! Chat prompt rendering.
//!
//! Templates come from model files, so they run in minijinja with no loader,
//! no file or environment access, and a fuel limit against runaway loops.

use minijinja::{context, Environment, Error, ErrorKind, Value};
use serde::Serialize;

/// Where an image goes in the rendered prompt; the multimodal tokenizer
/// replaces it with the image's embeddings.
pub const MEDIA_MARKER: &str = "<__media__>";

#[derive(Debug, Clone, Serialize)]
pub struct TemplateMessage {
    pub role: String,
    pub content: String,
}

pub struct ChatTemplate {
    source: Option<String>,
    bos: String,
    eos: String,
}

fn raise_exception(msg: String) -> Result<Value, Error> {
    Err(Error::new(ErrorKind::InvalidOperation, msg))
}

fn strftime_now(_fmt: String) -> String {
    // Only a few templates print today's date; a fixed form keeps prompts
    // (and so the prompt cache) stable within a day.
    let secs = std::time::SystemTime::now()
        .duration_since(std::time::UNIX_EPOCH)
        .map(|d| d.as_secs())
        .unwrap_or(0);
    let days = (secs / 86_400) as i64;
    let (y, m, d) = civil_from_days(days);
    const MONTHS: [&str; 12] = [
        "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec",
    ];
    format!("{:02} {} {}", d, MONTHS[(m - 1) as usize], y)
}

fn civil_from_days(z: i64) -> (i64, u32, u32) {
    let z = z + 719_468;
    let era = z.div_euclid(146_097);
    let doe = z.rem_euclid(146_097);
    let yoe = (doe - doe / 1460 + doe / 36_524 - doe / 146_096) / 365;
    let y = yoe + era * 400;
    let doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    let mp = (5 * doy + 2) / 153;
    let d = (doy - (153 * mp + 2) / 5 + 1) as u32;
    let m = if mp < 10 { mp + 3 } else { mp - 9 } as u32;
    (if m <= 2 { y + 1 } else { y }, m, d)
}

impl ChatTemplate {
    pub fn new(source: Option<String>, bos: String, eos: String) -> Self {
        let source = source.filter(|s| !s.trim().is_empty());
        Self { source, bos, eos }
    }

    /// Text markers that end a turn in the generic format; a model that was
    /// not trained on it may spell them out instead of stopping.
    pub fn implicit_stops(&self) -> Vec<String> {
        match self.source {
            Some(_) => Vec::new(),
            None => vec!["<|im_end|>".into(), "<|im_start|>".into()],
        }
    }

    /// Renders the conversation followed by the opening of the assistant's turn.
    pub fn render(&self, messages: &[TemplateMessage]) -> Result<String, String> {
        match &self.source {
            Some(src) => self.render_jinja(src, messages),
            None => Ok(chatml(messages)),
        }
    }

    fn render_jinja(&self, src: &str, messages: &[TemplateMessage]) -> Result<String, String> {
        let mut env = Environment::new();
        env.set_fuel(Some(50_000_000));
        env.set_recursion_limit(64);
        env.set_unknown_method_callback(minijinja_contrib::pycompat::unknown_method_callback);
        env.add_function("raise_exception", raise_exception);
        env.add_function("strftime_now", strftime_now);
        env.add_template("chat", src)
            .map_err(|e| format!("the model's chat template is invalid: {e}"))?;
        let tmpl = env.get_template("chat").map_err(|e| e.to_string())?;
        tmpl.render(context! {
            messages => messages,
            add_generation_prompt => true,
            bos_token => self.bos.clone(),
            eos_token => self.eos.clone(),
            tools => Value::UNDEFINED,
        })
        .map_err(|e| format!("the model's chat template failed: {e}"))
    }
}

/// The generic prompt format for models that bring no template of their own.
pub fn chatml(messages: &[TemplateMessage]) -> String {
    let mut out = String::new();
    for m in messages {
        out.push_str("<|im_start|>");
        out.push_str(&m.role);
        out.push('\n');
        out.push_str(&m.content);
        out.push_str("<|im_end|>\n");
    }
    out.push_str("<|im_start|>assistant\n");
    out
}

#[cfg(test)]
mod tests {
    use super::*;

    fn msgs() -> Vec<TemplateMessage> {
        vec![
            TemplateMessage {
                role: "system".into(),
                content: "Be brief.".into(),
            },
            TemplateMessage {
                role: "user".into(),
                content: "Hi".into(),
            },
        ]
    }

    #[test]
    fn chatml_fallback() {
        let t = ChatTemplate::new(None, String::new(), String::new());
        assert_eq!(
            t.render(&msgs()).unwrap(),
            "<|im_start|>system\nBe brief.<|im_end|>\n<|im_start|>user\nHi<|im_end|>\n<|im_start|>assistant\n"
        );
    }

    #[test]
    fn generic_format_stops_at_its_markers() {
        let t = ChatTemplate::new(None, String::new(), String::new());
        assert!(t.implicit_stops().contains(&"<|im_end|>".to_string()));
        let t = ChatTemplate::new(Some("{{ messages }}".into()), String::new(), String::new());
        assert!(t.implicit_stops().is_empty());
    }

    #[test]
    fn renders_jinja_with_python_methods() {
        let src = "{{ bos_token }}{% for m in messages %}<|{{ m.role }}|>{{ m.content.strip() }}<|end|>{% endfor %}{% if add_generation_prompt %}<|assistant|>{% endif %}";
        let t = ChatTemplate::new(Some(src.into()), "<s>".into(), "</s>".into());
        assert_eq!(
            t.render(&msgs()).unwrap(),
            "<s><|system|>Be brief.<|end|><|user|>Hi<|end|><|assistant|>"
        );
    }

    #[test]
    fn template_errors_are_reported() {
        let t = ChatTemplate::new(
            Some("{{ raise_exception('no system') }}".into()),
            String::new(),
            String::new(),
        );
        assert!(t.render(&msgs()).unwrap_err().contains("no system"));
        let t = ChatTemplate::new(Some("{% for %}".into()), String::new(), String::new());
        assert!(t.render(&msgs()).is_err());
    }

    #[test]
    fn sandbox_has_no_file_access_and_bounded_loops() {
        let t = ChatTemplate::new(
            Some("{% include '/etc/passwd' %}".into()),
            String::new(),
            String::new(),
        );
        assert!(t.render(&msgs()).is_err());
        let t = ChatTemplate::new(
            Some(
                "{% for a in range(100000) %}{% for b in range(100000) %}x{% endfor %}{% endfor %}"
                    .into(),
            ),
            String::new(),
            String::new(),
        );
        assert!(t.render(&msgs()).is_err());
    }

    #[test]
    fn dates() {
        assert_eq!(civil_from_days(0), (1970, 1, 1));
        assert_eq!(civil_from_days(19_723), (2024, 1, 1));
    }
}
