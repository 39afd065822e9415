// Bare llama.cpp, run the way vorn-engine runs a model on the CPU, for the engine
// benchmark's reference figures: the same llama.cpp libraries and CPU variant (from the
// engine's folder), the same context and batch sizes, threads and default context
// settings, a fresh prompt of the same length for prefill, and greedy decoding timed
// as the engine times it. Prints one JSON line.
//
//   llama_reference --model M.gguf --backends DIR [--cpu-variant NAME] --threads N
//       --prompt-tokens N [--decode-tokens 32] [--ctx 4096] [--repeat 3]

#include <ggml-backend.h>
#include <llama.h>

#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Options {
    std::string model;
    std::string backends;
    std::string cpuVariant;
    int threads = 0;
    int promptTokens = 0;
    int decodeTokens = 32;
    int ctx = 4096;
    int repeat = 3;
};

[[noreturn]] void fail(const std::string &message)
{
    std::fprintf(stderr, "llama_reference: %s\n", message.c_str());
    std::exit(1);
}

Options parse(int argc, char **argv)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string key = argv[i];
        if (i + 1 >= argc)
            fail("missing value for " + key);
        const std::string value = argv[++i];
        if (key == "--model")
            o.model = value;
        else if (key == "--backends")
            o.backends = value;
        else if (key == "--cpu-variant")
            o.cpuVariant = value;
        else if (key == "--threads")
            o.threads = std::atoi(value.c_str());
        else if (key == "--prompt-tokens")
            o.promptTokens = std::atoi(value.c_str());
        else if (key == "--decode-tokens")
            o.decodeTokens = std::atoi(value.c_str());
        else if (key == "--ctx")
            o.ctx = std::atoi(value.c_str());
        else if (key == "--repeat")
            o.repeat = std::atoi(value.c_str());
        else
            fail("unknown option " + key);
    }
    if (o.model.empty() || o.backends.empty() || o.threads <= 0 || o.promptTokens <= 0 || o.decodeTokens <= 0
        || o.ctx <= 0 || o.repeat <= 0)
        fail("usage: llama_reference --model M.gguf --backends DIR [--cpu-variant NAME] --threads N "
             "--prompt-tokens N [--decode-tokens N] [--ctx N] [--repeat N]");
    return o;
}

void quiet(ggml_log_level, const char *, void *) {}

// The CPU variant file that holds the registered CPU backend's code, as the engine reports it.
std::string loadedCpuVariant()
{
    ggml_backend_reg_t reg = ggml_backend_reg_by_name("CPU");
    void *code = reg ? ggml_backend_reg_get_proc_address(reg, "ggml_backend_get_features") : nullptr;
    Dl_info info{};
    if (!code || !dladdr(code, &info) || !info.dli_fname)
        return "";
    std::string name = info.dli_fname;
    name = name.substr(name.find_last_of('/') + 1);
    const std::string prefix = "libggml-cpu-", suffix = ".so";
    if (name.rfind(prefix, 0) == 0 && name.size() > prefix.size() + suffix.size())
        name = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
    return name;
}

double seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::vector<llama_token> tokenize(const llama_vocab *vocab, const std::string &text)
{
    std::vector<llama_token> tokens(text.size() + 8);
    int n = llama_tokenize(vocab, text.data(), int(text.size()), tokens.data(), int(tokens.size()), true, false);
    if (n < 0)
        fail("cannot tokenize the prompt");
    tokens.resize(n);
    return tokens;
}

// Evaluates tokens from position `start` in batches of n_batch, logits for the last only.
void evaluate(llama_context *ctx, llama_batch &batch, int nBatch, const std::vector<llama_token> &tokens, int start)
{
    for (size_t at = 0; at < tokens.size(); at += nBatch) {
        const size_t end = std::min(tokens.size(), at + nBatch);
        batch.n_tokens = 0;
        for (size_t i = at; i < end; ++i) {
            const int k = batch.n_tokens++;
            batch.token[k] = tokens[i];
            batch.pos[k] = start + int(i);
            batch.n_seq_id[k] = 1;
            batch.seq_id[k][0] = 0;
            batch.logits[k] = i + 1 == tokens.size();
        }
        if (llama_decode(ctx, batch) != 0)
            fail("llama_decode failed");
    }
}

} // namespace

int main(int argc, char **argv)
{
    const Options o = parse(argc, argv);
    if (!std::getenv("VORN_ENGINE_LOG"))
        llama_log_set(quiet, nullptr);

    if (o.cpuVariant.empty()) {
        ggml_backend_load_all_from_path(o.backends.c_str());
    } else if (!ggml_backend_load((o.backends + "/libggml-cpu-" + o.cpuVariant + ".so").c_str())) {
        fail("cannot load CPU variant " + o.cpuVariant + " from " + o.backends);
    }
    llama_backend_init();

    llama_model_params modelParams = llama_model_default_params();
    modelParams.n_gpu_layers = 0;
    llama_model *model = llama_model_load_from_file(o.model.c_str(), modelParams);
    if (!model)
        fail("cannot load " + o.model);
    const llama_vocab *vocab = llama_model_get_vocab(model);

    // The engine's context: n_batch = n_ubatch = min(512, ctx), llama.cpp's defaults otherwise.
    const int nBatch = std::min(512, o.ctx);
    llama_context_params contextParams = llama_context_default_params();
    contextParams.n_ctx = o.ctx;
    contextParams.n_batch = nBatch;
    contextParams.n_ubatch = nBatch;
    contextParams.n_threads = o.threads;
    contextParams.n_threads_batch = o.threads;
    llama_context *ctx = llama_init_from_model(model, contextParams);
    if (!ctx)
        fail("cannot create a context");
    llama_batch batch = llama_batch_init(nBatch, 0, 1);
    llama_sampler *sampler = llama_sampler_init_greedy();

    // Prefill: a fresh prompt of exactly the engine's evaluated length.
    std::string text;
    std::vector<llama_token> prompt;
    while (int(prompt.size()) < o.promptTokens) {
        text += " the little girl went to the park with her dog";
        prompt = tokenize(vocab, text);
    }
    prompt.resize(o.promptTokens);
    if (o.promptTokens + o.decodeTokens + 64 > o.ctx)
        fail("the prompt does not fit the context");
    std::vector<double> prefill, decode;
    for (int r = 0; r < o.repeat; ++r) {
        llama_memory_clear(llama_get_memory(ctx), true);
        const auto started = std::chrono::steady_clock::now();
        evaluate(ctx, batch, nBatch, prompt, 0);
        prefill.push_back(o.promptTokens / seconds(started));
    }

    // Decode: a short prompt, then greedy tokens; the clock starts before the first
    // sample, and the last sampled token is not evaluated, as in the engine.
    int generated = 0;
    for (int r = 0; r < o.repeat; ++r) {
        llama_memory_clear(llama_get_memory(ctx), true);
        const std::vector<llama_token> start = tokenize(vocab, "Once upon a time, story " + std::to_string(r));
        evaluate(ctx, batch, nBatch, start, 0);
        int pos = int(start.size());
        int completion = 0;
        const auto started = std::chrono::steady_clock::now();
        while (completion < o.decodeTokens) {
            const llama_token token = llama_sampler_sample(sampler, ctx, -1);
            if (llama_vocab_is_eog(vocab, token))
                break;
            ++completion;
            if (completion >= o.decodeTokens)
                break;
            evaluate(ctx, batch, nBatch, {token}, pos++);
        }
        const double elapsed = seconds(started);
        if (completion > 0)
            decode.push_back(completion / elapsed);
        generated = completion;
    }
    if (decode.empty())
        fail("the model generated nothing");

    std::printf("{\"reference_decode_tps\": %.3f, \"reference_prefill_tps\": %.3f, \"reference_prompt_tokens\": %d, "
                "\"reference_decode_tokens\": %d, \"reference_threads\": %d, \"reference_cpu_variant\": \"%s\"}\n",
                median(decode), median(prefill), o.promptTokens, generated, o.threads, loadedCpuVariant().c_str());

    llama_sampler_free(sampler);
    llama_batch_free(batch);
    llama_free(ctx);
    llama_model_free(model);
    llama_backend_free();
    return 0;
}
