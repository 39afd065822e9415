//! Conversations reshaped for templates that refuse them as they are: some
//! have no system role, some demand strictly alternating user and assistant
//! turns (an edited or failed turn can leave two user messages in a row).

use super::reasoning::without_reasoning;
use super::TemplateMessage;

/// What separates texts that are joined into one message.
const JOIN: &str = "\n\n";

/// The conversation as templates see it: earlier answers without their
/// reasoning, which models are not shown again.
pub(super) fn prepared(messages: &[TemplateMessage]) -> Vec<TemplateMessage> {
    messages
        .iter()
        .map(|m| TemplateMessage {
            role: m.role.clone(),
            content: if m.role == "assistant" {
                without_reasoning(&m.content).to_string()
            } else {
                m.content.clone()
            },
        })
        .collect()
}

/// The reshaped conversations to try, in this order, once the template
/// refused the conversation as it is: neighbours of the same role merged,
/// the system text folded into the user's message, both. Shapes equal to
/// one before them are left out; the same conversation always goes through
/// the same attempts, so it always renders the same way.
pub(super) fn alternatives(messages: &[TemplateMessage]) -> Vec<Vec<TemplateMessage>> {
    let folded = fold_system(messages);
    let folded_and_merged = merge_neighbours(&folded);
    let candidates = [merge_neighbours(messages), folded, folded_and_merged];
    let mut shapes: Vec<Vec<TemplateMessage>> = Vec::new();
    for candidate in candidates {
        if candidate != messages && !shapes.contains(&candidate) {
            shapes.push(candidate);
        }
    }
    shapes
}

/// Consecutive messages of the same role become one, joined by a blank line.
fn merge_neighbours(messages: &[TemplateMessage]) -> Vec<TemplateMessage> {
    let mut merged: Vec<TemplateMessage> = Vec::with_capacity(messages.len());
    for message in messages {
        match merged.last_mut() {
            Some(last) if last.role == message.role => {
                last.content.push_str(JOIN);
                last.content.push_str(&message.content);
            }
            _ => merged.push(message.clone()),
        }
    }
    merged
}

/// System texts go at the head of the next user message, separated by a
/// blank line; one that no user message follows becomes a user message.
fn fold_system(messages: &[TemplateMessage]) -> Vec<TemplateMessage> {
    let mut folded = Vec::with_capacity(messages.len());
    let mut pending: Vec<&str> = Vec::new();
    for message in messages {
        match message.role.as_str() {
            "system" => pending.push(&message.content),
            "user" if !pending.is_empty() => {
                pending.push(&message.content);
                folded.push(TemplateMessage {
                    role: "user".into(),
                    content: pending.join(JOIN),
                });
                pending.clear();
            }
            _ => folded.push(message.clone()),
        }
    }
    if !pending.is_empty() {
        folded.push(TemplateMessage {
            role: "user".into(),
            content: pending.join(JOIN),
        });
    }
    folded
}

#[cfg(test)]
mod tests {
    use super::*;

    fn conversation(turns: &[(&str, &str)]) -> Vec<TemplateMessage> {
        turns
            .iter()
            .map(|(role, content)| TemplateMessage {
                role: role.to_string(),
                content: content.to_string(),
            })
            .collect()
    }

    #[test]
    fn shapes_are_tried_lightest_first_and_only_when_they_differ() {
        let sent = conversation(&[("system", "S"), ("user", "a"), ("user", "b")]);
        assert_eq!(
            alternatives(&sent),
            [
                conversation(&[("system", "S"), ("user", "a\n\nb")]),
                conversation(&[("user", "S\n\na"), ("user", "b")]),
                conversation(&[("user", "S\n\na\n\nb")]),
            ]
        );
        let plain = conversation(&[("user", "a"), ("assistant", "b")]);
        assert!(alternatives(&plain).is_empty());
        let pair = conversation(&[("user", "a"), ("user", "b")]);
        assert_eq!(alternatives(&pair), [conversation(&[("user", "a\n\nb")])]);
    }

    #[test]
    fn system_texts_go_to_the_next_user_message() {
        let sent = conversation(&[
            ("user", "a"),
            ("system", "S"),
            ("assistant", "b"),
            ("user", "c"),
            ("system", "T"),
        ]);
        assert_eq!(
            fold_system(&sent),
            conversation(&[
                ("user", "a"),
                ("assistant", "b"),
                ("user", "S\n\nc"),
                ("user", "T")
            ])
        );
    }

    #[test]
    fn only_earlier_answers_lose_their_reasoning() {
        let sent = conversation(&[
            ("user", "<think>mine</think>q"),
            ("assistant", "<think>r</think>\n\nA"),
        ]);
        assert_eq!(
            prepared(&sent),
            conversation(&[("user", "<think>mine</think>q"), ("assistant", "A")])
        );
    }
}
