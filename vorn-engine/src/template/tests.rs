use super::*;

fn message(role: &str, content: &str) -> TemplateMessage {
    TemplateMessage {
        role: role.into(),
        content: content.into(),
    }
}

fn msgs() -> Vec<TemplateMessage> {
    vec![message("system", "Be brief."), message("user", "Hi")]
}

fn template(source: &str) -> ChatTemplate {
    ChatTemplate::new(Some(source.into()), "<s>".into(), "</s>".into())
}

/// A plain format that shows every message as role: content.
const PLAIN: &str = "{% for m in messages %}{{ m.role }}: {{ m.content }}\n{% endfor %}assistant:";

/// Gemma 2's rules, in our own words: no system role, strict alternation.
const STRICT: &str = "{{ bos_token }}{% if messages[0]['role'] == 'system' %}{{ raise_exception('System role not supported') }}{% endif %}\
    {% for m in messages %}{% if (m['role'] == 'user') != (loop.index0 % 2 == 0) %}{{ raise_exception('Conversation roles must alternate user/assistant/user/assistant/...') }}{% endif %}\
    <turn>{{ m.role }}\n{{ m.content }}<end>\n{% endfor %}{{ '<turn>assistant\n' }}";

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
    assert!(template("{{ messages }}").implicit_stops().is_empty());
}

#[test]
fn renders_jinja_with_python_methods() {
    let src = "{{ bos_token }}{% for m in messages %}<|{{ m.role }}|>{{ m.content.strip() }}<|end|>{% endfor %}{% if add_generation_prompt %}<|assistant|>{% endif %}";
    assert_eq!(
        template(src).render(&msgs()).unwrap(),
        "<s><|system|>Be brief.<|end|><|user|>Hi<|end|><|assistant|>"
    );
}

#[test]
fn blocks_take_their_line_breaks_and_indentation_with_them() {
    let src = "{% for m in messages %}\n    {% if m.role == 'user' %}\n[{{ m.content }}]\n    {% endif %}\n{% endfor %}\n";
    assert_eq!(template(src).render(&msgs()).unwrap(), "[Hi]\n");
}

#[test]
fn a_system_message_is_folded_into_the_first_user_message() {
    let src = "{% if messages[0].role == 'system' %}{{ raise_exception('System role not supported') }}{% endif %}\
        {% for m in messages %}<{{ m.role }}>{{ m.content }}{% endfor %}";
    let t = template(src);
    let conversation = [
        message("system", "Be brief."),
        message("user", "Hi"),
        message("assistant", "Hello."),
        message("user", "Bye"),
    ];
    assert_eq!(
        t.render(&conversation).unwrap(),
        "<user>Be brief.\n\nHi<assistant>Hello.<user>Bye"
    );
    // Without a system message nothing changes.
    assert_eq!(t.render(&conversation[1..2]).unwrap(), "<user>Hi");
}

#[test]
fn neighbours_of_one_role_are_merged_for_templates_that_demand_alternation() {
    let t = template(STRICT);
    let edited = [
        message("user", "Once"),
        message("assistant", "Yes."),
        message("user", "A dog?"),
        message("user", "No, a cat."),
    ];
    assert_eq!(
        t.render(&edited).unwrap(),
        "<s><turn>user\nOnce<end>\n<turn>assistant\nYes.<end>\n<turn>user\nA dog?\n\nNo, a cat.<end>\n<turn>assistant\n"
    );
    // A system message and two user messages: both changes at once.
    let both = [
        message("system", "Be brief."),
        message("user", "Hi"),
        message("user", "Hello?"),
    ];
    assert_eq!(
        t.render(&both).unwrap(),
        "<s><turn>user\nBe brief.\n\nHi\n\nHello?<end>\n<turn>assistant\n"
    );
    // Renders of the same conversation are identical.
    assert_eq!(t.render(&both).unwrap(), t.render(&both).unwrap());
}

#[test]
fn template_errors_quote_the_template() {
    let t = template("{{ raise_exception('no system') }}");
    assert_eq!(
        t.render(&msgs()).unwrap_err(),
        "The model's chat template could not render the conversation: \"no system\""
    );
    // Two users in a row, refused for another reason: the message is the
    // one given for the conversation as it was sent.
    let t = template("{% if messages | length > 1 %}{{ raise_exception('only one message, please') }}{% endif %}x");
    let error = t
        .render(&[
            message("user", "a"),
            message("user", "b"),
            message("assistant", "c"),
        ])
        .unwrap_err();
    assert!(error.ends_with("\"only one message, please\""), "{error}");
    let error = template("{% for %}").render(&msgs()).unwrap_err();
    assert!(
        error.starts_with("The model's chat template is invalid: "),
        "{error}"
    );
    let error = template("{{ 1 + messages }}").render(&msgs()).unwrap_err();
    assert!(
        error.contains("could not render the conversation"),
        "{error}"
    );
}

#[test]
fn sandbox_has_no_file_access_and_bounded_work() {
    assert!(template("{% include '/etc/passwd' %}")
        .render(&msgs())
        .is_err());
    assert!(template("{% import '/etc/passwd' as p %}")
        .render(&msgs())
        .is_err());
    assert!(template("{{ env }}{{ environ }}")
        .render(&msgs())
        .unwrap()
        .is_empty());
    let looping = template(
        "{% for a in range(100000) %}{% for b in range(100000) %}x{% endfor %}{% endfor %}",
    );
    let error = looping.render(&msgs()).unwrap_err();
    assert!(error.contains("ran too long"), "{error}");
    let flooding = template("{% for a in range(100000) %}{{ 'x' * 1000000 }}{% endfor %}");
    let error = flooding.render(&msgs()).unwrap_err();
    assert!(error.contains("wrote too much"), "{error}");
    let deep = template("{% macro f(n) %}{{ f(n + 1) }}{% endmacro %}{{ f(0) }}");
    assert!(deep.render(&msgs()).is_err());
}

#[test]
fn dates_and_the_variables_templates_expect() {
    let src = "{{ strftime_now('%Y-%m-%d') }}|{{ strftime_now('%d %b %Y') }}|{{ date_string }}|{{ datetime }}|\
        {{ tools is defined }}|{{ enable_thinking is defined }}|{{ add_generation_prompt }}|{{ bos_token }}{{ eos_token }}";
    let text = template(src).render(&msgs()).unwrap();
    let fields: Vec<&str> = text.split('|').collect();
    let (iso, short) = (fields[0], fields[1]);
    assert_eq!(iso.len(), 10, "{text}");
    assert_eq!(fields[3], iso);
    assert_eq!(fields[2], short);
    // "26 Jul 2024": the day, the month's name, the year of the ISO form.
    assert_eq!(&short[..2], &iso[8..]);
    assert_eq!(&short[7..], &iso[..4]);
    assert_eq!(&fields[4..], ["False", "False", "True", "<s></s>"]);
    // A template that adds a date to a text.
    let t = template("{{ 'Today is ' + datetime + '.' }}");
    assert!(t.render(&msgs()).unwrap().starts_with("Today is 20"));
}

#[test]
fn contents_come_as_parts_to_templates_that_iterate_them() {
    let iterating = template(
        "{% for m in messages %}{{ m.role }}:{% for part in m.content %}{% if part.type == 'text' %}{{ part.text }}{% endif %}{% endfor %};{% endfor %}",
    );
    assert_eq!(
        iterating.render(&msgs()).unwrap(),
        "system:Be brief.;user:Hi;"
    );
    let either = template(
        "{% for m in messages %}{% if m.content is string %}{{ m.content }}{% else %}{{ m.content[0].text }}{% endif %};{% endfor %}",
    );
    assert_eq!(either.render(&msgs()).unwrap(), "Be brief.;Hi;");
    let marker = format!("{MEDIA_MARKER}\nWhat is this?");
    let text = iterating.render(&[message("user", &marker)]).unwrap();
    assert_eq!(text.matches(MEDIA_MARKER).count(), 1);
}

#[test]
fn earlier_reasoning_never_reaches_the_prompt() {
    let conversation = [
        message("user", "Hi"),
        message(
            "assistant",
            "<think>\nThe user greets me.\n</think>\n\nHello.",
        ),
        message("user", "<think>is just text here</think>"),
    ];
    let text = template(PLAIN).render(&conversation).unwrap();
    assert_eq!(
        text,
        "user: Hi\nassistant: Hello.\nuser: <think>is just text here</think>\nassistant:"
    );
    let chatml = ChatTemplate::new(None, String::new(), String::new());
    assert!(!chatml.render(&conversation).unwrap().contains("greets"));
}

#[test]
fn reasoning_is_marked_by_the_template() {
    assert!(!template(PLAIN).marks_reasoning());
    assert!(template("{{ '<think>\\n' }}").marks_reasoning());
    assert!(!ChatTemplate::new(None, String::new(), String::new()).marks_reasoning());
}

#[test]
fn turn_ends_come_from_what_follows_an_answer() {
    let t = template("{% for m in messages %}<|im_start|>{{ m.role }}\n{{ m.content }}<|im_end|>\n{% endfor %}<|im_start|>assistant\n");
    assert_eq!(
        t.turn_end_texts(),
        ["<|im_end|>\n<|im_start|>user\n", "<|im_end|>"]
    );
    // The strict template needs the sample conversation as it is.
    assert_eq!(t.turn_end_texts().len(), 2);
    assert_eq!(template(STRICT).turn_end_texts(), ["<end>\n<turn>user\n"]);
    // Nothing between an answer and the next question.
    assert!(
        template("{% for m in messages %}{{ m.content }}{% endfor %}")
            .turn_end_texts()
            .is_empty()
    );
}
