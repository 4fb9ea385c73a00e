#include "core/zstd_frames.hpp"

#include <cstdlib>
#include <new>

#include <zstd.h>

namespace velmora::core {

FrameDictionary::FrameDictionary(const uint8_t* data, size_t size) {
    if (size == 0) return;
    dict_ = ZSTD_createDDict(data, size);
    if (dict_ == nullptr) throw std::bad_alloc();
}

FrameDictionary::~FrameDictionary() { ZSTD_freeDDict(dict_); }

FrameDecoder::FrameDecoder(const FrameDictionary* dictionary)
    : context_(ZSTD_createDCtx()), dictionary_(dictionary ? dictionary->get() : nullptr) {
    if (context_ == nullptr) throw std::bad_alloc();
}

FrameDecoder::~FrameDecoder() {
    ZSTD_freeDCtx(context_);
    std::free(buffer_);
}

std::string claimed_size(const uint8_t* body, size_t body_size, unsigned long long& size) noexcept {
    size = ZSTD_getFrameContentSize(body, body_size);
    if (size == ZSTD_CONTENTSIZE_ERROR) return "not a zstd frame";
    if (size == ZSTD_CONTENTSIZE_UNKNOWN) return "the frame does not give its size";
    return {};
}

std::string FrameDecoder::decode(const uint8_t* body, size_t body_size, const uint8_t*& text, size_t& size) {
    unsigned long long claimed = 0;
    std::string damage = claimed_size(body, body_size, claimed);
    if (!damage.empty()) return damage;
    // One spare byte, so that an empty frame still has a buffer to decode into.
    if (claimed >= capacity_) {
        void* grown = claimed < SIZE_MAX ? std::malloc(static_cast<size_t>(claimed) + 1) : nullptr;
        if (grown == nullptr) return "the frame claims " + std::to_string(claimed) + " bytes, more than there is";
        std::free(buffer_);
        buffer_ = static_cast<uint8_t*>(grown);
        capacity_ = static_cast<size_t>(claimed) + 1;
    }
    damage = decode_into(body, body_size, buffer_, static_cast<size_t>(claimed));
    if (!damage.empty()) return damage;
    text = buffer_;
    size = static_cast<size_t>(claimed);
    return {};
}

std::string FrameDecoder::decode_into(const uint8_t* body, size_t body_size, uint8_t* out, size_t size) {
    const size_t got = dictionary_ != nullptr
        ? ZSTD_decompress_usingDDict(context_, out, size, body, body_size, dictionary_)
        : ZSTD_decompressDCtx(context_, out, size, body, body_size);
    if (ZSTD_isError(got)) return ZSTD_getErrorName(got);
    if (got != size) return "the frame holds another size than it claims";
    return {};
}

}  // namespace velmora::core
