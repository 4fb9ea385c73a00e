// Decoding the index's chunk bodies: zstd frames, each written with the index's trained
// dictionary (or none, when the index has none), through libzstd's C API.
//
// A FrameDictionary is read-only once made and may be shared by any number of threads; a
// FrameDecoder holds the working state of one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct ZSTD_DDict_s;
struct ZSTD_DCtx_s;

namespace velmora::core {

class FrameDictionary {
  public:
    // Empty `data`: frames were written without a dictionary. Throws std::bad_alloc when
    // libzstd cannot make one.
    FrameDictionary(const uint8_t* data, size_t size);
    ~FrameDictionary();
    FrameDictionary(const FrameDictionary&) = delete;
    FrameDictionary& operator=(const FrameDictionary&) = delete;

    const ZSTD_DDict_s* get() const noexcept { return dict_; }

  private:
    ZSTD_DDict_s* dict_ = nullptr;
};

// The size of the text a frame claims to hold, as its header records it: empty on success,
// else why the frame cannot be one of ours (the writer always records the content size).
std::string claimed_size(const uint8_t* body, size_t body_size, unsigned long long& size) noexcept;

class FrameDecoder {
  public:
    // `dictionary` may be null (frames without one); it must outlive the decoder.
    explicit FrameDecoder(const FrameDictionary* dictionary);
    ~FrameDecoder();
    FrameDecoder(const FrameDecoder&) = delete;
    FrameDecoder& operator=(const FrameDecoder&) = delete;

    // Decodes one whole frame: its text is text[0, size), valid until the next call. Empty
    // on success, else what is wrong with the frame (a frame that claims more memory than
    // there is, too: a damaged header may claim any size).
    std::string decode(const uint8_t* body, size_t body_size, const uint8_t*& text, size_t& size);

    // Decodes one whole frame into out[0, size), where `size` is the frame's claimed_size.
    // Empty on success, else what is wrong with the frame.
    std::string decode_into(const uint8_t* body, size_t body_size, uint8_t* out, size_t size);

  private:
    ZSTD_DCtx_s* context_;
    const ZSTD_DDict_s* dictionary_;
    // Grown as needed and kept for the next frame. malloc, not new: a failed allocation is
    // an answer here, and new cannot give it under AddressSanitizer.
    uint8_t* buffer_ = nullptr;
    size_t capacity_ = 0;
};

}  // namespace velmora::core
