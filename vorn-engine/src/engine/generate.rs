//! One reply: fit and evaluate the prompt, then sample tokens until the
//! model stops, a stop string or the limit is reached, or the client leaves.

use super::conversation::reply_reserve;
use super::prefill::{Key, PrefillError};
use super::reply_text::ReplyText;
use super::session::Session;
use super::{ChatJob, ContextUse, EngineError, FinishReason, Sampling, Usage};
use crate::llama::Batch;
use crate::state::{lock, RunMetrics};
use crate::template::reasoning::ReasoningSplitter;
use llama_cpp_2::sampling::LlamaSampler;
use std::sync::atomic::Ordering;
use std::time::Instant;

fn sampler(sampling: &Sampling) -> LlamaSampler {
    if sampling.temperature <= 0.0 {
        return LlamaSampler::greedy();
    }
    let mut chain = Vec::new();
    if sampling.top_k > 0 {
        chain.push(LlamaSampler::top_k(sampling.top_k));
    }
    if sampling.top_p > 0.0 && sampling.top_p < 1.0 {
        chain.push(LlamaSampler::top_p(sampling.top_p, 1));
    }
    if sampling.min_p > 0.0 {
        chain.push(LlamaSampler::min_p(sampling.min_p, 1));
    }
    chain.push(LlamaSampler::temp(sampling.temperature));
    chain.push(LlamaSampler::dist(sampling.seed));
    LlamaSampler::chain_simple(chain)
}

/// Tokens per second, or zero when nothing was measured.
fn rate(tokens: i64, seconds: f64) -> f64 {
    if seconds > 0.0 && tokens > 0 {
        tokens as f64 / seconds
    } else {
        0.0
    }
}

impl Session<'_> {
    pub(super) fn chat(&mut self, job: ChatJob) {
        let t_start = Instant::now();
        self.reused_images = 0;
        self.decoded_images = 0;
        if job.request.messages.iter().any(|m| !m.images.is_empty()) && self.projector.is_none() {
            job.events.fail(EngineError::ImagesNotAccepted);
            return;
        }
        let max_tokens = job
            .request
            .max_tokens
            .map(|m| m as usize)
            .unwrap_or(usize::MAX);
        let reserve = reply_reserve(self.context_size, job.request.max_tokens);
        let (prompt, context) = match self.fit(&job.request.messages, reserve) {
            Ok(fitted) => {
                self.cut_anchor = fitted.anchor;
                let context = ContextUse {
                    size: self.context_size,
                    dropped_messages: fitted.dropped,
                };
                (fitted.prompt, context)
            }
            Err(e) => {
                job.events.fail(e);
                return;
            }
        };
        let prompt_tokens = prompt.len() as i64;
        if prompt_tokens == 0 {
            job.events.fail(EngineError::EmptyConversation);
            return;
        }
        if !job.events.started() {
            return;
        }

        let t_prefill = Instant::now();
        let prefilled = match self.prefill(&prompt, &|| job.cancelled()) {
            Ok(p) => p,
            Err(PrefillError::Failed(e)) => {
                job.events.fail(e);
                return;
            }
            Err(PrefillError::Cancelled) => {
                // Cancelled while reading the prompt; still record the run so
                // the figures never describe an older one.
                *lock(&self.shared.last) = RunMetrics {
                    prompt_tokens,
                    ttft_ms: t_start.elapsed().as_secs_f64() * 1000.0,
                    ..RunMetrics::with_context(context)
                };
                return;
            }
        };
        let prefill_secs = t_prefill.elapsed().as_secs_f64();
        let ttft = t_start.elapsed().as_secs_f64();

        let t_decode = Instant::now();
        let Some(decoded) = self.decode_reply(&job, prefilled.next_position, max_tokens) else {
            return;
        };
        let decode_secs = t_decode.elapsed().as_secs_f64();
        let evaluated = prefilled.evaluated as i64;
        *lock(&self.shared.last) = RunMetrics {
            decode_tps: rate(decoded.tokens, decode_secs),
            prefill_tps: rate(evaluated, prefill_secs),
            prompt_tokens,
            completion_tokens: decoded.tokens,
            evaluated_tokens: evaluated,
            cached_tokens: prompt_tokens - evaluated,
            ttft_ms: ttft * 1000.0,
            reused_images: self.reused_images,
            decoded_images: self.decoded_images,
            ..RunMetrics::with_context(context)
        };
        self.history = job.request.messages;
        self.history_reply = decoded.text;
        job.events.done(
            decoded.finish_reason,
            Usage {
                prompt_tokens,
                completion_tokens: decoded.tokens,
            },
            context,
        );
    }

    /// Samples tokens from `position` on and sends the text as it comes.
    /// None when llama.cpp failed; the client has been told.
    fn decode_reply(
        &mut self,
        job: &ChatJob,
        mut position: usize,
        max_tokens: usize,
    ) -> Option<Decoded> {
        let context_size = self.context_size as usize;
        let mut sampler = sampler(&job.request.sampling);
        let vocab = self.model.vocab();
        let mut stops = job.request.stop.clone();
        stops.extend(self.template.implicit_stops());
        let reasoning = self
            .template
            .marks_reasoning()
            .then(|| ReasoningSplitter::new(self.prompt_opens_reasoning));
        let mut text = ReplyText::new(stops, reasoning);
        let mut batch = Batch::new(1);
        let mut tokens = 0i64;
        let mut finish_reason = FinishReason::Length;
        let mut piece = Vec::with_capacity(32);
        loop {
            if job.cancelled() || self.shared.shutting_down.load(Ordering::Relaxed) {
                finish_reason = FinishReason::Cancelled;
                break;
            }
            if tokens as usize >= max_tokens {
                break;
            }
            if position >= context_size {
                break;
            }
            let Some(token) = self.ctx.sample(&mut sampler) else {
                self.fail_generation(job, "no output to sample from".into());
                return None;
            };
            if vocab.is_eog(token) || self.turn_ends.contains(&token) {
                finish_reason = FinishReason::Stop;
                break;
            }
            tokens += 1;
            piece.clear();
            let special = self.reasoning_tags.contains(&token);
            vocab.token_to_piece_into(token, &mut piece, special, None);
            let step = text.push(&piece);
            // Sending fails when the client has gone.
            if !step.pieces.into_iter().all(|p| job.events.piece(p)) {
                finish_reason = FinishReason::Cancelled;
                break;
            }
            if step.stopped {
                finish_reason = FinishReason::Stop;
                // The stop string stays out of the cache's record of the
                // reply; the next turn re-renders it anyway.
                break;
            }
            if tokens as usize >= max_tokens || position + 1 >= context_size {
                // No need to evaluate a token we will never continue from.
                break;
            }
            batch.clear();
            if batch.add(token, position as i32, true).is_err() {
                break;
            }
            if let Err(code) = self.ctx.decode(&batch) {
                self.fail_generation(job, format!("llama.cpp code {code}"));
                return None;
            }
            self.cached.push(Key::Token(token.0));
            position += 1;
        }
        if finish_reason != FinishReason::Cancelled {
            for piece in text.finish() {
                job.events.piece(piece);
            }
        }
        Some(Decoded {
            text: text.into_text(),
            tokens,
            finish_reason,
        })
    }

    /// Tells the client and forgets the cache, whose state is unknown now.
    fn fail_generation(&mut self, job: &ChatJob, why: String) {
        job.events.fail(EngineError::GenerationFailed(why));
        self.cached.clear();
        self.ctx.clear();
    }
}

/// A reply as generated.
struct Decoded {
    /// The answer as sent, without reasoning and stop strings.
    text: String,
    tokens: i64,
    finish_reason: FinishReason,
}
