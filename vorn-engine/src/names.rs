//! Rules for the file names that requests may name inside the models folder.

/// A plain file name: one path component, no hidden or parent entries.
pub fn is_plain_file_name(name: &str) -> bool {
    !name.is_empty()
        && name.len() <= 255
        && name != "."
        && name != ".."
        && !name.starts_with('.')
        && !name.contains("..")
        && !name
            .chars()
            .any(|c| c == '/' || c == '\\' || c == ':' || c.is_control())
}

pub fn has_gguf_extension(name: &str) -> bool {
    name.len() > 5 && name.to_ascii_lowercase().ends_with(".gguf")
}

/// A name a download may be saved under.
pub fn is_download_name(name: &str) -> bool {
    is_plain_file_name(name) && has_gguf_extension(name)
}

/// The file name without its `.gguf` extension, used to pair projectors.
pub fn stem(name: &str) -> &str {
    if has_gguf_extension(name) {
        &name[..name.len() - 5]
    } else {
        name
    }
}

/// How well a projector's name matches a model's: names sharing the model's
/// stem (once "mmproj" is set aside) score highest, then the longest common
/// beginning.
pub fn projector_affinity(model: &str, projector: &str) -> usize {
    let model_stem = stem(model).to_ascii_lowercase();
    let pstem = stem(projector).to_ascii_lowercase();
    let core = pstem
        .replace("mmproj-", "")
        .replace("-mmproj", "")
        .replace("mmproj", "");
    let core = core.trim_matches(|c| c == '-' || c == '_' || c == '.');
    let shared = model_stem
        .chars()
        .zip(core.chars())
        .take_while(|(a, b)| a == b)
        .count();
    if !core.is_empty() && (model_stem.starts_with(core) || core.starts_with(&model_stem)) {
        10_000 + shared
    } else {
        shared
    }
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn plain_names() {
        assert!(is_plain_file_name("model.gguf"));
        assert!(is_plain_file_name("My Model-Q4_K_M.gguf"));
        assert!(is_plain_file_name("é.gguf"));
        for bad in [
            "",
            ".",
            "..",
            ".hidden.gguf",
            "a/b.gguf",
            "..\\x.gguf",
            "a\\b.gguf",
            "../x.gguf",
            "x..gguf",
            "a\0b.gguf",
            "c:x.gguf",
            "line\nbreak.gguf",
        ] {
            assert!(!is_plain_file_name(bad), "{bad:?} accepted");
        }
        assert!(!is_plain_file_name(&"a".repeat(300)));
    }

    #[test]
    fn download_names() {
        assert!(is_download_name("model.gguf"));
        assert!(is_download_name("Model.GGUF"));
        assert!(!is_download_name("model.bin"));
        assert!(!is_download_name(".gguf"));
        assert!(!is_download_name("model.gguf.part"));
        assert!(!is_download_name("sub/model.gguf"));
    }

    #[test]
    fn projector_pairing_prefers_the_model_stem() {
        let m = "gemma-3-4b-it-Q4_K_M.gguf";
        let a = projector_affinity(m, "mmproj-gemma-3-4b-it-f16.gguf");
        let b = projector_affinity(m, "mmproj-gemma-3-12b-it-f16.gguf");
        let c = projector_affinity(m, "other-mmproj.gguf");
        assert!(a > b && b > c, "{a} {b} {c}");
        let exact = projector_affinity("tinygemma3.gguf", "mmproj-tinygemma3.gguf");
        let near = projector_affinity("tinygemma3.gguf", "mmproj-tinygemma.gguf");
        assert!(exact >= 10_000 && near >= 10_000);
        assert!(projector_affinity("tinygemma3.gguf", "tinygemma3-mmproj.gguf") >= 10_000);
        assert!(projector_affinity("llava.gguf", "mmproj.gguf") < 10_000);
    }

    #[test]
    fn stems() {
        assert_eq!(stem("gemma-3.gguf"), "gemma-3");
        assert_eq!(stem("x.GGUF"), "x");
        assert_eq!(stem("x.bin"), "x.bin");
    }
}
