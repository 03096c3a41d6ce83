// The sample format converter. A locked wrapper around one AudioConverterRef:
// here the linear PCM path of KROLinearPCMConverter.h, which says what it
// converts and which statuses it gives. Every failure is a
// KROAudioConverterError with that status as its code, so the four-character
// failure reasons of the string table
// ("KROAudioConverterError_failureReason_fmt?") apply.
//
// The lock serialises every conversion (pull function included), every
// property write, reset and disposal; property reads take none. Conversions
// allocate nothing, so the file handlers may call them from any thread.
//
// Operations are named by their first keyword. Those that share it and that C++
// could not tell apart, or that would pick the wrong overload for a
// KROAudioBufferList, join their keywords:
//   convertInput:inFrames:toOutput:outFrames:error:  convertInputInFrames(...)
//   convertInput:inBytes:toOutput:outBytes:error:    convertInputInBytes(...)
//   convertInput:inBytes:toAudioBuffer:error:        convertInput(..., KROAudioBufferList&)
//   convertBuffer:toBuffer:error:                    convertBuffer(source, destination)
//   convertBuffer:toAudioBuffer:error:               convertBufferToAudioBuffer(...)
//   convertAudioBuffer:toBuffer:error:               convertAudioBuffer(...)
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "KROAudioBufferList.h"
#include "KROAudioStreamDescription.h"
#include "KROError.h"
#include "KROLinearPCMConverter.h"
#include "KROPropertyList.h"

class KROAudioConverter : public KROObject {
    KRO_DECLARE_CLASS(KROAudioConverter)

public:
    // Use initWithSourceFormat or converterWithSourceFormat.
    KROAudioConverter() = default;
    KROAudioConverter(const KROAudioConverter&) = delete;
    KROAudioConverter& operator=(const KROAudioConverter&) = delete;
    // Takes the lock first, so that it waits for a running conversion.
    ~KROAudioConverter() override;

    // AudioConverterNew with the two records; a non-zero status fails.
    bool initWithSourceFormat(const KROAudioStreamDescription& source,
                              const KROAudioStreamDescription& destination,
                              KROErrorPtr* error = nullptr);
    static std::shared_ptr<KROAudioConverter>
    converterWithSourceFormat(const KROAudioStreamDescription& source,
                              const KROAudioStreamDescription& destination,
                              KROErrorPtr* error = nullptr);

    // The same object, or a KROAudioConverter that passes isEqualToConverter.
    bool isEqual(const KROObject& other) const override;
    // Compares only the input descriptions; output formats play no part, on
    // purpose: two converters that read the same input count as one.
    bool isEqualToConverter(const KROAudioConverter& other) const;
    std::size_t hash() const override;

    // Read only from outside.
    AudioConverterRef converter() const { return converter_.get(); }

    bool reset(KROErrorPtr* error = nullptr);

    // New objects read from the converter, with no lock; none before init.
    std::shared_ptr<KROAudioStreamDescription> inputDescription() const;
    std::shared_ptr<KROAudioStreamDescription> outputDescription() const;

    // Read with no lock; a failed read yields 0 and no report.
    std::uint32_t quality() const;
    std::uint32_t bitrate() const;
    std::uint32_t maximumOutputPacketSize() const;
    std::uint32_t ditherType() const;
    std::uint32_t ditherBitDepth() const;

    bool setQuality(std::uint32_t quality, KROErrorPtr* error = nullptr);
    bool setBitrate(std::uint32_t bitrate, KROErrorPtr* error = nullptr);
    bool setDitherType(std::uint32_t ditherType, KROErrorPtr* error = nullptr);
    // Writes the dither type ('dith'), not the depth ('dbit'), so that
    // ditherBitDepth does not follow: kept as it always was.
    bool setDitherBitDepth(std::uint32_t ditherBitDepth, KROErrorPtr* error = nullptr);

    // The compression cookie; a failure is shown by alert() and gives none.
    std::optional<KROData> magicCookie() const;
    // Empty data succeeds and does nothing.
    bool setMagicCookie(const KROData& cookie, KROErrorPtr* error = nullptr);

    // The pull function of convertToAudioBufferUsingCallback and its pointer.
    void setCallback(AudioConverterComplexInputDataProc callback, void* userData);

    // convertBuffer with the same list twice.
    bool convertBufferInPlace(KROBufferList& list, KROErrorPtr* error = nullptr);
    // False with no error stored when the buffer counts differ; else each pair
    // of buffers by convertInputInBytes with the lists' lengths.
    bool convertBuffer(const KROBufferList& source, KROBufferList& destination,
                       KROErrorPtr* error = nullptr);
    // Floats: convertInputInBytes on the same memory, frames * 4 bytes.
    bool convertInPlace(float* data, std::uint64_t frames, KROErrorPtr* error = nullptr);
    bool convertInputInFrames(const float* input, std::uint64_t inFrames, float* output,
                              std::uint64_t outFrames, KROErrorPtr* error = nullptr);
    // A fixed ratio of bytes, no rate change; the bytes written are not told.
    bool convertInputInBytes(const void* input, std::uint64_t inBytes, void* output,
                             std::uint64_t outBytes, KROErrorPtr* error = nullptr);
    // The read path of the file handlers: the frame count is the destination's
    // frames, which the caller has set to what it read.
    bool convertInput(const void* input, std::uint64_t inBytes, KROAudioBufferList& destination,
                      KROErrorPtr* error = nullptr);
    // As convertInput, with the source's own list.
    bool convertBufferToAudioBuffer(const KROBufferList& source, KROAudioBufferList& destination,
                                    KROErrorPtr* error = nullptr);
    // The write path of the file handlers: packets written, 0 on failure.
    std::uint32_t convertAudioBuffer(const KROAudioBufferList& source, KROBufferList& destination,
                                     KROErrorPtr* error = nullptr);
    // Packets written, 0 on failure; fewer than the destination's frames means
    // the callback reached the end of its data.
    std::uint32_t convertToAudioBufferUsingCallback(KROAudioBufferList& destination,
                                                    KROErrorPtr* error = nullptr);

private:
    struct ConverterDeleter {
        void operator()(KROLinearPCMConverter* converter) const;
    };

    std::uint32_t wordProperty(AudioConverterPropertyID property) const;
    bool setWordProperty(AudioConverterPropertyID property, std::uint32_t value,
                         const char* actionKey, KROErrorPtr* error);
    std::shared_ptr<KROAudioStreamDescription>
    descriptionProperty(AudioConverterPropertyID property) const;

    std::unique_ptr<KROLinearPCMConverter, ConverterDeleter> converter_;
    mutable std::mutex lock_;
    AudioConverterComplexInputDataProc callback_ = nullptr;
    void* userData_ = nullptr;
};
